#include "support/harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "libvsk/base/fault.h"
#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "platform/product_info.h"
#include "vsk/status.h"
#include "vsk/store.h"

extern "C" char* __progname;

namespace vsk::test {

// ---- traces ---------------------------------------------------------------------------

void TraceLog::Add(void* handle, int level, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  std::lock_guard<std::mutex> lock(mu_);
  lines_.push_back({level, handle, std::move(text)});
}

void TraceLog::Clear() {
  std::lock_guard<std::mutex> lock(mu_);
  lines_.clear();
}

std::vector<TraceLog::Line> TraceLog::Lines() const {
  std::lock_guard<std::mutex> lock(mu_);
  return lines_;
}

std::vector<std::string> TraceLog::Texts() const {
  std::vector<std::string> out;
  for (const auto& l : Lines()) out.push_back(l.text);
  return out;
}

int TraceLog::Count(std::string_view text) const {
  int n = 0;
  for (const auto& l : Lines()) n += (l.text == text);
  return n;
}

int TraceLog::CountContaining(std::string_view part) const {
  int n = 0;
  for (const auto& l : Lines()) n += (l.text.find(part) != std::string::npos);
  return n;
}

std::string TraceLog::Dump() const {
  std::ostringstream os;
  for (const auto& l : Lines()) os << "  [" << l.level << "] " << l.text << "\n";
  return os.str();
}

TraceLog& GlobalTraces() {
  static TraceLog* log = new TraceLog;  // never destroyed: children may trace at exit
  return *log;
}

void CaptureTrace(void* handle, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  GlobalTraces().Add(handle, level, format, args);
  va_end(args);
}

void CaptureTraceV(void* cookie, int level, const char* format, va_list args) {
  GlobalTraces().Add(cookie, level, format, args);
}

// ---- program name ---------------------------------------------------------------------

namespace {
// Names set for the rest of the process must outlive every reader.
char* PersistentName(const char* name) {
  static std::vector<std::string>* names = new std::vector<std::string>;
  names->emplace_back(name);
  return names->back().data();
}
}  // namespace

void SetProgramName(const char* name) { __progname = PersistentName(name); }

ScopedProgramName::ScopedProgramName(const char* name) : saved_(__progname), name_(name) {
  __progname = name_.data();
}

ScopedProgramName::~ScopedProgramName() { __progname = saved_; }

// ---- child processes ------------------------------------------------------------------

std::ostream& operator<<(std::ostream& os, const ChildResult& r) {
  if (r.timed_out) return os << "child timed out";
  if (r.exited) return os << "child exited with " << r.code;
  return os << "child killed by signal " << r.signal;
}

namespace {

ChildResult WaitFor(pid_t pid, std::chrono::milliseconds timeout) {
  ChildResult result;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) break;
    if (r < 0 && errno != EINTR) return result;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      result.timed_out = true;
      return result;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (WIFEXITED(status)) {
    result.exited = true;
    result.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  return result;
}

[[noreturn]] void ExitChild(int code) {
  std::fflush(nullptr);
  _exit(code & 0xff);
}

}  // namespace

void DieWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(99);  // the parent died before the request took effect
}

ChildResult RunInChild(const std::function<int()>& fn, std::chrono::milliseconds timeout) {
  const pid_t parent = getpid();
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return {};
  if (pid == 0) {
    DieWithParent(parent);
    ExitChild(fn());
  }
  return WaitFor(pid, timeout);
}

void Child::Channel::Ready() {
  char c = 'r';
  (void)!write(to_parent_, &c, 1);
}

bool Child::Channel::WaitGo() {
  char c;
  for (;;) {
    ssize_t n = read(from_parent_, &c, 1);
    if (n == 1) return true;
    if (n < 0 && errno == EINTR) continue;
    return false;
  }
}

Child::~Child() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (from_child_ >= 0) close(from_child_);
  if (to_child_ >= 0) close(to_child_);
}

void Child::Start(const std::function<int(Channel&)>& fn) {
  int up[2], down[2];
  if (pipe(up) != 0 || pipe(down) != 0) return;
  const pid_t parent = getpid();
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    DieWithParent(parent);
    close(up[0]);
    close(down[1]);
    Channel ch;
    ch.to_parent_ = up[1];
    ch.from_parent_ = down[0];
    ExitChild(fn(ch));
  }
  close(up[1]);
  close(down[0]);
  from_child_ = up[0];
  to_child_ = down[1];
}

