// vsk-soak: runs orvd on a throwaway root under a churn of short-lived clients, writers
// and interface-table users killed at random with SIGKILL, and now and then a second orvd
// start, for a set time; then checks that every row whose commit returned is still there
// and prints what happened.
//
//   vsk-soak [--seconds N] [--writers N] [--interface-users N] [--kill-every-ms N]
//            [--orvd PATH] [--keep-root]
//
// Figures printed at the end: process lifetimes served (registrations that came and went
// cleanly), kills (and how many of them the system came back from), orvd's recoveries and
// interface-table repairs, the longest time in which no probe got served (a probe
// registers, writes a row and reads it back, one after the other), committed rows lost
// (must be 0), second orvd starts and how they ended, processes that stayed blocked and
// had to be killed, and orvd's own figures (failchk runs, checkpoints, log files removed,
// descriptors and memory at the end). Exit code 0 when no committed row was lost, every
// second orvd refused to start, and the system served at the end; 1 otherwise.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "roles.h"
#include "vsk/vsk.h"

namespace vsk::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A process that has not ended this long after it should have is blocked for good.
constexpr auto kStuckAfter = seconds(30);
constexpr auto kProbePause = milliseconds(100);
constexpr auto kSecondOrvdEvery = seconds(20);
constexpr int kChurnSlots = 2;

struct Options {
  int seconds = 180;
  int writers = 3;
  int interface_users = 2;
  int kill_every_ms = 3000;
  std::string orvd;
  bool keep_root = false;
};

enum class Kind { kChurn, kProbe, kWriter, kInterfaceUser, kSecondOrvd };

struct Process {
  Kind kind;
  Clock::time_point started;
  bool killed = false;
};

struct Figures {
  long lifetimes = 0, churn_failures = 0, probes = 0, probe_failures = 0;
  long kills = 0, kills_of_writers = 0, kills_of_interface_users = 0;
  long second_starts = 0, second_refused = 0, second_other = 0;
  long stuck = 0;
  long unexpected_ends = 0;  // writers and interface-table users that gave up
  long ended_by_orvd = 0;
  Clock::duration longest_refusal{};
};

pid_t Fork(const std::function<int()>& fn) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  return pid;
}

pid_t StartOrvd(const std::string& path, const std::string& log) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    execl(path.c_str(), "orvd", "--foreground", "--stderr", static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

std::map<std::string, std::string> OrvdHealth() {
  std::map<std::string, std::string> figures;
  std::ifstream in(platform::RootedPath("/var/run/orvd_health"));
  for (std::string line; std::getline(in, line);) {
    auto space = line.find(' ');
    if (space != std::string::npos) figures[line.substr(0, space)] = line.substr(space + 1);
  }
  return figures;
}

// Descriptors and resident memory (kB) of a process.
std::pair<long, long> Usage(pid_t pid) {
  long fds = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++fds;
  }
  long rss = -1;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) rss = std::atol(line.c_str() + 6);
  }
  return {fds, rss};
}

// Waits (up to a minute) until orvd serves and has run two more checks of the store.
void WaitForOrvdCheck() {
  auto figure = [](const char* name) { return std::atol(OrvdHealth()[name].c_str()); };
  const long checks = figure("failchk_runs");
  const auto deadline = Clock::now() + seconds(60);
  while (Clock::now() < deadline &&
         (figure("failchk_runs") < checks + 2 || OrvdHealth()["phase"] != "serving")) {
    std::this_thread::sleep_for(milliseconds(20));
  }
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Reaps `pid` into *status, killing it once `limit` has passed; false when it was killed.
bool WaitOrKill(pid_t pid, int* status, Clock::duration limit, Clock::duration poll) {
  const auto deadline = Clock::now() + limit;
  while (waitpid(pid, status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, status, 0);
      return false;
    }
    std::this_thread::sleep_for(poll);
  }
  return true;
}

