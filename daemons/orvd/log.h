// orvd's log: syslog, or standard error with --stderr.
//
// A misbehaving client or a broken environment can make the same line come thousands of
// times a second. Each format string may therefore write at most kLogBurst lines in any
// one-second window; the rest are counted, and the next line of that format that goes
// out says how many were left out. So the log grows by at most kLogBurst lines a second
// per kind of message, whatever happens. Safe to call from any thread.
#pragma once

#include <cstdarg>

namespace orvd {

inline constexpr int kLogBurst = 10;

// Sends lines to standard error (true) or syslog (false, the default).
void SetLogToStderr(bool on);

void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VLog(const char* format, va_list args);

}  // namespace orvd
