// orvd: the infrastructure daemon that owns the session store.
//
// It registers with the library as "orvd" (which creates the shared state and the store
// and, on the master, rebuilds the interface table), then serves the daemon link on its
// socket from one event loop. A housekeeping tick watches its own store: when the store
// goes down every client is told, and orvd opens the store again.
//
// Options: --foreground (stay attached to the terminal), --stderr (log to stderr instead
// of syslog). SIGTERM and SIGINT end it cleanly: clients are dropped, the socket file is
// removed and the library is closed.
#include <db.h>
#include <event2/event.h>
#include <signal.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "libvsk/store/view.h"
#include "platform/paths.h"
#include "reopen.h"
#include "server.h"
#include "vsk/vsk.h"

namespace orvd {
namespace {

bool g_stderr = false;
evContext g_ev{};
orvd_ctx_t* g_handle = nullptr;
bool g_was_ready = false;
Clock::time_point g_last_reopen{};


void VLog(const char* format, va_list args) {
  if (g_stderr) {
    std::fprintf(stderr, "orvd[%d]: ", getpid());
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
  } else {
    vsyslog(LOG_INFO, format, args);
  }
}

void TraceSink(void*, int, const char* format, va_list args) { VLog(format, args); }

bool ReopenInProgress();

// Ready for clients: on the master the tables are open and the shared state rebuilt; on
// the standby orvd stops once replication runs.
StoreHealth Health() {
  const int32_t state = vsk::store::View().state();
  if (ReopenInProgress()) return {false, VSK_ERR_NOT_STARTED};
  if (vsk_in_panic || state == VSK_ENV_PANIC) return {false, VSK_ERR_RECOVERING};
  if (state == VSK_ENV_NEEDS_RECOVERY) return {false, VSK_ERR_SECONDARY_RECOVERY};
  if (!orvd_is_registered()) return {false, VSK_ERR_NOT_STARTED};
  if (vsk_db_rep_is_master()) {
    bool ok = state == VSK_ENV_READY && vsk_db_status != nullptr &&
              *vsk_db_status == VSK_DB_STATUS_READY;
    return {ok, ok ? 0 : VSK_ERR_NOT_STARTED};
  }
  bool ok = state == VSK_ENV_REPLICATING || state == VSK_ENV_READY;
  return {ok, ok ? 0 : VSK_ERR_REP_NOT_STARTED};
}

// Opens the library as orvd. 0 or the registration's status.
vsk_status_t OpenLibrary() {
  g_handle = orvd_init_handle();
  if (g_handle == nullptr) return VSK_ERR_NOMEM;
  orvd_set_trace_callback(g_handle, nullptr, TraceSink);
  orvd_set_reg_type_event(g_handle, &g_ev);
  vsk_status_t rc = orvd_register(g_handle);
  if (rc != VSK_OK) {
    Log("cannot open the store: %d (%s)", rc, vsk_get_err_msg(rc));
    orvd_unregister(&g_handle);
  }
  return rc;
}

// The store's reopen in place (reopen.h): closes the library, forgetting every handle
// when the environment may be wedged, and opens it again in the role of the moment.
void CloseForReopen(bool wedged) {
  if (wedged) vsk_in_panic = true;
  orvd_unregister(&g_handle);
  g_last_reopen = Clock::now();
}

bool OpenAfterReopen() {
  bool ok = OpenLibrary() == VSK_OK;
  g_was_ready = Health().ready;
  return ok;
}

StoreReopen g_reopen(CloseForReopen, OpenAfterReopen);

bool ReopenInProgress() { return g_reopen.active(); }

// Runs Berkeley DB's lock-expiry pass (so that waits behind a dead holder end) and
// follows the store's health: tells the clients when it goes, reopens it.
void WatchStore(Server& server) {
  if (g_reopen.Tick(server)) return;  // before anything touches a possibly wedged store
  DB_ENV* env = nullptr;
  if (vsk_db_get_dbenv(&env) == 0 && env != nullptr && !vsk_in_panic) {
    env->lock_detect(env, 0, DB_LOCK_EXPIRE, nullptr);
  }
  StoreHealth health = Health();
  if (health.ready) {
    g_was_ready = true;
    return;
  }
  if (g_was_ready) {
    g_was_ready = false;
    Log("store is down (%d), telling every client", health.status);
    server.BroadcastStoreDown(health.status);
  }
  if (Clock::now() - g_last_reopen < std::chrono::seconds(1)) return;
  g_last_reopen = Clock::now();
  orvd_unregister(&g_handle);
  if (OpenLibrary() == VSK_OK) Log("store reopened");
}

void OnSignal(evutil_socket_t sig, short, void*) {
  Log("signal %d, shutting down", static_cast<int>(sig));
  sd_notify(0, "STOPPING=1");
  evBreak(g_ev);
}

bool MakeDirectories() {
  std::string failed;
  if (vsk::platform::MakeSystemDirs(&failed)) return true;
  Log("cannot create %s: %s", failed.c_str(), std::strerror(errno));
  return false;
}

int Usage() {
  std::fprintf(stderr, "usage: orvd [--foreground] [--stderr]\n");
  return 2;
}

}  // namespace

void Log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLog(format, args);
  va_end(args);
}

}  // namespace orvd

int main(int argc, char** argv) {
  using namespace orvd;
  bool foreground = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--foreground") == 0) {
      foreground = true;
    } else if (std::strcmp(argv[i], "--stderr") == 0) {
      g_stderr = true;
    } else {
      return Usage();
    }
  }
  if (!g_stderr) openlog("orvd", LOG_PID, LOG_DAEMON);
  if (!foreground && daemon(0, 0) != 0) {
    Log("cannot detach: %s", std::strerror(errno));
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);
  if (!MakeDirectories()) return 1;
  if (evCreate(&g_ev) != 0) {
    Log("cannot create the event loop");
    return 1;
  }
  event_base* base = evGetBase(g_ev);
  event* term = evsignal_new(base, SIGTERM, OnSignal, nullptr);
  event* intr = evsignal_new(base, SIGINT, OnSignal, nullptr);
  evsignal_add(term, nullptr);
  evsignal_add(intr, nullptr);

  int exit_code = 0;
  Server server(g_ev, Health);
  g_reopen.Attach(&server);
  server.SetTickHook(WatchStore);
  // A stale socket goes before the store opens: no client reaches a dead orvd's file.
  unlink(vsk::platform::RootedPath(vsk::platform::kOrvdSocket).c_str());
  if (OpenLibrary() != VSK_OK || !server.Start()) {
    exit_code = 1;
  } else {
    g_was_ready = Health().ready;
    Log("ready");
    // Under systemd, units ordered after orvd start only now, with the store open.
    sd_notify(0, "READY=1");
    evMainLoop(g_ev);
  }
  server.Stop();
  vsk_status_t rc = orvd_unregister(&g_handle);
  if (rc != VSK_OK) Log("close of the store: %d", rc);
  event_free(term);
  event_free(intr);
  evDestroy(g_ev);
  Log("stopped");
  return exit_code;
}
