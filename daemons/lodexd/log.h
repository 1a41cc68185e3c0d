// lodexd's log: syslog, or stderr with --stderr. Also the sink of the library's traces.
#pragma once

#include <cstdarg>

namespace lodexd {

void SetLogToStderr(bool on);
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
void VLog(const char* format, va_list args);

}  // namespace lodexd
