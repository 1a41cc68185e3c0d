// A whole system for session tests: the creating daemon in a real child process, client
// daemons in further children, and an observer in the test process itself.
//
// Processes come up the way registration brings them up, without the socket: orvd opens
// the shared regions, the store, the interface table, and rebuilds (status word 3); a
// client attaches to all of it and joins the store. Berkeley DB handles never cross a
// fork: the test process itself only attaches the segments and the interface table
// (Observe), so it can read slots, counters and interface counts, and forks clients that
// open the store on their own.
#pragma once

#include <memory>
#include <string>

#include "../shared/shared_fixture.h"
#include "libvsk/orvd_ctx.h"
#include "libvsk/shared/intf_file.h"
#include "vsk/vsk.h"

namespace vsk::test {

// This process as `orvd` on the master, everything up. 0 or the failing step's status.
inline vsk_status_t UpAsOrvd(orvd_ctx* link) {
  SetProgramName("orvd");
  link->fd = -1;
  link->is_orvd = true;
  vsk_db_set_master(true);
  if (vsk_open_internal(true) != 0) return VSK_ERR_FATAL;
  vsk_status_t st = vsk_db_init(link, true);
  if (st == VSK_OK) st = vsk_db_secondary_init(true);
  if (st == VSK_OK) st = vsk_db_secondary_recover();
  return st;
}

// This process as a client daemon on the master joining what orvd made.
inline vsk_status_t UpAsClient(orvd_ctx* link, const char* name = "vsk-client") {
  SetProgramName(name);
  link->fd = -1;
  link->is_orvd = false;
  vsk_db_set_master(true);
  if (vsk_open_internal(false) != 0) return VSK_ERR_FATAL;
  vsk_status_t st = vsk_db_init(link, false);
  if (st == VSK_OK) st = vsk_db_secondary_init(false);
  return st;
}

class SessionSystemTest : public SharedTest {
 protected:
  void TearDown() override {
    StopOrvd();
    vsk_close_internal();
    SharedTest::TearDown();
  }

  // Starts orvd in a child and waits until everything is up.
  bool StartOrvd() {
    orvd_ = std::make_unique<Child>();
    orvd_->Start([](Child::Channel& ch) {
      orvd_ctx link{};
      if (UpAsOrvd(&link) != VSK_OK) return 1;
      ch.Ready();
      ch.WaitGo();
      vsk_close_internal();
      return 0;
    });
    return orvd_->WaitReady();
  }

  void StopOrvd() {
    if (orvd_ == nullptr) return;
    orvd_->Go();
    orvd_->Wait();
    orvd_.reset();
  }

  // Attaches this process to the segments and the interface table, read-mostly.
  bool Observe() {
    AsClient();
    vsk::shared::intf::TestSeam::Forget();  // a mapping of an earlier test's root
    return vsk_open_internal(false) == 0 && vsk_db_secondary_init(false) == VSK_OK;
  }

  // Runs `fn` in a client daemon child with the store open; its result is the exit code
  // (100 when the client could not come up).
  template <typename Fn>
  static ChildResult AsClientDaemon(Fn fn) {
    return RunInChild([fn] {
      orvd_ctx link{};
      if (UpAsClient(&link) != VSK_OK) return 100;
      int rc = fn();
      vsk_close_internal();
      return rc;
    });
  }

 private:
  std::unique_ptr<Child> orvd_;
};

}  // namespace vsk::test
