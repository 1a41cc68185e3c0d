// The replication message service's outbound queue shared by processes: a busy lock
// drops instead of waiting, a holder killed with the lock leaves a usable queue, and
// several senders share one queue of the creator's size.
#include <signal.h>

#include <string>

#include "lodex_helpers.h"

namespace vsk::test {
namespace {

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

}  // namespace
}  // namespace vsk::test
