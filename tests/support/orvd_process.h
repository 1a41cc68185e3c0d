// A real orvd process for tests: started from the built binary under the test's root,
// waited for until it serves its socket, stopped with SIGTERM. Also the client table it
// publishes, and a daemon-link client run in one process.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "libvsk/orvd_client/clients_table.h"
#include "platform/paths.h"
#include "support/harness.h"

namespace vsk::test {

using OrvdTableRow = orvd::ClientsRow;

class OrvdProcess {
 public:
  ~OrvdProcess() { Stop(SIGKILL); }

  // Starts orvd and waits until it listens. False if it ended or timed out first.
  bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::string socket = platform::RootedPath(platform::kOrvdSocket);
    std::string table = platform::RootedPath(orvd::kClientsTableFile);
    unlink(table.c_str());
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      DieWithParent(parent);
      execl(VSK_BINARY_DIR "/daemons/orvd", "orvd", "--foreground", "--stderr",
            static_cast<char*>(nullptr));
      _exit(127);
    }
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

  // Sends `sig` and waits. Returns the exit code, or -1 if killed or not running.
  int Stop(int sig = SIGTERM) {
    if (pid_ <= 0) return -1;
    kill(pid_, sig);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
