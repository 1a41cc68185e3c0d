// Client session creation over the real store, shared segments and interface table: what a
// cached and an uncached session leave in the tables and the slot, read by another
// process; the list splicing; the cache's limits seen through create; concurrent creators
// against a recount; and the failure paths (the gate refusing, a lock held by a second
// process, a commit that fails after a good pass), with what each leaves behind.
#include <db.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <thread>

#include "libvsk/shared/intf_file.h"
#include "libvsk/vsk/create_internal.h"
#include "platform/logging.h"
#include "session_fixture.h"
#include "support/attr_lists.h"

namespace vsk::test {
namespace {

constexpr char kFn[] = "vsk_create_extended_client_session";
const vsk_create_options_t kCache{0, 1, {0, 0}};

// Committed rows, each read in a transaction of its own. "st<n>" when the read failed.
std::string ClientValue(uint64_t id, uint16_t type, uint64_t* dynamic_id = nullptr) {
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_client_session(&txn, &id, &rec, false);
  std::string out = st == 0 ? ValueOf(rec->attrs, type) : "st" + std::to_string(st);
  if (st == 0 && dynamic_id != nullptr) *dynamic_id = rec->dynamic_id;
  vsk_db_release_client_session(rec, true);
  return out;
}
std::string DynamicRow(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_dynamic_config_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_dynamic_config(&txn, &id, &rec, false);
  std::string out = st == 0 ? "" : "st" + std::to_string(st);
  for (vsk_dyn_attr_t* a = st == 0 ? rec->attrs->first : nullptr; a != nullptr; a = a->next) {
    out += std::string(a->name) + "=" + std::string(static_cast<char*>(a->value), a->length) + ";";
  }
  vsk_db_release_dynamic_config(rec, true);
  return out;
}
std::string AuthRequestRow(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_auth_info_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_auth_request(&txn, &id, &rec, false);
  std::string out = st == 0 ? ValueOf(rec->attrs, VSK_USER_NAME) : "st" + std::to_string(st);
  vsk_db_release_auth_info(rec, true);
  return out;
}

// ifl_count of an interface record, read under the table's own lock; -1 when absent.
int IflCount(const char* name) {
  using namespace vsk::shared::intf;
  if (Begin() != VSK_OK) return -2;
  char key[VSK_INTF_NAME_SIZE] = {};
  std::strncpy(key, name, sizeof key - 1);
  uint32_t at = SHGenAVLTreeFindData(&Header()->interfaces, key);
  int n = at != 0 ? vsk::shared::intf::At<InterfaceRecord>(at)->ifl_count : -1;
  Finish(VSK_OK);
  return n;
}

// The test process is `orvd` with everything up.
class CreateTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(UpAsOrvd(&link_), 0) << traces().Dump();
    shm_ = vsk_snap_get_shared_memory_ptr();
    traces().Clear();
  }
  void TearDown() override {
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
    VskTest::TearDown();
  }
  vsk_status_t Create(AttrList& attrs, vsk_session_ids_t* ids, bool cache,
                      vsk_attr_list_t* auth = nullptr) {
    return vsk_create_extended_client_session(2, attrs.get(), auth, nullptr, ids,
                                              cache ? &kCache : nullptr, nullptr);
  }
  orvd_ctx link_{};
  void* shm_ = nullptr;
};

