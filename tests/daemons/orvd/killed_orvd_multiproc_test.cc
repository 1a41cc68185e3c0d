// An orvd killed with SIGKILL leaves its clients inside its environment. The next orvd
// recovers the store, which removes that environment's region files; a client that waits
// there on a mutex that a dead process held is never woken, and must be ended so that its
// supervisor starts it again.
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "health_helpers.h"
#include "support/orvd_process.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

class KilledOrvdTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop(SIGKILL);
    VskTest::TearDown();
  }
  OrvdProcess orvd_;
};

// The system call process `pid` is blocked in, or -1.
long BlockedIn(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/syscall");
  long number = -1;
  return in >> number ? number : -1;
}

TEST_F(KilledOrvdTest, ClientLeftWaitingInTheKilledOrvdsStoreIsEnded) {
  const std::string log = root() + "/orvd.log";
  OrvdProcess::Options options;
  options.log_path = log;
  ASSERT_TRUE(orvd_.Start(options));
  // The mutex that the holder takes and dies with, in the environment's region.
  auto* shared = static_cast<db_mutex_t*>(
      mmap(nullptr, sizeof(db_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(shared, MAP_FAILED);

  Child holder, waiter;
  holder.Start([shared](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    CHILD_CHECK(JoinAsClient(&ctx) == VSK_OK);
    DB_ENV* env = nullptr;
    CHILD_CHECK(vsk_db_get_dbenv(&env) == 0 && env != nullptr);
    db_mutex_t m = 0;
    CHILD_CHECK(env->mutex_alloc(env, 0, &m) == 0);
    CHILD_CHECK(env->mutex_lock(env, m) == 0);
    *shared = m;
    ch.Ready();
    ch.WaitGo();  // killed before this
    return 0;
  });
  ASSERT_TRUE(holder.WaitReady());
  waiter.Start([shared](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    CHILD_CHECK(JoinAsClient(&ctx) == VSK_OK);
    DB_ENV* env = nullptr;
    CHILD_CHECK(vsk_db_get_dbenv(&env) == 0 && env != nullptr);
    ch.Ready();
    CHILD_CHECK(ch.WaitGo());
    env->mutex_lock(env, *shared);  // held by a dead process: never returns
    return 0;
  });
  ASSERT_TRUE(waiter.WaitReady());

  // orvd dies first, so that nobody checks the environment for dead processes; then the
  // holder dies with the mutex, and the waiter goes to wait for it.
  orvd_.Stop(SIGKILL);
  holder.Kill(SIGKILL);
  holder.Wait();
  waiter.Go();
  for (int i = 0; i < 1000 && BlockedIn(waiter.pid()) != SYS_futex; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(BlockedIn(waiter.pid()), SYS_futex);

  ASSERT_TRUE(orvd_.Start(options));
  ChildResult r = waiter.Wait(std::chrono::seconds(60));
  EXPECT_FALSE(r.timed_out) << "the waiter was left blocked";
  EXPECT_EQ(r.signal, SIGKILL) << r;
  // orvd counts the ending after the kill and publishes its figures at its next tick.
  EXPECT_EQ(OrvdProcess::WaitForHealthFigure("blocked_processes_ended", 1), 1);
  std::ifstream in(log);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("pid " + std::to_string(waiter.pid()) +
                      " is blocked for good inside the store of an earlier environment"),
            std::string::npos)
      << text;

  // The store orvd recovered serves the next daemon.
  ChildResult after = RunInChild([] {
    orvd_ctx_t* ctx = nullptr;
    CHILD_CHECK(JoinAsClient(&ctx) == VSK_OK);
    CHILD_CHECK(PutRows(1, 3) == VSK_OK);
    CHILD_CHECK(CheckRow(2) == VSK_OK);
    return orvd_unregister(&ctx) == VSK_OK ? 0 : 1;
  });
  EXPECT_TRUE(after.Ok()) << after;
  munmap(shared, sizeof(db_mutex_t));
}

}  // namespace
}  // namespace vsk::test
