#include "support/harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
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

ChildResult RunInChild(const std::function<int()>& fn, std::chrono::milliseconds timeout) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return {};
  if (pid == 0) ExitChild(fn());
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
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
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

// ---- fixture --------------------------------------------------------------------------


void VskTest::SetUp() {
  const char* old = getenv("VSK_ROOT");
  had_root_ = old != nullptr;
  if (had_root_) saved_root_ = old;
  char tmpl[] = "/tmp/vsk-test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr) << strerror(errno);
  root_ = tmpl;
  setenv("VSK_ROOT", root_.c_str(), 1);
  std::string failed;
  ASSERT_TRUE(platform::MakeSystemDirs(&failed)) << failed;
  for (const auto& f : shared::RootKeyFiles()) std::ofstream(f, std::ios::app).close();
  RemoveSysvObjectsFor(shared::RootKeyFiles());  // a stale object of a reused inode
  platform::ResetProductInfo();
  saved_progname_ = __progname;
  AsClient();
  GlobalTraces().Clear();
  vsk_set_trace_cbk(&CaptureTrace);
}

void VskTest::TearDown() {
  vsk_set_trace_cbk(nullptr);
  // The store keeps the daemon's link handle across a close; a test's handle dies with
  // the test, so a later test in the same process must not find it.
  vsk_db_reset_orvd_handle();
  RemoveSysvObjectsFor(shared::RootKeyFiles());
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
  if (had_root_) {
    setenv("VSK_ROOT", saved_root_.c_str(), 1);
  } else {
    unsetenv("VSK_ROOT");
  }
  platform::ResetProductInfo();
  __progname = saved_progname_;
}

std::string VskTest::Path(std::string_view design_path) const {
  return root_ + std::string(design_path);
}

}  // namespace vsk::test
