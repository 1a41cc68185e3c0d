// The recovery walk and the rebuild of the shared state over the real store, segments,
// interface table and unit pool: a restart of a real orvd after every process was killed
// gives back every count, and no unit is handed out twice; the walk's ends and portions;
// the per-session step's odd cases; the debug log.
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "session_fixture.h"
#include "session_rows.h"
#include "snapshot_rows.h"
#include "support/attr_lists.h"
#include "support/orvd_process.h"
#include "support/recount.h"

namespace vsk::test {
namespace {

const vsk_create_options_t kCache{0, 1, {0, 0}};
constexpr uint32_t kUnitBase = 0x40000000u;

std::set<uint32_t> FreeUnits() {
  std::set<uint32_t> out;
  const auto* pool = static_cast<const uint32_t*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL0_OFFSET));
  if (pool == nullptr) return out;
  const uint32_t max = pool[0];
  const auto* entries = reinterpret_cast<const int32_t*>(pool + 3);
  for (int32_t i = static_cast<int32_t>(pool[1]); i >= 0 && out.size() <= max; i = entries[i]) {
    out.insert(static_cast<uint32_t>(i));
  }
  return out;
}

// The interface units named by stored sessions, by a recovery walk.
std::set<uint32_t>* g_units = nullptr;
int CollectUnit(vsk_snapshot_handle* h) {
  vsk_attr_value_t* v = nullptr;
  vsk_dyn_attr_list_t* all = nullptr;
  if (vsk_get_all_dynamic_config_attrs(h, 0, &all) != 0) return 0;
  for (vsk_dyn_attr_t* a = all->first; a != nullptr; a = a->next) {
    if (std::strcmp(a->name, "kelvo-interface-unit") != 0) continue;
    if (vsk_get_dynamic_config_attr(h, 0, a->name, &v) == 0) {
      g_units->insert(static_cast<uint32_t>(vsk_unit_parse(static_cast<char*>(v->next->value))));
    }
    break;
  }
  return 0;
}
std::set<uint32_t> StoredUnits() {
  std::set<uint32_t> units;
  g_units = &units;
  vsk_snapshot_filter f{};
  f.flags = 3;
  vsk_recover_sessions(CollectUnit, &f);
  return units;
}

// A worker's random mix on sessions of its own: creates (half cached, flushed out of the
// cache by a state change before anything else happens to them), interface units drawn by
// reading "kelvo-interface-unit", counted attributes changed, removals.
int Load(int k, int steps) {
  std::mt19937 rng(77 + k);
  auto pick = [&](int n) { return static_cast<int>(rng() % n); };
  std::vector<uint64_t> live;
  void* shm = vsk_snap_get_shared_memory_ptr();
  for (int step = 0; step < steps; ++step) {
    const int what = live.size() < 4 ? 0 : pick(10);
    if (what < 4) {
      AttrList attrs{{VSK_SESSION_STATE, U32(pick(2))},
                     {VSK_SESSION_IFL_TYPE, U32(pick(4))},
                     {VSK_INTERFACE_NAME, Text("ge-0/0/" + std::to_string(pick(5)))}};
      if (pick(3) == 0)
        attrs.Add(VSK_UNDERLYING_INTERFACE_NAME, Text("ae" + std::to_string(pick(3))));
      DynList dyn{{"kelvo-a", "1"}};
      vsk_session_ids_t ids{};
      const bool cache = pick(2) == 0;
      CHILD_CHECK(vsk_create_extended_client_session(1u << pick(3), attrs.get(), nullptr, dyn.get(),
                                                     &ids, cache ? &kCache : nullptr,
                                                     nullptr) == 0);
      if (vsk_is_session_in_shm(ids.session_id, shm)) {
        UpdateList u;
        u.Replace(VSK_SESSION_STATE, U32(2));
        CHILD_CHECK(vsk_update_client_session(ids.session_id, u.get()) == 0);
      }
      live.push_back(ids.session_id);
    } else if (what < 6) {
      vsk_snapshot_handle h{};
      h.client_session_id = live[pick(static_cast<int>(live.size()))];
      CHILD_CHECK(vsk_get_snapshot(&h) == 0);
      vsk_attr_value_t* v = nullptr;
      CHILD_CHECK(vsk_get_dynamic_config_attr(&h, 0, "kelvo-interface-unit", &v) == 0);
      vsk_free_snapshot_handle(&h);
    } else if (what < 8) {
      UpdateList u;
      u.Replace(VSK_SESSION_STATE, U32(pick(4))).Replace(VSK_SESSION_IFL_TYPE, U32(pick(4)));
      CHILD_CHECK(vsk_update_client_session(live[pick(static_cast<int>(live.size()))], u.get()) ==
                  0);
    } else {
      const size_t at = static_cast<size_t>(pick(static_cast<int>(live.size())));
      CHILD_CHECK(vsk_remove_client_session(live[at]) == 0);
      live.erase(live.begin() + static_cast<long>(at));
    }
  }
  return 0;
}