TEST_F(CreateTest, SplicedNodesGoInAndExactlyTwoComeOff) {
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_create_client_session(4, nullptr, nullptr, nullptr, &id), 0);
  EXPECT_EQ(ClientValue(id, VSK_CLIENT_SESSION_TYPE), U32(4));
  const char* text = nullptr;
  uint32_t seconds = 0;
  vsk_get_login_time(&seconds, &text);
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S*)"))) << text;
  EXPECT_LT(seconds, 86400u);
  EXPECT_EQ(ClientValue(id, VSK_LOGIN_TIME).size(), std::strlen(text) + 1);
  EXPECT_EQ(DynamicRow(id), "st-7");

  AttrList attrs{{VSK_USER_NAME, "dora"}};
  DynList own_dyn{{"kelvo-a", "orig"}};
  vsk_attr_t* own_first = attrs.get()->first;
  ASSERT_EQ(vsk_create_client_session(1, attrs.get(), nullptr, own_dyn.get(), &id), 0);
  EXPECT_EQ(attrs.get()->first, own_first);
  EXPECT_EQ(attrs.get()->last, &own_first->next);
  // Three go on with inheritance; two come off, and the client-type node stays (published).
  AttrList inherit{{VSK_USER_NAME, ""}};
  vsk_session_id_t bundled = 0;
  ASSERT_EQ(vsk_create_bundled_client_session(1, attrs.get(), nullptr, nullptr, &bundled, id,
                                              inherit.get()),
            0);
  ASSERT_NE(attrs.get()->first, own_first);
  EXPECT_EQ(attrs.get()->first->type, VSK_CLIENT_SESSION_TYPE);
  EXPECT_EQ(attrs.get()->first->next, own_first);
  uint64_t dynamic_id = 0;
  EXPECT_EQ(ClientValue(bundled, VSK_UNDERLYING_SESSION_ID, &dynamic_id),
            std::string(reinterpret_cast<char*>(&id), 8));
  EXPECT_EQ(dynamic_id, id) << "the underlying session's dynamic record is shared";
  EXPECT_EQ(DynamicRow(bundled), "st-7");
  // A bundled create must not overwrite the shared dynamic record (not built yet: -6).
  DynList dyn{{"kelvo-a", "1"}};
  EXPECT_EQ(
      vsk_create_bundled_client_session(1, nullptr, nullptr, dyn.get(), &bundled, id, nullptr), -6);
  EXPECT_EQ(DynamicRow(id), "kelvo-a=orig;");
}

TEST_F(CreateTest, InterfaceTableAndCountersFollowTheAttributes) {
  struct Case {
    std::vector<std::pair<uint16_t, std::string>> attrs;
    int ifl_count;  // of "ge-1/0/0.1" afterwards
    int uifl;       // clients on "ae9"
  };
  const std::string ifl = Text("ge-1/0/0.1"), uifl = Text("ae9");
  std::vector<Case> cases = {
      {{{VSK_INTERFACE_NAME, ifl}, {VSK_SESSION_STATE, U32(3)}, {VSK_SESSION_IFL_TYPE, U32(2)}},
       1,
       -7},
      {{{VSK_INTERFACE_NAME, ifl}, {VSK_PROFILE_NAME, "prof"}}, 1, -7},
      {{{VSK_UNDERLYING_INTERFACE_NAME, uifl}, {VSK_INTERFACE_NAME, ifl}}, 2, 1},
  };
  for (auto& c : cases) {
    AttrList attrs;
    for (auto& [t, v] : c.attrs) attrs.Add(t, v);
    vsk_session_ids_t ids{};
    ASSERT_EQ(Create(attrs, &ids, false), 0);
    EXPECT_EQ(IflCount("ge-1/0/0.1"), c.ifl_count);
    uint32_t n = 0;
    EXPECT_EQ(vsk_db_get_num_clients_on_uifl("ae9", &n) == 0 ? static_cast<int>(n) : -7, c.uifl);
  }
  uint32_t state = 0;
  ASSERT_EQ(vsk_db_interface_get_state("ge-1/0/0.1", &state), 0);
  EXPECT_EQ(state, 2u);
  uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
  ASSERT_EQ(vsk_get_summary_counters(counters), 0);
  EXPECT_EQ(counters[0], 3u);
  EXPECT_EQ(counters[4], 1u) << "state 3";
  EXPECT_EQ(counters[26], 1u) << "interface type 2";
  EXPECT_EQ(counters[10], 3u) << "client type 2 (bit 1)";
}

