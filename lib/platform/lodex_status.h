// What the replication daemon publishes about itself: "/var/run/lodexd_status" under the
// root in force, rewritten whole (write and rename) whenever a figure changes, at most ten
// times a second. Read by the switchover, by tests and by operators.
//
// Text, one "name value" pair a line, in the order of LodexStatus's fields; LSNs are
// written "file/offset". Readers ignore names they do not know, so fields may be added.
#pragma once

#include <db.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vsk::platform {

inline constexpr const char kLodexStatusFile[] = "/var/run/lodexd_status";

struct LodexStatus {
  pid_t pid = 0;
  bool master = false;        // the role lodexd works in (that of its registration)
  bool env_open = false;      // it holds the store environment
  bool peer_up = false;       // the link to the other engine's lodexd is up
  uint32_t gen = 0;           // this environment's replication generation
  DB_LSN log_end{};           // this environment's end of log (next LSN to be written)
  DB_LSN last_commit{};       // LSN of the last commit record in this log (0/0: none seen)
  bool standby_ready = false; // the standby has finished its start-up sync
  uint32_t standby_gen = 0;
  DB_LSN standby_next{};      // the standby's next expected LSN: all before it is applied
  bool in_sync = false;       // master: the standby has applied everything logged here
  uint64_t shipped = 0;       // messages sent to the peer
  uint64_t shipped_bytes = 0;
  uint64_t undelivered = 0;   // messages taken from the queue with no link to send them on
  uint64_t received = 0;      // messages that came from the peer
  uint64_t unapplied = 0;     // of those, the ones that found no environment open
  uint64_t rep_errors = 0;    // rep_process_message failures
  uint64_t links = 0;         // links established since start
  uint64_t nudges = 0;        // times the master re-sent its last record to a lagging standby
  uint64_t queue_dropped = 0; // messages the outbound queue refused (full or busy)
  uint64_t ack_clients = 0;
  uint64_t ack_waiting = 0;   // ids waiting for the standby
  uint64_t ack_answered = 0;
  int64_t updated_ms = 0;     // CLOCK_REALTIME milliseconds of the last rewrite
};

// The text of `s` as the file holds it.
std::string FormatLodexStatus(const LodexStatus& s);
// Parses the text; false when a known field is malformed.
bool ParseLodexStatus(const std::string& text, LodexStatus* out);

// Writes the file under the root in force. False on failure.
bool WriteLodexStatus(const LodexStatus& s);
// Reads it; false when missing or malformed.
bool ReadLodexStatus(LodexStatus* out);

// LSN order (file, then offset).
inline int CompareLsn(const DB_LSN& a, const DB_LSN& b) {
  if (a.file != b.file) return a.file < b.file ? -1 : 1;
  if (a.offset != b.offset) return a.offset < b.offset ? -1 : 1;
  return 0;
}

}  // namespace vsk::platform
