// Service sessions over the real store, cache slot and summary counters: the limit of ten
// with nothing left of the eleventh, both sides of the link after create and removal, the
// cached client's slot beside its untouched row, the caller's list after every return, the
// stored name, all-or-nothing activation, config-bit counters and the published texts.
#include "vsk/service.h"

#include <db.h>

#include <vector>

#include "libvsk/base/fault.h"
#include "session_rows.h"
#include "support/attr_lists.h"

namespace vsk::test {
namespace {

constexpr char kCreateFn[] = "vsk_create_service_session_by_client_id";
constexpr char kUpdateFn[] = "vsk_update_service_session_internal";

uint32_t BitCount(int bit) {
  return vsk_summary_counter[vsk_session_config_bit_to_summary_counter(bit)];
}

// "n: a b c" of a client record; "null" stands for a null id array.
std::string ListOf(const vsk_client_session_t* rec) {
  std::string out = std::to_string(rec->service_count) + ":";
  if (rec->service_ids == nullptr) return out + " null";
  for (uint16_t i = 0; i < rec->service_count; ++i)
    out += " " + std::to_string(rec->service_ids[i]);
  return out;
}

std::string TableList(uint64_t client) {
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_client_session(&txn, &client, &rec, false);
  std::string out = st == 0 ? ListOf(rec) : "st" + std::to_string(st);
  vsk_db_release_client_session(rec, true);
  return out;
}

std::string SlotList(uint64_t client) {
  vsk_client_session_t* rec = nullptr;
  if (vsk_db_client_session_empty(&rec) != 0) return "no memory";
  vsk_status_t st =
      vsk_shm_to_session_record(nullptr, vsk_snap_get_shared_memory_ptr(), rec, client);
  std::string out = st == 0 ? ListOf(rec) : "st" + std::to_string(st);
  vsk_db_release_client_session(rec, false);
  return out;
}

// The service row: "client=<id> <type>=<value>" for the one type asked for, or "st<n>".
std::string ServiceRow(uint64_t id, uint16_t type, std::string* bits = nullptr) {
  vsk_db_txn_t txn{};
  vsk_service_session_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_service_session(&txn, &id, &rec, false, nullptr, 0);
  if (st != 0) return "st" + std::to_string(st);
  std::string out = "client=" + std::to_string(rec->client_id) + " " + ValueOf(rec->attrs, type);
  if (bits != nullptr)
    bits->assign(reinterpret_cast<char*>(rec->config_bits), rec->config_bits_len);
  vsk_db_release_service_session(rec, true);
  return out;
}

class ServiceTest : public EngineTest {
 protected:
  uint64_t Service(uint64_t client, const char* name, vsk_attr_list_t* attrs = nullptr,
                   vsk_dyn_attr_list_t* dyn = nullptr) {
    vsk_session_id_t id = 0;
    EXPECT_EQ(vsk_create_service_session_by_client_id(client, name, attrs, dyn, &id), 0)
        << traces().Dump();
    return id;
  }
};

// Ten services fill a client; the eleventh is refused with nothing of it stored. Removal
// keeps the other ids in order and the last one leaves no list. A cached client's list lives
// in its slot only: its row is never touched.
TEST_F(ServiceTest, TenAtMostAndRemovalKeepsTheOthersInOrder) {
  for (bool cache : {false, true}) {
    SCOPED_TRACE(cache);
    AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
    const uint64_t client = Create(attrs, cache);
    auto list = [&] { return cache ? SlotList(client) : TableList(client); };
    std::vector<uint64_t> ids;
    std::string expected = "10:";
    for (int i = 0; i < 10; ++i) {
      ids.push_back(Service(client, "svc"));
      expected += " " + std::to_string(ids.back());
    }
    EXPECT_EQ(list(), expected);
    EXPECT_EQ(TableList(client), cache ? "0: null" : expected);
    traces().Clear();
    vsk_session_id_t refused = 0;
    EXPECT_EQ(vsk_create_service_session_by_client_id(client, "svc", nullptr, nullptr, &refused),
              VSK_ERR_INVALID_PARAM);
    ASSERT_NE(refused, 0u);
    EXPECT_EQ(ServiceRow(refused, VSK_SERVICE_NAME), "st-7") << "the aborted put stays behind";
    // Published: no colon after the function name.
    EXPECT_EQ(traces().Count(std::string(kCreateFn) +
                             " Max num of services exceeded for client session " +
                             std::to_string(client)),
              1)
        << traces().Dump();
    EXPECT_EQ(list(), expected);

    ASSERT_EQ(vsk_remove_service_session(ids[1]), 0) << traces().Dump();
    std::string rest = "9:";
    for (uint64_t s : ids) rest += s == ids[1] ? "" : " " + std::to_string(s);
    EXPECT_EQ(list(), rest);
    for (size_t i = 0; i < ids.size(); ++i) {
      if (i != 1) {
        ASSERT_EQ(vsk_remove_service_session(ids[i]), 0);
      }
    }
    EXPECT_EQ(list(), "0: null");
    EXPECT_EQ(TableList(client), "0: null");
    for (uint64_t s : ids) EXPECT_EQ(ServiceRow(s, VSK_SERVICE_NAME), "st-7");
    EXPECT_EQ(vsk_remove_service_session(ids[0]), VSK_ERR_NOT_FOUND);
  }
}

// The name node goes on the head of the caller's list and is off again on every return:
// success, unknown client, eleventh service, and a list that was empty.
TEST_F(ServiceTest, NameNodeIsOffTheCallersListAfterEveryReturn) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t full = Create(attrs, false);
  for (int i = 0; i < 10; ++i) Service(full, "x");
  struct Case {
    uint64_t client;
    vsk_status_t status;
    bool empty_list;
  } cases[] = {{Create(attrs, false), 0, false},     {Create(attrs, false), 0, true},
               {999999, VSK_ERR_NOT_FOUND, false},   {999999, VSK_ERR_NOT_FOUND, true},
               {full, VSK_ERR_INVALID_PARAM, false}, {full, VSK_ERR_INVALID_PARAM, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.client) + (c.empty_list ? " empty" : " one node"));
    AttrList own;
    if (!c.empty_list) own.Add(VSK_USER_NAME, "kim");
    vsk_attr_t* first = own.get()->first;
    vsk_attr_t** last = own.get()->last;
    vsk_session_id_t id = 0;
    EXPECT_EQ(vsk_create_service_session_by_client_id(c.client, "svc", own.get(), nullptr, &id),
              c.status);
    EXPECT_EQ(own.get()->first, first);
    EXPECT_EQ(own.get()->last, c.empty_list ? &own.get()->first : last);
    if (c.status == 0) {
      EXPECT_EQ(ServiceRow(id, VSK_USER_NAME),
                "client=" + std::to_string(c.client) + (c.empty_list ? " <absent>" : " kim"));
    }
  }
  EXPECT_EQ(
      traces().CountContaining(std::string(kCreateFn) + ": Failed to read client session, err="),
      2);
  EXPECT_EQ(
      traces().CountContaining(std::string(kCreateFn) + ": Failed to create service session, err="),
      4);
}

