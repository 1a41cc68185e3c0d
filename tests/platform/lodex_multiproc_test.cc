// The replication message service's outbound queue: messages come out whole and in order
// across the ring's end, a full or busy queue drops and counts instead of blocking, and
// several processes share one queue, also after one of them died holding its lock.
#include <pthread.h>
#include <sys/shm.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "platform/lodex.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

using platform::LodexQueueHeader;
using platform::LodexRecordHeader;

class LodexTest : public VskTest {
 protected:
  void TearDown() override {
    lodex_release(0);
    VskTest::TearDown();
  }
};

DBT Dbt(const std::string& s) {
  DBT d{};
  d.data = const_cast<char*>(s.data());
  d.size = static_cast<uint32_t>(s.size());
  return d;
}

int Send(const std::string& control, const std::string& rec, uint32_t lsn_file = 1,
         uint32_t lsn_offset = 0, int envid = DB_EID_BROADCAST, uint32_t flags = 0) {
  DBT c = Dbt(control);
  DBT r = Dbt(rec);
  DB_LSN lsn{lsn_file, lsn_offset};
  return lodex_send(nullptr, &c, &r, &lsn, envid, flags);
}

struct Received {
  std::string control;
  std::string rec;
  lodex_msg_t msg{};
};

// 1 with a message, 0 when empty, the receive's failure otherwise.
int Receive(Received* out, uint32_t room = 1 << 16) {
  std::vector<char> buffer(room);
  int r = lodex_receive(&out->msg, buffer.data(), room);
  if (r == 1) {
    out->control.assign(static_cast<char*>(out->msg.control), out->msg.control_size);
    out->rec.assign(static_cast<char*>(out->msg.rec), out->msg.rec_size);
  }
  return r;
}

lodex_stats_t Stats() {
  lodex_stats_t s{};
  EXPECT_EQ(lodex_get_stats(&s), 0);
  return s;
}

// A second mapping of the queue, as another process would have it.
LodexQueueHeader* MapQueue() {
  int id = shmget(platform::LodexKey(), 0, 0);
  if (id < 0) return nullptr;
  void* p = shmat(id, nullptr, 0);
  return p == reinterpret_cast<void*>(-1) ? nullptr : static_cast<LodexQueueHeader*>(p);
}

TEST_F(LodexTest, MessagesComeOutWholeAndInOrderAcrossTheRingEnd) {
  EXPECT_EQ(lodex_receive(nullptr, nullptr, 0), -1);  // not attached yet
  EXPECT_EQ(lodex_get_stats(nullptr), -1);
  ASSERT_EQ(lodex_init(nullptr, 1000), 0) << lodex_get_err_msg();
  EXPECT_EQ(Stats().capacity, 1000u);
  Received r;
  EXPECT_EQ(Receive(&r), 0);

  // Messages of uneven sizes, drained as they go, make the ring wrap many times.
  for (int i = 0; i < 200; ++i) {
    std::string control = "ctl" + std::to_string(i);
    std::string rec(static_cast<size_t>(i * 37 % 300), static_cast<char>('a' + i % 26));
    ASSERT_EQ(Send(control, rec, 7, static_cast<uint32_t>(i), i % 3, 0x40u + i), 0);
    ASSERT_EQ(Receive(&r), 1) << i;
    EXPECT_EQ(r.control, control);
    EXPECT_EQ(r.rec, rec);
    EXPECT_EQ(r.msg.lsn.file, 7u);
    EXPECT_EQ(r.msg.lsn.offset, static_cast<uint32_t>(i));
    EXPECT_EQ(r.msg.envid, i % 3);
    EXPECT_EQ(r.msg.flags, 0x40u + i);
  }
  EXPECT_EQ(Receive(&r), 0);
  lodex_stats_t s = Stats();
  EXPECT_EQ(s.enqueued, 200u);
  EXPECT_EQ(s.dequeued, 200u);
  EXPECT_EQ(s.used, 0u);
  EXPECT_EQ(s.dropped_full + s.dropped_busy, 0u);

  // A message with no record and a null LSN.
  const std::string only_control = "only-control";
  DBT c = Dbt(only_control);
  ASSERT_EQ(lodex_send(nullptr, &c, nullptr, nullptr, 0, 0), 0);
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.control, "only-control");
  EXPECT_EQ(r.msg.rec_size, 0u);

  // A reader with too small a buffer learns the sizes and the message stays.
  ASSERT_EQ(Send("abc", std::string(100, 'z')), 0);
  EXPECT_EQ(Receive(&r, 50), -2);
  EXPECT_EQ(r.msg.control_size, 3u);
  EXPECT_EQ(r.msg.rec_size, 100u);
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.rec, std::string(100, 'z'));
}

