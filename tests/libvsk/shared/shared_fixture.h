// Helpers shared by the tests of the shared regions: open as the creator or as a client,
// run several real processes at once, and read the System V set behind the lock.
#pragma once

#include <sys/sem.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "support/harness.h"
#include "vsk/shared.h"

namespace vsk::test {

class SharedTest : public VskTest {
 protected:
  // Opens every shared region as the infrastructure daemon does.
  int OpenAsCreator() {
    AsOrvd();
    return vsk_open_internal(true);
  }

  // Runs `workers` real processes at once: each waits until all have started, runs
  // `fn(index)` and exits with its result. Returns true when every one exited with 0.
  bool RunConcurrently(int workers, const std::function<int(int)>& fn) {
    std::vector<std::unique_ptr<Child>> children;
    for (int k = 0; k < workers; ++k) {
      children.push_back(std::make_unique<Child>());
      children.back()->Start([&fn, k](Child::Channel& ch) {
        ch.Ready();
        if (!ch.WaitGo()) return 90;
        return fn(k);
      });
    }
    for (auto& c : children) {
      if (!c->WaitReady()) return false;
    }
    for (auto& c : children) c->Go();
    bool ok = true;
    for (auto& c : children) {
      ChildResult r = c->Wait();
      if (!r.Ok()) {
        ADD_FAILURE() << r;
        ok = false;
      }
    }
    return ok;
  }

  // The lock's semaphore set as the kernel sees it; -1 if missing.
  static int SemaphoreSet() { return semget(platform::SemaphoreKey(), 0, 0); }

  // A file under the test's root for a child to hand numbers back through.
  std::string ResultFile(int k) const { return root() + "/result." + std::to_string(k); }

  template <typename T>
  static bool WriteNumbers(const std::string& path, const std::vector<T>& values) {
    std::ofstream out(path);
    for (T v : values) out << v << "\n";
    return static_cast<bool>(out);
  }

  template <typename T>
  static std::vector<T> ReadNumbers(const std::string& path) {
    std::vector<T> values;
    std::ifstream in(path);
    T v;
    while (in >> v) values.push_back(v);
    return values;
  }
};

}  // namespace vsk::test
