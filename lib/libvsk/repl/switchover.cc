// A planned switchover: see switchover.h for the steps.
#include "libvsk/repl/switchover.h"

#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <functional>
#include <thread>

#include "platform/hwframe.h"
#include "platform/lodex_status.h"

namespace vsk::repl {
namespace {

using Clock = std::chrono::steady_clock;
using platform::CompareLsn;
using platform::LodexStatus;

// VSK_ROOT for the scope (the paths of the system are rooted at each use).
class RootScope {
 public:
  explicit RootScope(const std::string& root) {
    const char* old = std::getenv("VSK_ROOT");
    had_ = old != nullptr;
    if (had_) saved_ = old;
    setenv("VSK_ROOT", root.c_str(), 1);
  }
  ~RootScope() {
    if (had_) {
      setenv("VSK_ROOT", saved_.c_str(), 1);
    } else {
      unsetenv("VSK_ROOT");
    }
  }

 private:
  bool had_ = false;
  std::string saved_;
};

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

// lodexd's status of `root`; false when there is no live lodexd there.
bool LiveStatus(const std::string& root, LodexStatus* out) {
  RootScope scope(root);
  return platform::ReadLodexStatus(out) && out->pid > 0 && kill(out->pid, 0) == 0;
}

bool SetRole(const std::string& root, bool master) {
  RootScope scope(root);
  return platform::WriteRoleFile(master);
}

// Waits until `done` holds for statuses of both roots written after `since_ms`.
bool WaitFor(const std::string& a_root, const std::string& b_root, int64_t since_ms,
             std::chrono::milliseconds timeout,
             const std::function<bool(const LodexStatus&, const LodexStatus&)>& done) {
  auto end = Clock::now() + timeout;
  while (Clock::now() < end) {
    LodexStatus a, b;
    bool have_a = LiveStatus(a_root, &a) && a.updated_ms > since_ms;
    bool have_b = LiveStatus(b_root, &b) && b.updated_ms > since_ms;
    if (have_a && have_b && done(a, b)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool StandbyRegistered(const LodexStatus& s) { return s.env_open && !s.master; }
bool MasterRegistered(const LodexStatus& s) { return s.env_open && s.master; }

}  // namespace

SwitchoverResult Switchover(const std::string& old_root, const std::string& new_root,
                            std::chrono::milliseconds step_timeout) {
  SwitchoverResult r;
  LodexStatus old_status, new_status;
  if (!LiveStatus(new_root, &new_status) || !StandbyRegistered(new_status)) {
    r.detail = "the new master's lodexd is not running as a standby";
    return r;
  }
  r.old_master_alive = LiveStatus(old_root, &old_status) && old_status.master;
  if (!r.old_master_alive) {
    SetRole(old_root, false);
  } else {
    int64_t since = NowMs();
    if (!SetRole(old_root, false)) {
      r.detail = "cannot write the old master's role file";
      return r;
    }
    bool demoted = WaitFor(old_root, new_root, since, step_timeout,
                           [](const LodexStatus& o, const LodexStatus&) { return StandbyRegistered(o); });
    // Every commit of the old master must be applied on the new one before it takes over.
    bool complete =
        demoted && WaitFor(old_root, new_root, since, step_timeout,
                           [](const LodexStatus& o, const LodexStatus& n) {
                             return StandbyRegistered(o) && StandbyRegistered(n) &&
                                    (o.last_commit.file == 0 ||
                                     CompareLsn(n.standby_next, o.last_commit) > 0);
                           });
    if (!complete) {
      SetRole(old_root, true);
      r.detail = demoted ? "the standby did not receive every commit of the old master in time; "
                           "the old master is master again"
                         : "the old master did not step down in time; it is master again";
      return r;
    }
  }
  int64_t since = NowMs();
  if (!SetRole(new_root, true)) {
    r.detail = "cannot write the new master's role file";
    return r;
  }
  bool promoted = WaitFor(new_root, new_root, since, step_timeout,
                          [](const LodexStatus& n, const LodexStatus&) { return MasterRegistered(n); });
  if (!promoted) {
    r.detail = "the new master did not take over in time";
    return r;
  }
  r.ok = true;
  if (r.old_master_alive) {
    r.old_master_in_step = WaitFor(new_root, new_root, since, step_timeout,
                                   [](const LodexStatus& n, const LodexStatus&) { return n.in_sync; });
  }
  r.detail = !r.old_master_alive  ? "switched over; the old master was not running"
             : r.old_master_in_step ? "switched over; the old master is standby and in step"
                                    : "switched over; the old master is standby, still catching up";
  return r;
}

}  // namespace vsk::repl
