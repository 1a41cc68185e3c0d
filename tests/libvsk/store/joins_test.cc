// The store's one-way joins with a real environment: side stores registered from above
// open behind the session tables and close before the environment, in slot order, and a
// failing one ends the open under the same rule as a table.
#include "libvsk/store/joins.h"

#include <db.h>

#include <string>
#include <vector>

#include "libvsk/store/view.h"
#include "store_helpers.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

using store::JoinSlot;
using store::StoreJoin;

// What the fake side stores saw; each test runs in a process of its own.
std::vector<std::string> g_seen;
int g_stats_result = 0;
int g_prov_close_result = 0;

vsk_status_t OpenStats(bool creator) {
  const store::View store;
  // The session tables are open, the environment is there, the store is not ready yet.
  g_seen.push_back(std::string("open stats ") + (creator ? "creator " : "joiner ") +
                   std::to_string(store.state()) + (store::Environment() != nullptr ? " env" : "") +
                   (store.client_session_db() != nullptr ? " tables" : ""));
  return g_stats_result;
}
vsk_status_t OpenProvisioning(bool) {
  g_seen.push_back("open provisioning");
  return 0;
}
vsk_status_t CloseStats() { return 0; }
vsk_status_t CloseProvisioning() { return g_prov_close_result; }

class StoreJoinTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    g_seen.clear();
    g_stats_result = 0;
    g_prov_close_result = 0;
    // The joins registered from above, put back after the test.
    for (JoinSlot slot : {JoinSlot::kStatistics, JoinSlot::kProvisioning}) {
      const StoreJoin* join = store::JoinAt(slot);
      saved_[static_cast<size_t>(slot)] = join != nullptr ? *join : StoreJoin{};
    }
    store::RegisterJoin(
        JoinSlot::kProvisioning,
        {"provisioning", OpenProvisioning, CloseProvisioning, "prov not available %s",
         "prov failed %s", "prov closed", "prov close failed %s"});
    store::RegisterJoin(JoinSlot::kStatistics,
                        {"statistics", OpenStats, CloseStats, "stats not available %s",
                         "stats failed %s", "stats closed", "stats close failed %s"});
  }
  void TearDown() override {
    store::RegisterJoin(JoinSlot::kStatistics, saved_[static_cast<size_t>(JoinSlot::kStatistics)]);
    store::RegisterJoin(JoinSlot::kProvisioning,
                        saved_[static_cast<size_t>(JoinSlot::kProvisioning)]);
    VskTest::TearDown();
  }
  orvd_ctx link_{};
  StoreJoin saved_[store::kJoinSlots] = {};
};

TEST_F(StoreJoinTest, SideStoresOpenBehindTheTablesAndCloseBeforeTheEnvironment) {
  ASSERT_NE(store::JoinAt(JoinSlot::kUnitPools), nullptr) << "the unit pools join from above";
  ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
  EXPECT_EQ(StoreState(), VSK_ENV_READY);
  const std::vector<std::string> opened = {
      "open stats creator " + std::to_string(VSK_ENV_TABLES_OPEN) + " env tables",
      "open provisioning"};
  EXPECT_EQ(g_seen, opened);
  traces().Clear();
  g_prov_close_result = EIO;
  // A failed side-store close marks the close as failed; the walk goes on.
  EXPECT_EQ(vsk_db_close(), -1);
  const std::vector<std::string> texts = traces().Texts();
  ASSERT_GE(texts.size(), 3u) << traces().Dump();
  const std::vector<std::string> tail(texts.end() - 3, texts.end());
  const std::vector<std::string> want = {
      "stats closed", std::string("prov close failed ") + db_strerror(EIO), "closed environment"};
  EXPECT_EQ(tail, want) << traces().Dump();
}

TEST_F(StoreJoinTest, FailingSideStoreEndsTheOpenLikeATable) {
  struct Case {
    const char* what;
    bool master;
    int raw;
    vsk_status_t status;
    const char* trace;  // the text before db_strerror(raw)
    int state;
  };
  const Case cases[] = {
      {"any failure on the master", true, EIO, VSK_ERR_FATAL, "stats failed ", VSK_ENV_TABLES_OPEN},
      {"ENOENT on the master is a failure too", true, ENOENT, VSK_ERR_FATAL, "stats failed ",
       VSK_ENV_TABLES_OPEN},
      {"ENOENT on the standby: not replicated yet", false, ENOENT, VSK_ERR_REP_NOT_STARTED,
       "stats not available ", VSK_ENV_NOT_REPLICATED},
  };
  // The tables exist: the creator made them on the master and left.
  ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
  ASSERT_EQ(vsk_db_close(), 0);
  for (const Case& c : cases) {
    auto r = RunInChild([&] {
      g_stats_result = c.raw;
      g_seen.clear();
      orvd_ctx link{};
      if (InitAs(&link, false, c.master) != c.status) return 1;
      if (StoreState() != c.state) return 2;
      if (!GlobalTraces().Contains(std::string(c.trace) + db_strerror(c.raw))) return 3;
      if (g_seen.size() != 1) return 4;  // provisioning is not tried after a failure
      vsk_db_close();
      return 0;
    });
    EXPECT_TRUE(r.Ok()) << c.what << ": " << r;
  }
}

}  // namespace
}  // namespace vsk::test
