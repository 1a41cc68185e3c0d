// The daemon link end to end: a real orvd process and real client processes in each of
// the three modes (event, select, poll).
#include <db.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
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

enum class Mode { kEvent, kSelect, kPoll };

// Environment-change callbacks seen by a client process: true for a handle, false for null.
std::vector<bool> g_env_calls;
void OnEnvChange(struct __db_env* env) { g_env_calls.push_back(env != nullptr); }

// The callbacks were: a handle, then one or more nulls (the store going down, possibly
// again when a check repairs it), then a handle again if `back_up`.
bool WentDown(bool back_up) {
  const auto& c = g_env_calls;
  size_t nulls = c.size() - 1 - (back_up ? 1 : 0);
  if (c.size() < 2 + (back_up ? 1u : 0u) || !c.front() || c.back() != back_up) return false;
  for (size_t i = 1; i <= nulls; ++i) {
    if (c[i]) return false;
  }
  return true;
}

int g_select_fd = -1;
void SelectRegister(void*, int fd) { g_select_fd = fd; }
void SelectDeregister(void*, int) { g_select_fd = -1; }

// A client handle in this (child) process, in `mode`; the event context is made here.
orvd_ctx_t* MakeClient(Mode mode, evContext* ev) {
  orvd_ctx_t* ctx = orvd_init_handle();
  orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
  orvd_set_db_env_change_callback(ctx, OnEnvChange);
  switch (mode) {
    case Mode::kEvent:
      evCreate(ev);
      orvd_set_reg_type_event(ctx, ev);
      break;
    case Mode::kSelect:
      orvd_set_reg_type_select(ctx, nullptr, SelectRegister, SelectDeregister);
      break;
    case Mode::kPoll:
      orvd_set_reg_type_poll(ctx);
      break;
  }
  return ctx;
}

class LinkTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop();
    VskTest::TearDown();
  }

  // Registers, uses the store, unregisters: 0, or the number of the failed step.
  static int RegisterRoundTrip(Mode mode) {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(mode, &ev);
    if (orvd_register(ctx) != 0) return 10;
    if (!orvd_is_registered()) return 11;
    if (vsk_db_check() != 0) return 12;
    if (mode == Mode::kSelect && g_select_fd < 0) return 13;
    if (g_env_calls != std::vector<bool>{true}) return 14;
    if (orvd_set_connect_timeout(ctx, 5) != VSK_ERR_ORVD_FATAL) return 15;
    if (orvd_unregister(&ctx) != 0 || ctx != nullptr) return 16;
    if (mode == Mode::kSelect && g_select_fd >= 0) return 17;
    if (orvd_is_registered()) return 18;
    if (ev.opaque != nullptr) evDestroy(ev);
    return 0;
  }

  OrvdProcess orvd_;
};

TEST_F(LinkTest, RegistersInEachMode) {
  ASSERT_TRUE(orvd_.Start());
  for (Mode mode : {Mode::kEvent, Mode::kSelect, Mode::kPoll}) {
    ChildResult r = RunInChild([mode] { return RegisterRoundTrip(mode); });
    EXPECT_TRUE(r.Ok()) << "mode " << static_cast<int>(mode) << ": " << r;
  }
  // Each one's row went with its connection.
  EXPECT_TRUE(orvd::WaitForNoClientsRow("vsk-client"));
}

TEST_F(LinkTest, OrvdListsTheRoleOfARegisteredClient) {
  ASSERT_TRUE(orvd_.Start());
  for (const char* role : {"master", "standby"}) {
    SCOPED_TRACE(role);
    Child client;
    client.Start([role](Child::Channel& ch) {
      setenv("VSK_RE_ROLE", role, 1);
      evContext ev{};
      orvd_ctx_t* ctx = MakeClient(Mode::kPoll, &ev);
      if (orvd_register(ctx) != 0) return 10;
      ch.Ready();
      ch.WaitGo();
      return orvd_unregister(&ctx) == 0 ? 0 : 11;
    });
    ASSERT_TRUE(client.WaitReady());
    const int want = std::string(role) == "master" ? 3 : 1;
    auto row = OrvdProcess::WaitForRow(
        "vsk-client", [want](const OrvdTableRow& r) { return r.connected == 1 && r.role == want; });
    EXPECT_EQ(row.role, want);
    EXPECT_EQ(row.connected, 1);
    client.Go();
    EXPECT_TRUE(client.Wait().Ok());
  }
}

// A stand-in for orvd that answers one registration with a refusal carrying `error`,
// for the refusals the real orvd only gives in passing states.
void RefuseOneRegistration(Child& fake, int32_t error) {
  fake.Start([error](Child::Channel& ch) {
    std::string path = platform::RootedPath(platform::kOrvdSocket);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 4) != 0) {
      return 1;
    }
    ch.Ready();
    int fd = accept(listener, nullptr, nullptr);
    orvd::RegisterMsg msg{};
    if (recv(fd, &msg, sizeof msg, MSG_WAITALL) != static_cast<ssize_t>(sizeof msg)) return 2;
    orvd::RegisterAckMsg ack{};
    ack.type = orvd::ORVD_MSG_REGISTER_ACK;
    ack.error = error;
    if (send(fd, &ack, sizeof ack, 0) != static_cast<ssize_t>(sizeof ack)) return 3;
    ch.WaitGo();
    unlink(path.c_str());
    return 0;
  });
}

