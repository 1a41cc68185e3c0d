// Two routing engines on one machine for replication tests: two roots, each with its own
// orvd and lodexd, the two lodexd linked over loopback TCP.
//
// The first engine lives in the VskTest root (master at the start), the second in a root
// of its own (standby at the start), made and cleaned up here with its System V objects.
// Roles are given by each root's role file, so a switchover can change them while the
// processes run. Helpers run a client daemon of either engine in a forked child.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/lodex_status.h"
#include "support/harness.h"

namespace vsk::test {

// Puts VSK_ROOT to `root` for the scope.
class ScopedRoot {
 public:
  explicit ScopedRoot(const std::string& root);
  ~ScopedRoot();
  ScopedRoot(const ScopedRoot&) = delete;
  ScopedRoot& operator=(const ScopedRoot&) = delete;

 private:
  std::string saved_;
};

// A program of the build run as a daemon in the foreground, logging to a file.
class DaemonProcess {
 public:
  ~DaemonProcess() { Stop(SIGKILL); }
  bool Start(const std::string& program, const std::vector<std::string>& args,
             const std::string& log_file);
  // Sends `sig` and reaps. The exit code, or -1 when killed or not running.
  int Stop(int sig = SIGTERM);
  bool running() const { return pid_ > 0; }
  // Started and not ended (reaps it when it has ended).
  bool Alive();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

class Engine {
 public:
  Engine(std::string root, uint16_t port, uint16_t peer_port)
      : root_(std::move(root)), port_(port), peer_port_(peer_port) {}
  const std::string& root() const { return root_; }

  void SetRole(bool master) const;
  bool StartOrvd();
  bool StartLodexd();
  void StopLodexd(int sig = SIGTERM) { lodexd_.Stop(sig); }
  void StopOrvd(int sig = SIGTERM) { orvd_.Stop(sig); }
  void StopAll(int sig = SIGTERM);
  DaemonProcess& lodexd() { return lodexd_; }
  DaemonProcess& orvd() { return orvd_; }

  platform::LodexStatus Status() const;
  // Waits up to `timeout` for lodexd's status to satisfy `done`; the last status seen.
  bool WaitStatus(const std::function<bool(const platform::LodexStatus&)>& done,
                  std::chrono::milliseconds timeout = std::chrono::seconds(30),
                  platform::LodexStatus* last = nullptr) const;
  // Master: the standby has applied everything this master has logged.
  bool WaitInSync(std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
  // orvd has lodexd registered in `master`'s role.
  bool WaitRegistered(bool master, std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
  std::string LogTail() const;
  // Waits up to `timeout` for a line holding `text` in orvd's log.
  bool WaitOrvdLog(const std::string& text,
                   std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

 private:
  std::string root_;
  uint16_t port_;
  uint16_t peer_port_;
  DaemonProcess orvd_;
  DaemonProcess lodexd_;
};

// A free TCP port on the loopback address.
uint16_t FreeLoopbackPort();

class ReplPairTest : public VskTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts orvd and lodexd on both engines (a master, b standby).
  void StartPair();

  // Runs `fn` in a child registered as a client daemon of `e` (poll mode), retrying the
  // registration for up to `wait`. The child exits with fn's result, or with 100 + the
  // negated registration status when it never registered.
  ChildResult AsClientOf(const Engine& e, const std::function<int()>& fn,
                         std::chrono::milliseconds wait = std::chrono::seconds(30));

  // Whether a client of `e` finds all of client sessions first..first+count-1.
  bool AllOn(const Engine& e, uint64_t first, uint64_t count);

  Engine& a() { return *a_; }
  Engine& b() { return *b_; }

 private:
  std::string root2_;
  std::unique_ptr<Engine> a_;
  std::unique_ptr<Engine> b_;
};

// Session helpers for code running as a registered client.
// Writes client sessions first..first+count-1 (one transaction each, retrying -4/-11).
// 0, or the first failure.
int PutSessions(uint64_t first, uint64_t count, const std::string& tag = "s");
// first, first+1, ..., first+count-1.
std::vector<uint64_t> Ids(uint64_t first, uint64_t count);
// How many of the ids have a client session whose user name is "<tag><id>".
int CountSessions(const std::vector<uint64_t>& ids, const std::string& tag = "s");

}  // namespace vsk::test
