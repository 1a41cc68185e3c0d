// Text forms of the ISSU states, for traces: the daemon's own states and those of the
// chassis daemon. Constant strings, never freed; a value outside the set gives
// "unknown".
#pragma once

#include <cstdint>

extern "C" {
const char* mgtlib_format_daemon_issu_state(uint32_t state);
const char* mgtlib_format_platd_issu_state(uint32_t state);
}
