// Act 2, the parent's side: the real orvd daemon and a client daemon on the root of act 1.
//
// orvd is the program built beside this one (<build>/daemons/orvd). It opens the shared
// state and the store with recovery, rebuilds the shared state, and serves the daemon
// link. It is ready once it has published its table of daemons and its socket, both of
// which it makes only after its store is open. The client is this program again, run
// with the internal switch --client, so that it is a process of its own with a program
// name of its own.
//
// Every child is waited for with a time limit and killed if it overruns; a child still
// running when the act ends (after a failure) is killed, so nothing outlives the demo.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "demo.h"
#include "platform/paths.h"
#include "transcript.h"

namespace vsk::demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kOrvdReadyLimit = std::chrono::seconds(30);
constexpr auto kClientLimit = std::chrono::seconds(60);
constexpr auto kOrvdStopLimit = std::chrono::seconds(20);
constexpr char kOrvdLog[] = "/var/log/orvd.log";

// A child process; killed and reaped if still running when it goes out of scope.
class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (running()) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Forks and execs `path` with `argv`; the child's stdout and stderr go to `log` when it
  // is not empty. False if the fork failed.
  bool Start(const std::string& path, const char* const* argv, const std::string& log) {
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
      if (!log.empty()) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
          dup2(fd, STDOUT_FILENO);
          dup2(fd, STDERR_FILENO);
        }
      }
      execv(path.c_str(), const_cast<char* const*>(argv));
      std::fprintf(stderr, "cannot run %s: %s\n", path.c_str(), std::strerror(errno));
      _exit(127);
    }
    return true;
  }

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // True once the child has ended; its wait status goes to *status.
  bool Ended(int* status) {
    if (!running()) return true;
    if (waitpid(pid_, status, WNOHANG) != pid_) return false;
    pid_ = -1;
    return true;
  }

  // Waits up to `limit`; on overrun kills the child. Returns the exit code, or -1 when it
  // was killed or overran (*overran tells which).
  int Wait(Clock::duration limit, bool* overran) {
    *overran = false;
    auto end = Clock::now() + limit;
    int status = 0;
    while (!Ended(&status)) {
      if (Clock::now() > end) {
        *overran = true;
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

std::string OrvdPath(const std::string& self) {
  std::filesystem::path p(self);
  return (p.parent_path().parent_path() / "daemons" / "orvd").string();
}

bool Exists(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

void PrintOrvdLog() {
  std::ifstream in(platform::RootedPath(kOrvdLog));
  std::string line;
  Say("orvd's log (%s):", kOrvdLog);
  while (std::getline(in, line)) {
    if (!line.empty()) Say("  | %s", line.c_str());
  }
}

bool StartOrvd(ChildProcess& orvd, const std::string& path) {
  if (access(path.c_str(), X_OK) != 0) {
    return Fail("no orvd program at %s (%s); build the target orvd", path.c_str(),
                std::strerror(errno));
  }
  std::string table = platform::RootedPath(orvd::kClientsTableFile);
  std::string socket = platform::RootedPath(platform::kOrvdSocket);
  unlink(table.c_str());  // a table left by an earlier orvd would look like readiness
  const char* const argv[] = {"orvd", "--foreground", "--stderr", nullptr};
  auto start = Clock::now();
  if (!orvd.Start(path, argv, platform::RootedPath(kOrvdLog))) {
    return Fail("cannot fork: %s", std::strerror(errno));
  }
  Say("started %s --foreground --stderr, pid %d", path.c_str(), orvd.pid());
  while (!(Exists(table) && Exists(socket))) {
    int status = 0;
    if (orvd.Ended(&status)) {
      PrintOrvdLog();
      return Fail("orvd ended before it was ready (wait status 0x%x)", status);
    }
    if (Clock::now() - start > kOrvdReadyLimit) {
      PrintOrvdLog();
      return Fail("orvd not ready after %lld s", static_cast<long long>(kOrvdReadyLimit.count()));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
  Say("orvd is ready after %lld ms: it serves %s", static_cast<long long>(ms),
      platform::kOrvdSocket);
  return true;
}

bool RunClientProcess(const std::string& self, vsk_session_id_t session_id) {
  std::string id = std::to_string(session_id);
  const char* const argv[] = {kClientName, "--client", id.c_str(),
                              Verbose() ? "--verbose" : nullptr, nullptr};
  ChildProcess client;
  if (!client.Start(self, argv, "")) return Fail("cannot fork: %s", std::strerror(errno));
  bool overran = false;
  int code = client.Wait(kClientLimit, &overran);
  if (overran) {
    return Fail("the client did not finish within %lld s",
                static_cast<long long>(kClientLimit.count()));
  }
  if (code != 0) return Fail("the client process failed (exit code %d)", code);
  return true;
}

}  // namespace

void SayOrvdRow(const std::string& name, const orvd::ClientsRow& row) {
  const char* role = row.role == 3 ? "master" : row.role == 1 ? "standby" : "left";
  Say("  %s: pid %d, role %d (%s), recovery complete %d, connected %d", name.c_str(), row.pid,
      row.role, role, row.recovery_complete, row.connected);
}

bool RunDaemons(const std::string& self, vsk_session_id_t session_id) {
  ClearTraces();
  ChildProcess orvd;
  if (!StartOrvd(orvd, OrvdPath(self))) return false;

  Act("2b", "a client daemon in its own process registers with orvd and reads act 1's rows");
  if (!RunClientProcess(self, session_id)) {
    PrintOrvdLog();
    return false;
  }
  if (!orvd::WaitForNoClientsRow(kClientName)) {
    return Fail("orvd's table still shows the client after it left");
  }
  Say("orvd's table of daemons after the client left: its row went with its connection");

  Act("2c", "orvd is told to stop");
  kill(orvd.pid(), SIGTERM);
  Say("sent SIGTERM to orvd (pid %d)", orvd.pid());
  bool overran = false;
  int code = orvd.Wait(kOrvdStopLimit, &overran);
  PrintOrvdLog();
  if (overran) {
    return Fail("orvd did not stop within %lld s; killed",
                static_cast<long long>(kOrvdStopLimit.count()));
  }
  if (code != 0) return Fail("orvd ended with exit code %d", code);
  Say("orvd exited with code 0; its socket is %s",
      Exists(platform::RootedPath(platform::kOrvdSocket)) ? "STILL THERE" : "gone");
  return true;
}

}  // namespace vsk::demo
