// This routing engine's role in the chassis.
//
// The deployment sets the role with the environment variable VSK_RE_ROLE:
//   unset, empty or "master" -> master;
//   "standby"                -> standby.
// Any other value counts as master and is reported once through logging(), so a typo
// never silently turns a master into a standby. The variable is read at each call.
#pragma once

extern "C" {

// True on the master routing engine (or the only one).
bool hwframe_is_vc_or_single_re_protocol_master(void);

}  // extern "C"
