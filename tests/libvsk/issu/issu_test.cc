// In-service upgrades end to end: a real orvd, the operator's vsk-issu tool, and real
// daemon processes in event, select and poll modes.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdio>
#include <cstring>
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

namespace vsk::test {
namespace {

// ---- a full rehearsal with three daemons ---------------------------------------------------

// One participant of the rehearsal; `slow` asks for time in its first prepare. Each
// phase ends with Ready and goes on at Go: the operator acts in between.
int Rehearse(Mode mode, const char* name, bool slow, Child::Channel& ch) {
  Daemon d{mode};
  CHILD_CHECK(d.Register(name) == 0);
  auto phase = [&ch] {
    ch.Ready();
    return ch.WaitGo();
  };
  g_script = slow ? Script{false, false, 30, "flushing sessions"} : Script{};
  if (!phase()) return 1;  // the operator starts the prepare
  CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_PREPARE, slow ? 1 : 2));
  if (!phase()) return 1;
  if (slow) CHILD_CHECK(orvd_send_issu_wait_extend(d.ctx, 60, "still flushing") == 0);
  if (!phase()) return 1;
  if (slow) CHILD_CHECK(orvd_send_issu_state_ready(d.ctx) == 0);
  g_script = Script{};
  if (!phase()) return 1;  // done, switchover, done
  CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_SWITCHOVER_DONE, 4));
  CHILD_CHECK(g_calls == (std::vector<std::string>{"prepare", "prepare done", "switchover",
                                                   "switchover done"}));
  CHILD_CHECK(vsk_db_check() == VSK_ERR_ISSU);  // session operations stop
  if (!phase()) return 1;  // idle
  CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_IDLE, 0));
  CHILD_CHECK(vsk_db_check() == 0);
  // The second upgrade is called off after its prepare; each daemon ends its abort by
  // its own ready.
  g_script = Script{false, true, 10, "rolling back"};
  if (!phase()) return 1;  // prepare, abort
  CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_ABORT, 5));
  if (!phase()) return 1;
  CHILD_CHECK(orvd_send_issu_state_ready(d.ctx) == 0);
  CHILD_CHECK(orvd_get_daemon_issu_state(d.ctx) == 0);
  if (!phase()) return 1;  // idle
  CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_IDLE, 0));
  CHILD_CHECK(g_calls.back() == "idle");
  d.End();
  return 0;
}

TEST_F(IssuTest, RehearsalWithThreeDaemons) {
  const char* names[] = {"issu-event", "issu-select", "issu-poll"};
  Child daemons[3];
  for (int i = 0; i < 3; ++i) {
    daemons[i].Start([i, &names](Child::Channel& ch) {
      return Rehearse(kModes[i], names[i], i == 0, ch);
    });
  }
  auto ready = [&daemons] {
    for (auto& d : daemons) {
      if (!d.WaitReady()) return false;
    }
    return true;
  };
  auto go = [&daemons] {
    for (auto& d : daemons) d.Go();
  };
  auto ok = [](const std::string& cmd) { return Issu(cmd).exit_code == 0; };
  auto refused = [](const std::string& cmd, const std::string& why) {
    Answer a = Issu(cmd);
    return a.exit_code == 1 && a.body["ok"] == false &&
           a.body["error"].get<std::string>().find(why) != std::string::npos;
  };
  ASSERT_TRUE(ready());  // registered
  EXPECT_TRUE(refused("switchover", "needs a finished prepare"));
  EXPECT_TRUE(refused("abort", "no upgrade"));
  EXPECT_TRUE(refused("idle", "already idle"));
  ASSERT_TRUE(ok("prepare"));
  go();
  ASSERT_TRUE(ready());
  json s = StatusWhen([](const json& s) { return s["ready"] == 2 && s["waiting"].size() == 1; });
  EXPECT_EQ(s["participants"], 3);
  EXPECT_EQ(s["waiting"], json::parse(R"([{"name":"issu-event","wait":30,
                                          "reason":"flushing sessions"}])"));
  EXPECT_TRUE(refused("done", "not ready yet: issu-event"));
  EXPECT_TRUE(refused("switchover", "has not finished"));
  go();
  ASSERT_TRUE(ready());  // the slow one has asked for more time
  s = StatusWhen([](const json& s) { return s["waiting"][0]["wait"] == 60; });
  EXPECT_EQ(s["waiting"][0]["reason"], "still flushing");
  go();
  ASSERT_TRUE(ready());  // and then is ready
  StatusWhen([](const json& s) { return s["all_ready"] == true; });
  ASSERT_TRUE(ok("done"));
  ASSERT_TRUE(ok("switchover"));
  EXPECT_TRUE(refused("prepare", "switchover has begun"));
  go();
  StatusWhen([](const json& s) { return s["ready"] == 3 && s["chassis_state"] == 5; });
  ASSERT_TRUE(ok("done"));
  EXPECT_TRUE(refused("abort", "can no longer be called off"));
  ASSERT_TRUE(ready());  // every daemon refuses session operations
  for (const auto& row : OrvdProcess::Table()) EXPECT_EQ(row.second.issu_state, 4u) << row.first;
  ASSERT_TRUE(ok("idle"));
  go();
  ASSERT_TRUE(ready());  // accepted again
  ASSERT_TRUE(ok("prepare"));
  go();
  StatusWhen([](const json& s) { return s["all_ready"] == true; });
  ASSERT_TRUE(ok("abort"));
  ASSERT_TRUE(ready());  // each daemon is in abort wait
  s = StatusWhen([](const json& s) { return s["waiting"].size() == 3; });
  EXPECT_EQ(s["waiting"][1]["reason"], "rolling back");
  EXPECT_TRUE(refused("idle", "still aborting"));
  go();
  ASSERT_TRUE(ready());  // each has said ready: back at idle
  s = StatusWhen([](const json& s) { return s["all_ready"] == true; });
  EXPECT_EQ(s["aborted"], json::array()) << "the operator's abort, not a daemon's";
  ASSERT_TRUE(ok("idle"));
  go();
  for (auto& d : daemons) {
    ChildResult r = d.Wait();
    EXPECT_TRUE(r.Ok()) << r;
  }
}

}  // namespace
}  // namespace vsk::test