TEST_F(CreateTest, CacheLimitsLeaveTheSessionInTheTablesOnly) {
  const size_t login = std::strlen(vsk::session::LoginTime(nullptr)) + 1;
  // Spliced first: login time, client type; then the value that fills the area exactly.
  const uint32_t free = 276 + 1 + ((login + 2) >> 1) + 4;
  const uint32_t exact = 2 * (800 - 2 - free) - 1;
  for (uint32_t length : {exact, exact + 1}) {
    AttrList attrs{{VSK_USER_NAME, std::string(length, 'v')}};
    vsk_session_ids_t ids{};
    ASSERT_EQ(Create(attrs, &ids, true), 0);
    EXPECT_EQ(vsk_is_session_in_shm(ids.session_id, shm_), length == exact) << length;
    EXPECT_EQ(ClientValue(ids.session_id, VSK_USER_NAME).size(), length);
  }
  EXPECT_EQ(traces().CountContaining(" too big for buffer "), 1);
  EXPECT_EQ(std::memcmp(static_cast<char*>(shm_) + 3000, "\0\0\0\0\0\0\0\0", 8), 0)
      << "the slot's id is cleared";

  // An auth request too big for its block: the slot goes, and the request with it.
  AttrList attrs{{VSK_USER_NAME, "eve"}};
  AttrList auth{{VSK_USER_NAME, std::string(250, 'a')},
                {VSK_AGENT_CIRCUIT_ID, std::string(250, 'c')}};
  vsk_session_ids_t ids{};
  ASSERT_EQ(Create(attrs, &ids, true, auth.get()), 0);
  EXPECT_FALSE(vsk_is_session_in_shm(ids.session_id, shm_));
  EXPECT_TRUE(traces().Contains(std::string(kFn) + " auth_req_resp too big for buffer " +
                                std::to_string(ids.session_id)));
  EXPECT_EQ(AuthRequestRow(ids.session_id), "st-7");

  // Ids 1 and 1501 share a slot: the second stays uncached, the first keeps it.
  ASSERT_TRUE(vsk_is_session_in_shm(1, shm_));
  vsk_id_update(1500);
  AttrList other{{VSK_USER_NAME, "other"}};
  ASSERT_EQ(Create(other, &ids, true), 0);
  EXPECT_EQ(ids.session_id, 1501u);
  EXPECT_EQ(ids.shm_offset, 0);
  EXPECT_FALSE(vsk_is_session_in_shm(1501, shm_));
  EXPECT_TRUE(vsk_is_session_in_shm(1, shm_));
  EXPECT_TRUE(traces().Contains("vsk_create_session_data_in_shm busy 1501"));
  EXPECT_EQ(ClientValue(1501, VSK_USER_NAME), "other");
  // An attribute type the cache cannot hold: created, not cached, and said so.
  AttrList odd{{0, "zero"}};
  ASSERT_EQ(Create(odd, &ids, true), 0);
  EXPECT_FALSE(vsk_is_session_in_shm(ids.session_id, shm_));
  EXPECT_EQ(ClientValue(ids.session_id, 0), "zero");
  EXPECT_EQ(traces().CountContaining("assertion 'attr_type >= VSK_TYPE_MIN' failed"), 1);
}

// The slot of a cached session is current, the table row is what create wrote; the flush
// puts all that the slot holds, in the caller's transaction.
TEST_F(CreateTest, FlushWritesTheSlotToTheTables) {
  AttrList attrs{{VSK_USER_NAME, "gil"}};
  AttrList auth{{VSK_USER_NAME, "gil-auth"}};
  DynList dyn{{"kelvo-a", "1"}};
  vsk_session_ids_t ids{};
  ASSERT_EQ(vsk_create_extended_client_session(2, attrs.get(), auth.get(), dyn.get(), &ids, &kCache,
                                               nullptr),
            0);
  const uint64_t id = ids.session_id;
  UpdateList update;
  update.Replace(VSK_USER_NAME, "gil-2");
  ASSERT_EQ(vsk_update_session_data_in_shm(id, update.get(), nullptr), 0);
  ASSERT_EQ(vsk_put_dynamic_data_in_shm("kelvo-b", 2, "22", 0, id), 0);
  EXPECT_EQ(ClientValue(id, VSK_USER_NAME), "gil");
  EXPECT_EQ(AuthRequestRow(id), "st-7");
  vsk_db_txn_t txn{};
  ASSERT_EQ(vsk_db_start_txn(&txn), 0);
  ASSERT_EQ(vsk_write_shm_session_to_db(id, id, nullptr, shm_, &txn), 0);
  ASSERT_EQ(vsk_db_end_txn(&txn), 0);
  vsk_clear_session_in_shm(id, shm_);
  EXPECT_EQ(ClientValue(id, VSK_USER_NAME), "gil-2");
  EXPECT_EQ(ClientValue(id, VSK_CLIENT_SESSION_TYPE), U32(2));
  EXPECT_EQ(DynamicRow(id), "kelvo-a=1;kelvo-b=22;");
  EXPECT_EQ(AuthRequestRow(id), "gil-auth");
  EXPECT_EQ(vsk_write_shm_session_to_db(id, id, nullptr, shm_, &txn), VSK_ERR_NOT_FOUND)
      << "a slot given up has nothing to write";
}

