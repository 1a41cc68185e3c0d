// Client session update over the real store, cache slot, interface table and counters:
// the cached path (no Berkeley DB work while the state stays, one flush per state change,
// the slot given up on 2 and 3, the auth response on 1), the table path (edit, sorted
// rewrite, interface and counter differences), private data, bad input with the record
// unchanged, and the deadlock retries against a second process holding the record.
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <thread>

#include "session_fixture.h"
#include "lock_holder.h"
#include "session_rows.h"
#include "support/attr_lists.h"
#include "support/recount.h"

namespace vsk::test {
namespace {

constexpr char kFn[] = "vsk_update_client_session_internal";

uint32_t Counter(uint32_t slot) {
  uint32_t c[VSK_SUMMARY_COUNTER_SLOTS];
  return vsk_get_summary_counters(c) == 0 ? c[slot] : ~0u;
}
uint32_t StateCount(int32_t s) { return Counter(vsk_session_state_to_summary_counter(s)); }

class UpdateTest : public EngineTest {
 protected:
  uint64_t Create(AttrList& attrs, bool cache, uint32_t type = 2) {
    uint64_t id = EngineTest::Create(attrs, cache, type);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(vsk_is_session_in_shm(id, shm_), cache);
    return id;
  }
};

TEST_F(UpdateTest, CachedSessionChangesInTheSlotUntilItsStateChanges) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}, {VSK_SESSION_IFL_TYPE, U32(1)},
                 {VSK_USER_NAME, "amy"}};
  const uint64_t id = Create(attrs, true);
  const long begins = TxnBegins();
  ASSERT_GE(begins, 0);

  UpdateList rename;
  rename.Replace(VSK_USER_NAME, "bea").Replace(VSK_SESSION_STATE, U32(1));
  ASSERT_EQ(vsk_update_client_session(id, rename.get()), 0);
  EXPECT_EQ(TxnBegins(), begins) << "same state: no Berkeley DB work";
  EXPECT_EQ(SlotValue(id, VSK_USER_NAME), "bea");
  EXPECT_EQ(Row(id, VSK_USER_NAME), "amy") << "the table is as old as the last flush";
  EXPECT_EQ(StateCount(1), 1u);

  // A state change flushes exactly once and keeps the slot for any state but 2 and 3.
  UpdateList to4;
  to4.Replace(VSK_SESSION_STATE, U32(4)).Replace(VSK_SESSION_IFL_TYPE, U32(2));
  ASSERT_EQ(vsk_update_client_session(id, to4.get()), 0);
  EXPECT_EQ(TxnBegins(), begins + 1);
  EXPECT_TRUE(vsk_is_session_in_shm(id, shm_));
  EXPECT_EQ(Row(id, VSK_USER_NAME), "bea");
  EXPECT_EQ(Row(id, VSK_SESSION_IFL_TYPE), U32(2));
  EXPECT_EQ(StateCount(1), 0u);
  EXPECT_EQ(StateCount(4), 1u);
  EXPECT_EQ(Drift(), "");

  UpdateList to2;
  to2.Replace(VSK_SESSION_STATE, U32(2));
  ASSERT_EQ(vsk_update_client_session(id, to2.get()), 0);
  EXPECT_EQ(TxnBegins(), begins + 2);
  EXPECT_FALSE(vsk_is_session_in_shm(id, shm_)) << "an active session leaves the cache";
  EXPECT_EQ(Row(id, VSK_SESSION_STATE), U32(2));
  EXPECT_EQ(Drift(), "");

  // From now on the table path: one transaction per update.
  UpdateList stale;
  stale.Add(VSK_SESSION_STATE, VSK_ATTR_ACTION_ADD_OR_REPLACE, U32(1), U32(3));
  ASSERT_EQ(vsk_update_client_session(id, stale.get()), VSK_ERR_ATTR_MISMATCH)
      << "the table path checks the old value of a replace: state 1 is gone";
  UpdateList plain;
  plain.Replace(VSK_USER_NAME, "cid");
  ASSERT_EQ(vsk_update_client_session(id, plain.get()), 0);
  EXPECT_EQ(Row(id, VSK_USER_NAME), "cid");
  EXPECT_EQ(traces().Count(std::string(kFn) + ": Failed to update client session " +
                           std::to_string(id) + ", err=" + vsk_get_err_msg(-9)),
            1);
}