bool Child::WaitReady(std::chrono::milliseconds timeout) {
  pollfd p{from_child_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return false;
  char c;
  return read(from_child_, &c, 1) == 1;
}

void Child::Go() {
  char c = 'g';
  (void)!write(to_child_, &c, 1);
}

void Child::Kill(int sig) {
  if (pid_ > 0 && !reaped_) kill(pid_, sig);
}

ChildResult Child::Wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0 || reaped_) return {};
  reaped_ = true;
  return WaitFor(pid_, timeout);
}

// ---- System V clean-up ----------------------------------------------------------------

int RemoveSysvObjectsFor(const std::vector<std::string>& key_files) {
  int removed = 0;
  for (const auto& [key, id] : shared::ObjectsKeyedBy("shm", key_files)) {
    removed += shmctl(id, IPC_RMID, nullptr) == 0;
  }
  for (const auto& [key, id] : shared::ObjectsKeyedBy("sem", key_files)) {
    removed += semctl(id, 0, IPC_RMID) == 0;
  }
  return removed;
}

// ---- roots that outlive their test process --------------------------------------------

namespace {

constexpr char kOwnerFile[] = "/.owner";
constexpr char kSweeper[] = VSK_BINARY_DIR "/tests/vsk_test_sweep";

// The start time of `pid` in clock ticks since boot (field 22 of /proc/<pid>/stat), or 0.
unsigned long long StartTimeOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t close = stat.rfind(')');  // the command name may hold spaces
  if (close == std::string::npos) return 0;
  std::istringstream fields(stat.substr(close + 2));
  std::string field;
  for (int i = 3; i < 22 && fields >> field; ++i) {
  }
  unsigned long long start = 0;
  fields >> start;
  return start;
}

enum class Owner { kAlive, kGone, kUnknown };

// What the root's owner record says; kUnknown when there is none or it cannot be read.
Owner OwnerOf(const std::string& root) {
  std::ifstream in(root + kOwnerFile);
  long long pid = 0;
  unsigned long long start = 0;
  if (!(in >> pid >> start) || pid <= 0) return Owner::kUnknown;
  return StartTimeOf(static_cast<pid_t>(pid)) == start ? Owner::kAlive : Owner::kGone;
}

// The live root of this process, for its fatal-signal and exit paths, which must not
// allocate: they hand the root to the sweeper program.
constexpr int kMaxRoots = 4;
struct DyingRoots {
  pid_t owner = 0;  // 0 while no root is live
  char roots[kMaxRoots][256] = {};
  char* argv[kMaxRoots + 2] = {};  // the sweeper's: its name, the roots, null
  struct sigaction previous[NSIG];
};
DyingRoots g_dying;
constexpr int kFatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTERM, SIGINT};

void CleanUpDyingRoot() {
  if (g_dying.owner == 0 || g_dying.owner != getpid()) return;  // a forked child's copy
  pid_t sweeper = fork();
  if (sweeper == 0) {
    execv(kSweeper, g_dying.argv);
    _exit(127);
  }
  if (sweeper > 0) waitpid(sweeper, nullptr, 0);
  g_dying.owner = 0;
}

void OnFatalSignal(int sig) {
  CleanUpDyingRoot();
  sigaction(sig, &g_dying.previous[sig], nullptr);
  raise(sig);  // delivered with the previous action once this handler returns
}

// Adds `root` to what this process's death removes, and records its owner.
void WatchForDeath(const std::string& root, bool first) {
  static bool installed = false;
  if (!installed) {
    installed = true;
    for (int sig : kFatalSignals) {
      struct sigaction sa {};
      sa.sa_handler = OnFatalSignal;
      sigemptyset(&sa.sa_mask);
      sigaction(sig, &sa, &g_dying.previous[sig]);
    }
    std::atexit(CleanUpDyingRoot);
  }
  static int count = 0;
  if (first) count = 0;
  if (count == kMaxRoots) return;
  std::snprintf(g_dying.roots[count], sizeof g_dying.roots[count], "%s", root.c_str());
  static char name[] = "vsk_test_sweep";
  g_dying.argv[0] = name;
  g_dying.argv[count + 1] = g_dying.roots[count];
  ++count;
  g_dying.argv[count + 1] = nullptr;
  // Written aside and renamed into place: a sweep in another test process must never
  // find the record empty or half written, which would make this live root look stale.
  const std::string record = root + kOwnerFile;
  std::ofstream(record + ".new") << getpid() << ' ' << StartTimeOf(getpid()) << '\n';
  std::rename((record + ".new").c_str(), record.c_str());
  g_dying.owner = getpid();
}

}  // namespace

