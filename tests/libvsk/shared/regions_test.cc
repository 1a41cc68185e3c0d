// Shared regions and the lock: creation, re-opening, non-creators, SEM_UNDO and the EINTR
// retry, all with real processes and real System V objects.
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/view.h"
#include "shared_fixture.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

using std::chrono::milliseconds;

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

TEST_F(RegionsTest, ReopeningCreatorAndClientsFindContentsUnchanged) {
  // First life of the infrastructure daemon: hand out ids, count, allocate, scribble.
  ChildResult first = RunInChild([] {
    SetProgramName("orvd");
    if (vsk_open_internal(true) != 0) return 1;
    vsk_session_id_t id = 0;
    for (int i = 0; i < 3; ++i) {
      if (vsk_id_generate(&id) != 0) return 2;
    }
    if (vsk_summary_counter_increment_total(nullptr) != 0) return 3;
    vsk_unit_init(VSK_UNIT_POOL_UID_MAX, true, VSK_UNIT_POOL_UID);
    vsk_unit_recovered(VSK_UNIT_POOL_UID);
    uint32_t unit = 0;
    if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) != 0 || unit != 1000) return 4;
    *vsk_db_status = VSK_DB_STATUS_READY;
    std::memcpy(vsk_snap_get_shared_memory_ptr(), "cached", 6);
    return 0;
  });
  ASSERT_TRUE(first.Ok()) << first;

  // A client attaches to what exists.
  ChildResult client = RunInChild([this] {
    SetProgramName("vsk-client");
    traces().Clear();
    if (vsk_open_internal(false) != 0) return 1;
    if (*vsk_db_status != VSK_DB_STATUS_READY) return 2;  // a client leaves the word alone
    if (vsk_id_get_last() != 3) return 3;
    if (!traces().Contains("semaphore exist")) return 4;
    return 0;
  });
  EXPECT_TRUE(client.Ok()) << client;

  // Second life of the creator: nothing was cleared.
  ChildResult second = RunInChild([this] {
    SetProgramName("orvd");
    traces().Clear();
    if (vsk_open_internal(true) != 0) return 1;
    if (!traces().Contains("shared memory exist")) return 2;
    if (!traces().Contains("vsk_snap_shared_memory_init: Snap shared memory exist")) return 3;
    if (!traces().Contains("semaphore exist")) return 4;
    if (traces().CountContaining("does not exist") != 0) return 5;
    if (vsk_id_get_last() != 3) return 6;
    vsk_session_id_t id = 0;
    if (vsk_id_generate(&id) != 0 || id != 4) return 7;
    uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
    if (vsk_get_summary_counters(counters) != 0 || counters[0] != 1) return 8;
    vsk_unit_init(VSK_UNIT_POOL_UID_MAX, false, VSK_UNIT_POOL_UID);
    uint32_t unit = 0;
    if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) != 0 || unit != 1001) return 9;
    if (std::memcmp(vsk_snap_get_shared_memory_ptr(), "cached", 6) != 0) return 10;
    if (*vsk_db_status != VSK_DB_STATUS_OPENED) return 11;  // the creator marks every open
    return 0;
  });
  EXPECT_TRUE(second.Ok()) << second;
}

TEST_F(RegionsTest, CloseDropsEveryPointerButKeepsTheSemaphoreSet) {
  ASSERT_EQ(OpenAsCreator(), 0);
  vsk_unit_init(VSK_UNIT_POOL_UID_MAX, true, VSK_UNIT_POOL_UID);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(vsk_close_internal(), 0);  // no store was open: the store's close reports 0
  EXPECT_EQ(vsk_get_shm_ptr(0), nullptr);
  EXPECT_EQ(vsk_snap_get_shared_memory_ptr(), nullptr);
  EXPECT_EQ(vsk_db_status, nullptr);
  EXPECT_EQ(vsk_summary_counter, nullptr);
  EXPECT_EQ(vsk_id_get_last(), 0u);
  uint32_t unit = 0;
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -1);
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

