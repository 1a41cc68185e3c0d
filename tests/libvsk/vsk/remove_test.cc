// Client session removal over the real store, slot, interface table, counters and unit
// pool: removal twice, with and without the dynamic record, the last client of a shared
// underlying interface, units inside and outside the pool, the session that names no
// interface, leftovers traced, a lock holder outlasted; and the oracle: three processes
// create, update and remove at random, and the shared counts equal a recount.
#include <unistd.h>

#include <random>

#include "lock_holder.h"
#include "session_rows.h"
#include "support/attr_lists.h"
#include "support/recount.h"

namespace vsk::test {
namespace {

const vsk_create_options_t kCache{0, 1, {0, 0}};
constexpr char kFn[] = "vsk_remove_bundled_client_session";

uint32_t Total() { return vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL]; }

std::string DynRow(uint64_t id) {
  vsk_db_txn_t txn{};
  return vsk_db_dynamic_config_record_exists(&txn, &id, false) == 0 ? "present" : "absent";
}

class RemoveTest : public EngineTest {
 protected:
  // A session with its own dynamic record, naming `unit` there when given.
  static uint64_t Create(AttrList& attrs, bool cache, const std::string& unit = "") {
    DynList dyn{{"kelvo-a", "1"}};
    if (!unit.empty()) dyn.Add("kelvo-interface-unit", unit);
    uint64_t id = EngineTest::Create(attrs, cache, 2, &dyn);
    EXPECT_NE(id, 0u);
    return id;
  }
  static std::string PoolUnit() {
    uint32_t unit = 0;
    EXPECT_EQ(vsk_unit_allocate(&unit, 0), 0);
    return std::to_string(unit);
  }
};

TEST_F(RemoveTest, EverythingGoesAndASecondRemovalStillCountsTotal) {
  for (bool cache : {false, true}) {
    SCOPED_TRACE(cache);
    AttrList attrs{{VSK_SESSION_STATE, U32(1)}, {VSK_SESSION_IFL_TYPE, U32(2)},
                   {VSK_INTERFACE_NAME, Text("ge-1/1/1")},
                   {VSK_UNDERLYING_INTERFACE_NAME, Text("ae1")}};
    AttrList auth{{VSK_USER_NAME, "kim"}};
    const uint64_t id = Create(attrs, cache, PoolUnit());
    vsk_db_txn_t txn{};
    vsk_auth_info_t response{};
    response.attrs = auth.get();
    ASSERT_EQ(vsk_db_start_txn(&txn), 0);
    ASSERT_EQ(vsk_db_put_auth_response(&txn, &id, &response), 0);
    ASSERT_EQ(vsk_db_end_txn(&txn), 0);
    const SessionCounts before = ReadSharedCounts();
    ASSERT_EQ(before.units_in_use, 1u);

    ASSERT_EQ(vsk_remove_client_session(id), 0) << traces().Dump();
    EXPECT_EQ(LeftBehind(id, id), "");
    EXPECT_EQ(Drift(), "");
    EXPECT_EQ(ReadSharedCounts().units_in_use, 0u);
    // Published: a second removal finds nothing, returns 0, and the total goes down again.
    const uint32_t total = Total();
    vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL] = total + 1;  // room for the extra count
    EXPECT_EQ(vsk_remove_client_session(id), 0);
    EXPECT_EQ(Total(), total);
    EXPECT_EQ(traces().CountContaining("Failed to remove client session"), 0);
  }
}

