// Rates of the interface table: add, look-up and remove with 1,000 and 100,000 interfaces
// and with 256,000 sessions on underlying interfaces, the time of one growth step, and
// the cost of the bare semaphore pair that every operation pays, measured in one run.
//
// Runs in its own throwaway VSK_ROOT and removes its System V objects at the end.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "vsk/intf.h"
#include "vsk/shared.h"
#include "vsk/status.h"

namespace {

using Clock = std::chrono::steady_clock;

bool g_grew = false;
void WatchGrowth(void*, int, const char* format, ...) {
  if (std::strncmp(format, "Increase mem size", 17) == 0) g_grew = true;
}

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

void Row(const char* what, long n, double seconds) {
  std::printf("%-44s %9ld %12.0f %10.3f\n", what, n, n / seconds, seconds * 1e9 / n / 1000.0);
}

void Check(int rc, const char* what) {
  if (rc != 0) {
    std::fprintf(stderr, "%s failed: %d\n", what, rc);
    std::exit(1);
  }
}

std::string Name(long i) {
  return "ge-" + std::to_string(i / 4096) + "/0/" + std::to_string(i % 4096);
}

void InterfaceRates(long n) {
  Check(vsk_db_secondary_init(true), "init");
  std::vector<std::string> names;
  for (long i = 0; i < n; ++i) names.push_back(Name(i));
  std::string label = std::to_string(n) + " interfaces: ";
  auto t0 = Clock::now();
  for (long i = 0; i < n; ++i) Check(vsk_db_interface_add(names[i].c_str(), 1, i + 1, 1, 2), "add");
  auto t1 = Clock::now();
  uint32_t state;
  for (long i = 0; i < n; ++i) Check(vsk_db_interface_get_state(names[i].c_str(), &state), "get");
  auto t2 = Clock::now();
  for (long i = 0; i < n; ++i) Check(vsk_db_interface_remove(names[i].c_str(), 1, i + 1), "remove");
  auto t3 = Clock::now();
  Row((label + "add").c_str(), n, Seconds(t0, t1));
  Row((label + "lookup (get_state)").c_str(), n, Seconds(t1, t2));
  Row((label + "remove").c_str(), n, Seconds(t2, t3));
}

void SessionRates(long sessions, long uifls) {
  Check(vsk_db_secondary_init(true), "init");
  std::vector<std::string> names;
  for (long i = 0; i < uifls; ++i) names.push_back(Name(i));
  // Time each add alone so that the adds that grew the file can be told apart.
  double grow_total = 0, grow_max = 0, plain_total = 0;
  long grows = 0;
  auto t0 = Clock::now();
  for (long s = 0; s < sessions; ++s) {
    g_grew = false;
    auto a = Clock::now();
    Check(vsk_db_interface_add(names[s % uifls].c_str(), 2, s + 1, 0, 0), "add session");
    double d = Seconds(a, Clock::now());
    if (g_grew) {
      ++grows;
      grow_total += d;
      if (d > grow_max) grow_max = d;
    } else {
      plain_total += d;
    }
  }
  auto t1 = Clock::now();
  vsk_session_id_t first;
  for (long s = 0; s < sessions; ++s) {
    Check(vsk_db_get_first_client_on_uifl(names[s % uifls].c_str(), &first), "first");
  }
  auto t2 = Clock::now();
  for (long i = 0; i < uifls; ++i) {
    uint32_t count;
    vsk_session_id_t* ids;
    Check(vsk_db_get_clients_by_uifl(names[i].c_str(), &count, &ids), "clients");
    std::free(ids);
  }
  auto t3 = Clock::now();
  for (long s = 0; s < sessions; ++s) {
    Check(vsk_db_interface_remove(names[s % uifls].c_str(), 2, s + 1), "remove session");
  }
  auto t4 = Clock::now();
  std::string label =
      std::to_string(sessions) + " sessions on " + std::to_string(uifls) + " uifl: ";
  Row((label + "add").c_str(), sessions, Seconds(t0, t1));
  Row((label + "first client").c_str(), sessions, Seconds(t1, t2));
  Row((label + "clients_by_uifl").c_str(), uifls, Seconds(t2, t3));
  Row((label + "remove").c_str(), sessions, Seconds(t3, t4));
  if (grows > 0) {
    std::printf("growth steps: %ld, mean %.1f us, max %.1f us (an add without growth: %.3f us)\n",
                grows, grow_total / grows * 1e6, grow_max * 1e6,
                plain_total / (sessions - grows) * 1e6);
  }
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/vsk-bench-intf.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  setenv("VSK_ROOT", tmpl, 1);
  namespace fs = std::filesystem;
  vsk::platform::MakeSystemDirs();
  Check(vsk_open_internal(true), "open shared regions");
  vsk_set_trace_cbk(&WatchGrowth);

  std::printf("%-44s %9s %12s %10s\n", "operation", "count", "ops/s", "us/op");
  const long kPairs = 1000000;
  auto t0 = Clock::now();
  for (long i = 0; i < kPairs; ++i) {
    vsk_acquire_lock(VSK_LOCK_HEAP);
    vsk_release_lock(VSK_LOCK_HEAP);
  }
  Row("semaphore 2 acquire+release alone", kPairs, Seconds(t0, Clock::now()));
  InterfaceRates(1000);
  InterfaceRates(100000);
  SessionRates(256000, 1000);

  vsk_set_trace_cbk(nullptr);
  vsk::shared::RemoveAllRootObjects();
  std::error_code ec;
  fs::remove_all(tmpl, ec);
  return 0;
}
