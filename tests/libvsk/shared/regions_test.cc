// Shared regions and the lock in one process: creation, non-creators, the close, the
// lock without a set, and the cache position.
#include <sys/sem.h>

#include <cstring>
#include <filesystem>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/view.h"
#include "shared_fixture.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

class RegionsTest : public SharedTest {};

TEST_F(RegionsTest, NothingIsReachableBeforeAttachment) {
  EXPECT_EQ(vsk_get_shm_ptr(0), nullptr);
  EXPECT_EQ(vsk_get_shm_ptr(VSK_SHM_DB_STATUS_OFFSET), nullptr);
  EXPECT_EQ(vsk_snap_get_shared_memory_ptr(), nullptr);
  EXPECT_EQ(vsk_db_status, nullptr);
  vsk_detach_shm();  // detaching what is not attached is harmless
  EXPECT_EQ(vsk_snap_detach_shm(), 0);
}

TEST_F(RegionsTest, ClientOpenFailsWhenSegmentIsMissingAndTouchesNoFile) {
  std::filesystem::remove(Path(platform::kLodexKeyFile));
  AsClient();
  EXPECT_EQ(vsk_open_internal(false), -1);
  EXPECT_EQ(traces().Count("Failed to get shared memory"), 1) << traces().Dump();
  EXPECT_EQ(traces().Count("Failed to init shared memory -1"), 1) << traces().Dump();
  EXPECT_FALSE(traces().Contains("shared memory does not exist"));
  EXPECT_FALSE(std::filesystem::exists(Path(platform::kLodexKeyFile)));
  EXPECT_EQ(vsk_get_shm_ptr(0), nullptr);
  EXPECT_EQ(vsk_db_status, nullptr);
  EXPECT_EQ(SemaphoreSet(), -1) << "a client must never create the semaphore set";
}

TEST_F(RegionsTest, CreatorMakesKeyFilesSegmentsAndSemaphores) {
  std::filesystem::remove(Path(platform::kShmKeyFile));
  std::filesystem::remove(Path(platform::kLodexKeyFile));
  ASSERT_EQ(OpenAsCreator(), 0) << traces().Dump();
  EXPECT_TRUE(std::filesystem::exists(Path(platform::kShmKeyFile)));
  EXPECT_TRUE(std::filesystem::exists(Path(platform::kLodexKeyFile)));
  EXPECT_TRUE(traces().Contains("shared memory does not exist"));
  EXPECT_TRUE(traces().Contains("semaphore does not exist"));

  auto* base = static_cast<uint8_t*>(vsk_get_shm_ptr(0));
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(vsk_get_shm_ptr(1234), base + 1234);
  ASSERT_NE(vsk_db_status, nullptr);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(vsk_db_status), base + 1088820);
  EXPECT_EQ(*vsk_db_status, 1u);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(vsk_summary_counter), base + 1088608);
  // A fresh segment is all zeros apart from the status word.
  for (size_t i = 0; i < 1088820; ++i) ASSERT_EQ(base[i], 0) << "byte " << i;
  auto* snap = static_cast<uint8_t*>(vsk_snap_get_shared_memory_ptr());
  ASSERT_NE(snap, nullptr);
  EXPECT_EQ(snap[0], 0);
  EXPECT_EQ(snap[11000000 - 1], 0);

  int set = SemaphoreSet();
  ASSERT_NE(set, -1);
  for (int n = 0; n < 3; ++n) EXPECT_EQ(semctl(set, n, GETVAL), 1) << "semaphore " << n;
}

