// vskctl sessions, vskctl session ID: a listing of the client sessions, and the library's
// dump of one session's snapshot.
//
// Both read through snapshots: the listing walks the client table one snapshot at a time
// (vsk_get_next_snapshot with a client filter, showing Progress over the walk), and the
// dump loads one (vsk_get_snapshot) and prints it with vsk_dump_snapshot, which writes
// through the trace hook (TraceTo(stdout)). The tables open only for a daemon registered
// with orvd, so both register as "vskctl" in poll mode for the length of the command.
//
// This library has no snapshot reads yet. Until it has, both commands say that they are
// not available and exit 1; the walk and the dump go in ListSessions and DumpSession.
#include <cstdint>

#include "ctl.h"
#include "vsk/session.h"

namespace vskctl {
namespace {

constexpr vsk_session_id_t kMaxSessionId = 0x7FFFFFFFFFFFFFFFull;

int NotAvailable(const std::string& command) {
  return Failure(command +
                 ": not available: this libvsk has no snapshot reads yet "
                 "(vsk_get_next_snapshot, vsk_dump_snapshot)");
}

int ListSessions(const Globals&) { return NotAvailable("sessions"); }

int DumpSession(const Globals&, const vsk_session_id_t& id) {
  return NotAvailable("session " + std::to_string(id));
}

}  // namespace

void AddSessions(CLI::App& app, const Globals& globals, Action* action) {
  AddSubcommand(app, "sessions", "a listing of the client sessions", globals, action, ListSessions);
  auto id = std::make_shared<vsk_session_id_t>(0);
  AddSubcommand(app, "session", "the dump of one session's snapshot", globals, action, DumpSession,
                id)
      ->add_option("id", *id, "session id (1 to 9223372036854775807)")
      ->required()
      ->check(CLI::Range(vsk_session_id_t{1}, kMaxSessionId));
}

}  // namespace vskctl
