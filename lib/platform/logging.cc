#include "platform/logging.h"

#include <syslog.h>

#include <atomic>

namespace vsk::platform {
namespace {

std::atomic<LoggingSink> g_sink{nullptr};
std::atomic<LoggingSink> g_system_sink{nullptr};

int SyslogPriority(int level) {
  if (level <= LOG_ERR) return LOG_ERR;
  if (level > LOG_DEBUG) return LOG_DEBUG;
  return level;
}

}  // namespace

LoggingSink SetLoggingSink(LoggingSink sink) { return g_sink.exchange(sink); }

LoggingSink SetSystemLogSink(LoggingSink sink) { return g_system_sink.exchange(sink); }

void SystemLog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (auto sink = g_system_sink.load(); sink != nullptr) {
    sink(priority, format, args);
  } else {
    vsyslog(priority, format, args);
  }
  va_end(args);
}

}  // namespace vsk::platform

extern "C" void logging(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (auto sink = vsk::platform::g_sink.load(); sink != nullptr) {
    sink(level, format, args);
  } else {
    vsyslog(vsk::platform::SyslogPriority(level), format, args);
  }
  va_end(args);
}