// What the close drops is the attachment list's to say (attachments_test); what it keeps
// is the objects and the semaphore set's id, and what a failed store close returns.
TEST_F(RegionsTest, CloseKeepsTheObjectsAndTheSemaphoreSet) {
  ASSERT_EQ(OpenAsCreator(), 0);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(vsk_close_internal(), 0);  // no store was open: the store's close reports 0
  // The set id survives: a later lock_init does no semget and traces nothing.
  traces().Clear();
  EXPECT_EQ(vsk_lock_init(false), 0);
  EXPECT_TRUE(traces().Lines().empty()) << traces().Dump();
  EXPECT_EQ(vsk_acquire_lock(VSK_LOCK_HEAP), 0);
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_HEAP), 0);
  // The objects outlive the close: opening again finds them, contents included.
  ASSERT_EQ(vsk_open_internal(true), 0);
  EXPECT_EQ(vsk_id_get_last(), 1u);
  EXPECT_FALSE(traces().Contains("semaphore exist"));  // no semget this time
  EXPECT_EQ(vsk_close_internal(), 0);
}

TEST_F(RegionsTest, AFailedStoreCloseIsReturnedAndEveryPointerStillGoes) {
  ChildResult r = RunInChild([] {
    SetProgramName("orvd");
    if (vsk_open_internal(true) != 0) return 1;
    orvd_ctx link{};
    vsk_db_set_master(true);
    if (vsk_db_init(&link, true) != 0) return 2;
    vsk_in_panic = true;  // makes the store's close report a failure
    if (vsk_close_internal() != -1) return 3;
    const vsk::store::View store;
    if (!store.started() || store.state() != VSK_ENV_CLOSED || store.env() != nullptr) return 4;
    if (vsk_get_shm_ptr(0) != nullptr || vsk_db_status != nullptr) return 5;
    if (vsk_summary_counter != nullptr || vsk_snap_get_shared_memory_ptr() != nullptr) return 6;
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(RegionsTest, LockWithoutASemaphoreSet) {
  // In a fresh process the set id is -1; semop on it fails on the first attempt.
  EXPECT_EQ(vsk_acquire_lock(VSK_LOCK_ID), -1);
  EXPECT_EQ(traces().CountContaining("VSK failed to acquire lock id 0, cnt 1, err "), 1)
      << traces().Dump();
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_UNIT), -1);
  EXPECT_EQ(traces().CountContaining("VSK failed to release lock id 1, cnt 1, err "), 1);
  // A client never makes the set.
  AsClient();
  EXPECT_EQ(vsk_lock_init(false), -1);
  EXPECT_TRUE(traces().Contains("Failed to get semaphore"));
  EXPECT_EQ(SemaphoreSet(), -1);
}

TEST_F(RegionsTest, UncontendedLockReportsNoRetry) {
  ASSERT_EQ(OpenAsCreator(), 0);
  traces().Clear();
  for (int n = 0; n < 3; ++n) {
    EXPECT_EQ(vsk_acquire_lock(n), 0);
    EXPECT_EQ(semctl(SemaphoreSet(), n, GETVAL), 0);
    EXPECT_EQ(vsk_release_lock(n), 0);
  }
  EXPECT_TRUE(traces().Lines().empty()) << traces().Dump();
  EXPECT_EQ(vsk_acquire_lock(3), -1);  // there are only three semaphores
  EXPECT_EQ(traces().CountContaining("VSK failed to acquire lock id 3, cnt 1, err "), 1);
}

TEST_F(RegionsTest, CachePositionUsesFactor1500CutTo16Bits) {
  struct Case {
    uint64_t id;
    uint16_t offset;
  } cases[] = {{1, 0}, {2, 1500}, {44, 64500}, {45, 464}, {1501, 0}, {1502, 1500}, {0, 4996}};
  for (const Case& c : cases) {
    vsk_session_ids_t ids{};
    ids.session_id = c.id;
    ids.shm_offset = 0xBEEF;
    EXPECT_EQ(vsk_get_shared_mem(&ids), 0);
    EXPECT_EQ(ids.shm_offset, c.offset) << "id " << c.id;
    EXPECT_EQ(ids.session_id, c.id);
  }
  EXPECT_EQ(vsk_get_shared_mem(nullptr), 0);
}

}  // namespace
}  // namespace vsk::test
