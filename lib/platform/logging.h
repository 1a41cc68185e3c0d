// The platform's logger, used for insists.
//
// `logging(level, format, ...)` takes a syslog-like level (0 most severe) and a printf
// format. By default it writes to syslog; a daemon or a test may install its own sink.
#pragma once

#include <cstdarg>

extern "C" {
__attribute__((visibility("default"), format(printf, 2, 3))) void logging(int level,
                                                                          const char* format,
                                                                          ...);
}

namespace vsk::platform {

using LoggingSink = void (*)(int level, const char* format, va_list args);

// Installs `sink` (null restores syslog) and returns the previous one.
LoggingSink SetLoggingSink(LoggingSink sink);

// A line for the system log at syslog `priority` (LOG_ERR...), for events an operator must
// see outside the library's trace (statistics spikes). Goes to syslog, or to the sink a
// test installed with SetSystemLogSink.
[[gnu::format(printf, 2, 3)]] void SystemLog(int priority, const char* format, ...);
// Installs `sink` for SystemLog (null restores syslog) and returns the previous one.
LoggingSink SetSystemLogSink(LoggingSink sink);

}  // namespace vsk::platform

// An insist reports a broken precondition and does not stop the program: the caller
// decides what to do next, so the statement after it must cope with the failure.
#define VSK_INSIST(expr)                                                        \
  ((expr) ? true                                                                \
          : (logging(0, "%s:%d: insist '%s' failed", __FILE__, __LINE__, #expr), \
             false))
