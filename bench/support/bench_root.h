// A throwaway system for one benchmark run: its own VSK_ROOT under /tmp on the master
// role, SIGINT and SIGTERM noted (Stopped()) rather than fatal, and at the end the
// library closed, the root's System V objects removed and the root deleted.
#pragma once

#include <signal.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "libvsk/shared/root_objects.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vsk::bench {

inline volatile sig_atomic_t g_stopped = 0;

class ThrowawayRoot {
 public:
  ThrowawayRoot() {
    char tmpl[] = "/tmp/vsk-bench.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
      std::perror("mkdtemp");
      return;
    }
    root_ = tmpl;
    setenv("VSK_ROOT", root_.c_str(), 1);
    setenv("VSK_RE_ROLE", "master", 1);
    signal(SIGINT, [](int) { g_stopped = 1; });
    signal(SIGTERM, [](int) { g_stopped = 1; });
  }
  ~ThrowawayRoot() {
    if (root_.empty()) return;
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
    vsk::shared::RemoveAllRootObjects();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  ThrowawayRoot(const ThrowawayRoot&) = delete;
  ThrowawayRoot& operator=(const ThrowawayRoot&) = delete;

  bool ok() const { return !root_.empty(); }
  static bool Stopped() { return g_stopped != 0; }

 private:
  std::string root_;
};

}  // namespace vsk::bench
