#include "log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>

namespace lodexd {
namespace {
bool g_stderr = false;
}

void SetLogToStderr(bool on) {
  g_stderr = on;
  if (!on) openlog("lodexd", LOG_PID, LOG_DAEMON);
}

void VLog(const char* format, va_list args) {
  if (g_stderr) {
    std::fprintf(stderr, "lodexd[%d]: ", getpid());
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
  } else {
    vsyslog(LOG_INFO, format, args);
  }
}

void Log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLog(format, args);
  va_end(args);
}

}  // namespace lodexd
