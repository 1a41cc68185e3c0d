// Throughput of the shared-state primitives: session ids, summary counter updates and unit
// allocate+release, from one process and from two at once, set beside the bare semop pair
// and the bare atomic add they are built on, measured in the same run.
//
// Runs on its own throwaway VSK_ROOT and removes the System V objects it made at the end.
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "vsk/shared.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kOps = 200000;

// Runs `op` kOps times in each of `procs` processes started together; returns ops/s overall.
double Rate(int procs, const std::function<bool()>& op) {
  int go[2];
  if (pipe(go) != 0) return 0;
  std::fflush(nullptr);
  pid_t pids[2] = {-1, -1};
  for (int p = 0; p < procs; ++p) {
    pids[p] = fork();
    if (pids[p] == 0) {
      close(go[1]);
      char c;
      (void)!read(go[0], &c, 1);  // returns 0 when the parent closes its end
      for (int i = 0; i < kOps; ++i) {
        if (!op()) _exit(1);
      }
      _exit(0);
    }
  }
  close(go[0]);
  auto start = Clock::now();
  close(go[1]);
  bool ok = true;
  for (int p = 0; p < procs; ++p) {
    int status = 0;
    waitpid(pids[p], &status, 0);
    ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  double secs = std::chrono::duration<double>(Clock::now() - start).count();
  if (!ok) std::fprintf(stderr, "a worker failed\n");
  return ok ? procs * kOps / secs : 0;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/vsk-bench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  std::string root = tmpl;
  setenv("VSK_ROOT", root.c_str(), 1);
  vsk::platform::MakeDirs(root + "/mfs/var/tmp/");
  if (vsk_open_internal(true) != 0) {
    std::fprintf(stderr, "cannot open the shared regions\n");
    vsk::shared::RemoveAllRootObjects();
    std::filesystem::remove_all(root);
    return 1;
  }
  vsk_unit_init(VSK_UNIT_POOL_UID_MAX, true, VSK_UNIT_POOL_UID);
  vsk_unit_recovered(VSK_UNIT_POOL_UID);
  const int set = semget(vsk::platform::SemaphoreKey(), 0, 0);
  // A reserved word of the throwaway segment serves the bare atomic add.
  auto* word = static_cast<uint32_t*>(vsk_get_shm_ptr(1088804));

  auto id_op = [] {
    vsk_session_id_t id;
    return vsk_id_generate(&id) == 0;
  };
  auto counter_op = [] { return vsk_summary_counter_increment_total(nullptr) == 0; };
  auto unit_op = [] {
    uint32_t unit;
    return vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) == 0 &&
           vsk_unit_release(unit, VSK_UNIT_POOL_UID) == 0;
  };
  auto semop_op = [set] {
    sembuf down{VSK_LOCK_HEAP, -1, SEM_UNDO};
    sembuf up{VSK_LOCK_HEAP, 1, SEM_UNDO};
    return semop(set, &down, 1) == 0 && semop(set, &up, 1) == 0;
  };
  auto atomic_op = [word] {
    std::atomic_ref<uint32_t>(*word).fetch_add(1, std::memory_order_relaxed);
    return true;
  };

  double rate[5][2];
  std::function<bool()> ops[5] = {id_op, counter_op, unit_op, semop_op, atomic_op};
  for (int i = 0; i < 5; ++i) {
    for (int p = 1; p <= 2; ++p) rate[i][p - 1] = Rate(p, ops[i]);
  }
  const char* names[5] = {"session ids", "summary counter updates", "unit allocate+release",
                          "bare semop acquire+release", "bare atomic add"};
  std::printf("%-28s %16s %16s\n", "operation (ops/s)", "1 process", "2 processes");
  for (int i = 0; i < 5; ++i) {
    std::printf("%-28s %16.0f %16.0f\n", names[i], rate[i][0], rate[i][1]);
  }
  std::printf("\nratios to the bare primitive (1 process / 2 processes)\n");
  std::printf("%-28s %16.2f %16.2f\n", "ids / semop pair", rate[0][0] / rate[3][0],
              rate[0][1] / rate[3][1]);
  std::printf("%-28s %16.2f %16.2f\n", "units / (semop pair / 2)", rate[2][0] / (rate[3][0] / 2),
              rate[2][1] / (rate[3][1] / 2));
  std::printf("%-28s %16.2f %16.2f\n", "counters / atomic add", rate[1][0] / rate[4][0],
              rate[1][1] / rate[4][1]);
  std::printf("(%d operations per process; a unit allocate+release takes two semop pairs)\n", kOps);

  vsk_close_internal();
  vsk::shared::RemoveAllRootObjects();
  std::filesystem::remove_all(root);
  return 0;
}
