// vskctl store: the state of the store as an operator judges it: the shared state's status
// word, whether orvd is there, this routing engine's role, replication, and the Berkeley
// DB figures (transactions, locks, lockers, thread slots, log, cache).
//
// Everything that can be read is printed; a part that cannot (no shared state, no
// environment) or a store that is not ready is named on stderr and the exit code is 1.
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>

#include "ctl.h"
#include "libvsk/orvd_client/clients_table.h"
#include "libvsk/store/env_probe.h"
#include "platform/hwframe.h"
#include "platform/paths.h"

namespace vskctl {
namespace {

using vsk::store::EnvFigures;

bool Exists(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

std::string Bytes(uint64_t n) {
  char text[32];
  if (n >= (uint64_t{1} << 20)) {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(n) / (1 << 20));
  } else if (n >= 1024) {
    std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(n) / 1024);
  } else {
    std::snprintf(text, sizeof text, "%" PRIu64 " B", n);
  }
  return text;
}

Json EnvJson(const EnvFigures& f) {
  return {
      {"home", f.home},
      {"version", f.version},
      {"transactions",
       {{"active", f.txn_active},
        {"max_active", f.txn_max_active},
        {"limit", f.txn_limit},
        {"begins", f.txn_begins},
        {"commits", f.txn_commits},
        {"aborts", f.txn_aborts},
        {"last_id", f.last_txn_id}}},
      {"locks",
       {{"current", f.locks},
        {"max_seen", f.locks_max_seen},
        {"limit", f.locks_limit},
        {"requests", f.lock_requests},
        {"waits", f.lock_waits},
        {"deadlocks", f.deadlocks},
        {"lock_timeouts", f.lock_timeouts},
        {"txn_timeouts", f.txn_timeouts}}},
      {"lockers",
       {{"current", f.lockers}, {"max_seen", f.lockers_max_seen}, {"limit", f.lockers_limit}}},
      {"thread_slots",
       {{"allocated", f.thread_slots},
        {"limit", f.thread_slots_limit},
        {"dead", f.thread_slots_dead}}},
      {"log",
       {{"files", f.log_files},
        {"bytes", f.log_bytes},
        {"file_limit", f.log_file_limit},
        {"current_file", f.log_current_file},
        {"current_offset", f.log_current_offset}}},
      {"data_bytes", f.data_bytes},
      {"cache", {{"bytes", f.cache_bytes}, {"hits", f.cache_hits}, {"misses", f.cache_misses}}},
      {"replication",
       {{"enabled", f.replication},
        {"role", f.rep_role},
        {"startup_complete", f.rep_startup_complete},
        {"env_id", f.rep_env_id},
        {"log_queued", f.rep_log_queued}}},
  };
}

void PrintEnv(const EnvFigures& f) {
  std::printf("  environment      %s (Berkeley DB %s)\n", f.home.c_str(), f.version.c_str());
  if (f.replication) {
    std::printf("  replication      %s%s, environment id %" PRId64 ", %" PRIu64
                " log records queued\n",
                f.rep_role.c_str(), f.rep_startup_complete ? ", startup complete" : "",
                f.rep_env_id, f.rep_log_queued);
  } else {
    std::printf("  replication      not set up in this environment\n");
  }
  std::printf("  transactions     %u active (most %u), %" PRIu64 " begun, %" PRIu64
              " committed, %" PRIu64 " aborted\n",
              f.txn_active, f.txn_max_active, f.txn_begins, f.txn_commits, f.txn_aborts);
  std::printf("  locks            %u (most %u, limit %u), %" PRIu64 " waits, %" PRIu64
              " deadlocks, %" PRIu64 " lock and %" PRIu64 " transaction time-outs\n",
              f.locks, f.locks_max_seen, f.locks_limit, f.lock_waits, f.deadlocks, f.lock_timeouts,
              f.txn_timeouts);
  std::printf("  lockers          %u (most %u, limit %u)\n", f.lockers, f.lockers_max_seen,
              f.lockers_limit);
  std::printf("  thread slots     %u of %u, %u of dead processes\n", f.thread_slots,
              f.thread_slots_limit, f.thread_slots_dead);
  std::printf("  log              %u files, %s (switch at %s), at %u/%u\n", f.log_files,
              Bytes(f.log_bytes).c_str(), Bytes(f.log_file_limit).c_str(), f.log_current_file,
              f.log_current_offset);
  std::printf("  tables           %s\n", Bytes(f.data_bytes).c_str());
  std::printf("  cache            %s, %" PRIu64 " hits, %" PRIu64 " misses\n",
              Bytes(f.cache_bytes).c_str(), f.cache_hits, f.cache_misses);
}

int RunStore(const Globals& globals) {
  namespace paths = vsk::platform;
  std::vector<std::string> problems;

  vsk::shared::SegmentView view;
  Json shared = {{"attached", false}};
  if (view.Open()) {
    uint32_t status = view.DbStatus();
    shared = {{"attached", true},
              {"status", status},
              {"status_name", vsk::shared::DbStatusName(status)},
              {"last_session_id", view.LastSessionId()}};
    if (status != VSK_DB_STATUS_READY) {
      problems.push_back("the store on root " + RootText() + " is not ready: its status word is " +
                         std::to_string(status) + " (" + vsk::shared::DbStatusName(status) + ")");
    }
  } else {
    shared["error"] = view.message();
    problems.push_back(view.message());
  }

  const std::string socket = paths::RootedPath(paths::kOrvdSocket);
  const std::string table = paths::RootedPath(vsk::orvd::kClientsTableFile);
  const size_t daemons = Exists(table) ? vsk::orvd::ReadClientsTable().size() : 0;
  const char* role = hwframe_is_vc_or_single_re_protocol_master() ? "master" : "standby";

  EnvFigures figures;
  vsk::store::EnvError env_error;
  std::string env_message;
  const bool env_ok = vsk::store::ProbeEnvironment(&figures, &env_error, &env_message);
  if (!env_ok) problems.push_back(env_message);

  if (globals.json) {
    Json env = env_ok ? EnvJson(figures) : Json{{"home", figures.home}, {"error", env_message}};
    env["available"] = env_ok;
    env["state"] = vsk::store::EnvStateName(env_error);
    PrintJson({{"root", RootText()},
               {"role", role},
               {"shared_state", shared},
               {"orvd",
                {{"socket", socket},
                 {"socket_present", Exists(socket)},
                 {"table", table},
                 {"table_present", Exists(table)},
                 {"daemons", daemons}}},
               {"environment", env}});
  } else {
    std::printf("store on root %s\n", RootText().c_str());
    std::printf("  role             %s (this routing engine, as the platform says)\n", role);
    if (view.attached()) {
      std::printf("  shared state     %s (status word %u), last session id %" PRIu64 "\n",
                  vsk::shared::DbStatusName(view.DbStatus()), view.DbStatus(),
                  view.LastSessionId());
    } else {
      std::printf("  shared state     not available\n");
    }
    std::printf("  orvd             socket %s, %zu daemons in its table\n",
                Exists(socket) ? "present" : "absent", daemons);
    if (env_ok) {
      PrintEnv(figures);
    } else {
      std::printf("  environment      %s: %s\n", figures.home.c_str(),
                  vsk::store::EnvStateName(env_error));
    }
  }
  for (const std::string& p : problems) Failure(p);
  return problems.empty() ? kExitOk : kExitFailure;
}

}  // namespace

void AddStore(CLI::App& app, const Globals& globals, Action* action) {
  AddSubcommand(app, "store", "environment state, role, replication and the Berkeley DB figures",
                globals, action, RunStore);
}

}  // namespace vskctl
