// Two engines on one machine, each with its own orvd and lodexd over loopback: what the
// master writes reaches the standby, an empty standby copies everything, a standby cut off
// catches up, and a killed lodexd on either side is restarted without loss.
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

#include "support/repl_pair.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

class ReplicationTest : public ReplPairTest {
 protected:
  void Write(uint64_t first, uint64_t count) {
    ChildResult r = AsClientOf(a(), [=] { return PutSessions(first, count) == 0 ? 0 : 1; });
    ASSERT_TRUE(r.Ok()) << r;
  }
};

TEST_F(ReplicationTest, SessionsWrittenOnTheMasterAppearOnTheStandby) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  Write(1, 50);
  ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(a().Status()) << "--\n"
                                << platform::FormatLodexStatus(b().Status());
  EXPECT_TRUE(AllOn(b(), 1, 50));
  platform::LodexStatus s = a().Status();
  EXPECT_GT(s.shipped, 0u);
  EXPECT_EQ(s.rep_errors, 0u);
}

TEST_F(ReplicationTest, AnEmptyStandbyCopiesEverythingAndReadersWaitForIt) {
  ASSERT_TRUE(a().StartOrvd());
  ASSERT_TRUE(a().StartLodexd());
  ASSERT_TRUE(a().WaitRegistered(true));
  Write(1, 200);
  EXPECT_TRUE(a().WaitStatus([](const platform::LodexStatus& s) { return s.undelivered > 0; }))
      << "no standby yet: what was drained is counted";

  // The standby's store exists but holds no table: a reader is told -12 meanwhile.
  ASSERT_TRUE(b().StartOrvd());
  ChildResult early = AsClientOf(b(), [] { return 0; }, std::chrono::milliseconds(300));
  EXPECT_EQ(early.code, 100 - VSK_ERR_REP_NOT_STARTED) << early;

  ASSERT_TRUE(b().StartLodexd());
  ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(b().Status());
  EXPECT_TRUE(AllOn(b(), 1, 200));
}

TEST_F(ReplicationTest, AStandbyCutOffCatchesUpAfterReconnecting) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  Write(1, 20);
  ASSERT_TRUE(a().WaitInSync());
  b().StopLodexd();
  ASSERT_TRUE(a().WaitStatus([](const platform::LodexStatus& s) { return !s.peer_up; }));
  Write(21, 300);
  EXPECT_TRUE(a().WaitStatus([](const platform::LodexStatus& s) { return s.undelivered > 0; }));
  ASSERT_TRUE(b().StartLodexd());
  ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(a().Status());
  EXPECT_TRUE(AllOn(b(), 1, 320));
}

// A lodexd killed in the middle of a load, on either side, is started again; the pair
// converges and every committed session is on the standby.
TEST_F(ReplicationTest, AKilledLodexdOnEitherSideIsRestartedWithNothingLost) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  for (Engine* victim : {&a(), &b()}) {
    const uint64_t first = victim == &a() ? 1 : 1001;
    Child load;
    std::string root = a().root();
    load.Start([&, first](Child::Channel& ch) {
      ch.Ready();
      ChildResult r = AsClientOf(a(), [first] { return PutSessions(first, 600) == 0 ? 0 : 1; });
      return r.Ok() ? 0 : 1;
    });
    ASSERT_TRUE(load.WaitReady());
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    victim->StopLodexd(SIGKILL);
    ASSERT_TRUE(victim->StartLodexd()) << victim->LogTail();
    ASSERT_TRUE(load.Wait().Ok());
    ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(a().Status()) << "--\n"
                                  << platform::FormatLodexStatus(b().Status());
    EXPECT_TRUE(AllOn(b(), first, 600));
  }
}

// The standby's lodexd, a registered client that has applied transactions (so it holds
// log registrations in the standby's store), is killed: the standby's orvd must not run
// Berkeley DB's failchk over it (Berkeley DB 5.3 crashes there on a replication client)
// and reopens the store with recovery instead. A lodexd started again applies into the
// recovered store, and readers there find everything.
TEST_F(ReplicationTest, AStandbysLodexdKilledAfterApplyingHasTheStoreRecovered) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  Write(1, 50);
  ASSERT_TRUE(a().WaitInSync());
  b().StopLodexd(SIGKILL);
  ASSERT_TRUE(b().WaitOrvdLog("a client died in the standby's store: reopening it with recovery"))
      << b().LogTail();
  ASSERT_TRUE(b().WaitOrvdLog("store reopened as standby")) << b().LogTail();
  ASSERT_TRUE(b().StartLodexd()) << b().LogTail();
  Write(51, 50);
  ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(b().Status());
  EXPECT_TRUE(AllOn(b(), 1, 100));
  EXPECT_TRUE(b().orvd().Alive()) << b().LogTail();
}

}  // namespace
}  // namespace vsk::test