TEST_F(RemoveTest, DynamicRecordAndUnitGoOnlyWhenAsked) {
  struct Case {
    uint8_t remove_dynamic;
    std::string unit;  // "pool": drawn from the pool
    const char* dynamic_after;
    uint32_t units_after;
    const char* trace;  // "" for none about the unit
  } cases[] = {
      {0, "pool", "present", 1, ""},
      {1, "pool", "absent", 0, ""},
      {1, "1000", "absent", 0, ""},  // outside the pool: left alone, silently
      {1, "x", "absent", 0, ""},     // no digits parse as 0: outside the pool
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.unit + " " + std::to_string(c.remove_dynamic));
    traces().Clear();
    const uint32_t in_use = ReadSharedCounts().units_in_use;
    AttrList attrs{{VSK_INTERFACE_NAME, Text("ge-2/0/0")}};
    const uint64_t id = Create(attrs, false, c.unit == "pool" ? PoolUnit() : c.unit);
    ASSERT_EQ(vsk_remove_bundled_client_session(id, c.remove_dynamic), 0);
    EXPECT_EQ(DynRow(id), c.dynamic_after);
    EXPECT_EQ(ReadSharedCounts().units_in_use - in_use, c.units_after);
    EXPECT_EQ(traces().CountContaining("unit number"), 0) << traces().Dump();
    EXPECT_EQ(LeftBehind(id, 0), "");
  }
}

// Two bundled clients on one shared underlying interface share the first one's dynamic
// record: the second-last removal keeps it, the last one takes it and its unit.
TEST_F(RemoveTest, LastClientOfASharedUnderlyingInterfaceTakesTheDynamicRecord) {
  const std::string unit = PoolUnit();
  AttrList first{{VSK_AGGREGATED, U32(2)}, {VSK_UNDERLYING_INTERFACE_NAME, Text("ae7")}};
  const uint64_t a = Create(first, false, unit);
  AttrList second{{VSK_AGGREGATED, U32(2)}, {VSK_UNDERLYING_INTERFACE_NAME, Text("ae7")}};
  vsk_session_id_t b = 0;
  ASSERT_EQ(vsk_create_bundled_client_session(2, second.get(), nullptr, nullptr, &b, a, nullptr),
            0);
  uint32_t n = 0;
  ASSERT_EQ(vsk_db_get_num_clients_on_uifl("ae7", &n), 0);
  ASSERT_EQ(n, 2u);

  EXPECT_EQ(vsk_remove_client_session(a), 0);
  EXPECT_EQ(DynRow(a), "present") << "the other client still uses it";
  EXPECT_EQ(ReadSharedCounts().units_in_use, 1u);
  EXPECT_EQ(vsk_remove_client_session(b), 0);
  EXPECT_EQ(DynRow(a), "absent");
  EXPECT_EQ(ReadSharedCounts().units_in_use, 0u);
  EXPECT_EQ(vsk_db_get_num_clients_on_uifl("ae7", &n), VSK_ERR_NOT_FOUND);
}