using RecoverSystemTest = RealOrvdSessionTest;

// Three client daemons and orvd are killed after a mix of creates, updates, unit reads and
// removals; a new orvd rebuilds from the tables alone what they had built up live.
TEST_F(RecoverSystemTest, RestartAfterKillingEveryProcessRebuildsTheSameState) {
  constexpr int kWorkers = 3, kSteps = 300;
  ASSERT_TRUE(StartRealOrvd(true));
  Child workers[kWorkers];
  for (int k = 0; k < kWorkers; ++k) {
    workers[k].Start([k](Child::Channel& ch) {
      orvd_ctx link{};
      if (Up(&link, false) != 0) return 100;
      int rc = Load(k, kSteps);
      ch.Ready();
      ch.WaitGo();
      return rc;
    });
  }
  for (Child& w : workers) ASSERT_TRUE(w.WaitReady(std::chrono::seconds(120)));
  const SessionCounts before = ReadSharedCounts();
  const std::set<uint32_t> free_before = FreeUnits();
  ASSERT_GT(before.counters[VSK_SUMMARY_COUNTER_TOTAL], 10u);
  ASSERT_GT(before.units_in_use, 0u);
  ChildResult live = AsClientDaemon([] {
    std::string drift = CountDifferences(RecountFromTables(), ReadSharedCounts());
    if (!drift.empty()) std::fprintf(stderr, "live drift:\n%s", drift.c_str());
    return drift.empty() ? 0 : 1;
  });
  ASSERT_TRUE(live.Ok()) << live;

  for (Child& w : workers) w.Kill(SIGKILL);
  for (Child& w : workers) w.Wait();
  orvd_.Stop(SIGKILL);
  vsk_close_internal();
  ASSERT_TRUE(StartRealOrvd(true));

  const SessionCounts after = ReadSharedCounts();
  EXPECT_EQ(CountDifferences(before, after), "");
  for (int slot = 0; slot < VSK_SUMMARY_COUNTER_SLOTS; ++slot) {
    EXPECT_EQ(after.counters[slot], before.counters[slot]) << "slot " << slot;
  }
  EXPECT_EQ(FreeUnits(), free_before) << "the same units are free, whatever their order";
  ChildResult rebuilt = AsClientDaemon([] {
    SessionCounts tables = RecountFromTables();
    CHILD_CHECK(CountDifferences(tables, ReadSharedCounts()).empty());
    // The generator restarts behind the highest stored id: ids of sessions removed at the
    // end are not remembered, and none stored is handed out again.
    CHILD_CHECK(!tables.sessions.empty() && vsk_id_get_last() == *tables.sessions.rbegin());
    // Units drawn now are none of those the stored sessions hold.
    std::set<uint32_t> held = StoredUnits();
    CHILD_CHECK(!held.empty());
    const uint32_t highest = *held.rbegin() - kUnitBase;
    for (uint32_t i = 0; i <= highest + 8; ++i) {
      uint32_t unit = 0;
      CHILD_CHECK(vsk_unit_allocate(&unit, 0) == 0);
      CHILD_CHECK(held.count(unit) == 0);
    }
    return 0;
  });
  EXPECT_TRUE(rebuilt.Ok()) << rebuilt;
}

