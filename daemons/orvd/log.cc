// See log.h.
#include "log.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <mutex>
#include <unordered_map>

namespace orvd {
namespace {

using Clock = std::chrono::steady_clock;

struct Window {
  Clock::time_point start;
  int lines = 0;       // lines written in this window
  long suppressed = 0; // lines left out since the last one written
};

bool g_stderr = false;
std::mutex g_mu;
// By format string: formats are literals, so their addresses tell the kinds apart.
// Never destroyed: the library may trace while the process exits.
auto* g_windows = new std::unordered_map<const char*, Window>;

// True when a line of `format` may go out now; *suppressed is the count left out before it.
bool Admit(const char* format, long* suppressed) {
  std::lock_guard<std::mutex> lock(g_mu);
  Window& w = (*g_windows)[format];
  const Clock::time_point now = Clock::now();
  if (now - w.start >= std::chrono::seconds(1)) {
    w.start = now;
    w.lines = 0;
  }
  if (w.lines >= kLogBurst) {
    ++w.suppressed;
    return false;
  }
  ++w.lines;
  *suppressed = w.suppressed;
  w.suppressed = 0;
  return true;
}

}  // namespace

void SetLogToStderr(bool on) { g_stderr = on; }

void VLog(const char* format, va_list args) {
  long suppressed = 0;
  if (!Admit(format, &suppressed)) return;
  char line[1024];
  std::vsnprintf(line, sizeof line, format, args);
  if (g_stderr) {
    // Wall-clock time to the millisecond: syslog stamps its lines, standard error does not.
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    char when[16];
    std::strftime(when, sizeof when, "%H:%M:%S", &local);
    if (suppressed > 0) {
      std::fprintf(stderr, "%s.%03ld orvd[%d]: %s (%ld more like it left out)\n", when,
                   ts.tv_nsec / 1000000, getpid(), line, suppressed);
    } else {
      std::fprintf(stderr, "%s.%03ld orvd[%d]: %s\n", when, ts.tv_nsec / 1000000, getpid(), line);
    }
  } else if (suppressed > 0) {
    syslog(LOG_INFO, "%s (%ld more like it left out)", line, suppressed);
  } else {
    syslog(LOG_INFO, "%s", line);
  }
}

void Log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLog(format, args);
  va_end(args);
}

}  // namespace orvd
