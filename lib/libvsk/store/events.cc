// What Berkeley DB calls back into the store: error and message text, the thread id of
// this process, and events.
//
// These run on whatever thread is inside Berkeley DB at the time. The panic event writes
// the store's state and vsk_in_panic without a lock, like every other writer of them.
#include <db.h>
#include <errno.h>
#include <signal.h>

#include "libvsk/base/trace.h"
#include "libvsk/store/env.h"
#include "libvsk/store/env_internal.h"

namespace vsk::store {

void ErrorCallback(const DB_ENV*, const char*, const char* message) noexcept {
  VSK_TRACE("%s", message);
}

void MessageCallback(const DB_ENV*, const char* message) noexcept { VSK_TRACE("%s", message); }

namespace {
// 0 on every thread but one that asked for its own slot (SetThisThreadNumber).
thread_local db_threadid_t t_thread_number = 0;
}  // namespace

void SetThisThreadNumber(db_threadid_t number) { t_thread_number = number; }

void ThreadIdCallback(DB_ENV*, pid_t* pid, db_threadid_t* tid) noexcept {
  StoreContext* ctx = Context();
  pid_t id = 0;
  if (ctx != nullptr) {
    id = ctx->pid;
  } else {
    VSK_TRACE("**  NO PID **");  // published text, two spaces after the stars
  }
  if (pid != nullptr) *pid = id;
  // All threads of a process share one identity, thread 0: the store runs on the daemon's
  // thread. Only a helper thread of the owning daemon that calls Berkeley DB beside it
  // takes a number of its own.
  if (tid != nullptr) *tid = t_thread_number;
}

int IsAliveCallback(DB_ENV*, pid_t pid, db_threadid_t, uint32_t) noexcept {
  // A process is alive while a signal could reach it; EPERM means it exists under
  // another user. Thread ids carry nothing (every thread of a process is thread 0), so
  // the answer is the same with or without DB_MUTEX_PROCESS_ONLY.
  if (pid <= 0) return 0;
  return kill(pid, 0) == 0 || errno != ESRCH ? 1 : 0;
}

void EventCallback(DB_ENV*, uint32_t event, void*) noexcept {
  switch (event) {
    case DB_EVENT_PANIC: {
      StoreContext* ctx = Context();
      if (ctx == nullptr) {
        VSK_TRACE("DB_EVENT_PANIC happened with no environment");
        return;
      }
      VSK_TRACE("DB_EVENT_PANIC happened, state %d", ctx->state);
      vsk_in_panic = true;
      if (ctx->state == VSK_ENV_REPLICATING || ctx->state == VSK_ENV_READY) {
        ctx->state = VSK_ENV_PANIC;
      }
      return;
    }
    case DB_EVENT_REP_CLIENT:
      VSK_TRACE("DB_EVENT_REP_CLIENT event\n");
      return;
    case DB_EVENT_REP_ELECTED:
      VSK_TRACE("DB_EVENT_REP_ELECTED event\n");
      return;
    case DB_EVENT_REP_MASTER:
      VSK_TRACE("DB_EVENT_REP_MASTER event\n");
      return;
    case DB_EVENT_REP_NEWMASTER:
      VSK_TRACE("DB_EVENT_REP_NEWMASTER event\n");
      return;
    case DB_EVENT_REP_PERM_FAILED:
      VSK_TRACE("DB_EVENT_REP_PERM_FAILED event\n");
      return;
    case DB_EVENT_REP_STARTUPDONE:
      VSK_TRACE("DB_EVENT_REP_STARTUPDONE event\n");
      return;
    case DB_EVENT_WRITE_FAILED:
      VSK_TRACE("DB_EVENT_WRITE_FAILED event\n");
      return;
    default:
      return;  // role changes come from the daemon link, not from these events
  }
}

const FixedTable kFixedTables[6] = {
    {&StoreContext::client_session_db, "client-session-db", "Client databases is not available %s",
     "Failed to init client session databases %s", "closed client database",
     "Failed to close client session database %s"},
    {&StoreContext::service_session_db, "service-session-db",
     "Service databases is not available %s", "Failed to init service databases %s",
     "closed service database", "Failed to close service session database %s"},
    {&StoreContext::auth_request_db, "auth-request-db",
     "Authentication request databases is not available %s",
     "Failed to init authentication request databases %s", "closed auth request database",
     "Failed to close auth request session database %s"},
    {&StoreContext::auth_response_db, "auth-response-db",
     "Authentication response databases is not available %s",
     "Failed to init authentication response databases %s", "closed auth response database",
     "Failed to close auth response session database %s"},
    {&StoreContext::dynamic_config_db, "dynamic-config-db",
     "Dynamic configuration databases is not available %s",
     "Failed to init dynamic configuration databases %s", "closed dynamic config database",
     "Failed to close dynamic config database %s"},
    {&StoreContext::app_private_db, "app-private-db",
     "Application private databases is not available %s",
     "Failed to init application private databases %s", "closed private data database",
     "Failed to close private data database %s"},
};

}  // namespace vsk::store