// What a state change does to the slot and the auth response, by the new state.
TEST_F(UpdateTest, NewStateDecidesSlotAndAuthResponse) {
  struct Case {
    uint32_t state;
    bool cached_after;
    std::string response;
  } cases[] = {{1, true, "resp"}, {2, false, "st-7"}, {3, false, "st-7"}, {6, true, "st-7"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.state);
    AttrList attrs{{VSK_SESSION_STATE, U32(0)}};
    const uint64_t id = Create(attrs, true);
    AttrList response{{VSK_USER_NAME, "resp"}};
    ASSERT_EQ(vsk_create_auth_req_resp_in_shm(response.get(), shm_, id, false), 0);
    const long begins = TxnBegins();
    UpdateList u;
    u.Replace(VSK_SESSION_STATE, U32(c.state));
    ASSERT_EQ(vsk_update_client_session(id, u.get()), 0);
    EXPECT_EQ(TxnBegins(), begins + 1);
    EXPECT_EQ(vsk_is_session_in_shm(id, shm_), c.cached_after);
    EXPECT_EQ(AuthResponseRow(id), c.response);
    EXPECT_EQ(Row(id, VSK_SESSION_STATE), U32(c.state));
  }
  EXPECT_EQ(Drift(), "");
}

TEST_F(UpdateTest, TablePathRewritesSortedAndFollowsTheDifference) {
  AttrList attrs{{VSK_USER_NAME, "dan"}, {VSK_SESSION_STATE, U32(1)},
                 {VSK_SESSION_IFL_TYPE, U32(3)}};
  const uint64_t id = Create(attrs, false);
  UpdateList first;
  first.Replace(VSK_SESSION_STATE, U32(5))
      .Add(VSK_INTERFACE_NAME, VSK_ATTR_ACTION_ADD_OR_APPEND, Text("ge-0/0/1"))
      .Add(VSK_SESSION_IFL_TYPE, VSK_ATTR_ACTION_DELETE, U32(3));
  uint32_t client_type = 0;
  char name[61];
  std::memset(name, 'x', sizeof name);
  vsk_session_ids_t ids{};
  ids.session_id = id;
  ASSERT_EQ(vsk_update_client_session_internal(ids, shm_, first.get(), nullptr, 0, nullptr,
                                               nullptr, &client_type, name),
            0);
  EXPECT_EQ(client_type, 2u);
  EXPECT_STREQ(name, "ge-0/0/1");
  std::string types = RowTypes(id);
  EXPECT_EQ(types, "15,17,19,36,37") << "sorted by type, the ifl type gone";
  uint32_t state = 0;
  ASSERT_EQ(vsk_db_interface_get_state("ge-0/0/1", &state), 0);
  EXPECT_EQ(state, 5u) << "a client of type 2 gives the interface its state";
  EXPECT_EQ(StateCount(5), 1u);
  EXPECT_EQ(Counter(vsk_session_ifl_type_to_summary_counter(3)), 0u);
  EXPECT_EQ(Drift(), "");

  // A later name makes no entry; the state then goes to the new name, which has none.
  UpdateList rename;
  rename.Replace(VSK_INTERFACE_NAME, Text("ge-0/0/2")).Replace(VSK_SESSION_STATE, U32(6));
  ASSERT_EQ(vsk_update_client_session(id, rename.get()), 0);
  EXPECT_EQ(vsk_db_interface_get_state("ge-0/0/2", &state), VSK_ERR_NOT_FOUND);
  ASSERT_EQ(vsk_db_interface_get_state("ge-0/0/1", &state), 0);
  EXPECT_EQ(state, 5u);
  int seen = 0;
  for (const auto& line : traces().Lines()) {
    if (line.text != "Failed to set interface state ifname ge-0/0/2, ret = 0") continue;
    EXPECT_EQ(line.level, VSK_TRACE_LEVEL_ERROR);
    ++seen;
  }
  EXPECT_EQ(seen, 1) << traces().Dump();

  // Another client type: a new entry gets state 2 and state changes leave it alone.
  AttrList other{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t id1 = Create(other, false, 1);
  UpdateList named;
  named.Add(VSK_INTERFACE_NAME, VSK_ATTR_ACTION_ADD_OR_APPEND, Text("ge-0/0/3"))
      .Replace(VSK_SESSION_STATE, U32(4));
  ASSERT_EQ(vsk_update_client_session(id1, named.get()), 0);
  ASSERT_EQ(vsk_db_interface_get_state("ge-0/0/3", &state), 0);
  EXPECT_EQ(state, 2u);
}

TEST_F(UpdateTest, ConfigBitsMoveCountersOnTheirFirstEightBytes) {
  AttrList attrs{{VSK_USER_NAME, "eve"}};
  const uint64_t id = Create(attrs, false);
  const uint32_t bit0 = vsk_session_config_bit_to_summary_counter(0);
  const uint32_t bit2 = vsk_session_config_bit_to_summary_counter(2);
  UpdateList info;
  info.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_ADD_OR_REPLACE,
           std::string("\x05\0\0\0\0\0\0\0\0\0", 10));
  ASSERT_EQ(vsk_update_client_session_and_info(id, nullptr, info.get()), 0);
  std::string bits;
  EXPECT_EQ(RowTypes(id, &bits), "15,17,37");
  EXPECT_EQ(bits, std::string("\x05\0\0\0\0\0\0\0\0\0", 10));
  EXPECT_EQ(Counter(bit0), 1u);
  EXPECT_EQ(Counter(bit2), 1u);

  uint32_t before[VSK_SUMMARY_COUNTER_SLOTS], after[VSK_SUMMARY_COUNTER_SLOTS];
  ASSERT_EQ(vsk_get_summary_counters(before), 0);
  UpdateList ninth;  // a bit in byte 9: past what the counters look at
  ninth.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_SET_BITS, std::string("\0\0\0\0\0\0\0\0\x01\0", 10));
  ASSERT_EQ(vsk_update_client_session_and_info(id, nullptr, ninth.get()), 0);
  ASSERT_EQ(vsk_get_summary_counters(after), 0);
  EXPECT_EQ(std::memcmp(before, after, sizeof before), 0);
  RowTypes(id, &bits);
  EXPECT_EQ(bits[8], 1);

  UpdateList clear;
  clear.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_CLEAR_BITS, std::string("\x01\0\0\0\0\0\0\0\0\0", 10));
  ASSERT_EQ(vsk_update_client_session_and_info(id, nullptr, clear.get()), 0);
  EXPECT_EQ(Counter(bit0), 0u);
  EXPECT_EQ(Counter(bit2), 1u);
  EXPECT_EQ(Drift(), "");
}

