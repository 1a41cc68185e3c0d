// vskctl as an operator runs it: a real process against a real root, its output captured,
// and helpers that fill the root's shared state through the library from other processes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvsk/shared/intf_file.h"
#include "support/harness.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {

inline const std::string kVskctl = VSK_BINARY_DIR "/tools/vskctl";

struct ToolResult {
  int code = -1;  // exit code, -1 when killed
  std::string out;
  std::string err;
  nlohmann::json Json() const { return nlohmann::json::parse(out); }
};

inline std::ostream& operator<<(std::ostream& os, const ToolResult& r) {
  return os << "exit " << r.code << "\n--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

// In a child: dies with the test process (so a crashed test leaves no server behind) and
// becomes `program` with `args`, argv[0] being the program's last path component.
[[noreturn]] inline void Exec(const std::string& program, const std::vector<std::string>& args) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::vector<char*> argv;
  std::string name = program.substr(program.rfind('/') + 1);
  argv.push_back(name.data());
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(127);
}

// Forks and execs `program` with `args`; stdout and stderr come back through pipes, so
// the program sees no terminal. `program`'s last path component is its argv[0].
inline pid_t Spawn(const std::string& program, const std::vector<std::string>& args, int* out_fd,
                   int* err_fd) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return -1;
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    Exec(program, args);
  }
  close(out[1]);
  close(err[1]);
  *out_fd = out[0];
  *err_fd = err[0];
  return pid;
}

// Runs vskctl (or `program`) to its end.
inline ToolResult RunTool(const std::vector<std::string>& args,
                          const std::string& program = kVskctl) {
  ToolResult r;
  int fds[2];
  pid_t pid = Spawn(program, args, &fds[0], &fds[1]);
  if (pid < 0) return r;
  std::string* sinks[2] = {&r.out, &r.err};
  int open = 2;
  while (open > 0) {
    pollfd p[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
    if (poll(p, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i] < 0 || p[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[i], buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i]);
        fds[i] = -1;
        --open;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// Runs vskctl on a pseudo-terminal, as a person at a terminal would: stdout and stderr
// together, as the terminal shows them.
inline ToolResult RunOnTerminal(const std::vector<std::string>& args) {
  ToolResult r;
  int master = -1;
  std::fflush(nullptr);
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid < 0) return r;
  if (pid == 0) Exec(kVskctl, args);
  char buf[4096];
  ssize_t n;
  // The terminal reports EIO once the program has closed its side.
  while ((n = read(master, buf, sizeof buf)) > 0) r.out.append(buf, static_cast<size_t>(n));
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// A client daemon in a child process: registered with orvd in poll mode, runs `fn` with
// the store usable, unregisters. The child's exit code is fn's result.
inline int AsRegisteredClient(const std::function<int()>& fn) {
  orvd_ctx_t* ctx = orvd_init_handle();
  orvd_set_reg_type_poll(ctx);
  if (orvd_register(ctx) != 0) return 100;
  int rc = fn();
  orvd_unregister(&ctx);
  return rc;
}

// A registered client in a child process adds `count` interfaces "<prefix><i>" of `kind`,
// with session id 100 + i and state i.
inline bool AddInterfacesAsClient(const std::string& prefix, int count, uint32_t kind) {
  return RunInChild([&] {
           return AsRegisteredClient([&] {
             for (int i = 0; i < count; ++i) {
               std::string name = prefix + std::to_string(i);
               if (vsk_db_interface_add(name.c_str(), kind, 100 + i, 1, i) != 0) return 1;
             }
             return 0;
           });
         })
      .Ok();
}

class VskctlTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop();
    VskTest::TearDown();
  }
  // orvd up, and the status word at "ready".
  void StartOrvd() { ASSERT_TRUE(orvd_.Start()); }

  OrvdProcess orvd_;
};

}  // namespace vsk::test
