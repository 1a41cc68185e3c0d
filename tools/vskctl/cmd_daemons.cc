// vskctl daemons: the table of registered daemons that orvd publishes.
//
// The table's format belongs to orvd; it is read through its one reader
// (libvsk/orvd_client/clients_table.h).
#include <sys/stat.h>

#include <cstdio>

#include "ctl.h"
#include "libvsk/orvd_client/clients_table.h"
#include "platform/mgtlib_issu.h"
#include "platform/paths.h"

namespace vskctl {
namespace {

const char* RoleName(int role) {
  switch (role) {
    case 3:
      return "master";
    case 1:
      return "standby";
    case 0:
      return "left";
    default:
      return "unknown";
  }
}

int RunDaemons(const Globals& globals) {
  namespace orvd = vsk::orvd;
  const std::string path = vsk::platform::RootedPath(orvd::kClientsTableFile);
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    return Failure("orvd's table of daemons " + path +
                   " does not exist: orvd is not running on root " + RootText());
  }
  const auto rows = orvd::ReadClientsTable();
  if (globals.json) {
    Json list = Json::array();
    for (const auto& [name, r] : rows) {
      list.push_back({{"name", name},
                      {"pid", r.pid},
                      {"role", RoleName(r.role)},
                      {"role_value", r.role},
                      {"recovery_complete", r.recovery_complete != 0},
                      {"issu_state", r.issu_state},
                      {"issu_state_name", mgtlib_format_daemon_issu_state(r.issu_state)},
                      {"connected", r.connected != 0},
                      {"replication_requests", r.replication_requests}});
    }
    PrintJson({{"root", RootText()}, {"path", path}, {"daemons", list}});
    return kExitOk;
  }
  std::printf("daemons registered with orvd on root %s (%zu)\n", RootText().c_str(), rows.size());
  std::printf("%-24s %8s %-8s %-9s %-20s %-9s %s\n", "NAME", "PID", "ROLE", "RECOVERED", "ISSU",
              "CONNECTED", "REPL_REQUESTS");
  for (const auto& [name, r] : rows) {
    std::printf("%-24s %8d %-8s %-9s %-20s %-9s %u\n", name.c_str(), r.pid, RoleName(r.role),
                r.recovery_complete ? "yes" : "no", mgtlib_format_daemon_issu_state(r.issu_state),
                r.connected ? "yes" : "no", r.replication_requests);
  }
  return kExitOk;
}

}  // namespace

void AddDaemons(CLI::App& app, const Globals& globals, Action* action) {
  AddSubcommand(app, "daemons", "orvd's published table of registered daemons", globals, action,
                RunDaemons);
}

}  // namespace vskctl
