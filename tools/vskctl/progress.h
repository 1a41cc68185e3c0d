// Progress of a long walk, for a person at a terminal.
//
// Shown on stderr only when stderr is a terminal and --no-progress was not given, so
// scripts and pipes never see it. One line, rewritten in place ("\r"), at most ten times a
// second and always for the first step; the line is erased when the walk ends, so the
// listing on stdout is the same whether or not progress was shown.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "ctl.h"

namespace vskctl {

class Progress {
 public:
  // `total` 0 means unknown.
  Progress(const Globals& globals, std::string what, uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Step(uint64_t done);
  bool shown() const { return enabled_; }

 private:
  bool enabled_;
  bool drawn_ = false;
  std::string what_;
  uint64_t total_;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace vskctl
