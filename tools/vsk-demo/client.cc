// Act 2, the client process: a daemon other than orvd, the way every session daemon
// starts. It registers over the daemon link in poll mode (its checks service the link),
// which attaches the shared state, joins the environment without recovery and opens the
// tables; then it reads what act 1 wrote, tells orvd its own recovery is done, and
// unregisters. Runs as "vsk-demo --client ID" (ID: the session id of act 1).
#include <unistd.h>

#include "demo.h"
#include "libvsk/store/view.h"
#include "platform/progname.h"
#include "transcript.h"
#include "vsk/orvd.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vsk::demo {
namespace {

// This process's row, still connected and marked as recovered.
bool Recovered(const orvd::ClientsRow& row) {
  return row.pid == getpid() && row.connected == 1 && row.recovery_complete == 1;
}

}  // namespace

int RunClient(vsk_session_id_t session_id) {
  Say("client pid %d, program name \"%s\": creator: %s", getpid(), platform::ProgramName(),
      platform::IsOrvdProgram() ? "yes" : "no");
  orvd_ctx_t* ctx = orvd_init_handle();
  if (ctx == nullptr) {
    Fail("orvd_init_handle: out of memory");
    return 1;
  }
  bool ok = Check("orvd_set_trace_callback", orvd_set_trace_callback(ctx, nullptr, TraceSinkV)) &&
            Check("orvd_set_reg_type_poll", orvd_set_reg_type_poll(ctx)) &&
            Check("orvd_register", orvd_register(ctx));
  if (!ok) {
    orvd_unregister(&ctx);
    return 1;
  }
  const store::View store;
  Say("registered: %s, store state %d (%s), status word %u (3 = ready), role %s",
      orvd_is_registered() ? "yes" : "no", store.state(), StateName(store.state()),
      vsk_db_status != nullptr ? *vsk_db_status : 0u, vsk_is_master() ? "master" : "standby");

  ok = Check("vsk_db_check", vsk_db_check());
  if (ok) {
    Say("act 1's raw rows, read from this process:");
    ok = DefineRawTable() == VSK_OK && ReadBackRawRows();
  }
  if (ok) {
    Say("act 1's client session, read from this process:");
    ok = ReadBackSession(session_id);
  }
  if (ok) ok = Check("orvd_send_recovery_complete", orvd_send_recovery_complete(ctx));
  if (ok) {
    Say("orvd's table of daemons lists this process:");
    orvd::ClientsRow row;
    ok = orvd::WaitForClientsRow(platform::ProgramName(), Recovered, &row);
    if (ok) {
      SayOrvdRow(platform::ProgramName(), row);
    } else {
      Fail("orvd's table has no row of this process with the recovery mark");
    }
  }
  vsk_status_t st = orvd_unregister(&ctx);
  ok = Check("orvd_unregister", st) && ok;
  if (orvd_is_registered() || ctx != nullptr) {
    ok = Fail("the handle outlived orvd_unregister");
  } else {
    Say("unregistered: the handle is freed and the store closed in this process");
  }
  return ok ? 0 : 1;
}

}  // namespace vsk::demo
