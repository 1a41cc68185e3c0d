// vsk-load: many session daemons on one store at once, and the check of what they leave.
//
//   vsk-load [--sessions N | --duration S] [--workers W] [--live L] [--setup-updates K]
//            [--reads R] [--mix LIST] [--seed X] [--baseline] [--chaos] [--json] [--quiet]
//
// On its root (VSK_ROOT, or a throwaway directory it makes and removes) it starts orvd,
// then W worker processes that register with orvd through the daemon link as session
// daemons do and run subscriber lifecycles (see worker.cc), holding L live sessions in all.
// On a terminal it shows progress. At the end it checks the live store's counters, stops
// orvd and starts it again (its recovery walk rebuilds the shared state), checks the store
// against that (see oracle.cc) and prints the table of rates and latencies; a failed worker
// or a failed check is exit 1.
// --baseline replays the same table operations on a raw Berkeley DB environment (raw.cc)
// and prints the ratios. --chaos kills workers with SIGKILL at random moments (a killed
// worker's line is taken over by a new process, as a supervisor restarts a daemon) and
// once kills orvd itself with SIGKILL and starts it again; the other workers wait the
// store out and carry on, and the check reads back and removes what the killed ones left.
//
// Nothing outlives the run: SIGINT and SIGTERM stop the workers and orvd and remove a
// throwaway root with its System V objects (exit 128 + the signal); the workers and orvd
// die with this process even when it is killed with SIGKILL (parent-death signal). Only
// the throwaway root and its System V objects stay after a SIGKILL: it holds the file
// "vsk-load.owner", and the next run removes the roots whose owner and orvd are gone.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/orvd_client/clients_table.h"
#include "libvsk/shared/root_objects.h"
#include "load.h"
#include "platform/paths.h"