TEST_F(LinkTest, EventClientRefusedAtItsFirstRegistrationRetriesByItself) {
  // orvd has made the shared state and the store, and is gone; another answers for it.
  ASSERT_TRUE(orvd_.Start());
  ASSERT_EQ(orvd_.Stop(), 0);
  Child fake;
  RefuseOneRegistration(fake, VSK_ERR_NOT_STARTED);
  ASSERT_TRUE(fake.WaitReady());
  Child client;
  client.Start([](Child::Channel& ch) {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kEvent, &ev);
    if (orvd_register(ctx) != VSK_ERR_ORVD_FATAL) return 10;
    // Nothing may open the store behind the daemon's back: no re-registration is due.
    if (ctx->timer_leaf != nullptr && wtimer_running(ctx->timer_leaf)) return 11;
    DB_ENV* env = nullptr;
    if (vsk_db_get_dbenv(&env) == 0 && env != nullptr) return 12;
    ch.Ready();
    if (!ch.WaitGo()) return 13;  // the real orvd is back
    // The daemon's own retry is what registers it.
    if (orvd_register(ctx) != 0) return 14;
    if (vsk_db_check() != 0) return 15;
    if (g_env_calls != std::vector<bool>{true}) return 16;
    orvd_unregister(&ctx);
    evDestroy(ev);
    return 0;
  });
  ASSERT_TRUE(client.WaitReady()) << client.Wait();
  fake.Go();
  ASSERT_TRUE(fake.Wait().Ok());
  ASSERT_TRUE(orvd_.Start());
  client.Go();
  ChildResult r = client.Wait();
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(LinkTest, ClientOnMasterWaitsForOrvdsRecovery) {
  ASSERT_TRUE(orvd_.Start());
  // The status word goes back to "recovering", as while orvd rebuilds the shared state.
  ASSERT_TRUE(RunInChild([] {
                if (vsk_open_internal(false) != 0) return 1;
                *vsk_db_status = VSK_DB_STATUS_RECOVERING;
                vsk_close_internal();
                return 0;
              }).Ok());
  ChildResult r = RunInChild([] {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kPoll, &ev);
    vsk_status_t rc = orvd_register(ctx);
    orvd_unregister(&ctx);
    return rc == VSK_ERR_NOT_STARTED ? 0 : 1;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(LinkTest, NobodyListeningGives26) {
  ASSERT_TRUE(orvd_.Start());
  ASSERT_EQ(orvd_.Stop(), 0) << "SIGTERM ends orvd cleanly";
  struct stat st;
  EXPECT_NE(stat(Path("/var/run/orvd_server_communication").c_str(), &st), 0)
      << "orvd removes its socket";
  ChildResult r = RunInChild([] {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kSelect, &ev);
    vsk_status_t rc = orvd_register(ctx);
    bool traced = GlobalTraces().CountContaining("Unable to connect to ORVD socket") == 1;
    orvd_unregister(&ctx);
    return rc == VSK_ERR_ORVD_CONNECT && traced ? 0 : 1;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(LinkTest, EventClientFollowsAnOrvdRestart) {
  ASSERT_TRUE(orvd_.Start());
  Child client;
  client.Start([](Child::Channel& ch) {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kEvent, &ev);
    if (orvd_register(ctx) != 0) return 10;
    ch.Ready();
    // Run the loop until the store came back after going down, for at most 30 s.
    auto end = Clock::now() + std::chrono::seconds(30);
    bool told_down = false;
    while (Clock::now() < end && g_env_calls.size() < 3) {
      evDispatchOnce(ev, 100);
      if (!told_down && g_env_calls.size() == 2) {
        told_down = true;
        ch.Ready();
      }
    }
    if (g_env_calls != std::vector<bool>{true, false, true}) return 11;
    if (GlobalTraces().Count("Connection with orvd closed") != 1) return 12;
    if (GlobalTraces().Count("Successfully reregistered with ORVD") != 1) return 13;
    if (vsk_db_check() != 0) return 14;
    orvd_unregister(&ctx);
    evDestroy(ev);
    return 0;
  });
  ASSERT_TRUE(client.WaitReady());
  orvd_.Stop();
  ASSERT_TRUE(client.WaitReady()) << "the client saw the store go down";
  ASSERT_TRUE(orvd_.Start());
  ChildResult r = client.Wait(std::chrono::seconds(40));
  EXPECT_TRUE(r.Ok()) << r;
}

// A poll or select client finds the loss and repairs itself through vsk_db_check. While
// the link is down it counts as not registered; its re-registration tells the new orvd
// that its recovery was complete.
void RepairThroughCheck(OrvdProcess& orvd, Mode mode) {
  ASSERT_TRUE(orvd.Start());
  Child client;
  client.Start([mode](Child::Channel& ch) {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(mode, &ev);
    if (orvd_register(ctx) != 0) return 10;
    if (orvd_send_recovery_complete(ctx) != 0) return 20;
    ch.Ready();
    if (!ch.WaitGo()) return 11;  // orvd is gone now
    if (mode == Mode::kSelect) {
      // The select loop sees the socket readable (end of file) and hands it over.
      fd_set set;
      FD_ZERO(&set);
      FD_SET(g_select_fd, &set);
      timeval tv{5, 0};
      if (select(g_select_fd + 1, &set, nullptr, nullptr, &tv) != 1) return 12;
      orvd_select_fd_read(ctx);
      if (g_select_fd >= 0) return 13;
    }
    vsk_status_t rc = vsk_db_check();
    if (rc != VSK_ERR_ORVD_CONNECT) return 14;  // nobody listens yet
    if (!WentDown(false)) return 15;
    GlobalTraces().Clear();
    if (orvd_send_recovery_complete(ctx) != VSK_ERR_ORVD_FATAL) return 21;
    if (!GlobalTraces().Contains("Cannot send recovery complete to ORVD if not registered")) {
      return 22;
    }
    ch.Ready();
    if (!ch.WaitGo()) return 16;  // orvd is back
    if (vsk_db_check() != 0) return 17;
    if (!WentDown(true)) return 18;
    ch.Ready();  // the parent reads the row while the connection is live
    if (!ch.WaitGo()) return 23;
    if (orvd_unregister(&ctx) != 0) return 19;
    return 0;
  });
  ASSERT_TRUE(client.WaitReady());
  orvd.Stop();
  client.Go();
  if (!client.WaitReady()) {
    ADD_FAILURE() << "client ended early: " << client.Wait();
    return;
  }
  ASSERT_TRUE(orvd.Start());
  client.Go();
  ASSERT_TRUE(client.WaitReady()) << client.Wait();
  // The new orvd knows the client's recovery only from its re-registration.
  auto row = OrvdProcess::WaitForRow("vsk-client",
                                     [](const OrvdTableRow& row) { return row.recovery_complete; });
  EXPECT_EQ(row.recovery_complete, 1);
  client.Go();
  ChildResult r = client.Wait();
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(LinkTest, PollClientRepairsThroughCheck) { RepairThroughCheck(orvd_, Mode::kPoll); }

TEST_F(LinkTest, SelectClientRepairsThroughCheck) { RepairThroughCheck(orvd_, Mode::kSelect); }

TEST_F(LinkTest, RecoveryCompleteGoesOnce) {
  ASSERT_TRUE(orvd_.Start());
  ChildResult r = RunInChild([] {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kPoll, &ev);
    if (orvd_send_recovery_complete(ctx) != VSK_ERR_ORVD_FATAL) return 1;  // not registered
    if (orvd_register(ctx) != 0) return 2;
    if (orvd_send_recovery_complete(ctx) != 0) return 3;
    if (orvd_send_recovery_complete(ctx) != 0) return 4;
    if (GlobalTraces().Count("Send recovery complete to ORVD") != 1) return 5;
    if (orvd_send_replication_request(ctx) != 0) return 6;
    auto row = OrvdProcess::WaitForRow("vsk-client", [](const OrvdTableRow& r) {
      return r.recovery_complete == 1 && r.replication_requests == 1;
    });
    if (row.recovery_complete != 1 || row.connected != 1 || row.replication_requests != 1) {
      return 7;
    }
    orvd_unregister(&ctx);
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(LinkTest, RecoveringStoreAnswerLeavesBerkeleyDbUntouched) {
  ASSERT_TRUE(orvd_.Start());
  Child client;
  client.Start([](Child::Channel& ch) {
    evContext ev{};
    orvd_ctx_t* ctx = MakeClient(Mode::kPoll, &ev);
    if (orvd_register(ctx) != 0) return 10;
    ch.Ready();
    if (!ch.WaitGo()) return 11;  // the environment has panicked under orvd
    GlobalTraces().Clear();
    orvd_poll_check(ctx);  // what vsk_db_check does first
    if (GlobalTraces().Count("VSK env is invalid: session database is recovering") != 1) {
      return 12;
    }
    // The store went down in panic: nothing of Berkeley DB was closed.
    if (GlobalTraces().Count("Attempting to close VSK while DOWN") < 1) return 13;
    if (GlobalTraces().CountContaining("closed") != 0) return 14;
    // It is orvd's answer that says so, before this process meets the panic itself.
    if (!vsk_in_panic) return 15;
    if (GlobalTraces().CountContaining("DB_EVENT_PANIC") != 0) return 16;
    return 0;
  });
  ASSERT_TRUE(client.WaitReady());
  // Another process panics the environment; orvd's watch finds it and tells its clients.
  ASSERT_TRUE(RunInChild([] {
                orvd_ctx_t* ctx = MakeClient(Mode::kPoll, nullptr);
                if (orvd_register(ctx) != 0) return 1;
                struct __db_env* env = nullptr;
                vsk_db_get_dbenv(&env);
                reinterpret_cast<DB_ENV*>(env)->set_flags(env, DB_PANIC_ENVIRONMENT, 1);
                return 0;
              }).Ok());
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  client.Go();
  ChildResult r = client.Wait();
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