TEST_F(LodexTest, AFullQueueDropsAndCountsWithoutBlocking) {
  ASSERT_EQ(lodex_init(nullptr, 512), 0) << lodex_get_err_msg();
  const std::string rec(64, 'r');  // 32 + 4 + 64 -> 104 bytes a record
  int sent = 0;
  auto start = std::chrono::steady_clock::now();
  for (; sent < 50; ++sent) ASSERT_EQ(Send("ctl1", rec), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  lodex_stats_t s = Stats();
  EXPECT_EQ(s.enqueued, 4u);  // 4 * 104 <= 512 < 5 * 104
  EXPECT_EQ(s.dropped_full, 46u);
  EXPECT_EQ(s.dropped_bytes, 46u * 68u);
  EXPECT_EQ(s.used, 4u * 104u);
  // A message larger than the whole ring can never go in.
  ASSERT_EQ(Send("x", std::string(600, 'x')), 0);
  EXPECT_EQ(Stats().dropped_full, 47u);

  // Draining makes room again; what was queued before the drops is intact.
  Received r;
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(Receive(&r), 1);
    EXPECT_EQ(r.rec, rec);
  }
  ASSERT_EQ(Send("after", "drain"), 0);
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.control, "after");
}

// Starts a process that takes the queue's lock, says so, and on Go() lets it go (or not).
void StartLockHolder(Child& holder, bool unlock) {
  holder.Start([unlock](Child::Channel& ch) {
    LodexQueueHeader* q = MapQueue();
    if (q == nullptr || pthread_mutex_lock(&q->lock) != 0) return 1;
    ch.Ready();
    ch.WaitGo();
    if (unlock) pthread_mutex_unlock(&q->lock);
    return 0;
  });
}

TEST_F(LodexTest, ABusyLockDropsInsteadOfWaiting) {
  ASSERT_EQ(lodex_init(nullptr, 4096), 0) << lodex_get_err_msg();
  Child holder;
  StartLockHolder(holder, true);
  ASSERT_TRUE(holder.WaitReady());
  ASSERT_EQ(Send("busy", "payload"), 0);
  holder.Go();
  ASSERT_TRUE(holder.Wait().Ok());
  lodex_stats_t s = Stats();
  EXPECT_EQ(s.dropped_busy, 1u);
  EXPECT_EQ(s.dropped_bytes, 11u);
  EXPECT_EQ(s.enqueued, 0u);
  ASSERT_EQ(Send("free", "again"), 0);
  EXPECT_EQ(Stats().enqueued, 1u);
}

TEST_F(LodexTest, AHolderKilledWithTheLockLeavesAUsableQueue) {
  ASSERT_EQ(lodex_init(nullptr, 4096), 0) << lodex_get_err_msg();
  ASSERT_EQ(Send("before", "death"), 0);
  Child holder;
  StartLockHolder(holder, false);
  ASSERT_TRUE(holder.WaitReady());
  holder.Kill(SIGKILL);
  holder.Wait();
  ASSERT_EQ(Send("after", "death"), 0);
  Received r;
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.control, "before");
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.control, "after");
  EXPECT_EQ(Stats().dropped_busy, 0u);
}

TEST_F(LodexTest, ProcessesShareOneQueueOfTheCreatorsSize) {
  ASSERT_EQ(lodex_init(nullptr, 1 << 20), 0) << lodex_get_err_msg();
  EXPECT_EQ(lodex_init(nullptr, 64), 0);  // attached already: nothing changes
  constexpr int kPerSender = 2000;
  auto sender = [](char tag) {
    return [tag] {
      if (lodex_init(nullptr, 4096) != 0) return 1;  // an existing queue keeps its size
      lodex_stats_t s{};
      if (lodex_get_stats(&s) != 0 || s.capacity != (1u << 20)) return 2;
      for (int i = 0; i < kPerSender; ++i) {
        std::string rec = std::string(1, tag) + std::to_string(i);
        if (Send("s", rec, 1, static_cast<uint32_t>(i)) != 0) return 3;
      }
      return lodex_release(0) == 0 ? 0 : 4;
    };
  };
  Child a;
  Child b;
  a.Start([&](Child::Channel&) { return sender('a')(); });
  b.Start([&](Child::Channel&) { return sender('b')(); });

  // Each sender's messages come out in its own order.
  int next[2] = {0, 0};
  int received = 0;
  auto drain = [&] {
    Received r;
    while (Receive(&r) == 1) {
      int who = r.rec[0] - 'a';
      ASSERT_TRUE(who == 0 || who == 1) << r.rec;
      int seq = std::stoi(r.rec.substr(1));
      EXPECT_GE(seq, next[who]) << r.rec;
      EXPECT_EQ(r.msg.lsn.offset, static_cast<uint32_t>(seq));
      next[who] = seq + 1;
      ++received;
    }
  };
  ChildResult ra = a.Wait();
  ChildResult rb = b.Wait();
  drain();
  EXPECT_TRUE(ra.Ok()) << ra;
  EXPECT_TRUE(rb.Ok()) << rb;
  lodex_stats_t s = Stats();
  // Nothing was lost silently: every message went in or was counted as dropped.
  EXPECT_EQ(s.enqueued + s.dropped_busy + s.dropped_full, 2u * kPerSender);
  EXPECT_EQ(static_cast<uint64_t>(received), s.enqueued);
  EXPECT_EQ(s.dropped_full, 0u);
}

TEST_F(LodexTest, RefusesATooSmallQueue) {
  EXPECT_EQ(lodex_init(nullptr, 16), -1);
  EXPECT_NE(std::string(lodex_get_err_msg()).find("too small"), std::string::npos);
  EXPECT_EQ(Send("not", "attached"), 0);  // the transport never fails a commit
  EXPECT_EQ(lodex_release(1), 0);
}

}  // namespace
}  // namespace vsk::test
