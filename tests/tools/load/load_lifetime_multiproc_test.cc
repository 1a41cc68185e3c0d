// vsk-load's own lifetime on a throwaway root: whatever ends it, none of its workers or
// its orvd outlive it, and its root and the root's System V objects go with it (after a
// SIGKILL, with the next run).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/shared/root_objects.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr char kLoad[] = VSK_BINARY_DIR "/tools/vsk-load";

// A process's parent and state from its stat line; false when it does not exist.
bool Stat(pid_t pid, pid_t* parent, char* state) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return false;
  std::istringstream rest(text.substr(close + 2));
  return static_cast<bool>(rest >> *state >> *parent);
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> out;
  for (const auto& e : std::filesystem::directory_iterator("/proc")) {
    const pid_t pid = static_cast<pid_t>(std::atol(e.path().filename().c_str()));
    pid_t pp = 0;
    char state = 0;
    if (pid > 0 && Stat(pid, &pp, &state) && pp == parent) out.push_back(pid);
  }
  return out;
}

std::set<int> SysvIds(const char* kind) {
  std::set<int> ids;
  std::ifstream in(std::string("/proc/sysvipc/") + kind);
  std::string line;
  std::getline(in, line);  // the heading
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    long key = 0, id = 0;
    if (fields >> key >> id) ids.insert(static_cast<int>(id));
  }
  return ids;
}

// The vsk-load program on a throwaway root of its own.
struct LoadProcess {
  pid_t pid = -1;
  std::string root;

  bool Start(const std::vector<std::string>& args) {
    pid = fork();
    if (pid == 0) {
      unsetenv("VSK_ROOT");
      std::vector<char*> argv{const_cast<char*>(kLoad)};
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(kLoad, argv.data());
      _exit(127);
    }
    return pid > 0;
  }
  // Waits until its root is known and its orvd has its workers registered.
  bool WaitWorking(int workers) {
    const auto end = Clock::now() + std::chrono::seconds(60);
    while (Clock::now() < end) {
      for (const auto& e : std::filesystem::directory_iterator("/tmp")) {
        std::ifstream owner(e.path().string() + "/vsk-load.owner");
        long who = 0;
        if (e.path().filename().string().rfind("vsk-load.", 0) == 0 && owner >> who && who == pid)
          root = e.path().string();
      }
      std::ifstream health(root + "/var/run/orvd_health");
      std::string name;
      long value = 0;
      while (!root.empty() && health >> name) {
        if (name == "registered" && health >> value && value >= workers) return true;
        health.ignore(1 << 20, '\n');
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  int Wait() {
    int status = 0;
    const auto end = Clock::now() + std::chrono::seconds(60);
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (Clock::now() > end) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

// The System V objects of `root`, by kind, while its key files exist.
std::vector<std::pair<const char*, int>> RootSysv(const std::string& root) {
  const std::string saved = std::getenv("VSK_ROOT");
  setenv("VSK_ROOT", root.c_str(), 1);
  std::vector<std::pair<const char*, int>> out;
  for (const char* kind : {"shm", "sem"}) {
    for (auto [key, id] : shared::ObjectsKeyedBy(kind, shared::RootKeyFiles()))
      out.emplace_back(kind, id);
  }
  setenv("VSK_ROOT", saved.c_str(), 1);
  return out;
}

class LoadLifetimeTest : public VskTest {};

TEST_F(LoadLifetimeTest, NothingOutlivesTheRun) {
  const struct {
    int signal;
    int code;            // vsk-load's exit code, or 128 + the signal that ended it
    bool root_left;      // until the next run
  } kCases[] = {{SIGTERM, 128 + SIGTERM, false},
                {SIGINT, 128 + SIGINT, false},
                {SIGKILL, 128 + SIGKILL, true}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(strsignal(c.signal));
    LoadProcess load;
    ASSERT_TRUE(load.Start({"--workers", "2", "--duration", "120", "--live", "40", "--quiet"}));
    ASSERT_TRUE(load.WaitWorking(2)) << "root " << load.root;
    const std::vector<pid_t> children = ChildrenOf(load.pid);
    EXPECT_EQ(children.size(), 3u);  // orvd and the two workers
    const auto sysv = RootSysv(load.root);
    EXPECT_FALSE(sysv.empty());

    kill(load.pid, c.signal);
    EXPECT_EQ(load.Wait(), c.code);
    for (pid_t child : children) {
      for (int i = 0; i < 3000 && !ProcessEnded(child); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      EXPECT_TRUE(ProcessEnded(child)) << "pid " << child;
    }
    if (c.root_left) {
      EXPECT_TRUE(std::filesystem::exists(load.root));
      // The next run removes what the killed one left.
      LoadProcess next;
      ASSERT_TRUE(next.Start({"--workers", "1", "--sessions", "20", "--live", "5", "--quiet"}));
      EXPECT_EQ(next.Wait(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(load.root)) << load.root;
    const std::set<int> shm = SysvIds("shm"), sem = SysvIds("sem");
    for (const auto& [kind, id] : sysv) {
      EXPECT_EQ((std::string(kind) == "shm" ? shm : sem).count(id), 0u) << kind << " " << id;
    }
  }
}

}  // namespace
}  // namespace vsk::test