int Run(const Options& opt, const std::string& root) {
  const std::string log = root + "/orvd.log";
  pid_t orvd = StartOrvd(opt.orvd, log);
  const auto start_deadline = Clock::now() + seconds(30);
  while (!std::filesystem::exists(platform::RootedPath(platform::kOrvdSocket))) {
    if (Clock::now() > start_deadline || waitpid(orvd, nullptr, WNOHANG) == orvd) {
      std::fprintf(stderr, "vsk-soak: orvd did not start (see %s)\n", log.c_str());
      return 1;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  const long orvd_fds_at_start = Usage(orvd).first;

  int report[2];
  if (pipe2(report, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
  std::vector<uint64_t> committed;
  std::map<pid_t, Process> running;
  std::map<pid_t, uint64_t> writer_slot;
  std::mt19937_64 rng(std::random_device{}());
  Figures f;
  uint64_t next_writer_base = 1;
  uint64_t next_probe_row = 1ull << 60;
  const Clock::time_point begin = Clock::now();
  const Clock::time_point end = begin + seconds(opt.seconds);
  Clock::time_point last_served = begin;
  Clock::time_point next_probe = begin;
  Clock::time_point next_kill = begin + milliseconds(opt.kill_every_ms);
  Clock::time_point next_second = begin + kSecondOrvdEvery;
  auto count = [&](Kind k) {
    int n = 0;
    for (auto& [pid, p] : running) n += p.kind == k;
    return n;
  };
  auto spawn = [&](Kind kind, const std::function<int()>& fn) {
    pid_t pid = Fork(fn);
    running[pid] = Process{kind, Clock::now()};
    return pid;
  };

  while (Clock::now() < end) {
    const Clock::time_point now = Clock::now();
    // Commits reported by writers.
    uint64_t ids[512];
    ssize_t n;
    while ((n = read(report[0], ids, sizeof ids)) > 0) {
      committed.insert(committed.end(), ids, ids + n / sizeof(uint64_t));
    }
    // Ended processes.
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      auto it = running.find(pid);
      if (it == running.end()) continue;
      const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
      // orvd ends processes blocked for good inside a store it gave up.
      if (WIFSIGNALED(status) && !it->second.killed) ++f.ended_by_orvd;
      if (getenv("SOAK_DEBUG") && !ok) std::fprintf(stderr, "debug: pid %d kind %d status %x\n", pid, static_cast<int>(it->second.kind), status);
      switch (it->second.kind) {
        case Kind::kChurn:
          ok ? ++f.lifetimes : ++f.churn_failures;
          break;
        case Kind::kProbe:
          ++f.probes;
          if (ok) {
            ++f.lifetimes;
            f.longest_refusal = std::max(f.longest_refusal, now - last_served);
            last_served = now;
          } else {
            ++f.probe_failures;
          }
          next_probe = now + kProbePause;
          break;
        case Kind::kSecondOrvd:
          (WIFEXITED(status) && WEXITSTATUS(status) == 1) ? ++f.second_refused : ++f.second_other;
          break;
        default:
          if (!it->second.killed && !WIFSIGNALED(status)) {
            ++f.unexpected_ends;
            if (WIFSIGNALED(status)) {
              std::fprintf(stderr, "vsk-soak: pid %d ended by signal %d\n", pid, WTERMSIG(status));
            } else {
              std::fprintf(stderr, "vsk-soak: pid %d exited with %d\n", pid, WEXITSTATUS(status));
            }
          }
          break;
      }
      running.erase(it);
    }
    // Blocked processes are ended as a supervisor would, and counted.
    for (auto& [p_pid, p] : running) {
      const bool long_lived = p.kind == Kind::kWriter || p.kind == Kind::kInterfaceUser;
      if (!p.killed && !long_lived && now - p.started > kStuckAfter) {
        kill(p_pid, SIGKILL);
        p.killed = true;
        ++f.stuck;
      }
    }
    // Keep every role populated.
    while (count(Kind::kChurn) < kChurnSlots) spawn(Kind::kChurn, ChurnLife);
    if (count(Kind::kProbe) == 0 && now >= next_probe) {
      uint64_t row = next_probe_row++;
      spawn(Kind::kProbe, [row] { return ProbeLife(row); });
    }
    while (count(Kind::kWriter) < opt.writers) {
      uint64_t first = (next_writer_base++) << 32;
      int fd = report[1];
      spawn(Kind::kWriter, [first, fd] { return WriterLife(first, fd); });
    }
    while (count(Kind::kInterfaceUser) < opt.interface_users) {
      uint64_t seed = rng() % 100000;
      spawn(Kind::kInterfaceUser, [seed] { return InterfaceUserLife(seed); });
    }
    // Random SIGKILLs of writers and interface-table users.
    if (now >= next_kill) {
      std::vector<pid_t> victims;
      for (auto& [p_pid, p] : running) {
        if (!p.killed && (p.kind == Kind::kWriter || p.kind == Kind::kInterfaceUser)) {
          victims.push_back(p_pid);
        }
      }
      if (!victims.empty()) {
        pid_t v = victims[rng() % victims.size()];
        kill(v, SIGKILL);
        running[v].killed = true;
        ++f.kills;
        running[v].kind == Kind::kWriter ? ++f.kills_of_writers : ++f.kills_of_interface_users;
      }
      next_kill = now + milliseconds(opt.kill_every_ms / 2 + rng() % opt.kill_every_ms);
    }
    // A second orvd on the live root.
    if (now >= next_second) {
      ++f.second_starts;
      pid_t second = StartOrvd(opt.orvd, root + "/second-orvd.log");
      running[second] = Process{Kind::kSecondOrvd, now};
      next_second = now + kSecondOrvdEvery;
    }
    std::this_thread::sleep_for(milliseconds(5));
  }

  // Stop the load; count what the writers reported last.
  for (auto& [p_pid, p] : running) {
    if (p.kind != Kind::kSecondOrvd) kill(p_pid, SIGKILL);
  }
  while (!running.empty()) {
    pid_t p = waitpid(-1, nullptr, 0);
    if (p < 0) break;
    running.erase(p);
  }
  uint64_t ids[512];
  ssize_t n;
  while ((n = read(report[0], ids, sizeof ids)) > 0) {
    committed.insert(committed.end(), ids, ids + n / sizeof(uint64_t));
  }
  // The last kills may have landed inside the store: the check starts after orvd has
  // looked (a process that joins before may block on what a dead one held), and a check
  // that blocks all the same is ended and run again.
  const Clock::time_point final_probe = Clock::now();
  long lost = -1;
  for (int attempt = 0; attempt < 3 && lost < 0; ++attempt) {
    WaitForOrvdCheck();
    pid_t checker = Fork([&committed] {
      long missing = CountLostRows(committed.data(), static_cast<long>(committed.size()));
      return missing < 0 ? 255 : static_cast<int>(std::min<long>(missing, 254));
    });
    int status = 0;
    if (!WaitOrKill(checker, &status, seconds(120), milliseconds(20))) ++f.stuck;
    if (WIFEXITED(status) && WEXITSTATUS(status) != 255) lost = WEXITSTATUS(status);
  }
  const bool served_at_end = lost >= 0;
  if (served_at_end) {
    f.longest_refusal = std::max(f.longest_refusal, final_probe - last_served);
  }

  auto health = OrvdHealth();
  auto [fds, rss] = Usage(orvd);
  kill(orvd, SIGTERM);
  int orvd_status = 0;
  WaitOrKill(orvd, &orvd_status, seconds(20), milliseconds(10));

  std::printf("vsk-soak: %d s, %d writers, %d interface-table users, a kill every ~%d ms\n",
              opt.seconds, opt.writers, opt.interface_users, opt.kill_every_ms);
  std::printf("  process lifetimes served          %ld (churn failures %ld, probes %ld, failed %ld)\n",
              f.lifetimes, f.churn_failures, f.probes, f.probe_failures);
  std::printf("  kills survived                    %ld of %ld (writers %ld, interface-table users %ld)\n",
              served_at_end ? f.kills : 0, f.kills, f.kills_of_writers, f.kills_of_interface_users);
  std::printf("  recoveries done                   %s\n", health["recoveries"].c_str());
  std::printf("  interface-table repairs           %s\n", health["interface_repairs"].c_str());
  std::printf("  longest time refused service      %.0f ms\n", Ms(f.longest_refusal));
  std::printf("  committed rows                    %zu\n", committed.size());
  std::printf("  committed rows lost               %ld\n", lost);
  std::printf("  second orvd starts                %ld (refused %ld, other %ld)\n",
              f.second_starts, f.second_refused, f.second_other);
  std::printf("  processes blocked for good        %ld ended by orvd, %ld by the soak after %lld s\n",
              f.ended_by_orvd, f.stuck, static_cast<long long>(kStuckAfter.count()));
  std::printf("  long-lived processes that gave up %ld\n", f.unexpected_ends);
  std::printf("  orvd failchk runs                 %s\n", health["failchk_runs"].c_str());
  std::printf("  orvd lock waits expired           %s\n", health["lock_waits_expired"].c_str());
  std::printf("  orvd checkpoints                  %s\n", health["checkpoints"].c_str());
  std::printf("  orvd log files removed            %s\n", health["log_files_removed"].c_str());
  std::printf("  orvd environments released       %s (abandoned workers %s)\n",
              health["released_environments"].c_str(), health["abandoned_workers"].c_str());
  std::printf("  orvd descriptors                  %ld at start, %ld at end; RSS %ld kB\n",
              orvd_fds_at_start, fds, rss);
  std::printf("  orvd exit after SIGTERM           %s\n",
              WIFEXITED(orvd_status) ? std::to_string(WEXITSTATUS(orvd_status)).c_str()
                                     : "killed");
  const bool ok = lost == 0 && f.second_other == 0 && served_at_end;
  std::printf("vsk-soak: %s\n", ok ? "PASS" : "FAIL");
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace vsk::soak

int main(int argc, char** argv) {
  using namespace vsk::soak;
  Options opt;
  CLI::App app{"vsk-soak: orvd under churn, random kills and a second orvd"};
  app.add_option("--seconds", opt.seconds, "how long the load runs")->check(CLI::PositiveNumber);
  app.add_option("--writers", opt.writers, "writing processes at any time");
  app.add_option("--interface-users", opt.interface_users, "interface-table users at any time");
  app.add_option("--kill-every-ms", opt.kill_every_ms, "mean time between SIGKILLs")
      ->check(CLI::PositiveNumber);
  app.add_option("--orvd", opt.orvd, "the orvd to run (default: beside this program)");
  app.add_flag("--keep-root", opt.keep_root, "leave the root directory for inspection");
  CLI11_PARSE(app, argc, argv);
  if (opt.orvd.empty()) {
    auto self = std::filesystem::read_symlink("/proc/self/exe");
    opt.orvd = (self.parent_path().parent_path() / "daemons" / "orvd").string();
  }
  signal(SIGPIPE, SIG_IGN);
  char tmpl[] = "/tmp/vsk-soak.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  const std::string root = tmpl;
  setenv("VSK_ROOT", root.c_str(), 1);
  std::string failed;
  if (!vsk::platform::MakeSystemDirs(&failed)) return 1;
  for (const auto& file : vsk::shared::RootKeyFiles()) std::ofstream(file, std::ios::app).close();
  int rc = Run(opt, root);
  // The root's System V objects and files go whatever happened.
  for (const auto& [key, id] : vsk::shared::ObjectsKeyedBy("shm", vsk::shared::RootKeyFiles())) {
    shmctl(id, IPC_RMID, nullptr);
  }
  for (const auto& [key, id] : vsk::shared::ObjectsKeyedBy("sem", vsk::shared::RootKeyFiles())) {
    semctl(id, 0, IPC_RMID);
  }
  if (opt.keep_root) {
    std::printf("vsk-soak: root kept at %s\n", root.c_str());
  } else {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  return rc;
}