class RecoverTest : public OrvdInProcessTest {
 protected:
  void TearDown() override {
    OrvdInProcessTest::TearDown();
    vsk_debug = false;
  }
};

int g_calls = 0;
int Count(vsk_snapshot_handle*) { return ++g_calls; }

TEST_F(RecoverTest, EmptyStoreStartsAndFinishesWithNoEntry) {
  vsk_snapshot_filter f{};
  f.flags = 3;
  g_calls = 0;
  EXPECT_EQ(vsk_recover_sessions(Count, &f), 0);
  EXPECT_EQ(g_calls, 0);
  EXPECT_TRUE(traces().Contains("Recover Start"));
  EXPECT_TRUE(traces().Contains("Recover Finish, recovered 0 entries"));
  EXPECT_EQ(vsk_recover_sessions(Count, nullptr), VSK_ERR_INVALID_PARAM) << "never endless";
}

TEST_F(RecoverTest, PortionsOfOneThenMinusSevenThenDone) {
  AttrList a{{VSK_SESSION_STATE, U32(1)}};
  for (uint64_t id : {5, 6, 7}) ASSERT_EQ(PutSession({id, &a}), 0);
  vsk_snapshot_filter f{};
  f.flags = 1;
  vsk_snapshot_handle h{};
  g_calls = 0;
  for (int i = 1; i <= 3; ++i) {
    ASSERT_EQ(vsk_get_next_recover_sessions(Count, &f, &h, 1, 0), 0);
    EXPECT_EQ(g_calls, i);
  }
  EXPECT_EQ(vsk_get_next_recover_sessions(Count, &f, &h, 1, 0), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(g_calls, 3);
  EXPECT_EQ(vsk_get_next_recover_sessions(Count, &f, &h, 1, 1), 0);
  EXPECT_EQ(h.walk, nullptr);
  EXPECT_TRUE(traces().Contains("Recover Finish"));
}

TEST_F(RecoverTest, StandbyIsRefused) {
  vsk_db_set_master(false);
  vsk_snapshot_filter f{};
  f.flags = 1;
  EXPECT_EQ(vsk_recover_sessions(Count, &f), -1);
  EXPECT_TRUE(traces().Contains("Application tried to recover data on standby RE"));
  vsk_db_set_master(true);
}

// Sessions written straight to the tables, then the rebuild: each row's case, what it
// counts, and the unit it takes out of the pool.
TEST_F(RecoverTest, RebuildCountsEachSessionAsTheRulesSay) {
  AttrList no_state{{VSK_CLIENT_SESSION_TYPE, U32(2)}, {VSK_INTERFACE_NAME, Text("ge-1/0/0.1")}};
  AttrList no_type{{VSK_SESSION_STATE, U32(1)},
                   {VSK_INTERFACE_NAME, Text("ge-1/0/0.2")},
                   {VSK_UNDERLYING_INTERFACE_NAME, Text("ae0")}};
  AttrList typed{{VSK_SESSION_STATE, U32(3)},
                 {VSK_CLIENT_SESSION_TYPE, U32(2)},
                 {VSK_SESSION_IFL_TYPE, U32(1)},
                 {VSK_INTERFACE_NAME, Text("ge-1/0/0.3")}};
  AttrList svc{{VSK_SESSION_STATE, U32(1)}};
  DynList pool_unit{{"kelvo-interface-unit", Text(std::to_string(kUnitBase + 4))}};
  DynList low_unit{{"kelvo-interface-unit", Text("12")}};
  ASSERT_EQ(PutSession({10, &no_state, &low_unit}), 0);
  ASSERT_EQ(PutSession({11, &no_type, &pool_unit}), 0);
  ASSERT_EQ(PutSession({12, &typed, nullptr, {0x05}, {{40, &svc, nullptr, {0x02}}}}), 0);
  traces().Clear();
  ASSERT_EQ(vsk_db_secondary_recover(), 0);
  EXPECT_EQ(*vsk_db_status, VSK_DB_STATUS_READY);
  EXPECT_TRUE(traces().Contains("VSK DB recover, no VSK_SESSION_STATE"));
  EXPECT_TRUE(traces().Contains("VSK DB recover, could not find VSK_CLIENT_SESSION_TYPE"));
  EXPECT_TRUE(traces().Contains("Recover Finish, recovered 3 entries"));
  EXPECT_EQ(vsk_id_get_last(), 40u) << "service ids count too";
  uint32_t state = 0;
  ASSERT_EQ(vsk_db_interface_get_state("ge-1/0/0.1", &state), 0);
  EXPECT_EQ(state, 0u) << "type 2 takes the session's state, missing state is 0";
  ASSERT_EQ(vsk_db_interface_get_state("ge-1/0/0.2", &state), 0);
  EXPECT_EQ(state, 2u) << "no type: state 2";
  ASSERT_EQ(vsk_db_interface_get_state("ge-1/0/0.3", &state), 0);
  EXPECT_EQ(state, 3u);
  uint32_t n = 0;
  ASSERT_EQ(vsk_get_num_clients_on_uifl("ae0", &n), 0);
  EXPECT_EQ(n, 1u);
  uint32_t want[VSK_SUMMARY_COUNTER_SLOTS] = {};
  const uint8_t client_bits = 0x05, service_bits = 0x02;
  vsk_summary_counter_increment_state(0, want);  // session 10: no state reads as 0
  vsk_summary_counter_increment_type(2, want);
  vsk_summary_counter_increment_total(want);
  vsk_summary_counter_increment_state(1, want);  // session 11: no type, nothing for it
  vsk_summary_counter_increment_total(want);
  vsk_summary_counter_increment_state(3, want);  // session 12 and its service's bits
  vsk_summary_counter_increment_type(2, want);
  vsk_summary_counter_increment_ifl_type(1, want);
  vsk_summary_counter_increment_config_bits(&client_bits, 1, want);
  vsk_summary_counter_increment_total(want);
  vsk_summary_counter_increment_config_bits(&service_bits, 1, want);
  uint32_t got[VSK_SUMMARY_COUNTER_SLOTS];
  ASSERT_EQ(vsk_get_summary_counters(got), 0);
  for (int slot = 0; slot < VSK_SUMMARY_COUNTER_SLOTS; ++slot) {
    EXPECT_EQ(got[slot], want[slot]) << "slot " << slot;
  }
  // Unit 4 is held; "12" is not the pool's. The first draw is unit 0, then 1, 2, 3, 5.
  std::vector<uint32_t> drawn;
  for (int i = 0; i < 5; ++i) {
    uint32_t u = 0;
    ASSERT_EQ(vsk_unit_allocate(&u, 0), 0);
    drawn.push_back(u - kUnitBase);
  }
  EXPECT_EQ(drawn, (std::vector<uint32_t>{0, 1, 2, 3, 5}));
}

TEST_F(RecoverTest, DebugLogHasItsHeaderOneLinePerSessionAndItsEnd) {
  AttrList a{{VSK_SESSION_STATE, U32(2)}, {VSK_USER_IPV4_ADDRESS, U32(0x0100000a)}};
  AttrList s{{VSK_SESSION_STATE, U32(1)}};
  ASSERT_EQ(PutSession({21, &a, nullptr, {}, {{22, &s}}}), 0);
  vsk_debug = true;
  ASSERT_EQ(vsk_db_secondary_recover(), 0);
  std::ifstream in(Path("/var/log/vsk.recover"));
  std::stringstream text;
  text << in.rdbuf();
  std::string log = text.str();
  EXPECT_EQ(log.rfind("--== Recover start at ", 0), 0u) << log;
  EXPECT_NE(log.find("Id\tservice\tstate\tIP\n--\t-------\t-----\t--\n"), std::string::npos);
  EXPECT_NE(log.find("\n21\t1\t2\t1.0.0.10\n\tService id 22, State 1\n--== Recover completed at "),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace vsk::test