TEST_F(ServiceTest, NameIsStoredWithItsNulAndMissingArgumentsAreRefused) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  const uint64_t id = Service(client, "video-hd");
  EXPECT_EQ(ServiceRow(id, VSK_SERVICE_NAME),
            "client=" + std::to_string(client) + " " + Text("video-hd"));
  traces().Clear();
  vsk_session_id_t out = 0;
  EXPECT_EQ(vsk_create_service_session_by_client_id(client, nullptr, nullptr, nullptr, &out),
            VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_create_service_session_by_client_id(client, "x", nullptr, nullptr, nullptr),
            VSK_ERR_INVALID_PARAM);
  // Published: "idwithout" without a blank.
  EXPECT_EQ(traces().Count(std::string(kCreateFn) + ": Creating service session by client session "
                                                    "idwithout providing enough parameters"),
            2);
  EXPECT_EQ(out, 0u);
  EXPECT_EQ(TableList(client), "1: " + std::to_string(id));
}

TEST_F(ServiceTest, ActivationChangesAllOrNone) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  AttrList pending{{VSK_SESSION_STATE, U32(5)}};
  const uint64_t a = Service(client, "a", pending.get());
  const uint64_t b = Service(client, "b");
  const std::string prefix = "client=" + std::to_string(client) + " ";
  const vsk_session_id_t with_unknown[] = {a, 424242, b};
  EXPECT_EQ(vsk_activate_service_sessions(with_unknown, 3), 0)
      << "published: the abort's result, not the failure";
  EXPECT_EQ(traces().Count("Failed to set list of service session active -7"), 1)
      << traces().Dump();
  EXPECT_EQ(traces().Count(std::string(kUpdateFn) + ": Failed to update service session -7"), 1);
  EXPECT_EQ(ServiceRow(a, VSK_SESSION_STATE), prefix + U32(5))
      << "rolled back with the outer transaction";
  EXPECT_EQ(ServiceRow(b, VSK_SESSION_STATE), prefix + "<absent>");

  const vsk_session_id_t both[] = {a, b};
  EXPECT_EQ(vsk_activate_service_sessions(both, 2), 0);
  EXPECT_EQ(ServiceRow(a, VSK_SESSION_STATE), prefix + U32(2));
  EXPECT_EQ(ServiceRow(b, VSK_SESSION_STATE), prefix + U32(2));
  EXPECT_EQ(vsk_activate_service_sessions(nullptr, 1), VSK_ERR_INVALID_PARAM);
}

