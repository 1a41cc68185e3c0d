// The shared regions used by several real processes at once: a creator's second life and
// its clients find everything in place, a semaphore holder that dies or is interrupted,
// and ids, units and counters drawn concurrently.
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

#include "shared_fixture.h"

namespace vsk::test {
namespace {

using std::chrono::milliseconds;

class SharedProcessesTest : public SharedTest {};

TEST_F(SharedProcessesTest, ReopeningCreatorAndClientsFindContentsUnchanged) {
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

TEST_F(SharedProcessesTest, DeadHolderDoesNotBlockOthers) {
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

TEST_F(SharedProcessesTest, InterruptedWaitIsRetriedAndCounted) {
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

TEST_F(SharedProcessesTest, ConcurrentProcessesDrawUniqueIdsWithoutGaps) {
  ASSERT_EQ(OpenAsCreator(), 0);
  constexpr int kWorkers = 4;
  constexpr int kPerWorker = 2000;
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    // Each worker attaches on its own, as a client daemon does.
    SetProgramName("vsk-client");
    if (vsk_open_internal(false) != 0) return 1;
    std::vector<vsk_session_id_t> ids;
    for (int i = 0; i < kPerWorker; ++i) {
      vsk_session_id_t id = 0;
      if (vsk_id_generate(&id) != 0) return 2;
      ids.push_back(id);
    }
    return WriteNumbers(ResultFile(k), ids) ? 0 : 3;
  }));
  std::set<vsk_session_id_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    auto ids = ReadNumbers<vsk_session_id_t>(ResultFile(k));
    ASSERT_EQ(ids.size(), size_t{kPerWorker});
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "ids of one process ascend";
    all.insert(ids.begin(), ids.end());
  }
  ASSERT_EQ(all.size(), size_t{kWorkers * kPerWorker}) << "an id was handed out twice";
  EXPECT_EQ(*all.begin(), 1u);
  EXPECT_EQ(*all.rbegin(), vsk_session_id_t{kWorkers * kPerWorker});
  EXPECT_EQ(vsk_id_get_last(), vsk_session_id_t{kWorkers * kPerWorker});
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_ID, GETVAL), 1);
}

TEST_F(SharedProcessesTest, ConcurrentProcessesGetUniqueUnitsThatComeBack) {
  ASSERT_EQ(OpenAsCreator(), 0);
  vsk_unit_init(VSK_UNIT_POOL_UID_MAX, true, VSK_UNIT_POOL_UID);
  vsk_unit_recovered(VSK_UNIT_POOL_UID);
  constexpr int kWorkers = 3;
  constexpr int kPerWorker = 3000;
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    SetProgramName("vsk-client");
    if (vsk_open_internal(false) != 0) return 1;
    vsk_unit_init(VSK_UNIT_POOL_UID_MAX, false, VSK_UNIT_POOL_UID);
    std::vector<uint32_t> units;
    for (int i = 0; i < kPerWorker; ++i) {
      uint32_t unit = 0;
      if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) != 0) return 2;
      units.push_back(unit);
    }
    if (!WriteNumbers(ResultFile(k), units)) return 3;
    for (uint32_t unit : units) {
      if (vsk_unit_release(unit, VSK_UNIT_POOL_UID) != 0) return 4;
    }
    return 0;
  }));
  std::set<uint32_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint32_t unit : ReadNumbers<uint32_t>(ResultFile(k))) {
      EXPECT_GE(unit, 1000u);
      EXPECT_LT(unit, 1000u + VSK_UNIT_POOL_UID_MAX);
      all.insert(unit);
    }
  }
  EXPECT_EQ(all.size(), size_t{kWorkers * kPerWorker}) << "a unit was handed out twice";
  // Every unit is back: the whole pool can be drawn once more, and then it is empty.
  std::set<uint32_t> again;
  uint32_t unit = 0;
  for (int i = 0; i < VSK_UNIT_POOL_UID_MAX; ++i) {
    ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0) << i;
    again.insert(unit);
  }
  EXPECT_EQ(again.size(), size_t{VSK_UNIT_POOL_UID_MAX});
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -5);
}

TEST_F(SharedProcessesTest, ConcurrentProcessesAddUpExactly) {
  ASSERT_EQ(OpenAsCreator(), 0);
  constexpr int kWorkers = 4;
  constexpr uint32_t kPerWorker = 5000;
  const uint8_t bits[3] = {0x00, 0x00, 0x04};  // bit 18
  ASSERT_TRUE(RunConcurrently(kWorkers, [&](int) {
    SetProgramName("vsk-client");
    if (vsk_open_internal(false) != 0) return 1;
    for (uint32_t i = 0; i < kPerWorker; ++i) {
      if (vsk_summary_counter_increment_state(2, nullptr) != 0) return 2;
      if (vsk_summary_counter_increment_ifl_type(1, nullptr) != 0) return 3;
      if (vsk_summary_counter_increment_type(0x10, nullptr) != 0) return 4;
      if (vsk_summary_counter_increment_total(nullptr) != 0) return 5;
      if (vsk_summary_counter_increment_config_bits(bits, 3, nullptr) != 0) return 6;
      if (i % 2 == 0 && vsk_summary_counter_decrement_total() != 0) return 7;
    }
    return 0;
  }));
  const uint32_t n = kWorkers * kPerWorker;
  EXPECT_EQ(vsk_summary_counter[3], n);
  EXPECT_EQ(vsk_summary_counter[7], n);
  EXPECT_EQ(vsk_summary_counter[25], n);
  EXPECT_EQ(vsk_summary_counter[13], n);
  EXPECT_EQ(vsk_summary_counter[23], n);
  EXPECT_EQ(vsk_summary_counter[46], n);
  EXPECT_EQ(vsk_summary_counter[0], n / 2);
}
}  // namespace
}  // namespace vsk::test