namespace vsk::test {
namespace {

// ---- daemons lost during an upgrade, and bad input ------------------------------------------

TEST_F(IssuTest, LostAndLateDaemonsDuringAnUpgrade) {
  // Three waiting daemons: one is killed, one leaves, one stays and becomes ready.
  Child daemons[3];
  const char* names[] = {"issu-killed", "issu-leaves", "issu-stays"};
  for (int i = 0; i < 3; ++i) {
    daemons[i].Start([i, &names](Child::Channel& ch) {
      Daemon d{kModes[i]};
      CHILD_CHECK(d.Register(names[i]) == 0);
      g_script = Script{false, false, 5, "busy"};
      ch.Ready();
      CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_PREPARE, 1));
      ch.Ready();
      if (!ch.WaitGo()) return 1;
      if (i == 1) {
        d.End();
        return 0;
      }
      CHILD_CHECK(orvd_send_issu_state_ready(d.ctx) == 0);
      CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_IDLE, 0));
      d.End();
      return 0;
    });
    ASSERT_TRUE(daemons[i].WaitReady());
  }
  ASSERT_EQ(Issu("prepare").exit_code, 0);
  for (auto& d : daemons) ASSERT_TRUE(d.WaitReady());
  StatusWhen([](const json& s) { return s["waiting"].size() == 3; });
  daemons[0].Kill();
  StatusWhen([](const json& s) { return s["gone"].size() == 1; });
  daemons[1].Go();
  EXPECT_TRUE(daemons[1].Wait().Ok());
  json s = StatusWhen([](const json& s) { return s["gone"].size() == 2; });
  EXPECT_EQ(s["participants"], 1);
  EXPECT_EQ(s["gone"][0]["name"], "issu-killed");
  EXPECT_EQ(s["gone"][0]["how"], "was lost");
  EXPECT_EQ(s["gone"][1]["name"], "issu-leaves");
  EXPECT_EQ(s["gone"][1]["how"], "left");
  EXPECT_EQ(s["gone"][1]["state_name"], "prepare wait");
  // A daemon that registers now gets the chassis state with its acknowledgement and
  // answers at once.
  ChildResult late = RunInChild([] {
    Daemon d{Mode::kPoll};
    CHILD_CHECK(d.Register("issu-late") == 0);
    CHILD_CHECK(orvd_get_platd_issu_state(d.ctx) == ISSU_PLATD_PREPARE);
    CHILD_CHECK(orvd_get_daemon_issu_state(d.ctx) == ISSU_DAEMON_PREPARE_READY);
    CHILD_CHECK(g_calls == std::vector<std::string>{"prepare"});
    CHILD_CHECK(GlobalTraces().Count("Send ISSU message <prepare ready>") == 1);
    d.End();
    return 0;
  });
  EXPECT_TRUE(late.Ok()) << late;
  daemons[2].Go();
  StatusWhen([](const json& s) { return s["participants"] == 1 && s["all_ready"] == true; });
  ASSERT_EQ(Issu("done").exit_code, 0) << "the lost daemons no longer hold the upgrade up";
  ASSERT_EQ(Issu("abort").exit_code, 0);
  // The remaining daemon ends its abort; idle then ends the upgrade for it.
  ASSERT_EQ(Issu("inject 0").exit_code, 0);
  EXPECT_TRUE(daemons[2].Wait().Ok());
}

