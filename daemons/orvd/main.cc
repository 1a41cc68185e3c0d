// orvd: the infrastructure daemon that owns the session store.
//
// It takes the root's instance lock (a second orvd says so and exits 1), registers with
// the library as "orvd" (which creates the shared state and the store and, on the master,
// rebuilds the interface table), then serves the daemon link on its socket from one event
// loop while the keeper looks after the store's health (keeper.h) and reopens it in place
// on a switchover (reopen.h).
//
// Options: --foreground (stay attached to the terminal), --stderr (log to stderr instead
// of syslog). SIGTERM and SIGINT end it: clients are dropped, the socket file is removed
// and the library is closed. The end is bounded: a signal also starts a watchdog, and if
// the shutdown has not finished kShutdownLimit later (a close waiting on a process that
// died inside the store), orvd exits with status 1 without a clean close; the next orvd
// recovers the store.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "instance_lock.h"
#include "keeper.h"
#include "log.h"
#include "platform/paths.h"
#include "server.h"
#include "vsk/vsk.h"

namespace orvd {
namespace {

constexpr auto kShutdownLimit = std::chrono::seconds(10);

Keeper* g_keeper = nullptr;
void CloseForReopen(bool wedged) { g_keeper->CloseForReopen(wedged); }
bool OpenAfterReopen() { return g_keeper->OpenAfterReopen(); }

evContext g_ev{};
int g_stop_pipe[2] = {-1, -1};
std::atomic<bool> g_stopping{false};

// Any thread: ends the process if the shutdown takes too long.
void StartWatchdog() {
  std::thread([] {
    std::this_thread::sleep_for(kShutdownLimit);
    Log("shutdown did not finish within %lld s; exiting without a clean close",
        static_cast<long long>(kShutdownLimit.count()));
    _exit(1);
  }).detach();
}

// SIGTERM and SIGINT are blocked in every thread and taken here, so that they are seen
// even while the event loop waits inside a call.
void WatchSignals(sigset_t set) {
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) continue;
    if (!g_stopping.exchange(true)) {
      Log("signal %d, shutting down", sig);
      sd_notify(0, "STOPPING=1");
      StartWatchdog();
      char c = 's';
      (void)!write(g_stop_pipe[1], &c, 1);
    }
  }
}

void OnStopPipe(evContext, void*, int, int) { evBreak(g_ev); }

bool MakeDirectories() {
  std::string failed;
  if (vsk::platform::MakeSystemDirs(&failed)) return true;
  Log("cannot create %s: %s", failed.c_str(), std::strerror(errno));
  return false;
}

// Takes the root's instance lock. False (after saying why) when orvd must not run.
bool TakeInstanceLock(InstanceLock& lock) {
  pid_t owner = 0;
  switch (lock.Take(&owner)) {
    case InstanceLock::Result::kTaken:
      return true;
    case InstanceLock::Result::kHeld:
      std::fprintf(stderr, "orvd: another orvd (pid %d) owns %s; exiting\n",
                   static_cast<int>(owner), vsk::platform::RootedPath("/").c_str());
      Log("another orvd (pid %d) owns this root; exiting", static_cast<int>(owner));
      return false;
    case InstanceLock::Result::kError:
      break;
  }
  std::fprintf(stderr, "orvd: cannot take %s: %s\n",
               vsk::platform::RootedPath(kInstanceLockFile).c_str(), std::strerror(errno));
  Log("cannot take the instance lock: %s", std::strerror(errno));
  return false;
}

int Usage() {
  std::fprintf(stderr, "usage: orvd [--foreground] [--stderr]\n");
  return 2;
}

}  // namespace
}  // namespace orvd

int main(int argc, char** argv) {
  using namespace orvd;
  bool foreground = false;
  bool to_stderr = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--foreground") == 0) {
      foreground = true;
    } else if (std::strcmp(argv[i], "--stderr") == 0) {
      to_stderr = true;
    } else {
      return Usage();
    }
  }
  SetLogToStderr(to_stderr);
  if (!to_stderr) openlog("orvd", LOG_PID, LOG_DAEMON);
  signal(SIGPIPE, SIG_IGN);
  if (!MakeDirectories()) return 1;
  // Before anything of the root is touched (its socket, its store, its shared state).
  InstanceLock instance;
  if (!TakeInstanceLock(instance)) return 1;
  if (!foreground && daemon(0, 0) != 0) {
    Log("cannot detach: %s", std::strerror(errno));
    return 1;
  }
  instance.WritePid();

  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  if (pipe2(g_stop_pipe, O_CLOEXEC) != 0 || evCreate(&g_ev) != 0) {
    Log("cannot create the event loop");
    return 1;
  }
  std::thread(WatchSignals, stop_signals).detach();
  evFileID stop_id{};
  __evSelectFD(g_ev, g_stop_pipe[0], EV_READ, OnStopPipe, nullptr, &stop_id);

  int exit_code = 0;
  {
    Keeper keeper(g_ev);
    g_keeper = &keeper;
    Server server(g_ev, &keeper);
    StoreReopen reopen(CloseForReopen, OpenAfterReopen);
    reopen.Attach(&server);
    keeper.Serve(&server, &reopen);
    // A stale socket goes before the store opens: no client reaches a dead orvd's file.
    unlink(vsk::platform::RootedPath(vsk::platform::kOrvdSocket).c_str());
    if (keeper.Open() != VSK_OK || !server.Start()) {
      exit_code = 1;
    } else {
      keeper.Publish(server);
      Log("ready");
      // Under systemd, units ordered after orvd start only now, with the store open.
      sd_notify(0, "READY=1");
      if (!g_stopping) evMainLoop(g_ev);
    }
    if (!g_stopping.exchange(true)) StartWatchdog();
    server.Stop();
    vsk_status_t rc = keeper.Close();
    if (rc != VSK_OK) Log("close of the store: %d", rc);
  }
  __evDeselectFD(g_ev, stop_id);
  evDestroy(g_ev);
  Log("stopped");
  return exit_code;
}
