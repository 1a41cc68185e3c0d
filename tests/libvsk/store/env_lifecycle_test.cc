// The store's lifecycle in one process through the public interface, with a real
// environment: panic, close order, the health gate, the store going down, failures while
// opening, and replication's queue.
#include <db.h>

#include <filesystem>

#include "libvsk/store/view.h"
#include "platform/lodex.h"
#include "platform/paths.h"
#include "platform/product_info.h"
#include "store_helpers.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

class StoreEnvTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    link_.fd = -1;  // as the daemon link leaves a handle of orvd: no socket
    link_.is_orvd = true;
  }
  orvd_ctx link_{};
};

// On the master the panic finds the store ready; on the standby, replicating.
TEST_F(StoreEnvTest, PanicForgetsEveryHandleAndCloseFails) {
  for (bool master : {true, false}) {
    auto r = RunInChild([master] {
      orvd_ctx link{};
      if (InitAs(&link, true, master) != 0) return 1;
      DB_ENV* env = nullptr;
      vsk_db_get_dbenv(&env);
      env->set_flags(env, DB_PANIC_ENVIRONMENT, 1);  // Berkeley DB reports it at once
      if (StoreState() != VSK_ENV_PANIC || !vsk_in_panic) return 3;
      if (!GlobalTraces().Contains(master ? "DB_EVENT_PANIC happened, state 7"
                                          : "DB_EVENT_PANIC happened, state 2")) {
        return 4;
      }
      GlobalTraces().Clear();
      if (vsk_db_close() != -1) return 5;
      if (StoreState() != VSK_ENV_CLOSED) return 6;
      if (vsk_db_get_orvd_handle() != &link) return 7;
      if (!GlobalTraces().Contains("Attempting to close VSK on PANIC")) return 8;
      // No handle was touched: nothing was closed, nothing failed to close.
      if (GlobalTraces().CountContaining("closed") != 0) return 9;
      if (GlobalTraces().CountContaining("Failed") != 0) return 10;
      if (store::View().env() != nullptr) return 11;
      vsk_db_txn_t txn{};
      if (vsk_db_start_txn(&txn) == 0 || txn.txn != nullptr) return 2;
      return 0;
    });
    EXPECT_TRUE(r.Ok()) << r << (master ? " on the master" : " on the standby");
  }
}

TEST_F(StoreEnvTest, CloseOrderAndFinalState) {
  ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
  ASSERT_EQ(vsk_db_app_define(2, "close-order-table"), 0);
  traces().Clear();
  EXPECT_EQ(vsk_db_close(), 0);
  std::vector<std::string> want = {
      "closed client database",         "closed service database",
      "closed auth request database",   "closed auth response database",
      "closed dynamic config database", "closed private data database",
      "closed private data database\n", "closed stats database",
      "closed dcp provisioning db",     "closed environment"};
  EXPECT_EQ(traces().Texts(), want) << traces().Dump();
  EXPECT_EQ(StoreState(), VSK_ENV_CLOSED);
  EXPECT_EQ(vsk_db_get_orvd_handle(), &link_);
  DB_ENV* env = reinterpret_cast<DB_ENV*>(1);
  EXPECT_EQ(vsk_db_get_dbenv(&env), 0);
  EXPECT_EQ(env, nullptr);
  for (int id = 0; id < VSK_APP_DEFINED_TABLES; ++id) {
    EXPECT_EQ(store::View().app_defined_db(id), nullptr) << id;
  }
  // A second close has nothing to do.
  EXPECT_EQ(vsk_db_close(), 0);
}

TEST_F(StoreEnvTest, SecondInitWhileReadyTouchesNothing) {
  ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
  DB* client = store::View().client_session_db();
  traces().Clear();
  orvd_ctx other{};
  EXPECT_EQ(vsk_db_init(&other, true), 0);
  EXPECT_EQ(traces().Texts(), std::vector<std::string>{"VSK already open"});
  EXPECT_EQ(store::View().client_session_db(), client);
  EXPECT_EQ(vsk_db_get_orvd_handle(), &link_);
  EXPECT_EQ(vsk_db_close(), 0);
  // After a close, init opens everything again.
  EXPECT_EQ(vsk_db_init(&link_, true), 0);
  EXPECT_EQ(StoreState(), VSK_ENV_READY);
  EXPECT_TRUE(traces().Contains("VSK open as: Master"));
  EXPECT_EQ(vsk_db_close(), 0);
}

TEST_F(StoreEnvTest, CheckGatesOnRegistrationAndState) {
  EXPECT_EQ(vsk_db_check(), -1);
  EXPECT_TRUE(traces().Contains("orvd_register should be called before using vsk"));
  ASSERT_EQ(InitAs(nullptr, true, true), 0);
  traces().Clear();
  EXPECT_EQ(vsk_db_check(), -1) << "a store without a daemon link is not usable";
  EXPECT_TRUE(traces().Contains("orvd_register should be called before using vsk"));
  EXPECT_EQ(vsk_db_close(), 0);

  ASSERT_EQ(vsk_db_init(&link_, true), 0);
  EXPECT_EQ(vsk_db_check(), 0);
  vsk_db_event_recover();
  EXPECT_EQ(StoreState(), VSK_ENV_NEEDS_RECOVERY);
  EXPECT_TRUE(traces().Contains("VSK SECONDARY TABLE NEEDS RECOVERY"));
  traces().Clear();
  // Recovery is only asked for from READY.
  vsk_db_event_recover();
  EXPECT_EQ(traces().Count("VSK SECONDARY TABLE NEEDS RECOVERY"), 0);
  // A close while recovery is pending reports failure but still closes.
  EXPECT_EQ(vsk_db_close(), -1);
  EXPECT_TRUE(traces().Contains("Attempting to close VSK while in secondary recover"));
  EXPECT_TRUE(traces().Contains("closed environment"));
  EXPECT_EQ(StoreState(), VSK_ENV_CLOSED);

  // The gate takes a store in any state but ready down and asks the link to register
  // again, which orvd itself can't (its insist "!ctx->is_orvd" breaks).
  ASSERT_EQ(vsk_db_init(&link_, true), 0);
  vsk_db_event_recover();
  traces().Clear();
  vsk_db_txn_t txn{};
  EXPECT_NE(vsk_db_start_txn(&txn), 0);
  EXPECT_EQ(txn.txn, nullptr);
  EXPECT_TRUE(traces().Contains("db env state is invalid 10, re-init"));
  EXPECT_TRUE(traces().Contains("VSK STATE DOWN"));
  EXPECT_EQ(StoreState(), VSK_ENV_CLOSED);
}