TEST_F(RemoveTest, NoInterfaceNameOrNoDynamicRecordStillRemovesAll) {
  AttrList attrs{{VSK_SESSION_STATE, U32(3)}, {VSK_USER_NAME, "lou"}};
  const uint64_t id = Create(attrs, true);
  ASSERT_TRUE(vsk_is_session_in_shm(id, shm_));
  // Published: removed completely, and still -7.
  EXPECT_EQ(vsk_remove_client_session(id), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(LeftBehind(id, id), "");
  EXPECT_EQ(Drift(), "");

  // A session without a dynamic record: traced, and the removal goes on.
  AttrList bare{{VSK_INTERFACE_NAME, Text("ge-5/0/0")}};
  const uint64_t plain = EngineTest::Create(bare, false);
  EXPECT_EQ(vsk_remove_client_session(plain), 0);
  EXPECT_EQ(traces().Count("Dynamic record not found when removing client session " +
                           std::to_string(plain)),
            1);
  EXPECT_EQ(LeftBehind(plain, plain), "");
  EXPECT_EQ(Drift(), "");
}

TEST_F(RemoveTest, LeftoversAreTracedAndPrivateDataGoes) {
  AttrList attrs{{VSK_INTERFACE_NAME, Text("ge-3/0/0")}};
  const uint64_t id = Create(attrs, false);
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  std::string blob = "left";
  vsk_app_data_t data{};
  data.length = 4;
  data.data = blob.data();
  uint64_t services[2] = {77, 78};
  ASSERT_EQ(vsk_db_start_txn(&txn), 0);
  ASSERT_EQ(vsk_db_get_client_session(&txn, &id, &rec, true), 0);
  rec->service_count = 2;
  rec->service_ids = services;
  rec->free_service_ids = 0;
  ASSERT_EQ(vsk_db_put_client_session(&txn, &id, rec), 0);
  vsk_app_pri_key_t key{id, 4};
  ASSERT_EQ(vsk_db_put_app_pri_data(&txn, &key, &data), 0);
  ASSERT_EQ(vsk_db_end_txn(&txn), 0);
  vsk_db_release_client_session(rec, true);

  ASSERT_EQ(vsk_remove_client_session(id), 0);
  const std::string sid = std::to_string(id);
  EXPECT_EQ(traces().Count(std::string(kFn) + ": Private data for client session " + sid +
                           " app 4 found during session delete"),
            1);
  EXPECT_EQ(traces().Count("Service sessions for client session " + sid +
                           " found during session delete: 77 78"),
            1);
  EXPECT_EQ(LeftBehind(id, id), "");
  EXPECT_EQ(Drift(), "");
}

// ---- real processes -------------------------------------------------------------------

using RemoveSystemTest = SessionSystemTest;

// The holder keeps the record past twelve failed passes, more than an update would wait;
// the removal outlasts it and reports the iteration count.
TEST_F(RemoveSystemTest, RemovalOutlastsALongerLockHolder) {
  ASSERT_TRUE(StartSystem());
  ChildResult made = AsClientDaemon([] {
    AttrList attrs{{VSK_INTERFACE_NAME, Text("ge-4/0/0")}, {VSK_SESSION_STATE, U32(2)}};
    vsk_session_id_t id;
    return vsk_create_client_session(2, attrs.get(), nullptr, nullptr, &id) == 0 && id == 1 ? 0
                                                                                             : 1;
  });
  ASSERT_TRUE(made.Ok()) << made;
  ChildResult removed = WhileRecordHeld(1, "DB_LOCK_", 12, [] {
    if (vsk_remove_client_session(1) != 0) return 1;
    if (g_seen < 12) return 2;
    if (GlobalTraces().CountContaining("INFO: VSK remove client session id 1 took ") != 1)
      return 3;
    return LeftBehind(1, 1).empty() ? 0 : 4;
  });
  EXPECT_TRUE(removed.Ok()) << removed;
  EXPECT_EQ(vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL], 0u);
}

