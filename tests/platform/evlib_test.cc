// The event library on a real libevent loop: readiness callbacks, deselection (also from
// inside a callback), breaking the loop, wrapping a daemon's own event_base, and argument
// checks.
#include "platform/evlib.h"

#include <errno.h>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "support/harness.h"

namespace vsk::test {
namespace {

struct Call {
  int fd;
  int mask;
};

struct Recorder {
  std::vector<Call> calls;
  evFileID self{};
  bool deselect_self = false;
  bool break_loop = false;
  bool drain = true;
};

void Record(evContext ctx, void* uap, int fd, int mask) {
  auto* r = static_cast<Recorder*>(uap);
  r->calls.push_back({fd, mask});
  if (r->drain && (mask & EV_READ)) {
    char buf[64];
    (void)!read(fd, buf, sizeof buf);
  }
  if (r->deselect_self) __evDeselectFD(ctx, r->self);
  if (r->break_loop) evBreak(ctx);
}

class EvlibTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(pipe(pipe_), 0);
    fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
    ASSERT_EQ(evCreate(&ctx_), 0);
  }
  void TearDown() override {
    if (ctx_.opaque != nullptr) evDestroy(ctx_);
    close(pipe_[0]);
    close(pipe_[1]);
    VskTest::TearDown();
  }
  void Poke() { ASSERT_EQ(write(pipe_[1], "x", 1), 1); }
  int rd() const { return pipe_[0]; }
  int wr() const { return pipe_[1]; }

  evContext ctx_{};
  int pipe_[2] = {-1, -1};
};

TEST_F(EvlibTest, ADescriptorCallsBackUntilDeselected) {
  int other[2];
  ASSERT_EQ(pipe(other), 0);
  Recorder rec, idle;
  ASSERT_EQ(__evSelectFD(ctx_, rd(), EV_READ, Record, &rec, &rec.self), 0);
  ASSERT_EQ(__evSelectFD(ctx_, other[0], EV_READ, Record, &idle, &idle.self), 0);
  ASSERT_EQ(evDispatchOnce(ctx_, 30), 0);
  EXPECT_TRUE(rec.calls.empty()) << "nothing was written yet";
  for (int i = 0; i < 3; ++i) {
    Poke();
    ASSERT_EQ(evDispatchOnce(ctx_, 1000), 0);
  }
  ASSERT_EQ(rec.calls.size(), 3u);
  EXPECT_EQ(rec.calls[0].fd, rd());
  EXPECT_EQ(rec.calls[0].mask, EV_READ);
  EXPECT_TRUE(idle.calls.empty()) << "each descriptor reaches its own callback";

  ASSERT_EQ(__evDeselectFD(ctx_, rec.self), 0);
  Poke();
  ASSERT_EQ(evDispatchOnce(ctx_, 50), 0);
  EXPECT_EQ(rec.calls.size(), 3u) << "a deselected descriptor must not call back";
  errno = 0;
  EXPECT_EQ(__evDeselectFD(ctx_, rec.self), -1) << "the id is gone";
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(__evDeselectFD(ctx_, idle.self), 0);
  close(other[0]);
  close(other[1]);
}

TEST_F(EvlibTest, CallbackMayDeselectItselfAndLoopEndsWhenNothingIsLeft) {
  Recorder rec;
  rec.deselect_self = true;
  rec.drain = false;  // still readable: only the deselection stops further calls
  ASSERT_EQ(__evSelectFD(ctx_, rd(), EV_READ, Record, &rec, &rec.self), 0);
  Poke();
  ASSERT_EQ(evMainLoop(ctx_), 0);
  EXPECT_EQ(rec.calls.size(), 1u);
  // evBreak from a callback ends the loop although the descriptor stays registered.
  Recorder writable;
  writable.break_loop = true;
  ASSERT_EQ(__evSelectFD(ctx_, wr(), EV_WRITE, Record, &writable, &writable.self), 0);
  ASSERT_EQ(evMainLoop(ctx_), 0);
  ASSERT_EQ(writable.calls.size(), 1u);
  EXPECT_EQ(writable.calls[0].mask, EV_WRITE);
}

TEST_F(EvlibTest, WrapsAnExistingBaseAndLeavesItToItsOwner) {
  event_base* base = event_base_new();
  ASSERT_NE(base, nullptr);
  evContext wrapped{};
  ASSERT_EQ(evCreateFromBase(base, &wrapped), 0);
  EXPECT_EQ(evGetBase(wrapped), base);

  Recorder rec;
  ASSERT_EQ(__evSelectFD(wrapped, rd(), EV_READ, Record, &rec, &rec.self), 0);
  Poke();
  // The daemon runs its own libevent loop; our callbacks ride on it.
  ASSERT_EQ(event_base_loop(base, EVLOOP_ONCE), 0);
  EXPECT_EQ(rec.calls.size(), 1u);

  // Destroying the wrapper drops its live registrations (the leak checker sees any left),
  // not the base.
  ASSERT_EQ(evDestroy(wrapped), 0);
  Poke();
  EXPECT_EQ(event_base_loop(base, EVLOOP_NONBLOCK), 1) << "no events left on the base";
  EXPECT_EQ(rec.calls.size(), 1u);
  event_base_free(base);
}

TEST_F(EvlibTest, BadArgumentsAreRefusedWithEinval) {
  Recorder rec;
  evFileID id{};
  evContext empty{};
  struct Case {
    evContext ctx;
    int fd;
    int mask;
    evFileFunc fn;
  } cases[] = {
      {empty, rd(), EV_READ, Record}, {ctx_, -1, EV_READ, Record},    {ctx_, rd(), 0, Record},
      {ctx_, rd(), 0x100, Record},    {ctx_, rd(), EV_READ, nullptr},
  };
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(__evSelectFD(c.ctx, c.fd, c.mask, c.fn, &rec, &id), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(__evDeselectFD(ctx_, evFileID{}), -1);
  EXPECT_EQ(evDispatchOnce(empty, 0), -1);
  EXPECT_EQ(evMainLoop(empty), -1);
  EXPECT_EQ(evDestroy(empty), -1);
  EXPECT_EQ(evCreate(nullptr), -1);
  EXPECT_EQ(evCreateFromBase(nullptr, &empty), -1);
  EXPECT_EQ(evGetBase(empty), nullptr);
}

}  // namespace
}  // namespace vsk::test
