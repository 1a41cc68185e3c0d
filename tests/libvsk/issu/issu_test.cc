// In-service upgrades end to end: a real orvd, the operator's vsk-issu tool, and real
// daemon processes in event, select and poll modes.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/orvd_client/wire.h"
#include "libvsk/orvd_ctx.h"
#include "support/harness.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

enum class Mode { kEvent, kSelect, kPoll };
constexpr Mode kModes[] = {Mode::kEvent, Mode::kSelect, Mode::kPoll};

// ---- the operator ---------------------------------------------------------------------

struct Answer {
  int exit_code = -1;
  json body;
};

// Runs the operator tool (the test's VSK_ROOT is inherited).
Answer Issu(const std::string& args) {
  std::string cmd = std::string(VSK_BINARY_DIR "/tools/vsk-issu ") + args + " 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  Answer a;
  a.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  a.body = json::parse(out, nullptr, false);
  return a;
}

// orvd's record of participant `name` in the status, or null.
json Client(const json& status, const std::string& name) {
  for (const auto& c : status["clients"]) {
    if (c["name"] == name) return c;
  }
  return nullptr;
}

// Asks for the status until `done` holds (answers reach orvd a moment after a command).
json StatusWhen(const std::function<bool(const json&)>& done) {
  json last;
  for (auto end = Clock::now() + std::chrono::seconds(10); Clock::now() < end;) {
    last = Issu("status").body;
    if (!last.is_discarded() && done(last)) return last;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ADD_FAILURE() << "status never reached the expected form: " << last.dump();
  return last;
}

// ---- a participating daemon, in a child process -----------------------------------------

struct Script {  // what the prepare, switchover and abort callbacks answer
  bool abort = false, ready = true;
  uint32_t wait = 0;
  std::string text;
};
Script g_script;
std::vector<std::string> g_calls;  // callbacks run, in order
int g_select_fd = -1;

void FillBlock(vsk_issu_cbk_block_t* b) {
  b->wait = g_script.wait;
  std::snprintf(b->text, sizeof b->text, "%s", g_script.text.c_str());
}
void OnIdle(void*) { g_calls.push_back("idle"); }
void OnPrepare(void*, bool* abort, bool* ready, vsk_issu_cbk_block_t* b) {
  g_calls.push_back(*abort || !*ready ? "prepare with bad flags" : "prepare");
  *abort = g_script.abort;
  *ready = g_script.ready;
  FillBlock(b);
}
void OnPrepareDone(void*) { g_calls.push_back("prepare done"); }
void OnSwitchover(void*, bool* ready, vsk_issu_cbk_block_t* b) {
  g_calls.push_back("switchover");
  *ready = g_script.ready;
  FillBlock(b);
}
void OnSwitchoverDone(void*) { g_calls.push_back("switchover done"); }
void OnAbort(void*, vsk_issu_cbk_block_t* b) {
  g_calls.push_back("abort");
  FillBlock(b);
}
void SelectRegister(void*, int fd) { g_select_fd = fd; }
void SelectDeregister(void*, int) { g_select_fd = -1; }

struct Daemon {
  Mode mode;
  evContext ev{};
  orvd_ctx_t* ctx = nullptr;

  // Registers as `name` with every ISSU callback. 0 or the registration's status.
  int Register(const char* name) {
    SetProgramName(name);
    ctx = orvd_init_handle();
    orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
    if (mode == Mode::kEvent) {
      evCreate(&ev);
      orvd_set_reg_type_event(ctx, &ev);
    } else if (mode == Mode::kSelect) {
      orvd_set_reg_type_select(ctx, nullptr, SelectRegister, SelectDeregister);
    } else {
      orvd_set_reg_type_poll(ctx);
    }
    static int cookie;
    orvd_set_issu_cookie(ctx, &cookie);
    orvd_set_issu_idle_cbk(ctx, OnIdle);
    orvd_set_issu_prepare_cbk(ctx, OnPrepare, OnPrepareDone);
    orvd_set_issu_switchover_cbk(ctx, OnSwitchover, OnSwitchoverDone);
    orvd_set_issu_abort_cbk(ctx, OnAbort);
    return orvd_register(ctx);
  }

  // Services the link the way a daemon of this mode does, until `done` holds (10 s).
  // A poll-mode daemon reads through orvd_poll_check: vsk_db_check stops reading the
  // link while the chassis has finished a switchover.
  bool ServiceUntil(const std::function<bool()>& done) {
    for (auto end = Clock::now() + std::chrono::seconds(10); !done();) {
      if (Clock::now() > end) return false;
      if (mode == Mode::kEvent) {
        evDispatchOnce(ev, 20);
      } else if (mode == Mode::kSelect) {
        pollfd p{g_select_fd, POLLIN, 0};
        if (g_select_fd >= 0 && poll(&p, 1, 20) == 1) orvd_select_fd_read(ctx);
      } else {
        orvd_poll_check(ctx);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    return true;
  }
  bool ServiceUntilState(uint32_t platd, uint32_t mine) {
    return ServiceUntil([&] {
      return orvd_get_platd_issu_state(ctx) == platd && orvd_get_daemon_issu_state(ctx) == mine;
    });
  }
  void End() {
    orvd_unregister(&ctx);
    if (ev.opaque != nullptr) evDestroy(ev);
  }
};

class IssuTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_TRUE(orvd_.Start());
  }
  void TearDown() override {
    orvd_.Stop();
    VskTest::TearDown();
  }
  OrvdProcess orvd_;
};

// ---- every row of the daemon's transition table --------------------------------------------

struct Row {
  uint32_t announced;
  Script script;
  uint32_t state_after;  // the daemon's
  const char* callback;  // run, or null for none
  bool answered;
  const char* trace;  // expected among the handler's traces, or null
  int check;          // vsk_db_check afterwards
};

const std::string kLong(200, 'x');  // a reason longer than the block
const std::string kLongSent =
    "Send ISSU message <prepare wait>, wait=30 errstr=\"" + std::string(127, 'x') + "\"";

const Row kRows[] = {
    // Refused at idle: the chassis state is still stored, so 6 stops session operations.
    {7, {}, 0, nullptr, false, "Invalid ISSU state transition", 0},
    {2, {}, 0, nullptr, false, "Invalid ISSU state transition", 0},
    {5, {}, 0, nullptr, false, "Invalid ISSU state transition", 0},
    {6, {}, 0, nullptr, false, "Invalid ISSU state transition", VSK_ERR_ISSU},
    {3, {}, 0, nullptr, false, "Invalid ISSU state message 3", 0},
    {4, {}, 0, nullptr, false, "Invalid ISSU state message 4", 0},
    {9, {}, 0, nullptr, false, "Invalid ISSU state message 9", 0},
    // Prepare, not ready: waits 30 with a reason cut to 127 characters.
    {1, {false, false, 30, kLong}, 1, "prepare", true,
     kLongSent.c_str(), 0},
    {2, {}, 1, nullptr, false, "Invalid ISSU state transition", 0},
    {1, {}, 2, "prepare", true, "Send ISSU message <prepare ready>", 0},
    // A second prepare runs the callback again; without a wait there is nothing to extend.
    {1, {false, false, 0, ""}, 1, "prepare", true,
     "Send ISSU message <prepare wait>, wait=0 errstr=\"\"", 0},
    {1, {}, 2, "prepare", true, nullptr, 0},
    {2, {}, 2, "prepare done", false, nullptr, 0},
    {6, {}, 2, nullptr, false, "Invalid ISSU state transition", VSK_ERR_ISSU},
    {5, {false, false, 7, "syncing"}, 3, "switchover", true,
     "Send ISSU message <switchover wait>, wait=7 errstr=\"syncing\"", 0},
    {6, {}, 3, nullptr, false, "Invalid ISSU state transition", VSK_ERR_ISSU},
    {5, {}, 4, "switchover", true, "Send ISSU message <switchover ready>", 0},
    {1, {}, 4, nullptr, false, "Invalid ISSU state transition", 0},
    {6, {}, 4, "switchover done", false, nullptr, VSK_ERR_ISSU},
    {7, {false, true, 0, "rolling back"}, 5, "abort", true,
     "Send ISSU message <abort wait>, wait=0 errstr=\"rolling back\"", 0},
    {0, {}, 0, "idle", false, nullptr, 0},
    // abort and ready together: abort wins.
    {1, {true, true, 0, ""}, 5, "prepare", true, "Send ISSU message <abort wait>, wait=0 errstr=\"\"",
     0},
    {0, {}, 0, "idle", false, nullptr, 0},
};

TEST_F(IssuTest, EveryTransitionInEachMode) {
  for (Mode mode : kModes) {
    SCOPED_TRACE(static_cast<int>(mode));
    Child daemon;
    daemon.Start([mode](Child::Channel& ch) {
      Daemon d{mode};
      CHILD_CHECK(d.Register("issu-rows") == 0);
      CHILD_CHECK(orvd_send_issu_state_ready(d.ctx) == VSK_ERR_ORVD_FATAL);
      CHILD_CHECK(GlobalTraces().Count("Cannot send ISSU ready to ORVD in idle state") == 1);
      CHILD_CHECK(orvd_set_issu_abort_cbk(d.ctx, OnAbort) == VSK_ERR_ORVD_FATAL);
      for (const Row& row : kRows) {
        ch.Ready();
        if (!ch.WaitGo()) return 1;
        g_script = row.script;
        g_calls.clear();
        GlobalTraces().Clear();
        CHILD_CHECK(d.ServiceUntil(
            [] { return GlobalTraces().CountContaining("Received ISSU message") == 1; }));
        CHILD_CHECK(orvd_get_platd_issu_state(d.ctx) == row.announced);
        CHILD_CHECK(orvd_get_daemon_issu_state(d.ctx) == row.state_after);
        CHILD_CHECK(g_calls == (row.callback != nullptr ? std::vector<std::string>{row.callback}
                                                        : std::vector<std::string>{}));
        CHILD_CHECK(GlobalTraces().CountContaining("Send ISSU message") == (row.answered ? 1 : 0));
        CHILD_CHECK(row.trace == nullptr || GlobalTraces().Count(row.trace) == 1);
        CHILD_CHECK(vsk_db_check() == row.check);
        const uint32_t asked = d.ctx->issu_info.wait;
        if (row.state_after == 1 && asked != 0) {
          // Asked for time before: may ask again; an empty text keeps the reason.
          CHILD_CHECK(orvd_send_issu_wait_extend(d.ctx, asked, "") == 0);
          CHILD_CHECK(d.ctx->issu_info.err_len == 128);
        } else if (row.state_after == 1) {
          CHILD_CHECK(orvd_send_issu_wait_extend(d.ctx, 9, "more") == VSK_ERR_ORVD_FATAL);
          CHILD_CHECK(GlobalTraces().Count("Cannot extend ISSU wait in state <prepare wait>") == 1);
        }
        if (row.state_after == 3) {
          CHILD_CHECK(orvd_send_issu_abort(d.ctx, 1, "no") == VSK_ERR_ORVD_FATAL);
          CHILD_CHECK(GlobalTraces().Count("Cannot send ISSU abort to ORVD in switchover wait state") == 1);
        }
      }
      d.End();
      return 0;
    });
    for (const Row& row : kRows) {
      ASSERT_TRUE(daemon.WaitReady()) << daemon.Wait();
      Answer a = Issu("inject " + std::to_string(row.announced));
      ASSERT_EQ(a.exit_code, 0) << a.body.dump();
      daemon.Go();
      if (!row.answered) continue;
      // orvd records the answer: state, wait and reason as the daemon sent them.
      json c = Client(StatusWhen([&](const json& s) {
                        json c = Client(s, "issu-rows");
                        return c != nullptr && c["state"] == row.state_after;
                      }),
                      "issu-rows");
      const bool waits = row.state_after % 2 == 1;  // 1, 3, 5 carry wait and reason
      EXPECT_EQ(c["wait"], waits ? row.script.wait : 0);
      EXPECT_EQ(c["reason"], waits ? row.script.text.substr(0, 127) : std::string());
    }
    ChildResult r = daemon.Wait();
    EXPECT_TRUE(r.Ok()) << r;
    ASSERT_EQ(Issu("inject 0").exit_code, 0);
  }
}

}  // namespace
}  // namespace vsk::test
