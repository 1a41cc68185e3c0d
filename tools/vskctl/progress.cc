// See progress.h.
#include "progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

namespace vskctl {

namespace {
constexpr auto kInterval = std::chrono::milliseconds(100);
}  // namespace

Progress::Progress(const Globals& globals, std::string what, uint64_t total)
    : enabled_(!globals.no_progress && isatty(STDERR_FILENO) == 1),
      what_(std::move(what)),
      total_(total) {}

Progress::~Progress() {
  if (drawn_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

void Progress::Step(uint64_t done) {
  if (!enabled_) return;
  auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - last_ < kInterval) return;
  last_ = now;
  drawn_ = true;
  // Everything this process has printed on stdout goes first, so the two never interleave
  // within a line on a shared terminal.
  std::fflush(stdout);
  if (total_ > 0) {
    std::fprintf(stderr, "\r\033[K%s %" PRIu64 "/%" PRIu64 " (%" PRIu64 "%%)", what_.c_str(), done,
                 total_, done * 100 / total_);
  } else {
    std::fprintf(stderr, "\r\033[K%s %" PRIu64, what_.c_str(), done);
  }
  std::fflush(stderr);
}

}  // namespace vskctl
