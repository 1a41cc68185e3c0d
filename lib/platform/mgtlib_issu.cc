#include "platform/mgtlib_issu.h"

#include <iterator>

namespace {

constexpr const char* kDaemonStates[] = {"idle",           "prepare wait",
                                         "prepare ready",  "switchover wait",
                                         "switchover ready", "abort wait"};

constexpr const char* kPlatdStates[] = {"idle",       "prepare",         "prepare done",
                                        "unexpected (3)", "unexpected (4)",         "switchover",
                                        "switchover done", "abort"};

}  // namespace

extern "C" const char* mgtlib_format_daemon_issu_state(uint32_t state) {
  return state < std::size(kDaemonStates) ? kDaemonStates[state] : "unknown";
}

extern "C" const char* mgtlib_format_platd_issu_state(uint32_t state) {
  return state < std::size(kPlatdStates) ? kPlatdStates[state] : "unknown";
}
