// A real orvd process for tests: started from the built binary under the test's root,
// waited for until it serves its socket, stopped with SIGTERM. Also the client table it
// publishes, and a daemon-link client run in one process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "libvsk/orvd_client/clients_table.h"
#include "platform/paths.h"
#include "support/harness.h"

namespace vsk::test {

using OrvdTableRow = orvd::ClientsRow;

// How to start orvd: where its log goes (inherited when empty) and a descriptor limit
// (unchanged when 0).
struct OrvdOptions {
  std::string log_path;
  rlim_t max_files = 0;
};

class OrvdProcess {
 public:
  ~OrvdProcess() { Stop(SIGKILL); }

  using Options = OrvdOptions;

  // Starts orvd and waits until it listens. False if it ended or timed out first.
  bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    return Start(OrvdOptions{}, timeout);
  }
  bool Start(const Options& options,
             std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::string socket = platform::RootedPath(platform::kOrvdSocket);
    std::string table = platform::RootedPath(orvd::kClientsTableFile);
    unlink(table.c_str());
    pid_ = Spawn(options);
    auto end = std::chrono::steady_clock::now() + timeout;
    struct stat st;
    while (std::chrono::steady_clock::now() < end) {
      if (stat(table.c_str(), &st) == 0 && stat(socket.c_str(), &st) == 0) return true;
      int status;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // Runs orvd as a child without waiting for anything; its pid.
  static pid_t Spawn(const OrvdOptions& options = OrvdOptions{}) {
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
      DieWithParent(parent);
      if (!options.log_path.empty()) {
        int fd = open(options.log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) dup2(fd, 2);
      }
      if (options.max_files != 0) {
        rlimit rl{options.max_files, options.max_files};
        setrlimit(RLIMIT_NOFILE, &rl);
      }
      execl(VSK_BINARY_DIR "/daemons/orvd", "orvd", "--foreground", "--stderr",
            static_cast<char*>(nullptr));
      _exit(127);
    }
    return pid;
  }

  // Sends `sig` and waits. Returns the exit code, or -1 if killed or not running.
  int Stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, sig);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Waits up to `timeout` for orvd to end by itself (after a signal). The exit code, -1
  // if it was killed by a signal, -2 if it was still running (it is killed then).
  int WaitExit(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    auto end = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= end) {
        Stop(SIGKILL);
        return -2;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // orvd's published health figures ("/var/run/orvd_health"), by name.
  static std::map<std::string, std::string> Health() {
    std::map<std::string, std::string> figures;
    std::ifstream in(platform::RootedPath("/var/run/orvd_health"));
    std::string line;
    while (std::getline(in, line)) {
      auto space = line.find(' ');
      if (space != std::string::npos) figures[line.substr(0, space)] = line.substr(space + 1);
    }
    return figures;
  }
  static long HealthFigure(const std::string& name) {
    auto figures = Health();
    auto it = figures.find(name);
    return it == figures.end() ? -1 : std::atol(it->second.c_str());
  }

  // orvd publishes its figures at its tick, a moment after what they count: waits up to
  // `timeout` for figure `name` to reach `at_least`. The last value read (-1: not published).
  static long WaitForHealthFigure(const std::string& name, long at_least,
                                  std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    long value = HealthFigure(name);
    while (value < at_least && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      value = HealthFigure(name);
    }
    return value;
  }

  pid_t pid() const { return pid_; }

  static std::map<std::string, OrvdTableRow> Table() { return orvd::ReadClientsTable(); }

  // orvd publishes its table a moment after it has handled a message: waits for the row
  // to reach the state the caller expects. Returns the last row seen.
  template <typename Pred>
  static OrvdTableRow WaitForRow(const std::string& name, Pred done) {
    OrvdTableRow row;
    orvd::WaitForClientsRow(name, done, &row);
    return row;
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace vsk::test