int g_env_changes = 0;
DB_ENV* g_last_env = reinterpret_cast<DB_ENV*>(1);
void RecordEnvChange(DB_ENV* env) {
  ++g_env_changes;
  g_last_env = env;
}

TEST_F(StoreEnvTest, EventDownClosesAndTellsTheDaemon) {
  vsk_db_event_down(&link_);  // no context yet: nothing happens
  EXPECT_TRUE(traces().Lines().empty());
  link_.db_env_change_cbk = RecordEnvChange;
  ASSERT_EQ(InitAs(&link_, true, true), 0);
  traces().Clear();
  vsk_db_event_down(&link_);
  EXPECT_TRUE(traces().Contains("VSK STATE DOWN"));
  EXPECT_TRUE(traces().Contains("Attempting to close VSK while DOWN"));
  EXPECT_TRUE(traces().Contains("closed environment"));
  EXPECT_EQ(g_env_changes, 1);
  EXPECT_EQ(g_last_env, nullptr) << "the daemon learns that its handle is gone";
  EXPECT_EQ(StoreState(), VSK_ENV_CLOSED);
}

TEST_F(StoreEnvTest, OpenFailureIsTracedAndHandleForgotten) {
  std::filesystem::remove_all(Path("/mfs/var/vsk/"));
  auto r = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != VSK_ERR_FATAL) return 1;
    std::string want = std::string("Error opening DB environment: ") + db_strerror(ENOENT);
    if (!GlobalTraces().Contains(want)) return 2;
    if (StoreState() != VSK_ENV_INIT || store::View().env() != nullptr) return 3;
    return vsk_db_close() == 0 ? 0 : 4;  // nothing open: nothing to close
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(StoreEnvTest, ReplicationQueueFailureLeavesEnvironmentForTheClose) {
  // Without the key file's directory the queue cannot be keyed.
  std::filesystem::remove_all(Path("/mfs/var/tmp/"));
  EXPECT_EQ(InitAs(&link_, true, true), -1);
  EXPECT_EQ(traces().CountContaining("Error init replication message queue: "), 1)
      << traces().Dump();
  EXPECT_EQ(StoreState(), VSK_ENV_OPENED);
  EXPECT_NE(store::View().env(), nullptr);
  EXPECT_EQ(vsk_db_close(), 0);
  EXPECT_TRUE(traces().Contains("closed environment"));
}

TEST_F(StoreEnvTest, CommitsOnTheMasterGoOnWhenTheReplicationQueueIsFull) {
  auto r = RunInChild([] {
    // A queue far too small for the log: this process made it, so the store keeps it.
    if (lodex_init(nullptr, 4096) != 0) return 1;
    orvd_ctx link{};
    if (InitAs(&link, true, true) != 0) return 2;
    // Opening alone fills it; the replication daemon's drain makes room once.
    std::vector<char> buffer(1 << 16);
    lodex_msg_t msg{};
    while (lodex_receive(&msg, buffer.data(), buffer.size()) == 1) {
    }
    lodex_stats_t before{};
    if (lodex_get_stats(&before) != 0 || before.capacity != 4096 || before.used != 0) return 3;
    for (uint64_t id = 1; id <= 300; ++id) {
      if (PutRaw(store::View().client_session_db(), id, std::string(200, 'q')) != 0) return 4;
    }
    lodex_stats_t after{};
    if (lodex_get_stats(&after) != 0) return 5;
    // The log went out through the queue until it filled; the rest was counted.
    if (after.enqueued <= before.enqueued) return 6;
    if (after.dropped_full < 100) return 7;
    if (after.dropped_bytes < after.dropped_full * 200) return 8;
    std::string value;
    if (GetRaw(store::View().client_session_db(), 300, &value) != 0 || value.size() != 200) {
      return 9;
    }
    return vsk_db_close() == 0 ? 0 : 10;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(StoreEnvTest, UnsupportedPlatformSkipsReplication) {
  setenv("VSK_MODEL_ID", "1", 1);
  platform::ResetProductInfo();
  auto r = RunInChild([] {
    orvd_ctx link{};
    vsk_status_t st = InitAs(&link, true, true);
    if (!GlobalTraces().Contains("Replication not supported on platform")) return 1;
    if (GlobalTraces().CountContaining("Set replication queue size") != 0) return 2;
    if (st != 0 || StoreState() != VSK_ENV_READY) return 3;
    return vsk_db_close() == 0 ? 0 : 4;
  });
  unsetenv("VSK_MODEL_ID");
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
