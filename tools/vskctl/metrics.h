// What the metrics endpoint exports, and where it reads it.
//
// Shared memory (status word, last session id, the 49 counters, both unit pools) and the
// interface table are read at each scrape, with no semaphore and no database lock: the
// segment is attached read-only and the interface table is copied with pread. The
// Berkeley DB figures come from a collector thread that joins the environment every
// `store_period` and keeps the last result, so a scrape never waits on the store, however
// slow or wedged it is; vsk_store_probe_age_seconds tells how old they are.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "libvsk/shared/segment_view.h"
#include "libvsk/store/env_probe.h"

namespace vskctl {

class StoreCollector {
 public:
  struct Result {
    bool ok = false;
    vsk::store::EnvFigures figures;
    std::string error;
    std::chrono::steady_clock::time_point at{};
    uint64_t probes = 0;
    uint64_t failures = 0;
  };

  explicit StoreCollector(std::chrono::milliseconds period) : period_(period) {}
  ~StoreCollector() {
    if (!Stop()) std::_Exit(1);
  }

  void Start();
  // Ends the collector. False when a probe wedged inside Berkeley DB had to be left
  // running after a short wait: the process must then end at once (std::_Exit), since the
  // thread still uses this object.
  bool Stop();
  Result Latest() const;

 private:
  void Loop();

  std::chrono::milliseconds period_;
  mutable std::mutex mu_;
  std::condition_variable wake_;
  bool stop_ = false;
  bool ended_ = false;
  Result latest_;
  std::thread thread_;
};

class MetricsSource {
 public:
  explicit MetricsSource(std::chrono::milliseconds store_period) : store_(store_period) {}

  void Start() { store_.Start(); }
  bool Stop() { return store_.Stop(); }
  // The whole exposition, read now. Called on the server's one thread.
  std::string Render();

 private:
  vsk::shared::SegmentView segment_;
  StoreCollector store_;
  uint64_t scrapes_ = 0;
};

}  // namespace vskctl
