// The daemon-link handle with no orvd around: option checks, and the broken preconditions
// that are logged as insists, after which the library goes on as a daemon would find it.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "libvsk/orvd_client/link.h"
#include "libvsk/orvd_ctx.h"
#include "platform/logging.h"
#include "support/harness.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

std::vector<std::string> g_logged;
void LogSink(int level, const char* format, va_list args) {
  char buf[256];
  std::vsnprintf(buf, sizeof buf, format, args);
  g_logged.push_back(std::to_string(level) + ":" + buf);
}

class HandleTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    g_logged.clear();
    previous_ = platform::SetLoggingSink(LogSink);
  }
  void TearDown() override {
    platform::SetLoggingSink(previous_);
    VskTest::TearDown();
  }
  static int Insists(const std::string& expression) {
    int n = 0;
    for (const auto& line : g_logged) {
      n += line.rfind("0:", 0) == 0 &&
           line.find(": insist '" + expression + "' failed") != std::string::npos;
    }
    return n;
  }
  platform::LoggingSink previous_ = nullptr;
};

TEST_F(HandleTest, OptionsAreCheckedAndFrozen) {
  orvd_ctx_t* ctx = orvd_init_handle();
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->fd, -1);
  EXPECT_EQ(ctx->connect_timeout, 1000u);
  evContext empty{};
  EXPECT_EQ(orvd_set_reg_type_event(ctx, &empty), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(orvd_set_reg_type_event(ctx, nullptr), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(orvd_set_reg_type_select(
                ctx, nullptr, [](void*, int) {}, nullptr),
            -25);
  EXPECT_EQ(orvd_set_trace_callback(ctx, nullptr, nullptr), -25);
  EXPECT_EQ(orvd_set_reg_type_poll(nullptr), -25);
  EXPECT_EQ(orvd_set_connect_timeout(ctx, 0), 0);
  EXPECT_EQ(ctx->connect_timeout, 0u);
  // A daemon that asks for upgrades must give the prepare callback: refused before the
  // platform is looked at.
  int cookie = 0;
  EXPECT_EQ(orvd_set_issu_cookie(ctx, &cookie), 0);
  EXPECT_TRUE(ctx->issu_enabled);
  EXPECT_EQ(orvd_register(ctx), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(orvd_get_daemon_issu_state(ctx), 0u);
  EXPECT_EQ(orvd_get_platd_issu_state(ctx), 0u);
  ctx->user_reg = true;
  EXPECT_EQ(orvd_set_connect_timeout(ctx, 5), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(ctx->connect_timeout, 0u);
  ctx->user_reg = false;
  EXPECT_TRUE(g_logged.empty());
  orvd_unregister(&ctx);
}

// A broken precondition is logged, and the call goes on as far as it can without a null
// handle: here up to the connection to orvd, which nobody serves.
TEST_F(HandleTest, BrokenPreconditionsAreLoggedAndTheCallGoesOn) {
  orvd_ctx_t* first = orvd_init_handle();
  orvd_ctx_t* second = orvd_init_handle();
  EXPECT_EQ(Insists("!orvd_init_handle_done"), 1);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first) << "a second call makes a handle of its own";
  EXPECT_EQ(second->fd, -1);
  EXPECT_EQ(second->connect_timeout, 1000u);
  std::free(first);  // the daemon's own leak

  orvd_set_reg_type_poll(second);
  orvd_init_handle_done = false;
  EXPECT_EQ(orvd_register(second), VSK_ERR_NOT_STARTED) << "no shared state to attach to";
  EXPECT_EQ(Insists("orvd_init_handle_done"), 1);
  orvd_init_handle_done = true;

  second->user_reg = true;
  EXPECT_EQ(orvd_register(second), VSK_ERR_NOT_STARTED);
  EXPECT_EQ(Insists("!ctx->user_reg"), 1);
  second->user_reg = false;

  second->is_orvd = true;
  EXPECT_EQ(orvd_reregister(second), VSK_ERR_NOT_STARTED);
  EXPECT_EQ(Insists("!ctx->is_orvd"), 1);
  second->is_orvd = false;

  // Only a null handle stops a call at its insist.
  EXPECT_EQ(orvd_register(nullptr), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(orvd_reregister(nullptr), VSK_ERR_ORVD_FATAL);
  EXPECT_EQ(Insists("ctx"), 2);
  orvd_unregister(&second);
}

}  // namespace
}  // namespace vsk::test