// Create counts nothing; an update moves the counters only when the bits change; removal
// takes the bits back and leaves the dynamic record; leftover private data goes, traced.
TEST_F(ServiceTest, ConfigBitCountersFollowTheMaskAndRemovalKeepsTheDynamicRecord) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  DynList dyn{{"kelvo-svc", "1"}};
  const uint64_t id = Service(client, "svc", nullptr, dyn.get());
  EXPECT_EQ(BitCount(0) + BitCount(1) + BitCount(9), 0u);
  struct Step {
    uint32_t action;
    std::string mask;
    std::string stored;  // the record's bits afterwards
    uint32_t bit0, bit1, bit9;
  } steps[] = {
      {VSK_ATTR_ACTION_ADD_OR_REPLACE, std::string("\x01", 1), std::string("\x01", 1), 1, 0, 0},
      {VSK_ATTR_ACTION_ADD_OR_REPLACE, std::string("\x02", 1), std::string("\x01", 1), 1, 0,
       0},  // same length: stands
      {VSK_ATTR_ACTION_SET_BITS, std::string("\x02\x02", 2), std::string("\x03\x02", 2), 1, 1,
       1},  // grows the copy
      {VSK_ATTR_ACTION_SET_BITS, std::string("\x01", 1), std::string("\x03\x02", 2), 1, 1,
       1},  // same bits
      {VSK_ATTR_ACTION_CLEAR_BITS, std::string("\x01", 1), std::string("\x02\x02", 2), 0, 1, 1},
      {VSK_ATTR_ACTION_DELETE, "", "", 0, 0, 0},
      {VSK_ATTR_ACTION_SET_BITS, std::string("\x00\x02", 2), std::string("\x00\x02", 2), 0, 0, 1},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(std::to_string(s.action) + " " + std::to_string(s.mask.size()));
    UpdateList info;
    info.Add(VSK_INFO_ATTR, s.action, s.mask);
    ASSERT_EQ(vsk_update_service_session_and_info(id, nullptr, info.get()), 0) << traces().Dump();
    std::string bits;
    ServiceRow(id, VSK_SERVICE_NAME, &bits);
    EXPECT_EQ(bits, s.stored);
    EXPECT_EQ(BitCount(0), s.bit0);
    EXPECT_EQ(BitCount(1), s.bit1);
    EXPECT_EQ(BitCount(9), s.bit9);
  }
  EXPECT_EQ(Drift(), "");
  std::string blob = "left";
  vsk_app_data_t data{4, blob.data(), {}, nullptr};
  UpdateList rename;
  rename.Replace(VSK_USER_NAME, "lou");
  ASSERT_EQ(vsk_update_service_session_private(id, rename.get(), 3, &data), 0);
  EXPECT_EQ(ServiceRow(id, VSK_USER_NAME), "client=" + std::to_string(client) + " lou");
  EXPECT_EQ(PrivateRow(id, 3), "left");

  ASSERT_EQ(vsk_remove_service_session(id), 0);
  EXPECT_EQ(BitCount(9), 0u);
  EXPECT_EQ(Drift(), "");
  EXPECT_EQ(PrivateRow(id, 3), "st-7");
  EXPECT_EQ(traces().Count("vsk_remove_service_session: Private data for service session " +
                           std::to_string(id) + " app 3 found during session delete"),
            1);
  vsk_db_txn_t txn{};
  EXPECT_EQ(vsk_db_dynamic_config_record_exists(&txn, &id, false), 0) << "the dynamic record stays";
}

