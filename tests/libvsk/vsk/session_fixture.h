// A whole system for session tests: `orvd` in a real child process, client daemons in
// further children, and the test process as an observer that attaches only the segments
// and the interface table (Berkeley DB handles never cross a fork). Processes come up as
// registration brings them up, without the socket.
#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "../shared/shared_fixture.h"
#include "libvsk/orvd_ctx.h"
#include "libvsk/shared/intf_file.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {

// This process on the master as `orvd` (everything up, rebuilt: status word 3) or as a
// client daemon joining it. 0 or the failing step's status.
inline vsk_status_t Up(orvd_ctx* link, bool orvd) {
  SetProgramName(orvd ? "orvd" : "vsk-client");
  link->fd = -1;
  link->is_orvd = orvd;
  vsk_db_set_master(true);
  if (vsk_open_internal(orvd) != 0) return VSK_ERR_FATAL;
  vsk_status_t st = vsk_db_init(link, orvd);
  if (st == VSK_OK) st = vsk_db_secondary_init(orvd);
  if (st == VSK_OK && orvd) st = vsk_db_secondary_recover();
  return st;
}

// Runs `fn` in a client daemon child; its result is the exit code (100: no client).
template <typename Fn>
ChildResult InClientDaemon(Fn fn) {
  return RunInChild([fn] {
    orvd_ctx link{};
    if (Up(&link, false) != VSK_OK) return 100;
    int rc = fn();
    vsk_close_internal();
    return rc;
  });
}

// Registers with a running orvd in poll mode, retrying while it recovers; null after a
// minute of refusals.
inline orvd_ctx_t* JoinRunningOrvd() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < end) {
    orvd_ctx_t* ctx = orvd_init_handle();
    orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
    orvd_set_reg_type_poll(ctx);
    if (orvd_register(ctx) == VSK_OK) return ctx;
    orvd_unregister(&ctx);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return nullptr;
}

// This process as `orvd` with everything up, for tests that need no other process.
class OrvdInProcessTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(Up(&link_, true), 0) << traces().Dump();
    traces().Clear();
  }
  void TearDown() override {
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
    VskTest::TearDown();
  }
  // A new client session in state 1 on "ge-0/0/1", cached when asked; 0 on failure.
  static vsk_session_id_t NewSession(bool cache) {
    static const vsk_create_options_t kCacheIt{0, 1, {0, 0}};
    const char name[] = "ge-0/0/1";
    const uint32_t state = 1;
    vsk_attr_t a[2] = {{VSK_SESSION_STATE, 4, const_cast<uint32_t*>(&state), nullptr},
                       {VSK_INTERFACE_NAME, sizeof name, const_cast<char*>(name), nullptr}};
    a[0].next = &a[1];
    vsk_attr_list_t attrs{&a[0], &a[1].next};
    vsk_session_ids_t ids{};
    return vsk_create_extended_client_session(2, &attrs, nullptr, nullptr, &ids,
                                              cache ? &kCacheIt : nullptr, nullptr) == 0
               ? ids.session_id
               : 0;
  }
  orvd_ctx link_{};
};

class SessionSystemTest : public SharedTest {
 protected:
  void TearDown() override {
    if (orvd_ != nullptr) orvd_->Go(), orvd_->Wait();
    vsk_close_internal();
    SharedTest::TearDown();
  }

  // Starts orvd in a child, then attaches this process as an observer.
  bool StartSystem() {
    orvd_ = std::make_unique<Child>();
    orvd_->Start([](Child::Channel& ch) {
      orvd_ctx link{};
      if (Up(&link, true) != VSK_OK) return 1;
      ch.Ready();
      ch.WaitGo();
      vsk_close_internal();
      return 0;
    });
    if (!orvd_->WaitReady()) return false;
    AsClient();
    vsk::shared::intf::TestSeam::Forget();  // a mapping of an earlier test's root
    return vsk_open_internal(false) == 0 && vsk_db_secondary_init(false) == VSK_OK;
  }

  template <typename Fn>
  static ChildResult AsClientDaemon(Fn fn) {
    return InClientDaemon(fn);
  }

 private:
  std::unique_ptr<Child> orvd_;
};

// A real orvd program in its own process (killed with SIGKILL at the end) and this process
// attached to it as an observer.
class RealOrvdSessionTest : public SessionSystemTest {
 protected:
  void TearDown() override {
    orvd_.Stop(SIGKILL);
    SessionSystemTest::TearDown();
  }
  // Starts orvd (again), then attaches to the segments and the interface table and, with
  // `tables`, opens the derived tables too.
  bool StartRealOrvd(bool tables) {
    if (!orvd_.Start()) return false;
    AsClient();
    vsk::shared::intf::TestSeam::Forget();  // the mapping of the orvd before
    return vsk_open_internal(false) == 0 && (!tables || vsk_db_secondary_init(false) == VSK_OK);
  }
  OrvdProcess orvd_;
};

}  // namespace vsk::test
