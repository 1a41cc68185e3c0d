// orvd: registration round trips per second (register, acknowledge, unregister from a
// client process) and the time from orvd's start to a ready store. Prints its own table.
// Runs under a throwaway VSK_ROOT and removes what it made.
#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "vsk/vsk.h"

namespace {

using Clock = std::chrono::steady_clock;

// The orvd built beside this benchmark: <build>/daemons/orvd.
std::string OrvdPath() {
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  return (self.parent_path().parent_path() / "daemons" / "orvd").string();
}

pid_t StartOrvd() {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    execl(OrvdPath().c_str(), "orvd", "--foreground", "--stderr", static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// Waits until a client is accepted (store ready and socket served).
bool WaitReady(double* ms) {
  auto start = Clock::now();
  while (Clock::now() - start < std::chrono::seconds(30)) {
    pid_t c = fork();
    if (c == 0) {
      orvd_ctx_t* ctx = orvd_init_handle();
      orvd_set_reg_type_poll(ctx);
      int rc = orvd_register(ctx);
      orvd_unregister(&ctx);
      _exit(rc == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(c, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      *ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/vsk-bench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  std::string root = tmpl;
  setenv("VSK_ROOT", root.c_str(), 1);
  unsetenv("VSK_RE_ROLE");
  vsk::platform::MakeDirs(root + "/mfs/var/tmp");

  const int kStarts = 3;
  double total_start = 0;
  pid_t orvd = -1;
  for (int i = 0; i < kStarts; ++i) {
    if (orvd > 0) {
      kill(orvd, SIGTERM);
      waitpid(orvd, nullptr, 0);
    }
    orvd = StartOrvd();
    double ms = 0;
    if (!WaitReady(&ms)) {
      std::fprintf(stderr, "orvd did not become ready\n");
      kill(orvd, SIGKILL);
      return 1;
    }
    total_start += ms;
  }

  // Round trips from one client process: register, acknowledge, unregister.
  const int kRounds = 200;
  int pipefd[2];
  if (pipe(pipefd) != 0) return 1;
  pid_t client = fork();
  if (client == 0) {
    auto start = Clock::now();
    int ok = 0;
    for (int i = 0; i < kRounds; ++i) {
      orvd_ctx_t* ctx = orvd_init_handle();
      orvd_set_reg_type_poll(ctx);
      if (orvd_register(ctx) == 0) ++ok;
      orvd_unregister(&ctx);
    }
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    double rate = ok / secs;
    (void)!write(pipefd[1], &rate, sizeof rate);
    _exit(ok == kRounds ? 0 : 1);
  }
  double rate = 0;
  (void)!read(pipefd[0], &rate, sizeof rate);
  int status = 0;
  waitpid(client, &status, 0);

  kill(orvd, SIGTERM);
  waitpid(orvd, nullptr, 0);
  vsk::shared::RemoveAllRootObjects();
  std::filesystem::remove_all(root);

  std::printf("| measure | value |\n|---|---|\n");
  std::printf("| orvd start to ready store (mean of %d starts) | %.1f ms |\n", kStarts,
              total_start / kStarts);
  std::printf("| registration round trips (register+ack+unregister, %d rounds) | %.0f /s |\n",
              kRounds, rate);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
