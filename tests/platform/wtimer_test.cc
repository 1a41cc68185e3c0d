// Timers on a real libevent loop: one-shot firing never before the interval, the running
// flag, restart from the callback, destruction of an armed leaf.
#include "platform/wtimer.h"

#include <chrono>
#include <vector>

#include "platform/evlib.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

struct Firing {
  std::vector<Clock::time_point> at;
  bool running_inside = true;
  int restarts_left = 0;
  wtimer_interval_t interval{0, 0};
};

void OnFire(wtimer_leaf_t* leaf, void* arg) {
  auto* f = static_cast<Firing*>(arg);
  f->at.push_back(Clock::now());
  f->running_inside = wtimer_running(leaf);
  if (f->restarts_left > 0) {
    --f->restarts_left;
    wtimer_start_oneshot_precise(leaf, &f->interval, 0);
  }
}

class WtimerTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(evCreate(&ctx_), 0);
    root_ = wtimer_init(ctx_, 0);
    ASSERT_NE(root_, nullptr);
  }
  void TearDown() override {
    wtimer_root_destroy(root_);
    evDestroy(ctx_);
    VskTest::TearDown();
  }
  // Runs the loop for about `ms` milliseconds.
  void RunFor(int ms) {
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      evDispatchOnce(ctx_, static_cast<int>(left.count()) + 1);
    }
  }

  evContext ctx_{};
  wtimer_root_t* root_ = nullptr;
};

TEST_F(WtimerTest, OneShotFiresOnceAfterItsInterval) {
  Firing f;
  wtimer_leaf_t* leaf = wtimer_create_leaf(root_, 0, OnFire, &f);
  ASSERT_NE(leaf, nullptr);
  EXPECT_FALSE(wtimer_running(leaf)) << "a new leaf is stopped";

  wtimer_interval_t iv{0, 120u * 1000u * 1000u};
  auto start = Clock::now();
  ASSERT_EQ(wtimer_start_oneshot_precise(leaf, &iv, 0), 0);
  EXPECT_TRUE(wtimer_running(leaf));

  RunFor(60);
  // A loaded machine may have let the whole interval pass by now; never less of it.
  for (auto at : f.at) EXPECT_GE(at - start, std::chrono::milliseconds(119));
  EXPECT_EQ(wtimer_running(leaf), f.at.empty());

  RunFor(400);
  ASSERT_EQ(f.at.size(), 1u) << "one start, one firing";
  EXPECT_GE(f.at[0] - start, std::chrono::milliseconds(119));
  EXPECT_FALSE(f.running_inside) << "the callback sees the leaf stopped";
  EXPECT_FALSE(wtimer_running(leaf));
  EXPECT_EQ(wtimer_destroy(leaf), 0);
}

TEST_F(WtimerTest, CallbackMayStartItsLeafAgain) {
  Firing f;
  f.restarts_left = 2;
  f.interval = {0, 20u * 1000u * 1000u};
  wtimer_leaf_t* leaf = wtimer_create_leaf(root_, 0, OnFire, &f);
  ASSERT_NE(leaf, nullptr);
  ASSERT_EQ(wtimer_start_oneshot_precise(leaf, &f.interval, 0), 0);
  // With only the timer on the loop, evMainLoop returns once it stops re-arming.
  ASSERT_EQ(evMainLoop(ctx_), 0);
  ASSERT_EQ(f.at.size(), 3u);
  for (size_t i = 1; i < f.at.size(); ++i) {
    EXPECT_GE(f.at[i] - f.at[i - 1], std::chrono::milliseconds(19));
  }
  wtimer_destroy(leaf);
}

TEST_F(WtimerTest, StartingARunningLeafRestartsItsInterval) {
  Firing f;
  wtimer_leaf_t* leaf = wtimer_create_leaf(root_, 0, OnFire, &f);
  // Intervals far above the scheduling delays of a loaded machine.
  wtimer_interval_t iv{0, 400u * 1000u * 1000u};
  ASSERT_EQ(wtimer_start_oneshot_precise(leaf, &iv, 0), 0);
  RunFor(50);
  ASSERT_TRUE(f.at.empty());
  auto restart = Clock::now();
  ASSERT_EQ(wtimer_start_oneshot_precise(leaf, &iv, 0), 0);
  RunFor(900);
  ASSERT_EQ(f.at.size(), 1u);
  EXPECT_GE(f.at[0] - restart, std::chrono::milliseconds(399));
  wtimer_destroy(leaf);
}

TEST_F(WtimerTest, DestroyedLeafNeverFiresAndBadArgumentsAreRefused) {
  Firing f;
  wtimer_leaf_t* leaf = wtimer_create_leaf(root_, 0, OnFire, &f);
  wtimer_interval_t iv{2, 0};
  ASSERT_EQ(wtimer_start_oneshot_precise(leaf, &iv, 0), 0);
  EXPECT_EQ(wtimer_destroy(leaf), 0);
  ASSERT_EQ(evMainLoop(ctx_), 0) << "nothing is left on the loop";
  EXPECT_TRUE(f.at.empty());
  EXPECT_EQ(wtimer_destroy(nullptr), 0);

  leaf = wtimer_create_leaf(root_, 0, OnFire, &f);
  wtimer_interval_t bad{0, 1000000000u};
  EXPECT_EQ(wtimer_start_oneshot_precise(leaf, &bad, 0), -1);
  EXPECT_FALSE(wtimer_running(leaf));
  EXPECT_EQ(wtimer_start_oneshot_precise(leaf, nullptr, 0), -1);
  EXPECT_EQ(wtimer_start_oneshot_precise(nullptr, &bad, 0), -1);
  EXPECT_FALSE(wtimer_running(nullptr));
  EXPECT_EQ(wtimer_create_leaf(nullptr, 0, OnFire, &f), nullptr);
  EXPECT_EQ(wtimer_create_leaf(root_, 0, nullptr, &f), nullptr);
  EXPECT_EQ(wtimer_init(evContext{}, 0), nullptr);
  wtimer_destroy(leaf);
}

}  // namespace
}  // namespace vsk::test