// Each bad call returns its status and leaves the stored record byte for byte as it was.
TEST_F(UpdateTest, BadInputIsRefusedAndTheRecordStays) {
  AttrList attrs{{VSK_USER_NAME, "fin"}, {VSK_SESSION_STATE, U32(1)}};
  const uint64_t id = Create(attrs, false);
  UpdateList bits;
  bits.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_ADD_OR_REPLACE, std::string("\x01\x02", 2));
  ASSERT_EQ(vsk_update_client_session_and_info(id, nullptr, bits.get()), 0);
  std::string stored_bits;
  const std::string stored = RowTypes(id, &stored_bits) + "|" + Row(id, VSK_USER_NAME);

  struct Case {
    const char* name;
    std::function<void(UpdateList&, UpdateList&)> build;
    uint64_t id_offset;
    vsk_status_t status;
    const char* trace;  // part of a trace line that must be there
  };
  const std::vector<Case> cases = {
      {"unknown id", [](UpdateList& u, UpdateList&) { u.Replace(VSK_USER_NAME, "x"); }, 1000,
       VSK_ERR_NOT_FOUND, ": Failed to read client session "},
      {"wrong old value",
       [](UpdateList& u, UpdateList&) {
         u.Replace(VSK_USER_NAME, "x").Add(VSK_SESSION_STATE, VSK_ATTR_ACTION_ADD_OR_REPLACE,
                                           U32(7), U32(2));
       },
       0, VSK_ERR_ATTR_MISMATCH, "Failed to update client session in patricia tree -9"},
      {"replace without new value",
       [](UpdateList& u, UpdateList&) {
         u.Add(VSK_SESSION_STATE, VSK_ATTR_ACTION_ADD_OR_REPLACE, U32(1));
       },
       0, VSK_ERR_INVALID_PARAM, "Replacing attribute without providing old or new value"},
      {"unknown action",
       [](UpdateList& u, UpdateList&) { u.Add(VSK_USER_NAME, 9, "x"); }, 0,
       VSK_ERR_INVALID_PARAM, "unknown  action type 9"},
      {"type out of range",
       [](UpdateList& u, UpdateList&) { u.Add(200, VSK_ATTR_ACTION_ADD_OR_APPEND, "x"); }, 0,
       VSK_ERR_INVALID_PARAM, "bad type or a length without value"},
      {"config bits of another type",
       [](UpdateList&, UpdateList& i) {
         i.Add(VSK_USER_NAME, VSK_ATTR_ACTION_SET_BITS, std::string("\x01\x00", 2));
       },
       0, VSK_ERR_INVALID_PARAM, "vsk_update_info_section"},
      {"config bits of another length",
       [](UpdateList&, UpdateList& i) {
         i.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_ADD_OR_REPLACE, std::string("\x01\x00\x00", 3));
       },
       0, VSK_ERR_INVALID_PARAM, "Length must be the same for info_attrs 3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    traces().Clear();
    UpdateList updates, info;
    c.build(updates, info);
    const bool with_info = info.get()->first != nullptr;
    const long begins = TxnBegins();
    EXPECT_EQ(vsk_update_client_session_and_info(id + c.id_offset, updates.get(),
                                                 with_info ? info.get() : nullptr),
              c.status);
    EXPECT_GT(traces().CountContaining(c.trace), 0) << traces().Dump();
    EXPECT_LE(TxnBegins(), begins + 1) << "bad input is not retried";
    std::string now_bits;
    EXPECT_EQ(RowTypes(id, &now_bits) + "|" + Row(id, VSK_USER_NAME), stored);
    EXPECT_EQ(now_bits, stored_bits);
  }
  // A null value behind a length is refused before anything is read.
  vsk_attr_update_t bad{};
  bad.type = VSK_USER_NAME;
  bad.length = 4;
  vsk_attr_update_list_t list{&bad, &bad.next};
  EXPECT_EQ(vsk_update_client_session(id, &list), VSK_ERR_INVALID_PARAM);
  // Null lists: nothing to change, the record is written back as it was.
  EXPECT_EQ(vsk_update_client_session_and_info(id, nullptr, nullptr), 0);
  EXPECT_EQ(RowTypes(id) + "|" + Row(id, VSK_USER_NAME), stored);
  EXPECT_EQ(Drift(), "");
}