// Refused config-bit lists leave the record and the counters as they were, each with the
// service's own published words; an unknown service is -7.
TEST_F(ServiceTest, RefusedUpdatesChangeNothingAndUseTheServiceWords) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  const uint64_t id = Service(client, "svc");
  UpdateList set;
  set.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_SET_BITS, std::string("\x04", 1));
  ASSERT_EQ(vsk_update_service_session_and_info(id, nullptr, set.get()), 0);
  const std::string fn = kUpdateFn;
  const std::string bad = vsk_get_err_msg(VSK_ERR_INVALID_PARAM);
  struct Case {
    uint16_t type;
    uint32_t action;
    std::string mask;
    std::string trace;
  } cases[] = {
      {VSK_USER_NAME, VSK_ATTR_ACTION_SET_BITS, "x",
       fn + ": Failed to add config bits to session during update " +
           std::to_string(VSK_USER_NAME)},
      {VSK_INFO_ATTR, VSK_ATTR_ACTION_ADD_OR_REPLACE, "ab",
       fn + ": Length must be the same for info_attrs, err=" + bad},
      {VSK_INFO_ATTR, VSK_ATTR_ACTION_DELETE_ARRAY, "a",
       fn + ": Invalid action type for info_attrs, err=" + bad},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    traces().Clear();
    UpdateList info;
    info.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_SET_BITS, std::string("\x08", 1));  // applied first
    info.Add(c.type, c.action, c.mask);
    EXPECT_EQ(vsk_update_service_session_and_info(id, nullptr, info.get()), VSK_ERR_INVALID_PARAM);
    EXPECT_EQ(traces().Count(c.trace), 1) << traces().Dump();
    EXPECT_EQ(traces().Count(fn + ": Failed to update service session -6"), 1);
    std::string bits;
    ServiceRow(id, VSK_SERVICE_NAME, &bits);
    EXPECT_EQ(bits, std::string("\x04", 1));
    EXPECT_EQ(BitCount(2), 1u);
    EXPECT_EQ(BitCount(3), 0u);
  }
  traces().Clear();
  EXPECT_EQ(vsk_update_service_session(777777, set.get()), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(traces().Count(fn + ": Failed to read service session"), 1);
  // A deadlock at each pass's read: the fourth lost pass gives up.
  for (uint32_t deadlocks : {3u, 4u}) {
    traces().Clear();
    fault::Arm(fault::Kind::kDbGet, 1, DB_LOCK_DEADLOCK, deadlocks);
    EXPECT_EQ(vsk_update_service_session_and_info(id, nullptr, set.get()),
              deadlocks == 3 ? VSK_OK : VSK_ERR_RETRY);
    fault::DisarmAll();
    EXPECT_EQ(traces().Count(fn + ": Failed to read service session"), int(deadlocks));
  }
}

TEST_F(ServiceTest, ServiceMissingFromItsClientsListIsInconsistent) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  const uint64_t kept = Service(client, "a"), lost = Service(client, "b");
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  ASSERT_EQ(vsk_db_start_txn(&txn), 0);
  ASSERT_EQ(vsk_db_get_client_session(&txn, &client, &rec, true), 0);
  rec->service_count = 1;  // the second id drops off the client's side only
  ASSERT_EQ(vsk_db_put_client_session(&txn, &client, rec), 0);
  ASSERT_EQ(vsk_db_end_txn(&txn), 0);
  vsk_db_release_client_session(rec, true);

  EXPECT_EQ(vsk_remove_service_session(lost), VSK_ERR_CORRUPT);
  EXPECT_EQ(
      traces().Count(
          "vsk_remove_service_session: DB data is inconsistent, when remove service session " +
          std::to_string(lost) + " could not find service sid in client session record " +
          std::to_string(client)),
      1);
  EXPECT_EQ(ServiceRow(lost, VSK_SERVICE_NAME),
            "client=" + std::to_string(client) + " " + Text("b"));
  EXPECT_EQ(TableList(client), "1: " + std::to_string(kept));
}

}  // namespace
}  // namespace vsk::test
