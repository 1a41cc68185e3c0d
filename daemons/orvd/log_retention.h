// Which Berkeley DB log files orvd removes.
//
// A log file may go when both hold:
//  1. recovery no longer needs it: Berkeley DB lists it as no longer in use
//     (log_archive without flags), which after a checkpoint means every record in it is
//     older than the checkpoint and than every open transaction;
//  2. a standby's catch-up does not need it. With base replication the master is not told
//     how far a standby has got (acknowledgements go to the replication daemon, not to
//     Berkeley DB), so the rule is by count: the newest kKeptLogFiles files of the log are
//     always kept, the one being written included. A standby that is further behind than
//     that is brought up to date by Berkeley DB's internal initialisation, which copies
//     the database files instead of replaying the log; nothing is lost, it only takes
//     longer.
#pragma once

#include <db.h>

#include <string>
#include <vector>

namespace orvd {

inline constexpr size_t kKeptLogFiles = 3;

// The files to remove, as names relative to the environment's home, given every log
// file (`all`, oldest first) and those recovery no longer needs (`unused`).
std::vector<std::string> LogFilesToRemove(const std::vector<std::string>& all,
                                          const std::vector<std::string>& unused);

// How many bytes of log lie from `from` to `to` (zero when `to` is not later), counting
// every file before the last as full (`file_size`, the configured size of a log file):
// a file ends early only when the next record does not fit, so this is a close bound.
uint64_t LogBytesBetween(const DB_LSN& from, const DB_LSN& to, uint32_t file_size);

// Applies the rule to `env` (home `home`, with a trailing slash): removes the files and
// returns how many went. Errors are logged.
int RemoveUnneededLogs(DB_ENV* env, const std::string& home);

}  // namespace orvd
