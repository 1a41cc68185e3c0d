// vsk-load: many session daemons on one store at once, and the check of what they leave.
//
//   vsk-load [--sessions N | --duration S] [--workers W] [--live L] [--setup-updates K]
//            [--reads R] [--seed X] [--baseline] [--chaos] [--json] [--quiet]
//
// On its root (VSK_ROOT, or a throwaway directory it makes and removes) it starts orvd,
// then W worker processes that register with orvd through the daemon link as session
// daemons do and run subscriber lifecycles (see worker.cc), holding L live sessions in all.
// On a terminal it shows progress. At the end it checks the store (see oracle.cc) and
// prints the table of rates and latencies; a failed worker or a failed check is exit 1.
// --baseline replays the same table operations on a raw Berkeley DB environment (raw.cc)
// and prints the ratios. --chaos kills workers with SIGKILL at random moments; a killed
// worker's line is taken over by a new process, and the check reads back and removes what
// the killed ones left.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
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
constexpr auto kOrvdReadyLimit = std::chrono::seconds(60);
constexpr auto kOrvdStopLimit = std::chrono::seconds(20);
// No lifecycle finished for this long while workers run: the run is stuck (a killed
// worker's table locks that nobody releases, a lost lock holder), and is ended.
constexpr auto kStallLimit = std::chrono::seconds(60);
constexpr uint64_t kDurationIdsPerLine = uint64_t{1} << 24;
constexpr uint32_t kMaxKillsPerLine = 3;

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// The throwaway root, when the run made one: its System V objects and files go at the end.
class Root {
 public:
  ~Root() {
    if (made_.empty()) return;
    shared::RemoveAllRootObjects();
    std::error_code ec;
    std::filesystem::remove_all(made_, ec);
  }
  bool Use() {
    const char* given = std::getenv("VSK_ROOT");
    if (given == nullptr || *given == '\0') {
      char tmpl[] = "/tmp/vsk-load.XXXXXX";
      if (mkdtemp(tmpl) == nullptr) return false;
      made_ = tmpl;
      setenv("VSK_ROOT", tmpl, 1);
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

 private:
  std::string made_;
};

// orvd, started from the program beside this one and stopped with SIGTERM.
class Orvd {
 public:
  ~Orvd() { Stop(); }
  bool Start(const std::string& path) {
    const std::string table = platform::RootedPath(orvd::kClientsTableFile);
    const std::string socket = platform::RootedPath(platform::kOrvdSocket);
    unlink(table.c_str());
    const std::string log = platform::RootedPath("/var/log/orvd.log");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
      // Its output goes to its log, so that nothing holds on to this program's streams.
      if (std::freopen(log.c_str(), "w", stderr) == nullptr) _exit(126);
      dup2(STDERR_FILENO, STDOUT_FILENO);
      execl(path.c_str(), "orvd", "--foreground", "--stderr", static_cast<char*>(nullptr));
      _exit(127);
    }
    const auto end = Clock::now() + kOrvdReadyLimit;
    struct stat st {};
    while (Clock::now() < end) {
      if (stat(table.c_str(), &st) == 0 && stat(socket.c_str(), &st) == 0) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  int Stop() {
    if (pid_ <= 0) return -1;
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
  pid_t pid_ = -1;
};

// Runs one phase: W processes on the board's lines, each running `body`, until all have
// ended. With chaos, kills some at random and starts a new process on the line.
class Phase {
 public:
  Phase(const Options& o, Shared& shared, std::string tag)
      : o_(o), shared_(shared), tag_(std::move(tag)) {}

  template <typename Body>
  bool Run(Body body, bool chaos, PhaseFigures* figures) {
    std::mt19937_64 rng(o_.seed);
    std::vector<pid_t> pids(o_.workers, -1);
    for (int w = 0; w < o_.workers; ++w) pids[w] = Spawn(body, w);
    auto start = Clock::now();
    bool started = false;
    const bool tty = !o_.quiet && !o_.json && isatty(STDERR_FILENO);
    auto last_progress = Clock::now();
    // The next kill: a random moment, about four per line over a run of the expected length.
    std::exponential_distribution<double> gap(8.0);
    auto next_kill =
        Clock::now() + std::chrono::milliseconds(static_cast<int>(1000 * gap(rng)) + 50);
    int running = o_.workers;
    bool ok = true;
    uint64_t last_done = 0;
    auto last_change = Clock::now();
    while (running > 0) {
      if (const uint64_t done = Done(); done != last_done) {
        last_done = done, last_change = Clock::now();
      } else if (Clock::now() - last_change > kStallLimit) {
        std::fprintf(stderr,
                     "\nvsk-load: %s: no lifecycle finished for %lld s (%u workers killed so far); "
                     "the workers are stopped\n",
                     tag_.c_str(), static_cast<long long>(kStallLimit.count()), Kills());
        for (pid_t& p : pids) {
          if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0), p = -1;
        }
        stalled_ = true;
        return false;
      }
      int status = 0;
      pid_t pid = waitpid(-1, &status, WNOHANG);
      if (pid > 0) {
        for (int w = 0; w < o_.workers; ++w) {
          if (pids[w] != pid) continue;
          pids[w] = -1;
          --running;
          if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ok = false;
        }
        continue;
      }
      if (!started && AllStarted()) started = true, start = Clock::now();
      if (o_.duration > 0 && Seconds(start, Clock::now()) >= o_.duration)
        shared_.board->stop.store(1, std::memory_order_relaxed);
      if (chaos && Clock::now() >= next_kill) {
        const int w = static_cast<int>(rng() % static_cast<uint64_t>(o_.workers));
        WorkerLine& line = shared_.board->lines[w];
        if (pids[w] > 0 && line.kills.load() < kMaxKillsPerLine && line.phase.load() == kRunning) {
          kill(pids[w], SIGKILL);
          waitpid(pids[w], nullptr, 0);
          line.kills.fetch_add(1);
          line.live.store(0, std::memory_order_relaxed);
          pids[w] = Spawn(body, w);
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
    pid_t pid = fork();
    if (pid == 0) {
      line.pid.store(getpid());
      _exit(body(o_, shared_, w, path));
    }
    return pid;
  }

  bool AllStarted() const {
    for (int w = 0; w < o_.workers; ++w) {
      if (shared_.board->lines[w].phase.load() == kStarting) return false;
    }
    return true;
  }

  bool stalled() const { return stalled_; }

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
  bool stalled_ = false;
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

int Run(Options& o) {
  Root root;
  if (!root.Use()) return 1;
  Orvd orvd;
  if (!orvd.Start(o.orvd)) {
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
  Phase library(o, shared, "library");
  bool ok = library.Run(RunWorker, o.chaos, &lib);

  // A stuck store would hold the check up as it held the workers.
  uint64_t leftovers = 0;
  std::string oracle = library.stalled() ? "not checked: the run was stuck\n"
                                         : CheckStore(o, shared, o.workers, &leftovers);
  ok = ok && oracle.empty();

  PhaseFigures raw;
  bool have_raw = false;
  if (o.baseline) {
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
  app.add_option("--seed", o.seed, "seed of the chaos schedule");
  app.add_flag("--baseline", o.baseline, "replay the table operations on raw Berkeley DB");
  app.add_flag("--chaos", o.chaos, "kill workers with SIGKILL at random moments");
  app.add_flag("--json", o.json, "print the figures as one JSON document");
  app.add_flag("--quiet,-q", o.quiet, "no progress line");
  CLI11_PARSE(app, argc, argv);
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
  return vsk::load::Run(o);
}
