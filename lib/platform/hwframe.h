// This routing engine's role in the chassis.
//
// The deployment sets the role with the environment variable VSK_RE_ROLE:
//   unset, empty or "master" -> master;
//   "standby"                -> standby.
// Any other value counts as master and is reported once through logging(), so a typo
// never silently turns a master into a standby.
//
// A switchover hands mastership over while the processes run, which an environment
// variable cannot follow: the role file "/var/run/vsk_re_role" (under the root in force),
// when it holds "master" or "standby" (a trailing newline allowed), overrides the
// variable. A file with anything else in it is ignored. Both are read at each call.
#pragma once

#include <optional>

extern "C" {

// True on the master routing engine (or the only one).
bool hwframe_is_vc_or_single_re_protocol_master(void);

}  // extern "C"

namespace vsk::platform {

inline constexpr const char kRoleFile[] = "/var/run/vsk_re_role";

// The role the role file names, or nothing without a valid file.
std::optional<bool> RoleFileSaysMaster();

// Writes the role file under the root in force (atomically: readers see the old or the
// new role, never a mix). False with errno set on failure.
bool WriteRoleFile(bool master);

}  // namespace vsk::platform