TEST_F(UpdateTest, PrivateDataGoesWithTheUpdateOrNotAtAll) {
  std::string blob = "opaque-private";
  vsk_app_data_t data{};
  data.length = static_cast<uint32_t>(blob.size());
  data.data = blob.data();
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}, {VSK_USER_NAME, "gil"}};
  const uint64_t cached = Create(attrs, true);
  const long begins = TxnBegins();
  // Published: with no updates the private block is dropped on a cached session.
  EXPECT_EQ(vsk_update_client_session_private(cached, nullptr, 3, &data), 0);
  EXPECT_EQ(TxnBegins(), begins);
  EXPECT_EQ(PrivateRow(cached, 3), "st-7");
  UpdateList keep;
  keep.Replace(VSK_USER_NAME, "hal");
  EXPECT_EQ(vsk_update_client_session_private(cached, keep.get(), 3, &data), 0);
  EXPECT_EQ(TxnBegins(), begins + 1) << "updates with private data flush once";
  EXPECT_EQ(PrivateRow(cached, 3), blob);
  EXPECT_EQ(Row(cached, VSK_USER_NAME), "hal");
  EXPECT_TRUE(vsk_is_session_in_shm(cached, shm_));

  AttrList plain{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t table = Create(plain, false);
  EXPECT_EQ(vsk_update_client_session_private(table, nullptr, 9, &data), 0);
  EXPECT_EQ(PrivateRow(table, 9), blob);
  vsk_app_data_t hollow{};
  hollow.length = 3;
  EXPECT_EQ(vsk_update_client_session_private(table, nullptr, 9, &hollow), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(PrivateRow(table, 9), blob);
}

// ---- a second process holding the record's write lock ------------------------------------

using UpdateSystemTest = SessionSystemTest;

TEST_F(UpdateSystemTest, UpdateRetriesUntilTheLockGoesOrGivesUpAfterTenPasses) {
  ASSERT_TRUE(StartSystem());
  ChildResult made = AsClientDaemon([] {
    AttrList attrs{{VSK_USER_NAME, "jo"}, {VSK_SESSION_STATE, U32(1)}};
    vsk_session_id_t id;
    return vsk_create_client_session(2, attrs.get(), nullptr, nullptr, &id) == 0 && id == 1 ? 0
                                                                                             : 1;
  });
  ASSERT_TRUE(made.Ok()) << made;

  // Held for good: ten passes, then -4; the record unchanged.
  ChildResult blocked = WhileRecordHeld(1, nullptr, 0, [] {
    UpdateList u;
    u.Replace(VSK_SESSION_STATE, U32(2));
    if (vsk_update_client_session(1, u.get()) != VSK_ERR_RETRY) return 1;
    if (GlobalTraces().CountContaining(": Failed to read client session 1, err=") != 10) return 2;
    return GlobalTraces().Count(std::string(kFn) + ": Failed to update client session 1, err=" +
                                vsk_get_err_msg(-4)) == 1
               ? 0
               : 3;
  });
  EXPECT_TRUE(blocked.Ok()) << blocked;
  EXPECT_EQ(StateCount(1), 1u);

  // Let go after the second failed pass: the update then succeeds.
  ChildResult retried = WhileRecordHeld(1, ": Failed to read client session 1", 2, [] {
    UpdateList u;
    u.Replace(VSK_SESSION_STATE, U32(2));
    if (vsk_update_client_session(1, u.get()) != 0) return 1;
    int failed = GlobalTraces().CountContaining(": Failed to read client session 1");
    if (failed != 2) return 2;  // the holder had let go before the third pass
    return Row(1, VSK_SESSION_STATE) == U32(2) ? 0 : 3;
  });
  EXPECT_TRUE(retried.Ok()) << retried;
  EXPECT_EQ(StateCount(1), 0u);
  EXPECT_EQ(StateCount(2), 1u);
}

}  // namespace
}  // namespace vsk::test