// A raw client of orvd's socket: registers as a participant, then sends what it likes.
struct RawClient {
  int fd = -1;
  bool Connect(const std::string& path) {
    fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    return connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  bool Send(const void* p, size_t n) { return send(fd, p, n, MSG_NOSIGNAL) == ssize_t(n); }
  bool Register(const char* name) {
    orvd::RegisterMsg m{};
    m.type = orvd::ORVD_MSG_REGISTER;
    std::snprintf(m.program, sizeof m.program, "%s", name);
    m.pid = getpid();
    m.role = orvd::kRoleMaster;
    m.issu_enabled = 1;
    orvd::RegisterAckMsg ack{};
    return Send(&m, sizeof m) && recv(fd, &ack, sizeof ack, MSG_WAITALL) == sizeof ack &&
           (ack.flags & orvd::kAckAccepted);
  }
  // True when orvd has closed this connection (waits up to 5 s per read); what orvd
  // relayed before is read and dropped.
  bool Closed() {
    char buf[64];
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 5000) != 1) return false;
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return n == 0;
    }
  }
  ~RawClient() {
    if (fd >= 0) close(fd);
  }
};

TEST_F(IssuTest, MalformedIssuMessagesDisturbNobody) {
  const std::string path = Path("/var/run/orvd_server_communication");
  Child good;
  good.Start([](Child::Channel& ch) {
    Daemon d{Mode::kSelect};
    CHILD_CHECK(d.Register("issu-good") == 0);
    ch.Ready();
    CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_PREPARE, 2));
    CHILD_CHECK(d.ServiceUntilState(ISSU_PLATD_IDLE, 0));
    d.End();
    return 0;
  });
  ASSERT_TRUE(good.WaitReady());
  RawClient raw;
  ASSERT_TRUE(raw.Connect(path));
  ASSERT_TRUE(raw.Register("issu-raw"));
  ASSERT_EQ(Issu("prepare").exit_code, 0);
  // Blocks orvd must not take: a state outside the six, a reason longer than the block,
  // a reason that does not end where its length says.
  struct Bad {
    uint32_t state;
    uint8_t err_len;
    char last;
  } bad[] = {{9, 0, 0}, {2, 200, 0}, {2, 5, 'x'}};
  for (const Bad& b : bad) {
    orvd::IssuStateMsg m{};
    m.type = orvd::ORVD_MSG_ISSU_STATE;
    m.issu_info.state = b.state;
    m.issu_info.err_len = b.err_len;
    std::memset(m.issu_info.err_text, 'r', sizeof m.issu_info.err_text - 1);
    if (b.err_len != 0 && b.err_len <= 128) m.issu_info.err_text[b.err_len - 1] = b.last;
    ASSERT_TRUE(raw.Send(&m, sizeof m));
  }
  // Another connection that never registered: its answer is nobody's.
  RawClient stranger;
  ASSERT_TRUE(stranger.Connect(path));
  orvd::IssuStateMsg ready{};
  ready.type = orvd::ORVD_MSG_ISSU_STATE;
  ready.issu_info.state = ISSU_DAEMON_PREPARE_READY;
  ASSERT_TRUE(stranger.Send(&ready, sizeof ready));
  // A cut message: the first half of a valid answer, then silence, is dropped in time.
  RawClient cut;
  ASSERT_TRUE(cut.Connect(path));
  ASSERT_TRUE(cut.Register("issu-cut"));
  ASSERT_TRUE(cut.Send(&ready, sizeof ready / 2));
  // An unknown type is dropped at once.
  RawClient junk;
  ASSERT_TRUE(junk.Connect(path));
  uint32_t type = 77;
  ASSERT_TRUE(junk.Send(&type, sizeof type));
  EXPECT_TRUE(junk.Closed());
  EXPECT_TRUE(cut.Closed());
  // An operator command orvd does not know is refused and changes nothing.
  RawClient op;
  ASSERT_TRUE(op.Connect(path));
  orvd::IssuControlMsg cmd{orvd::ORVD_MSG_ISSU_CONTROL, 42, 0};
  ASSERT_TRUE(op.Send(&cmd, sizeof cmd));
  orvd::IssuControlReply head{};
  ASSERT_EQ(recv(op.fd, &head, sizeof head, MSG_WAITALL), ssize_t(sizeof head));
  EXPECT_EQ(head.status, VSK_ERR_ORVD_FATAL);

  json s = StatusWhen([](const json& s) {
    json g = Client(s, "issu-good"), c = Client(s, "issu-cut");
    return g != nullptr && g["state"] == 2 && c != nullptr && c["connected"] == false;
  });
  EXPECT_EQ(Client(s, "issu-raw")["state"], 0) << "nothing malformed was recorded";
  EXPECT_EQ(Client(s, "issu-raw")["connected"], true);
  EXPECT_EQ(s["chassis"], "prepare");
  EXPECT_EQ(s["participants"], 2);
  EXPECT_EQ(kill(orvd_.pid(), 0), 0) << "orvd is still there";
  // The raw participant answers properly after all, and the upgrade goes on.
  ASSERT_TRUE(raw.Send(&ready, sizeof ready));
  StatusWhen([](const json& s) { return s["all_ready"] == true; });
  ASSERT_EQ(Issu("abort").exit_code, 0);
  ASSERT_EQ(Issu("inject 0").exit_code, 0);
  EXPECT_TRUE(good.Wait().Ok());
}

}  // namespace
}  // namespace vsk::test
