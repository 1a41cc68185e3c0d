// The test harness shared by every test of the library.
//
// VskTest gives each test:
//  - a fresh root directory, exported as VSK_ROOT, with the system's directories made and
//    the shared-memory key files present; removed when the test ends;
//  - removal of every System V segment and semaphore set whose key derives from that
//    root's key files, before the test (a stale object of a reused inode) and after it;
//  - a trace capture installed as vsk_trace_cbk (traces());
//  - the program name of the "client daemon" by default; AsOrvd() / AsClient() switch the
//    program-name test of the library.
//
// RunInChild() forks, runs a function in the child and reports how the child ended.
// Child processes report through their exit code, never through gtest assertions.
//
// Nothing outlives a test process, however it ends:
//  - every process the harness starts (RunInChild, Child, OrvdProcess) is killed by the
//    kernel when the test process dies;
//  - a test process that dies of a signal it can catch (an abort, a crash, SIGTERM) or
//    exits in the middle of a test has its root and the root's System V objects removed
//    on its way out (by the sweeper program, tests/sweep);
//  - a root records its owner (pid and start time); SweepStaleRoots(), run by CTest
//    before and after the suite, removes the roots of owners that are gone, with their
//    System V objects: that covers a test process killed with SIGKILL at its timeout.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// In a child process (which reports through its exit code, not gtest): on a failed
// condition, says which and returns the line number as the child's result.
#define CHILD_CHECK(cond)                                                    \
  do {                                                                       \
    if (!(cond)) {                                                           \
      std::fprintf(stderr, "%s:%d: %s failed\n", __FILE__, __LINE__, #cond); \
      return __LINE__;                                                       \
    }                                                                        \
  } while (0)

namespace vsk::test {

// Formatted trace lines, in the order they came.
class TraceLog {
 public:
  struct Line {
    int level;
    void* handle;
    std::string text;
  };

  void Add(void* handle, int level, const char* format, va_list args);
  void Clear();
  std::vector<Line> Lines() const;
  std::vector<std::string> Texts() const;
  // Number of lines whose text equals `text` exactly.
  int Count(std::string_view text) const;
  bool Contains(std::string_view text) const { return Count(text) > 0; }
  // Number of lines whose text contains `part`.
  int CountContaining(std::string_view part) const;
  std::string Dump() const;

 private:
  mutable std::mutex mu_;
  std::vector<Line> lines_;
};

// The process-wide capture behind the hooks below.
TraceLog& GlobalTraces();
// vsk_trace_cbk-shaped hook that records into GlobalTraces().
void CaptureTrace(void* handle, int level, const char* format, ...);
// Daemon-link-shaped hook (cookie, level, format, va_list) that records the same way.
void CaptureTraceV(void* cookie, int level, const char* format, va_list args);

// Sets the program name the library sees for the scope's lifetime.
class ScopedProgramName {
 public:
  explicit ScopedProgramName(const char* name);
  ~ScopedProgramName();
  ScopedProgramName(const ScopedProgramName&) = delete;
  ScopedProgramName& operator=(const ScopedProgramName&) = delete;

 private:
  char* saved_;
  std::string name_;
};

// Sets the program name for the rest of the process (for children).
void SetProgramName(const char* name);

struct ChildResult {
  bool exited = false;  // ended by exit()
  int code = -1;        // exit code when exited
  int signal = 0;       // terminating signal otherwise
  bool timed_out = false;
  bool Ok() const { return exited && code == 0; }
};
std::ostream& operator<<(std::ostream& os, const ChildResult& r);

// In a process just forked by the harness: dies with `parent`, even if that has died
// already.
void DieWithParent(pid_t parent);

// True when `pid` has ended: gone, or a zombie its parent has not reaped yet.
bool ProcessEnded(pid_t pid);

// Runs `fn` in a forked child; the child exits with fn's result (0 means success).
ChildResult RunInChild(const std::function<int()>& fn,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A long-lived child process that can signal the parent and be told to go on.
class Child {
 public:
  // The child's end of the channel.
  class Channel {
   public:
    void Ready();   // tells the parent that the child reached its point
    bool WaitGo();  // waits until the parent says Go(); false if the parent is gone
   private:
    friend class Child;
    int to_parent_ = -1;
    int from_parent_ = -1;
  };

  Child() = default;
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Forks and runs `fn(channel)` in the child; its result is the exit code.
  void Start(const std::function<int(Channel&)>& fn);
  // Waits for the child's Ready(); false on timeout or if the child ended first.
  bool WaitReady(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  void Go();
  void Kill(int sig = SIGKILL);
  ChildResult Wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int from_child_ = -1;
  int to_child_ = -1;
  bool reaped_ = false;
};

// Removes every System V segment and semaphore set whose key was derived (with any
// project number) from one of `key_files`. Returns how many objects were removed.
int RemoveSysvObjectsFor(const std::vector<std::string>& key_files);

// The directory under which test roots are made, and their name prefix.
inline constexpr const char kRootPattern[] = "/tmp/vsk-test.XXXXXX";
// Removes `root` and the System V objects keyed by its key files. True when it is gone.
bool RemoveRoot(const std::string& root);
// Removes every test root whose owner process is gone, with the System V objects keyed
// by its key files. A root without a readable owner record is removed only when it is
// older than an hour (made by a harness that wrote none, or its record is being written).
// Returns the number of roots removed.
int SweepStaleRoots();

class VskTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  const std::string& root() const { return root_; }
  // A further root, for a second system on the machine (a standby engine): its
  // directories and key files are made, and it is removed with its System V objects like
  // the test's own. VSK_ROOT stays the test's root. Empty on failure.
  std::string AddRoot();
  // `design_path` under this test's root.
  std::string Path(std::string_view design_path) const;
  TraceLog& traces() { return GlobalTraces(); }

  // The program-name test of the library: "orvd" or a client daemon's name.
  void AsOrvd() { SetProgramName("orvd"); }
  void AsClient(const char* name = "vsk-client") { SetProgramName(name); }

 private:
  std::string root_;
  std::vector<std::string> extra_roots_;
  std::string saved_root_;
  bool had_root_ = false;
  char* saved_progname_ = nullptr;
};

}  // namespace vsk::test
