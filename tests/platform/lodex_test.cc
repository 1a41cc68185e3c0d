// The replication message service's outbound queue in one process: messages come out
// whole and in order across the ring's end, and a full queue drops and counts instead of
// blocking.
#include <string>

#include "lodex_helpers.h"

namespace vsk::test {
namespace {

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
  for (; sent < 50; ++sent) ASSERT_EQ(Send("ctl1", rec), 0);  // none of them blocks
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

TEST_F(LodexTest, ARecordThatExactlyFillsTheRingGoesInAcrossItsEnd) {
  ASSERT_EQ(lodex_init(nullptr, 512), 0) << lodex_get_err_msg();
  Received r;
  ASSERT_EQ(Send("c", std::string(64, 'a')), 0);  // 104 bytes: the ring's positions move on
  ASSERT_EQ(Receive(&r), 1);
  const std::string rec(512 - sizeof(LodexRecordHeader) - 1, 'f');
  ASSERT_EQ(Send("x", rec, 3, 4), 0);
  lodex_stats_t s = Stats();
  EXPECT_EQ(s.used, 512u);
  EXPECT_EQ(s.dropped_full, 0u);
  ASSERT_EQ(Send("y", ""), 0);
  EXPECT_EQ(Stats().dropped_full, 1u) << "nothing fits behind a full ring";
  ASSERT_EQ(Receive(&r), 1);
  EXPECT_EQ(r.control, "x");
  EXPECT_EQ(r.rec, rec);
  EXPECT_EQ(r.msg.lsn.offset, 4u);
  EXPECT_EQ(Receive(&r), 0);
}

TEST_F(LodexTest, RefusesATooSmallQueue) {
  EXPECT_EQ(lodex_init(nullptr, 16), -1);
  EXPECT_NE(std::string(lodex_get_err_msg()).find("too small"), std::string::npos);
  EXPECT_EQ(Send("not", "attached"), 0);  // the transport never fails a commit
  EXPECT_EQ(lodex_release(1), 0);
}

}  // namespace
}  // namespace vsk::test