namespace vsk::load {
namespace {

using Clock = std::chrono::steady_clock;
// orvd is ready once its recovery walk has rebuilt the shared state: minutes for a store of
// a few hundred thousand sessions on a slow machine.
constexpr auto kOrvdReadyLimit = std::chrono::seconds(600);
constexpr auto kOrvdStopLimit = std::chrono::seconds(20);
// No lifecycle finished for this long while workers run: the run is stuck (a killed
// worker's table locks that nobody releases, a lost lock holder), and is ended.
constexpr auto kStallLimit = std::chrono::seconds(60);
constexpr uint64_t kDurationIdsPerLine = uint64_t{1} << 24;
constexpr uint32_t kMaxKillsPerLine = 3;
// orvd's published files (rooted): its health figures, and the file it holds locked for
// its whole life.
constexpr char kOrvdHealthFile[] = "/var/run/orvd_health";
constexpr char kOrvdLockFile[] = "/var/run/orvd.pid";
// In a throwaway root: who made it (pid and start time), for the sweep of a later run.
constexpr char kOwnerFile[] = "/vsk-load.owner";
constexpr char kRootPrefix[] = "/tmp/vsk-load.";

// The stop signal received (SIGINT, SIGTERM), or 0.
volatile sig_atomic_t g_signal = 0;
void OnStopSignal(int sig) { g_signal = sig; }

// A child dies with this process, however it ends; false if the parent is already gone.
bool DieWithParent(pid_t parent, int sig) {
  if (prctl(PR_SET_PDEATHSIG, sig) != 0) return false;
  return getppid() == parent;
}

// The start time of a process (field 22 of its stat line), or "" when it does not exist.
std::string StartTime(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return {};
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 22 && fields >> field; ++i) {
  }
  return field;
}

// Whether a process holds orvd's lock in `root` (an orvd still running there).
bool OrvdRunsIn(const std::string& root) {
  const int fd = open((root + kOrvdLockFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool held = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return held;
}

// Removes a throwaway root: its System V objects (keyed by its files), then its files.
void RemoveRoot(const std::string& root) {
  const char* was = std::getenv("VSK_ROOT");
  const std::string saved = was != nullptr ? was : "";
  setenv("VSK_ROOT", root.c_str(), 1);
  shared::RemoveAllRootObjects();
  if (was != nullptr) setenv("VSK_ROOT", saved.c_str(), 1); else unsetenv("VSK_ROOT");
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
}

// Throwaway roots of earlier runs that were killed with SIGKILL: their owner is gone and
// no orvd runs in them any more (it ends by itself when its parent dies).
int SweepStaleRoots() {
  int removed = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp", ec)) {
    const std::string root = entry.path().string();
    if (root.rfind(kRootPrefix, 0) != 0) continue;
    std::ifstream in(root + kOwnerFile);
    long pid = 0;
    std::string started;
    if (!(in >> pid >> started) || pid <= 0) continue;  // not made by this program
    if (StartTime(static_cast<pid_t>(pid)) == started || OrvdRunsIn(root)) continue;
    RemoveRoot(root);
    ++removed;
  }
  return removed;
}

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// The throwaway root, when the run made one: its System V objects and files go at the end.
class Root {
 public:
  ~Root() {
    if (!made_.empty()) RemoveRoot(made_);
  }
  bool Use() {
    const char* given = std::getenv("VSK_ROOT");
    if (given == nullptr || *given == '\0') {
      if (const int swept = SweepStaleRoots(); swept != 0 && !quiet_)
        std::fprintf(stderr, "vsk-load: removed %d root(s) left by killed runs\n", swept);
      std::string tmpl = std::string(kRootPrefix) + "XXXXXX";
      if (mkdtemp(tmpl.data()) == nullptr) return false;
      made_ = tmpl;
      setenv("VSK_ROOT", tmpl.c_str(), 1);
      std::ofstream(made_ + kOwnerFile) << getpid() << " " << StartTime(getpid()) << "\n";
    } else if (std::strcmp(given, "/") == 0) {
      std::fprintf(stderr, "vsk-load: refusing \"/\" as the root: that is the system's own\n");
      return false;
    }
    setenv("VSK_RE_ROLE", "master", 0);
    std::string failed;
    if (!platform::MakeSystemDirs(&failed)) {
      std::fprintf(stderr, "vsk-load: cannot create %s: %s\n", failed.c_str(),
                   std::strerror(errno));
      return false;
    }
    return true;
  }
  std::string path() const { return platform::Root(); }
  void set_quiet(bool quiet) { quiet_ = quiet; }

 private:
  std::string made_;
  bool quiet_ = false;
};

// orvd, started from the program beside this one and stopped with SIGTERM. It is ready
// when its published health shows it serving a ready store.
class Orvd {
 public:
  ~Orvd() { Stop(); }
  bool Start(const std::string& path) {
    const std::string table = platform::RootedPath(orvd::kClientsTableFile);
    unlink(table.c_str());
    const std::string log = platform::RootedPath("/var/log/orvd.log");
    std::fflush(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
      // Its own process group keeps a terminal's ^C for this program, which stops orvd
      // itself; SIGTERM when this program dies lets it close the store as a shutdown does.
      setpgid(0, 0);
      if (!DieWithParent(parent, SIGTERM)) _exit(125);
      // Its output goes to its log (appended over restarts), so that nothing holds on to
      // this program's streams.
      if (std::freopen(log.c_str(), "a", stderr) == nullptr) _exit(126);
      dup2(STDERR_FILENO, STDOUT_FILENO);
      execl(path.c_str(), "orvd", "--foreground", "--stderr", static_cast<char*>(nullptr));
      _exit(127);
    }
    ++starts_;
    const auto end = Clock::now() + kOrvdReadyLimit;
    while (Clock::now() < end && g_signal == 0) {
      if (Ready()) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // SIGKILL, as a crash would end it.
  void Kill() {
    if (pid_ <= 0) return;
    Tally();
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // The figure `name` of its health file, or -1.
  long Health(const std::string& name) const {
    std::ifstream in(platform::RootedPath(kOrvdHealthFile));
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind(name + " ", 0) == 0) return std::atol(line.c_str() + name.size() + 1);
    }
    return -1;
  }

  int starts() const { return starts_; }
  // Store recoveries made by the orvds of this run that have ended.
  long recoveries() const { return recoveries_; }

  int Stop() {
    if (pid_ <= 0) return -1;
    Tally();
    kill(pid_, SIGTERM);
    int status = 0;
    const auto end = Clock::now() + kOrvdStopLimit;
    while (waitpid(pid_, &status, WNOHANG) != pid_) {
      if (Clock::now() > end) {
        std::fprintf(stderr, "vsk-load: orvd did not stop within %lld s; killed\n",
                     static_cast<long long>(kOrvdStopLimit.count()));
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  // The health file is this orvd's (a killed one leaves its own behind), it serves, and
  // the status word says ready.
  bool Ready() const {
    return Health("pid") == pid_ && Health("status_word") == 3 && Serving();
  }

  bool Serving() const {
    std::ifstream in(platform::RootedPath(kOrvdHealthFile));
    std::string line;
    while (std::getline(in, line)) {
      if (line == "phase serving") return true;
    }
    return false;
  }
  void Tally() {
    if (Health("pid") == pid_) recoveries_ += std::max(0L, Health("recoveries"));
  }

  pid_t pid_ = -1;
  int starts_ = 0;
  long recoveries_ = 0;
};

// Runs one phase: W processes on the board's lines, each running `body`, until all have
// ended. With chaos, kills some at random and starts a new process on the line, and once
// (a third of the way through) kills orvd and starts it again.
class Phase {
 public:
  Phase(const Options& o, Shared& shared, std::string tag, Orvd* orvd = nullptr)
      : o_(o), shared_(shared), tag_(std::move(tag)), orvd_(orvd) {}

  template <typename Body>
  bool Run(Body body, bool chaos, PhaseFigures* figures) {
    std::mt19937_64 rng(o_.seed);
    pids_.assign(o_.workers, -1);
    for (int w = 0; w < o_.workers; ++w) pids_[w] = Spawn(body, w);
    auto start = Clock::now();
    bool started = false;
    const bool tty = !o_.quiet && !o_.json && isatty(STDERR_FILENO);
    auto last_progress = Clock::now();
    // The next kill: a random moment, about four per line over a run of the expected length.
    std::exponential_distribution<double> gap(8.0);
    auto next_kill =
        Clock::now() + std::chrono::milliseconds(static_cast<int>(1000 * gap(rng)) + 50);
    bool orvd_killed = !chaos || orvd_ == nullptr;
    uint64_t total = 0;
    for (int w = 0; w < o_.workers; ++w) total += shared_.board->lines[w].quota.load();
    int running = o_.workers;
    bool ok = true;
    uint64_t last_done = 0;
    auto last_change = Clock::now();
    while (running > 0) {
      if (g_signal != 0) {
        shared_.board->stop.store(1, std::memory_order_relaxed);
        KillAll();
        interrupted_ = true;
        return false;
      }
      if (const uint64_t done = Done(); done != last_done) {
        last_done = done, last_change = Clock::now();
      } else if (Clock::now() - last_change > kStallLimit) {
        std::fprintf(stderr,
                     "\nvsk-load: %s: no lifecycle finished for %lld s (%u workers killed so far); "
                     "the workers are stopped\n",
                     tag_.c_str(), static_cast<long long>(kStallLimit.count()), Kills());
        for (int w = 0; w < o_.workers; ++w) {
          if (pids_[w] <= 0) continue;
          std::ifstream sys("/proc/" + std::to_string(pids_[w]) + "/syscall");
          std::string call;
          std::getline(sys, call);
          std::fprintf(stderr, "vsk-load: worker %d (pid %d): %llu lifecycles, in system call %s\n",
                       w, static_cast<int>(pids_[w]),
                       static_cast<unsigned long long>(shared_.board->lines[w].done.load()),
                       call.c_str());
        }
        KillAll();
        stalled_ = true;
        return false;
      }
      bool reaped = false;
      for (int w = 0; w < o_.workers; ++w) {
        int status = 0;
        if (pids_[w] <= 0 || waitpid(pids_[w], &status, WNOHANG) != pids_[w]) continue;
        pids_[w] = -1;
        reaped = true;
        WorkerLine& line = shared_.board->lines[w];
        // orvd ends a daemon that is blocked for good inside a store it gave up; its
        // supervisor starts it again.
        if (chaos && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL &&
            line.phase.load() == kRunning) {
          shared_.board->ended_by_orvd.fetch_add(1);
          line.kills.fetch_add(1);
          line.live.store(0, std::memory_order_relaxed);
          pids_[w] = Spawn(body, w);
          continue;
        }
        --running;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ok = false;
      }
      if (reaped) continue;
      if (!started && AllStarted()) started = true, start = Clock::now();
      const double secs = Seconds(start, Clock::now());
      if (o_.duration > 0 && secs >= o_.duration)
        shared_.board->stop.store(1, std::memory_order_relaxed);
      if (!orvd_killed && started &&
          (o_.duration > 0 ? secs >= o_.duration / 3 : Done() >= total / 3)) {
        orvd_killed = true;
        if (!RestartOrvd()) {
          KillAll();
          return false;
        }
        last_change = Clock::now();  // the restart's own time is not a stall
      }
      if (chaos && Clock::now() >= next_kill) {
        const int w = static_cast<int>(rng() % static_cast<uint64_t>(o_.workers));
        WorkerLine& line = shared_.board->lines[w];
        if (pids_[w] > 0 && line.kills.load() < kMaxKillsPerLine && line.phase.load() == kRunning) {
          kill(pids_[w], SIGKILL);
          waitpid(pids_[w], nullptr, 0);
          line.kills.fetch_add(1);
          line.live.store(0, std::memory_order_relaxed);
          pids_[w] = Spawn(body, w);
        }
        next_kill =
            Clock::now() + std::chrono::milliseconds(static_cast<int>(1000 * gap(rng)) + 20);
      }
      if (tty && Clock::now() - last_progress > std::chrono::milliseconds(500)) {
        last_progress = Clock::now();
        Progress(Seconds(start, Clock::now()));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    figures->seconds = Seconds(start, Clock::now());
    if (tty) std::fprintf(stderr, "\n");
    for (int w = 0; w < o_.workers; ++w) {
      const WorkerLine& line = shared_.board->lines[w];
      figures->lifecycles += line.done.load();
      if (line.errors.load() != 0 || line.phase.load() == kFailed) {
        ok = false;
        std::fprintf(stderr, "vsk-load: %s worker %d failed: status %d at %s (%llu errors)\n",
                     tag_.c_str(), w, line.first_error.load(),
                     kStepNames[line.failed_step.load() % kSteps],
                     static_cast<unsigned long long>(line.errors.load()));
      }
      Samples s;
      for (uint32_t gen = 0; gen <= line.kills.load(); ++gen) {
        if (ReadSamples(SamplesPath(w, gen), &s)) figures->samples.Add(s), s = Samples{};
      }
    }
    return ok;
  }

  bool stalled() const { return stalled_; }
  bool interrupted() const { return interrupted_; }

  std::string SamplesPath(int w, uint32_t gen) const {
    return platform::RootedPath("/mfs/var/tmp/") + "load-" + tag_ + "-" + std::to_string(w) + "-" +
           std::to_string(gen) + ".samples";
  }

  template <typename Body>
  pid_t Spawn(Body body, int w) {
    WorkerLine& line = shared_.board->lines[w];
    const std::string path = SamplesPath(w, line.kills.load());
    line.phase.store(kStarting);
    std::fflush(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
      // A worker dies with this program; ^C on a terminal is for this program to handle.
      signal(SIGINT, SIG_IGN);
      signal(SIGTERM, SIG_DFL);
      if (!DieWithParent(parent, SIGKILL)) _exit(125);
      line.pid.store(getpid());
      _exit(body(o_, shared_, w, path));
    }
    return pid;
  }

  // Every line has had a process at work (a line restarted after a kill counts).
  bool AllStarted() const {
    for (int w = 0; w < o_.workers; ++w) {
      const WorkerLine& line = shared_.board->lines[w];
      if (line.phase.load() == kStarting && line.kills.load() == 0) return false;
    }
    return true;
  }

 private:
  void KillAll() {
    for (pid_t& p : pids_) {
      if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0), p = -1;
    }
  }

  // orvd dies as a crash ends it and comes back as its supervisor would start it; the
  // workers meanwhile find the store down and wait for it.
  bool RestartOrvd() {
    const auto t = Clock::now();
    orvd_->Kill();
    if (!orvd_->Start(o_.orvd)) {
      std::fprintf(stderr, "\nvsk-load: %s: orvd did not come back after its kill; see %s\n",
                   tag_.c_str(), platform::RootedPath("/var/log/orvd.log").c_str());
      return false;
    }
    orvd_restart_s_ = Seconds(t, Clock::now());
    shared_.board->orvd_kills.fetch_add(1);
    return true;
  }

 public:
  double orvd_restart_seconds() const { return orvd_restart_s_; }

 private:
  uint64_t Done() const {
    uint64_t done = 0;
    for (int w = 0; w < o_.workers; ++w) done += shared_.board->lines[w].done.load();
    return done;
  }
  uint32_t Kills() const {
    uint32_t kills = 0;
    for (int w = 0; w < o_.workers; ++w) kills += shared_.board->lines[w].kills.load();
    return kills;
  }

  void Progress(double secs) const {
    uint64_t done = 0, live = 0;
    uint32_t kills = 0;
    for (int w = 0; w < o_.workers; ++w) {
      done += shared_.board->lines[w].done.load(std::memory_order_relaxed);
      live += shared_.board->lines[w].live.load(std::memory_order_relaxed);
      kills += shared_.board->lines[w].kills.load(std::memory_order_relaxed);
    }
    std::fprintf(stderr, "\r%s: %llu lifecycles done, %.0f/s, %llu live", tag_.c_str(),
                 static_cast<unsigned long long>(done), secs > 0 ? done / secs : 0.0,
                 static_cast<unsigned long long>(live));
    if (kills != 0) std::fprintf(stderr, ", %u killed", kills);
    std::fprintf(stderr, "   ");
  }

  const Options& o_;
  Shared& shared_;
  std::string tag_;
  Orvd* orvd_;
  std::vector<pid_t> pids_;
  bool stalled_ = false;
  bool interrupted_ = false;
  double orvd_restart_s_ = 0;
};

void ResetBoard(Shared& shared, const Options& o) {
  std::memset(static_cast<void*>(shared.board), 0, sizeof(Board));
  for (int w = 0; w < o.workers; ++w) {
    uint64_t quota = shared.ids_per_line;
    if (o.duration <= 0) {
      quota = o.sessions / static_cast<uint64_t>(o.workers) +
              (static_cast<uint64_t>(w) < o.sessions % static_cast<uint64_t>(o.workers) ? 1 : 0);
    }
    shared.board->lines[w].quota.store(quota);
  }
}

// The chaos figures, on the error stream beside the table.
void PrintChaos(const Shared& shared, int workers, long recoveries) {
  uint64_t retries = 0, uncertain = 0, downs = 0, redone = 0;
  uint32_t kills = 0;
  for (int w = 0; w < workers; ++w) {
    const WorkerLine& line = shared.board->lines[w];
    kills += line.kills.load(), retries += line.retries.load();
    uncertain += line.uncertain.load(), downs += line.downs.load(), redone += line.redone.load();
  }
  std::fprintf(stderr,
               "vsk-load: chaos: %u workers killed (%u of them by orvd), orvd killed %u times, "
               "%ld store recoveries by orvd, %llu store downs seen by workers, %llu calls "
               "repeated, %llu creates uncertain, %llu set-ups redone\n",
               kills, shared.board->ended_by_orvd.load(), shared.board->orvd_kills.load(),
               recoveries,
               static_cast<unsigned long long>(downs), static_cast<unsigned long long>(retries),
               static_cast<unsigned long long>(uncertain),
               static_cast<unsigned long long>(redone));
}

// The counters of the live store, checked by this program as one more daemon before orvd
// is restarted: what the sessions' own operations kept, before a rebuild could mend it.
std::string CheckLive() {
  orvd_ctx_t* ctx = nullptr;
  auto drop = [](void*, int, const char*, va_list) {};
  vsk_status_t st = JoinStore(&ctx, drop, nullptr, 120);
  if (st != VSK_OK) return "the checker cannot register with orvd: " + std::to_string(st) + "\n";
  std::string out = CheckLiveCounts();
  orvd_unregister(&ctx);
  return out.empty() ? out : "in the live store, before orvd's restart:\n" + out;
}

int Run(Options& o) {
  Root root;
  root.set_quiet(o.quiet || o.json);
  if (!root.Use()) return 1;
  Orvd orvd;
  if (!orvd.Start(o.orvd)) {
    if (g_signal != 0) return 128 + g_signal;
    std::fprintf(stderr, "vsk-load: orvd (%s) did not become ready; see %s\n", o.orvd.c_str(),
                 platform::RootedPath("/var/log/orvd.log").c_str());
    return 1;
  }
  Shared shared;
  const uint64_t per_line =
      o.duration > 0 ? kDurationIdsPerLine : o.sessions / static_cast<uint64_t>(o.workers) + 1;
  if (!shared.Map(o.workers, per_line)) {
    std::fprintf(stderr, "vsk-load: cannot map the board: %s\n", std::strerror(errno));
    return 1;
  }
  ResetBoard(shared, o);
  PhaseFigures lib;
  Phase library(o, shared, "library", &orvd);
  bool ok = library.Run(RunWorker, o.chaos, &lib);
  if (library.interrupted()) return 128 + g_signal;

  // A stuck store would hold the check up as it held the workers.
  uint64_t leftovers = 0;
  std::string oracle;
  if (library.stalled()) {
    oracle = "not checked: the run was stuck\n";
  } else {
    oracle = CheckLive();
    uint32_t killed = 0;
    for (int w = 0; w < o.workers; ++w) killed += shared.board->lines[w].kills.load();
    if (!oracle.empty() && killed != 0) {
      // The summary counters and the interface table are moved after a step's commit,
      // outside its transaction: a worker killed between the two leaves them one step
      // behind the tables until orvd's recovery walk rebuilds them, which the check
      // after the restart holds to exactly. So here a difference is reported, not failed.
      if (!o.json)
        std::fprintf(stderr, "vsk-load: %u killed workers left the live counts behind the "
                     "tables (orvd's restart mends them):\n%s", killed, oracle.c_str());
      oracle.clear();
    }
    // orvd's recovery walk rebuilds the shared state from the tables; the check is made
    // against what it rebuilt.
    orvd.Stop();
    if (!orvd.Start(o.orvd)) {
      if (g_signal != 0) return 128 + g_signal;
      oracle += "orvd did not come back for the check\n";
    } else {
      oracle += CheckStore(o, shared, o.workers, &leftovers);
    }
  }
  if (o.chaos) PrintChaos(shared, o.workers, orvd.recoveries());
  ok = ok && oracle.empty();

  PhaseFigures raw;
  bool have_raw = false;
  if (o.baseline && g_signal == 0) {
    std::string error;
    const std::string home = root.path() + "/raw-baseline";
    if (!CreateRawEnvironment(home, &error)) {
      std::fprintf(stderr, "vsk-load: raw environment: %s\n", error.c_str());
      ok = false;
    } else {
      Options same = o;
      same.duration = 0;  // the raw side runs as many lifecycles as the library did
      same.sessions = lib.lifecycles;
      ResetBoard(shared, same);
      auto body = [home](const Options& opt, Shared& s, int w, const std::string& path) {
        return RunRawWorker(opt, s, w, home, path);
      };
      have_raw = Phase(same, shared, "raw").Run(body, false, &raw);
      ok = ok && have_raw;
    }
  }
  if (g_signal != 0) return 128 + g_signal;
  PrintTable(o, o.workers, lib, have_raw ? &raw : nullptr, oracle, leftovers);
  const int orvd_code = orvd.Stop();
  if (orvd_code != 0) {
    std::fprintf(stderr, "vsk-load: orvd ended with %d\n", orvd_code);
    ok = false;
  }
  shared.Unmap();
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace vsk::load

int main(int argc, char** argv) {
  using vsk::load::Options;
  Options o;
  CLI::App app{"vsk-load: subscriber lifecycles of many daemons on one store, then a check"};
  app.add_option("--sessions,-n", o.sessions, "lifecycles in all")->check(CLI::PositiveNumber);
  app.add_option("--duration,-d", o.duration, "run for this many seconds instead")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--workers,-w", o.workers, "worker processes (default: the cores)")
      ->check(CLI::Range(1, vsk::load::kMaxWorkers));
  app.add_option("--live,-l", o.live, "sessions held open at once, over all workers")
      ->check(CLI::PositiveNumber);
  app.add_option("--setup-updates", o.setup_updates, "cached set-up updates per lifecycle")
      ->check(CLI::Range(0, 1000));
  app.add_option("--reads", o.reads, "attribute reads per snapshot")->check(CLI::Range(0, 1000));
  std::string mix;
  app.add_option("--mix", mix,
                 "the steps of a lifecycle between create and remove, as a comma list of "
                 "step[=count]: setup-update=N (cached updates), activate (the update to "
                 "state 2), snapshot=N, reads=N (per snapshot); a step left out does not run. "
                 "Default: setup-update=5,activate,snapshot,reads=3. Overrides "
                 "--setup-updates and --reads. The raw replay (--baseline) keeps its own steps: "
                 "create, activate, one snapshot, remove");
  app.add_option("--seed", o.seed, "seed of the chaos schedule");
  app.add_flag("--baseline", o.baseline, "replay the table operations on raw Berkeley DB");
  app.add_flag("--chaos", o.chaos,
               "kill workers with SIGKILL at random moments and orvd once; the check then "
               "reads back what the killed workers committed");
  app.add_flag("--json", o.json, "print the figures as one JSON document");
  app.add_flag("--quiet,-q", o.quiet, "no progress line");
  app.footer(
      "The closing check restarts orvd and compares every summary counter and interface count "
      "that its recovery walk rebuilt with a recount of the tables; a difference is exit 1.\n"
      "SIGINT or SIGTERM stops the run and removes what it made (exit 128 + the signal).");
  CLI11_PARSE(app, argc, argv);
  if (!mix.empty()) {
    const std::string error = vsk::load::ApplyMix(mix, &o);
    if (!error.empty()) {
      std::fprintf(stderr, "vsk-load: %s\n", error.c_str());
      return 2;
    }
  }
  if (o.workers == 0) {
    o.workers = static_cast<int>(std::thread::hardware_concurrency());
    o.workers = std::clamp(o.workers, 1, vsk::load::kMaxWorkers);
  }
  std::error_code ec;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) {
    std::fprintf(stderr, "vsk-load: cannot find its own program: %s\n", ec.message().c_str());
    return 1;
  }
  // Installed beside orvd, or in the build tree's tools folder beside daemons.
  o.orvd = (self.parent_path() / "orvd").string();
  if (access(o.orvd.c_str(), X_OK) != 0)
    o.orvd = (self.parent_path().parent_path() / "daemons" / "orvd").string();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  struct sigaction stop {};
  stop.sa_handler = vsk::load::OnStopSignal;
  sigemptyset(&stop.sa_mask);
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);
  return vsk::load::Run(o);
}
