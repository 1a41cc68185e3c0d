// A planned switchover between the two routing engines: the standby becomes master and
// the old master, if alive, becomes standby, with nothing committed on the old master lost.
//
// An engine is named by its root (VSK_ROOT; "" for the system's own). Each engine's orvd
// and lodexd follow the role file of their root (platform/hwframe.h); this function only
// writes role files and watches lodexd's status files (platform/lodex_status.h), so it
// works with the daemons running. Steps:
//  1. the old master's role becomes standby: its orvd closes the store for every client
//     (no more commits there) and reopens it as standby;
//  2. wait until the new master holds every commit of the old one: the new master's next
//     expected LSN is past the last commit record in the old master's log (the old master
//     keeps shipping what its queue still held); if that does not happen in time the old
//     master is made master again and the switchover fails, having lost nothing;
//  3. the new master's role becomes master: its orvd reopens the store as master;
//  4. wait until the old master, now standby, is in step with the new master (reported).
// A dead old master (no live lodexd) skips steps 1, 2 and 4; its role file is set to
// standby so that it comes back as one.
//
// Application daemons follow a role change by registering anew (orvd_unregister, then
// orvd_register): a re-registration keeps the role of the first.
#pragma once

#include <chrono>
#include <string>

namespace vsk::repl {

struct SwitchoverResult {
  bool ok = false;
  bool old_master_alive = false;
  bool old_master_in_step = false;  // step 4 finished in time
  std::string detail;               // what happened, for the operator
};

SwitchoverResult Switchover(const std::string& old_master_root, const std::string& new_master_root,
                            std::chrono::milliseconds step_timeout = std::chrono::seconds(40));

}  // namespace vsk::repl
