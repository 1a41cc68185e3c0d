// The shared regions and their users when System V fails under them, driven through the
// fault seam: opening, the lock's retry and its limit, and what the pools and the
// interface table answer when the lock cannot be had.
#include <errno.h>
#include <sys/sem.h>

#include <cstring>

#include "libvsk/base/fault.h"
#include "libvsk/shared/root_objects.h"
#include "shared_fixture.h"
#include "vsk/intf.h"

namespace vsk::test {
namespace {

using fault::Kind;

class SharedFaultTest : public SharedTest {};

// Every step of the creator's open that can fail, with the words of its failure. After
// each, the open succeeds when tried again: what was made before the failure is found.
TEST_F(SharedFaultTest, TheCreatorsOpenFailsCleanlyAtEachSystemCall) {
  struct Case {
    Kind kind;
    uint32_t nth;
    const char* step;    // the step's own trace
    const char* caller;  // vsk_open_internal's trace
  } cases[] = {
      {Kind::kShmget, 2, "Failed to create shared memory", "Failed to init shared memory -1"},
      {Kind::kShmat, 1, "Failed to attach shared memory", "Failed to init shared memory -1"},
      {Kind::kShmat, 2, "vsk_snap_shared_memory_init:Failed to attach shared memory",
       "Failed to init snapshot shared memory -1\n"},
      {Kind::kSemget, 2, "Failed to init semaphore", "Failed to init id generator -1"},
  };
  AsOrvd();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.step);
    ChildResult r = RunInChild([&c] {
      RemoveSysvObjectsFor(shared::RootKeyFiles());  // nothing exists yet
      GlobalTraces().Clear();
      fault::Arm(c.kind, c.nth, ENOSPC);
      if (vsk_open_internal(true) != -1) return 1;
      if (fault::Pending(c.kind)) return 2;
      if (!GlobalTraces().Contains(c.step) || !GlobalTraces().Contains(c.caller)) return 3;
      vsk_close_internal();
      if (vsk_get_shm_ptr(0) != nullptr || vsk_db_status != nullptr) return 4;
      if (vsk_open_internal(true) != 0) return 5;
      return *vsk_db_status == VSK_DB_STATUS_OPENED ? 0 : 6;
    });
    EXPECT_TRUE(r.Ok()) << r;
  }
}

TEST_F(SharedFaultTest, InterruptedWaitsAreRetriedUpToTheLimit) {
  ASSERT_EQ(OpenAsCreator(), 0);
  traces().Clear();
  fault::Arm(Kind::kSemop, 1, EINTR);
  EXPECT_EQ(vsk_acquire_lock(VSK_LOCK_ID), 0);
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_ID), 0);
  EXPECT_EQ(traces().Texts(), std::vector<std::string>{"INFO: VSK acquire lock cnt 2"});

  // A thousand interruptions in a row end the wait; the count is of attempts.
  traces().Clear();
  fault::Arm(Kind::kSemop, 1, EINTR, 1000);
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_ID), -1);
  EXPECT_EQ(traces().Texts(), std::vector<std::string>{
                                  std::string("VSK failed to release lock id 0, cnt 1000, err ") +
                                  std::strerror(EINTR)});
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_ID, GETVAL), 1) << "nothing was given back twice";
}

// What the lock's users answer when semop fails for good (the set removed under them).
TEST_F(SharedFaultTest, UsersOfAFailingLockReportItAndChangeNothing) {
  ASSERT_EQ(OpenAsCreator(), 0);
  ASSERT_EQ(vsk_db_secondary_init(true), 0);
  vsk_unit_init(4, true, VSK_UNIT_POOL_UID);
  vsk_unit_recovered(VSK_UNIT_POOL_UID);
  ASSERT_EQ(vsk_db_interface_add("ae0", 2, 1, 1, 5), 0);
  vsk_session_id_t last = vsk_id_get_last();

  fault::Arm(Kind::kSemop, 1, EIDRM);
  uint32_t unit = 0;
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), VSK_UNIT_ERR_LOCK);
  fault::Arm(Kind::kSemop, 1, EIDRM);
  vsk_session_id_t id = 0;
  EXPECT_EQ(vsk_id_generate(&id), -1);
  EXPECT_EQ(vsk_id_get_last(), last);
  fault::Arm(Kind::kSemop, 1, EIDRM);
  EXPECT_EQ(vsk_db_interface_add("ae0", 2, 2, 0, 0), VSK_ERR_FATAL);
  EXPECT_EQ(traces().CountContaining("VSK failed to acquire lock id "), 3);

  // Nothing moved: the first unit is still the next one, the interface has one client.
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(unit, 1000u);
  uint32_t count = 0;
  ASSERT_EQ(vsk_db_get_num_clients_on_uifl("ae0", &count), 0);
  EXPECT_EQ(count, 1u);
}

// A table operation whose semaphore cannot be given back at its end reports -1, though its
// work is done; the kernel gives the semaphore back when the process ends.
TEST_F(SharedFaultTest, ATableOperationThatCannotUnlockReportsIt) {
  ASSERT_EQ(OpenAsCreator(), 0);
  ASSERT_EQ(vsk_db_secondary_init(true), 0);
  ChildResult r = RunInChild([] {
    fault::Arm(Kind::kSemop, 2, EIDRM);  // the release
    return vsk_db_interface_add("ae1", 1, 1, 1, 3) == VSK_ERR_FATAL ? 0 : 1;
  });
  EXPECT_TRUE(r.Ok()) << r;
  uint32_t state = 0;
  ASSERT_EQ(vsk_db_interface_get_state("ae1", &state), 0);
  EXPECT_EQ(state, 3u);
}

}  // namespace
}  // namespace vsk::test