// Three client daemons run a random mix on sessions of their own, cached and not, over
// shared interface names. Cached sessions get counted attributes changed only together
// with a state change, which flushes them (removal reads the table row). At the end the
// recount from the tables equals every shared count, and removed sessions left nothing.
TEST_F(RemoveSystemTest, RandomMixOfThreeProcessesMatchesARecount) {
  constexpr int kWorkers = 3, kSteps = 1500;
  ASSERT_TRUE(StartSystem());
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 100;
    std::mt19937 rng(1234 + k);
    auto pick = [&](int n) { return static_cast<int>(rng() % n); };
    struct Live {
      uint64_t id;
      bool cached, named;
      uint32_t state;
    };
    std::vector<Live> live;
    std::vector<uint64_t> removed;
    int step = 0;
    auto fail = [&](int code, vsk_status_t st) {
      return std::fprintf(stderr, "worker %d step %d: status %d\n", k, step, st), code;
    };
    for (; step < kSteps; ++step) {
      const int what = live.size() < 5 ? 0 : pick(10);
      if (what < 3) {  // create
        const bool cache = pick(2) == 0, named = pick(3) != 0;
        const uint32_t state = static_cast<uint32_t>(pick(2));
        AttrList attrs{{VSK_SESSION_STATE, U32(state)}, {VSK_SESSION_IFL_TYPE, U32(pick(4))}};
        if (named) attrs.Add(VSK_INTERFACE_NAME, Text(("ge-0/0/" + std::to_string(pick(6))).c_str()));
        if (pick(3) == 0) attrs.Add(VSK_UNDERLYING_INTERFACE_NAME, Text(("ae" + std::to_string(pick(3))).c_str()));
        DynList dyn{{"kelvo-a", "1"}};
        if (pick(2) == 0) {
          uint32_t unit = 0;
          if (vsk_unit_allocate(&unit, 0) != 0) return fail(1, 0);
          dyn.Add("kelvo-interface-unit", std::to_string(unit));
        }
        vsk_session_ids_t ids{};
        vsk_status_t st = vsk_create_extended_client_session(
            1u << pick(3), attrs.get(), nullptr, dyn.get(), &ids, cache ? &kCache : nullptr, nullptr);
        if (st != 0) return fail(2, st);
        live.push_back({ids.session_id, vsk_is_session_in_shm(ids.session_id,
                                                              vsk_snap_get_shared_memory_ptr()),
                        named, state});
      } else if (what < 8) {  // update
        Live& s = live[pick(static_cast<int>(live.size()))];
        s.cached = vsk_is_session_in_shm(s.id, vsk_snap_get_shared_memory_ptr());
        UpdateList u, info;
        const bool counted = !s.cached || pick(2) == 0;
        if (counted) {
          // A cached session always changes its state, so that the flush carries the rest;
          // states 2 and 3 take it out of the cache.
          uint32_t state = static_cast<uint32_t>(pick(7));
          if (s.cached && state == s.state) state = (state + 1) % 7;
          u.Replace(VSK_SESSION_STATE, U32(state));
          s.state = state;
          if (pick(2) == 0) u.Replace(VSK_SESSION_IFL_TYPE, U32(pick(4)));
          if (!s.named && pick(3) == 0) {
            u.Add(VSK_INTERFACE_NAME, VSK_ATTR_ACTION_ADD_OR_APPEND,
                  Text(("ge-0/0/" + std::to_string(pick(6))).c_str()));
            s.named = true;
          }
          if (pick(3) == 0) {
            std::string mask(2, '\0');
            mask[pick(2)] = static_cast<char>(1 << pick(8));
            info.Add(VSK_INFO_ATTR, pick(2) == 0 ? VSK_ATTR_ACTION_SET_BITS
                                                 : VSK_ATTR_ACTION_CLEAR_BITS, mask);
          }
        } else {
          u.Replace(VSK_USER_NAME, "u" + std::to_string(step));
        }
        std::string blob = "p" + std::to_string(step);
        vsk_app_data_t data{static_cast<uint32_t>(blob.size()), blob.data(), {}, nullptr};
        vsk_status_t st;
        if (info.get()->first != nullptr) {
          st = vsk_update_client_session_and_info(s.id, u.get(), info.get());
        } else if (pick(4) == 0) {
          st = vsk_update_client_session_private(s.id, u.get(), static_cast<uint32_t>(pick(10)), &data);
        } else {
          st = vsk_update_client_session(s.id, u.get());
        }
        if (st != 0) return fail(3, st);
      } else {  // remove
        const size_t at = static_cast<size_t>(pick(static_cast<int>(live.size())));
        vsk_status_t st = vsk_remove_client_session(live[at].id);
        if (st != 0 && !(st == VSK_ERR_NOT_FOUND && !live[at].named)) return fail(4, st);
        removed.push_back(live[at].id);
        live.erase(live.begin() + static_cast<long>(at));
      }
    }
    vsk_close_internal();
    return WriteNumbers(ResultFile(k), removed) ? 0 : 5;
  }));
  std::vector<uint64_t> removed;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint64_t id : ReadNumbers<uint64_t>(ResultFile(k))) removed.push_back(id);
  }
  ASSERT_GT(removed.size(), 100u);
  ChildResult check = AsClientDaemon([&removed] {
    SessionCounts tables = RecountFromTables();
    if (tables.sessions.size() < 100) return 1;
    std::string drift = CountDifferences(tables, ReadSharedCounts());
    if (!drift.empty()) {
      std::fprintf(stderr, "%s", drift.c_str());
      return 2;
    }
    for (uint64_t id : removed) {
      std::string left = LeftBehind(id, id);
      if (!left.empty()) {
        std::fprintf(stderr, "session %llu: %s\n", static_cast<unsigned long long>(id),
                     left.c_str());
        return 3;
      }
    }
    return 0;
  });
  EXPECT_TRUE(check.Ok()) << check;
}

}  // namespace
}  // namespace vsk::test