TEST_F(CreateTest, BadInputIsRefusedBeforeAnythingIsTouched) {
  const vsk_session_id_t last = vsk_id_get_last();
  EXPECT_EQ(
      vsk_create_extended_client_session(1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
      -6);
  EXPECT_TRUE(traces().Contains(std::string(kFn) +
                                ": Creating client session without provide enough parameters"));
  EXPECT_EQ(vsk_create_client_session(1, nullptr, nullptr, nullptr, nullptr), -6);
  vsk_attr_t hollow{VSK_USER_NAME, 5, nullptr, nullptr};
  vsk_attr_list_t list{&hollow, &hollow.next};
  vsk_session_id_t id = 0;
  EXPECT_EQ(vsk_create_client_session(1, &list, nullptr, nullptr, &id), -6);
  EXPECT_EQ(vsk_create_client_session(1, nullptr, &list, nullptr, &id), -6);
  vsk_dyn_attr_t nameless{};
  vsk_dyn_attr_list_t dyn{&nameless, &nameless.next};
  EXPECT_EQ(vsk_create_client_session(1, nullptr, nullptr, &dyn, &id), -6);
  EXPECT_EQ(vsk_id_get_last(), last) << "no id was used up";
  EXPECT_EQ(list.first, &hollow);
}

// Trace hook that panics the environment when the cache skips a value.
void PanicAtSkippedValue(void*, int, const char* format, ...) {
  if (std::strcmp(format, "%s need semaphore for %llu flag") != 0) return;
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  env->set_flags(env, DB_PANIC_ENVIRONMENT, 1);
}

// A commit that fails after a good pass: Berkeley DB's own panic, raised from inside the
// pass once the slot is filled (at the cache's trace for a skipped neighbouring value),
// fails the commit. The call returns the failure; the interface table and counters have
// changed all the same, and the slot stays taken by a session that has no record.
// The panic reaches every process of the environment, so the test process stays out of it.
using CreateFaultTest = VskTest;

TEST_F(CreateFaultTest, CommitFailureStillCountsTheSessionAndKeepsItsSlot) {
  ChildResult r = RunInChild([] {
    orvd_ctx link{};
    if (UpAsOrvd(&link) != VSK_OK) return 1;
    vsk_set_trace_cbk(PanicAtSkippedValue);
    AttrList attrs{
        {VSK_USER_NAME, "a"}, {VSK_USER_NAME, "b"}, {VSK_INTERFACE_NAME, Text("xe-0/0/0")}};
    vsk_session_ids_t ids{};
    vsk_status_t st = vsk_create_extended_client_session(2, attrs.get(), nullptr, nullptr, &ids,
                                                         &kCache, nullptr);
    if (st != VSK_ERR_RECOVERING) return 10 + (st < 0 ? -st : st);
    uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
    if (vsk_get_summary_counters(counters) != 0 || counters[0] != 1) return 2;
    if (IflCount("xe-0/0/0") != 1) return 3;
    return vsk_is_session_in_shm(ids.session_id, vsk_snap_get_shared_memory_ptr()) ? 0 : 4;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(CreateTest, ClosedGateTouchesNothing) {
  ChildResult r = RunInChild([] {
    vsk_db_reset_orvd_handle();  // as before registration; the store is not touched
    GlobalTraces().Clear();
    const vsk_session_id_t last = vsk_id_get_last();
    vsk_session_id_t id = 0;
    if (vsk_create_client_session(1, nullptr, nullptr, nullptr, &id) != -1) return 1;
    if (!GlobalTraces().Contains("orvd_register should be called before using vsk")) return 2;
    return vsk_id_get_last() == last ? 0 : 3;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(CreateTest, LoginTimeInsistsOnAClockOfOne) {
  static std::string logged;
  auto old = platform::SetLoggingSink([](int, const char* format, va_list args) {
    char line[256];
    std::vsnprintf(line, sizeof line, format, args);
    logged = line;
  });
  auto clock = vsk::session::SetClockForTest([](time_t* t) { return *t = 1; });
  const char* text = nullptr;
  vsk_get_login_time(nullptr, &text);
  vsk::session::SetClockForTest(clock);
  platform::SetLoggingSink(old);
  EXPECT_NE(logged.find("insist 'time(&current_time) != 1' failed"), std::string::npos) << logged;
  EXPECT_EQ(std::string(text).substr(0, 10), "1970-01-01");
}

// ---- several processes ---------------------------------------------------------------------

using CreateSystemTest = SessionSystemTest;

TEST_F(CreateSystemTest, SessionsCreatedInOneProcessAreReadInAnother) {
  ASSERT_TRUE(StartOrvd());
  ASSERT_TRUE(Observe());
  vsk_id_update(4);
  ChildResult writer = AsClientDaemon([] {
    AttrList attrs{{VSK_USER_NAME, "carol"}, {VSK_SESSION_STATE, U32(1)}};
    AttrList auth{{VSK_USER_NAME, "carol-auth"}};
    DynList dyn{{"kelvo-a", "1"}, {"kelvo-b", "22"}};
    vsk_session_ids_t cached{}, plain{};
    if (vsk_create_extended_client_session(2, attrs.get(), auth.get(), dyn.get(), &cached, &kCache,
                                           nullptr) != 0)
      return 1;
    if (vsk_create_extended_client_session(2, attrs.get(), auth.get(), dyn.get(), &plain, nullptr,
                                           nullptr) != 0)
      return 2;
    return cached.session_id == 5 && plain.session_id == 6 && cached.shm_offset == 6000 ? 0 : 3;
  });
  ASSERT_TRUE(writer.Ok()) << writer;
  ChildResult reader = AsClientDaemon([] {
    void* shm = vsk_snap_get_shared_memory_ptr();
    if (!vsk_is_session_in_shm(5, shm) || vsk_is_session_in_shm(6, shm)) return 1;
    vsk_client_session_t* rec = nullptr;
    vsk_dynamic_config_t* dyn = nullptr;
    vsk_auth_info_t* auth = nullptr;
    vsk_db_client_session_empty(&rec), vsk_db_dynamic_config_empty(&dyn),
        vsk_db_auth_info_empty(&auth);
    if (vsk_shm_to_session_record(nullptr, shm, rec, 5) != 0 || rec->dynamic_id != 5) return 2;
    if (ValueOf(rec->attrs, VSK_USER_NAME) != "carol" ||
        ValueOf(rec->attrs, VSK_CLIENT_SESSION_TYPE) != U32(2))
      return 3;
    if (vsk_shm_to_dynamic_record(dyn, shm, 5, nullptr) != 0 ||
        dyn->attrs->first->next->length != 2)
      return 4;
    if (vsk_shm_to_auth_record(auth, shm, 5, true) != 0 ||
        ValueOf(auth->attrs, VSK_USER_NAME) != "carol-auth")
      return 5;
    vsk_db_release_client_session(rec, false), vsk_db_release_dynamic_config(dyn, false),
        vsk_db_release_auth_info(auth, false);
    // The tables: both records and dynamic rows; the request only for the uncached one.
    if (ClientValue(5, VSK_USER_NAME) != "carol" || ClientValue(6, VSK_USER_NAME) != "carol")
      return 6;
    if (DynamicRow(5) != "kelvo-a=1;kelvo-b=22;" || DynamicRow(6) != DynamicRow(5)) return 7;
    if (AuthRequestRow(5) != "st-7" || AuthRequestRow(6) != "carol-auth") return 8;
    return 0;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
  // The slot as this process sees it: login time first, then the client type.
  const uint8_t* slot = static_cast<uint8_t*>(vsk_snap_get_shared_memory_ptr()) + 4 * 3000;
  uint16_t login_at, type_at, login_length;
  std::memcpy(&login_at, slot + 26 + 2 * VSK_LOGIN_TIME, 2);
  std::memcpy(&type_at, slot + 26 + 2 * VSK_CLIENT_SESSION_TYPE, 2);
  std::memcpy(&login_length, slot + 552, 2);
  EXPECT_EQ(login_at, 276);
  EXPECT_EQ(type_at, 276 + 1 + ((login_length + 2) >> 1));
}

TEST_F(CreateSystemTest, ConcurrentCreatorsMatchARecountFromTheTables) {
  constexpr int kWorkers = 4, kEach = 2000;
  ASSERT_TRUE(StartOrvd());
  ASSERT_TRUE(Observe());
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    orvd_ctx link{};
    if (UpAsClient(&link) != 0) return 100;
    std::vector<uint64_t> ids;
    for (int i = 0; i < kEach; ++i) {
      AttrList attrs{{VSK_SESSION_STATE, U32(i % 7)},
                     {VSK_SESSION_IFL_TYPE, U32(i % 4)},
                     {VSK_INTERFACE_NAME, Text(("ge-0/0/" + std::to_string(i % 25)).c_str())}};
      if (i % 3 == 0)
        attrs.Add(VSK_UNDERLYING_INTERFACE_NAME, Text(("ae" + std::to_string(i % 5)).c_str()));
      vsk_session_ids_t id{};
      if (vsk_create_extended_client_session(1u << (i % 3), attrs.get(), nullptr, nullptr, &id,
                                             i % 2 == 0 ? &kCache : nullptr, nullptr) != 0)
        return 1;
      ids.push_back(id.session_id);
    }
    vsk_close_internal();
    return WriteNumbers(ResultFile(k), ids) ? 0 : 2;
  }));
  std::set<uint64_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint64_t id : ReadNumbers<uint64_t>(ResultFile(k))) all.insert(id);
  }
  ASSERT_EQ(all.size(), size_t{kWorkers * kEach}) << "ids are unique";
  uint32_t shared[VSK_SUMMARY_COUNTER_SLOTS];
  ASSERT_EQ(vsk_get_summary_counters(shared), 0);
  ChildResult check = AsClientDaemon([&shared] {
    uint32_t counted[VSK_SUMMARY_COUNTER_SLOTS] = {};
    std::map<std::string, int> ifl;
    std::map<std::string, std::vector<uint64_t>> uifl;
    vsk_db_txn_t walk{};
    uint64_t current = 0, next = 0;
    vsk_status_t st;
    for (;;) {
      vsk_session_key_t *key = nullptr, *ahead = nullptr;
      vsk_client_session_t* rec = nullptr;
      st = vsk_db_iterate_client_session(&walk, current, next, 0, false, &key, &ahead, &rec,
                                         nullptr, 0);
      if (st != 0) break;
      current = key->id, next = ahead != nullptr ? ahead->id : 0;
      auto u32 = [&](uint16_t t) {
        uint32_t v;
        std::memcpy(&v, ValueOf(rec->attrs, t).data(), 4);
        return v;
      };
      vsk_summary_counter_increment_state(u32(VSK_SESSION_STATE), counted);
      vsk_summary_counter_increment_ifl_type(u32(VSK_SESSION_IFL_TYPE), counted);
      vsk_summary_counter_increment_type(u32(VSK_CLIENT_SESSION_TYPE), counted);
      vsk_summary_counter_increment_total(counted);
      ++ifl[ValueOf(rec->attrs, VSK_INTERFACE_NAME).c_str()];
      std::string u = ValueOf(rec->attrs, VSK_UNDERLYING_INTERFACE_NAME);
      if (u != "<absent>") uifl[u.c_str()].push_back(current);
      vsk_db_release_key_session_id(key, true), vsk_db_release_key_session_id(ahead, true);
      vsk_db_release_client_session(rec, true);
    }
    if (st != -7 || counted[0] != kWorkers * kEach) return 1;
    if (std::memcmp(counted, shared, sizeof counted) != 0) return 2;
    for (auto& [name, n] : ifl) {
      if (IflCount(name.c_str()) != n) return 3;
    }
    for (auto& [name, ids] : uifl) {
      uint32_t n = 0;
      vsk_session_id_t* got = nullptr;
      if (vsk_db_get_clients_by_uifl(name.c_str(), &n, &got) != 0) return 4;
      bool same = std::vector<uint64_t>(got, got + n) == ids;
      std::free(got);
      if (!same) return 5;
    }
    return ifl.size() == 25 && uifl.size() == 5 ? 0 : 6;
  });
  EXPECT_TRUE(check.Ok()) << check;
}

// A second process holds the dynamic table's page in an open transaction: each pass of the
// create times out on it (-4), four passes in all, then the create gives up. What is left:
// the id used up, no record, nothing counted, and no slot (the passes never reached it).
TEST_F(CreateSystemTest, LockHeldByAnotherProcessEndsAfterFourPasses) {
  ASSERT_TRUE(StartOrvd());
  ASSERT_TRUE(Observe());
  Child holder;
  holder.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    if (UpAsClient(&link) != 0) return 1;
    vsk_db_txn_t txn{};
    vsk_dynamic_config_t rec{};
    uint64_t key = 999999;
    if (vsk_db_start_txn(&txn) != 0 || vsk_db_put_dynamic_config(&txn, &key, &rec) != 0) return 2;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    std::atomic<bool> stop{false};
    std::thread detector([&] {  // timeouts are only seen when the detector runs
      while (!stop) {
        env->lock_detect(env, 0, DB_LOCK_EXPIRE, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
    ch.Ready();
    ch.WaitGo();
    stop = true;
    detector.join();
    vsk_db_abort_txn(&txn, 0);
    vsk_close_internal();
    return 0;
  });
  ASSERT_TRUE(holder.WaitReady());
  const vsk_session_id_t before = vsk_id_get_last();
  ChildResult blocked = AsClientDaemon([before] {
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    env->set_timeout(env, 100000, DB_SET_LOCK_TIMEOUT);  // the environment's, 0.1 s
    env->set_timeout(env, 100000, DB_SET_TXN_TIMEOUT);
    AttrList attrs{{VSK_USER_NAME, "fay"}};
    DynList dyn{{"kelvo-a", "1"}};
    vsk_session_ids_t ids{};
    vsk_status_t st = vsk_create_extended_client_session(2, attrs.get(), nullptr, dyn.get(), &ids,
                                                         &kCache, nullptr);
    if (st != VSK_ERR_RETRY || ids.session_id != before + 1) return 1;
    if (GlobalTraces().CountContaining("DB_LOCK_") != 4) return 2;
    if (!GlobalTraces().Contains(std::string(kFn) +
                                 ": Failed to create client session, err=" + vsk_get_err_msg(-4)))
      return 3;
    if (ClientValue(ids.session_id, VSK_USER_NAME) != "st-7") return 4;
    return vsk_is_session_in_shm(ids.session_id, vsk_snap_get_shared_memory_ptr()) ? 5 : 0;
  });
  EXPECT_TRUE(blocked.Ok()) << blocked;
  holder.Go();
  EXPECT_TRUE(holder.Wait().Ok());
  EXPECT_EQ(vsk_summary_counter[0], 0u) << "nothing counted";
  ChildResult after = AsClientDaemon([before] {
    vsk_session_id_t id = 0;
    DynList dyn{{"kelvo-a", "1"}};
    return vsk_create_client_session(2, nullptr, nullptr, dyn.get(), &id) == 0 && id == before + 2
               ? 0
               : 1;
  });
  EXPECT_TRUE(after.Ok()) << after;
}

}  // namespace
}  // namespace vsk::test