bool RemoveRoot(const std::string& root) {
  RemoveSysvObjectsFor({root + platform::kShmKeyFile, root + platform::kLodexKeyFile});
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return !ec;
}

int SweepStaleRoots() {
  const std::filesystem::path pattern(kRootPattern);
  std::string prefix = pattern.filename().string();
  prefix = prefix.substr(0, prefix.find('X'));
  int removed = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(pattern.parent_path(), ec)) {
    const std::string root = entry.path().string();
    if (entry.path().filename().string().rfind(prefix, 0) != 0) continue;
    const Owner owner = OwnerOf(root);
    if (owner == Owner::kAlive) continue;
    if (owner == Owner::kUnknown) {
      auto age = std::filesystem::file_time_type::clock::now() -
                 std::filesystem::last_write_time(root, ec);
      if (ec || age < std::chrono::hours(1)) continue;
    }
    removed += RemoveRoot(root) ? 1 : 0;
  }
  return removed;
}

// ---- fixture --------------------------------------------------------------------------

void VskTest::SetUp() {
  const char* old = getenv("VSK_ROOT");
  had_root_ = old != nullptr;
  if (had_root_) saved_root_ = old;
  char tmpl[sizeof kRootPattern];
  std::memcpy(tmpl, kRootPattern, sizeof tmpl);
  ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
  root_ = tmpl;
  setenv("VSK_ROOT", root_.c_str(), 1);
  std::string failed;
  ASSERT_TRUE(platform::MakeSystemDirs(&failed)) << failed;
  for (const auto& f : shared::RootKeyFiles()) std::ofstream(f, std::ios::app).close();
  RemoveSysvObjectsFor(shared::RootKeyFiles());  // a stale object of a reused inode
  WatchForDeath(root_, true);
  platform::ResetProductInfo();
  saved_progname_ = __progname;
  AsClient();
  GlobalTraces().Clear();
  vsk_set_trace_cbk(&CaptureTrace);
}

void VskTest::TearDown() {
  fault::DisarmAll();
  vsk_set_trace_cbk(nullptr);
  // The store keeps the daemon's link handle across a close; a test's handle dies with
  // the test, so a later test in the same process must not find it.
  vsk_db_reset_orvd_handle();
  RemoveRoot(root_);
  for (const auto& r : extra_roots_) RemoveRoot(r);
  extra_roots_.clear();
  g_dying.owner = 0;
  if (had_root_) {
    setenv("VSK_ROOT", saved_root_.c_str(), 1);
  } else {
    unsetenv("VSK_ROOT");
  }
  platform::ResetProductInfo();
  __progname = saved_progname_;
}

std::string VskTest::AddRoot() {
  char tmpl[sizeof kRootPattern];
  std::memcpy(tmpl, kRootPattern, sizeof tmpl);
  if (mkdtemp(tmpl) == nullptr) return {};
  std::string root = tmpl;
  extra_roots_.push_back(root);
  std::string saved = root_;
  setenv("VSK_ROOT", root.c_str(), 1);
  platform::MakeSystemDirs();
  for (const auto& f : shared::RootKeyFiles()) std::ofstream(f, std::ios::app).close();
  RemoveSysvObjectsFor(shared::RootKeyFiles());
  setenv("VSK_ROOT", saved.c_str(), 1);
  WatchForDeath(root, false);
  return root;
}

std::string VskTest::Path(std::string_view design_path) const {
  return root_ + std::string(design_path);
}

bool ProcessEnded(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = stat.rfind(')');  // the command name may hold spaces
  return close == std::string::npos || stat.compare(close + 2, 1, "Z") == 0;
}

}  // namespace vsk::test
