// LockHold over the real semaphore set: the holder keeps others out until it finishes,
// a holder killed with SIGKILL gives the semaphore back, and Finish reports the status
// it was given.
#include "libvsk/shared/lock_hold.h"

#include <signal.h>
#include <sys/sem.h>

#include "shared_fixture.h"

namespace vsk::test {
namespace {

using shared::LockHold;

class LockHoldTest : public SharedTest {
 protected:
  static int SemaphoreValue(int n) { return semctl(SemaphoreSet(), n, GETVAL); }
};

TEST_F(LockHoldTest, HoldsUntilFinishAndHandsBackTheStatus) {
  ASSERT_EQ(OpenAsCreator(), 0);
  {
    LockHold hold(VSK_LOCK_UNIT);
    ASSERT_EQ(hold.Begin(), VSK_OK);
    EXPECT_EQ(SemaphoreValue(VSK_LOCK_UNIT), 0);
    EXPECT_EQ(SemaphoreValue(VSK_LOCK_ID), 1) << "one semaphore at a time";
    EXPECT_EQ(hold.Finish(VSK_ERR_NOT_FOUND), VSK_ERR_NOT_FOUND);
    EXPECT_EQ(SemaphoreValue(VSK_LOCK_UNIT), 1);
    EXPECT_EQ(hold.Finish(7), 7) << "a second finish releases nothing";
    EXPECT_EQ(SemaphoreValue(VSK_LOCK_UNIT), 1);
  }
  {
    // An early return without Finish still gives the semaphore back.
    LockHold hold(VSK_LOCK_HEAP);
    ASSERT_EQ(hold.Begin(), VSK_OK);
  }
  EXPECT_EQ(SemaphoreValue(VSK_LOCK_HEAP), 1);
  // A semaphore number the set does not have: the wait fails with the caller's status.
  LockHold bad(5);
  EXPECT_EQ(bad.Begin(-5), -5);
  EXPECT_FALSE(bad.held());
}

TEST_F(LockHoldTest, HolderKilledInsideGivesTheSemaphoreBack) {
  ASSERT_EQ(OpenAsCreator(), 0);
  Child holder;
  holder.Start([](Child::Channel& ch) {
    LockHold hold(VSK_LOCK_ID);
    if (hold.Begin() != VSK_OK) return 1;
    ch.Ready();
    pause();  // killed here, holding semaphore 0
    return 2;
  });
  ASSERT_TRUE(holder.WaitReady());
  EXPECT_EQ(SemaphoreValue(VSK_LOCK_ID), 0);
  holder.Kill(SIGKILL);
  holder.Wait();
  // The kernel undid the holder's operation: a new hold gets in at once.
  LockHold hold(VSK_LOCK_ID);
  EXPECT_EQ(hold.Begin(), VSK_OK);
  EXPECT_EQ(hold.Finish(VSK_OK), VSK_OK);
}

}  // namespace
}  // namespace vsk::test