TEST_F(RegionsTest, CloseShutsTheStoreFirstAndReturnsItsResult) {
  for (bool panic : {false, true}) {
    ChildResult r = RunInChild([panic] {
      SetProgramName("orvd");
      if (vsk_open_internal(true) != 0) return 1;
      orvd_ctx link{};
      vsk_db_set_master(true);
      if (vsk_db_init(&link, true) != 0) return 2;
      vsk_in_panic = panic;  // makes the store's close report a failure
      int rc = vsk_close_internal();
      if (rc != (panic ? -1 : 0)) return 3;
      const vsk::store::View store;
      if (!store.started() || store.state() != VSK_ENV_CLOSED || store.env() != nullptr) return 4;
      // A failed store close still drops every pointer into shared memory.
      if (vsk_get_shm_ptr(0) != nullptr || vsk_db_status != nullptr) return 5;
      if (vsk_summary_counter != nullptr || vsk_snap_get_shared_memory_ptr() != nullptr) {
        return 6;
      }
      return 0;
    });
    EXPECT_TRUE(r.Ok()) << r << (panic ? " (panic)" : "");
  }
}

TEST_F(RegionsTest, AcquireWithoutASemaphoreSetFailsAtOnce) {
  // In a fresh process the set id is -1; semop on it fails on the first attempt.
  EXPECT_EQ(vsk_acquire_lock(VSK_LOCK_ID), -1);
  EXPECT_EQ(traces().CountContaining("VSK failed to acquire lock id 0, cnt 1, err "), 1)
      << traces().Dump();
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_UNIT), -1);
  EXPECT_EQ(traces().CountContaining("VSK failed to release lock id 1, cnt 1, err "), 1)
      << traces().Dump();
}

TEST_F(RegionsTest, ClientLockInitFailsWithoutASet) {
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
    EXPECT_EQ(semctl(SemaphoreSet(), n, GETVAL), 1);
  }
  EXPECT_TRUE(traces().Lines().empty()) << traces().Dump();
  EXPECT_EQ(vsk_acquire_lock(3), -1);  // there are only three semaphores
  EXPECT_EQ(traces().CountContaining("VSK failed to acquire lock id 3, cnt 1, err "), 1);
}

TEST_F(RegionsTest, DeadHolderDoesNotBlockOthers) {
  ASSERT_EQ(OpenAsCreator(), 0);
  Child holder;
  holder.Start([](Child::Channel& ch) {
    if (vsk_acquire_lock(VSK_LOCK_UNIT) != 0) return 1;
    ch.Ready();
    ch.WaitGo();  // holds the semaphore until killed
    return 0;
  });
  ASSERT_TRUE(holder.WaitReady());
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_UNIT, GETVAL), 0);
  holder.Kill(SIGKILL);
  ChildResult killed = holder.Wait();
  EXPECT_EQ(killed.signal, SIGKILL);

  ChildResult next = RunInChild(
      [] {
        if (vsk_acquire_lock(VSK_LOCK_UNIT) != 0) return 1;
        return vsk_release_lock(VSK_LOCK_UNIT) == 0 ? 0 : 2;
      },
      std::chrono::seconds(10));
  EXPECT_TRUE(next.Ok()) << next;
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_UNIT, GETVAL), 1);
}

void Interrupted(int) {}

// Waits until `count` processes sleep on semaphore `n`.
bool WaitForWaiters(int set, int n, int count) {
  for (int i = 0; i < 5000; ++i) {
    if (semctl(set, n, GETNCNT) == count) return true;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return false;
}

TEST_F(RegionsTest, InterruptedWaitIsRetriedAndCounted) {
  ASSERT_EQ(OpenAsCreator(), 0);
  ASSERT_EQ(vsk_acquire_lock(VSK_LOCK_ID), 0);
  Child waiter;
  waiter.Start([this](Child::Channel& ch) {
    struct sigaction sa {};
    sa.sa_handler = Interrupted;
    sa.sa_flags = 0;  // no SA_RESTART: the signal interrupts semop with EINTR
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR1, &sa, nullptr);
    traces().Clear();
    ch.Ready();
    if (vsk_acquire_lock(VSK_LOCK_ID) != 0) return 1;
    if (traces().Count("INFO: VSK acquire lock cnt 2") != 1) return 2;
    if (traces().Lines().size() != 1) return 3;
    return vsk_release_lock(VSK_LOCK_ID) == 0 ? 0 : 4;
  });
  ASSERT_TRUE(waiter.WaitReady());
  int set = SemaphoreSet();
  ASSERT_TRUE(WaitForWaiters(set, VSK_LOCK_ID, 1));
  kill(waiter.pid(), SIGUSR1);
  std::this_thread::sleep_for(milliseconds(100));
  ASSERT_TRUE(WaitForWaiters(set, VSK_LOCK_ID, 1)) << "the waiter did not wait again";
  EXPECT_EQ(vsk_release_lock(VSK_LOCK_ID), 0);
  ChildResult r = waiter.Wait();
  EXPECT_TRUE(r.Ok()) << r;
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
