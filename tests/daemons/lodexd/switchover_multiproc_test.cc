// A switchover rehearsal: a load runs on the master, the standby takes over, every session
// committed on the old master is on the new one, writes go on there, and the old master
// follows as standby.
#include <sys/mman.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "libvsk/repl/switchover.h"
#include "support/repl_pair.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

class SwitchoverTest : public ReplPairTest {};

TEST_F(SwitchoverTest, RehearsalWithARunningLoadLosesNothingAndWritesGoOnOnTheNewMaster) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  ASSERT_TRUE(a().WaitInSync());

  // The load writes sessions 1, 2, ... on the old master until its store goes away, and
  // publishes the last id whose commit returned success.
  auto* last_committed = static_cast<std::atomic<uint64_t>*>(
      mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE,
           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(last_committed, MAP_FAILED);
  new (last_committed) std::atomic<uint64_t>(0);
  Child load;
  load.Start([&](Child::Channel& ch) {
    ChildResult r = AsClientOf(a(), [&] {
      ch.Ready();
      for (uint64_t id = 1;; ++id) {
        if (PutSessions(id, 1) != 0) return 0;
        last_committed->store(id);
      }
    });
    return r.Ok() ? 0 : 1;
  });
  ASSERT_TRUE(load.WaitReady());
  // A load that stops before its hundredth commit fails the test instead of hanging it.
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (last_committed->load() < 100 && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_GE(last_committed->load(), 100u) << a().LogTail();

  repl::SwitchoverResult r = repl::Switchover(a().root(), b().root());
  ASSERT_TRUE(r.ok) << r.detail;
  EXPECT_TRUE(r.old_master_alive);
  EXPECT_TRUE(r.old_master_in_step) << r.detail;
  ASSERT_TRUE(load.Wait().Ok());
  const uint64_t committed = last_committed->load();
  munmap(last_committed, sizeof(std::atomic<uint64_t>));

  EXPECT_TRUE(AllOn(b(), 1, committed)) << committed << " committed";
  ChildResult more = AsClientOf(b(), [=] { return PutSessions(committed + 1, 50) == 0 ? 0 : 1; });
  ASSERT_TRUE(more.Ok()) << more;
  ASSERT_TRUE(b().WaitInSync()) << platform::FormatLodexStatus(b().Status());
  EXPECT_TRUE(AllOn(a(), 1, committed + 50)) << "the old master, now standby, follows";

  // And back again, without a load.
  r = repl::Switchover(b().root(), a().root());
  ASSERT_TRUE(r.ok) << r.detail;
  EXPECT_TRUE(AllOn(a(), 1, committed + 50));
}

TEST_F(SwitchoverTest, ADeadMasterIsReplacedAndComesBackAsStandby) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  ChildResult w = AsClientOf(a(), [] { return PutSessions(1, 40) == 0 ? 0 : 1; });
  ASSERT_TRUE(w.Ok());
  ASSERT_TRUE(a().WaitInSync());
  a().StopAll(SIGKILL);

  repl::SwitchoverResult r = repl::Switchover(a().root(), b().root());
  ASSERT_TRUE(r.ok) << r.detail;
  EXPECT_FALSE(r.old_master_alive);
  EXPECT_TRUE(AllOn(b(), 1, 40));

  ASSERT_TRUE(a().StartOrvd());
  ASSERT_TRUE(a().StartLodexd());
  ASSERT_TRUE(a().WaitRegistered(false)) << "the old master's role file now says standby";
  ChildResult more = AsClientOf(b(), [] { return PutSessions(41, 10) == 0 ? 0 : 1; });
  ASSERT_TRUE(more.Ok());
  ASSERT_TRUE(b().WaitInSync());
  EXPECT_TRUE(AllOn(a(), 1, 50));
}

TEST_F(SwitchoverTest, RefusesWhenTheTargetIsNotARunningStandby) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  ASSERT_TRUE(b().WaitRegistered(false));
  repl::SwitchoverResult r = repl::Switchover(b().root(), a().root());  // a is the master
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.detail, "the new master's lodexd is not running as a standby");
  EXPECT_TRUE(a().Status().master) << "nothing changed";
}

}  // namespace
}  // namespace vsk::test
