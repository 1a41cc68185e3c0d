// vsk-demo: the session store end to end on a throwaway root, the way the daemons use it.
//
//   VSK_ROOT=DIR vsk-demo [--keep] [--verbose]   run the demo under DIR
//   vsk-demo --cleanup DIR              remove the System V objects of DIR's key files
//   vsk-demo --client ID [--verbose]    (internal) the client process of act 2
//
// The demo has three acts, each step printed with its status:
//   1. this process, as the creating daemon, opens the shared state and the store, writes
//      raw rows through the generic table layer and one client session through the session
//      tables, reads them back and closes;
//   2. the real orvd daemon starts on the same root; a client daemon in a process of its
//      own (this program, run with the internal switch --client ID) registers with it,
//      reads act 1's rows and unregisters; orvd is stopped with SIGTERM;
//   3. the System V objects of the root are removed.
// A failed step ends the acts; act 3 runs in every case, and the exit code is 1 after any
// failure. The library's traces are printed with --verbose, and after a failure.
// --keep leaves the store and its System V objects in place instead of act 3, so that an
// operator can look at them (vskctl --root DIR ...) and remove them later with --cleanup.
//
// DIR must be an existing directory other than "/": without a root the library's paths
// and keys are the system's own, which the demo must never touch.
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "demo.h"
#include "platform/paths.h"
#include "transcript.h"
#include "vsk/status.h"

namespace vsk::demo {
namespace {

int Usage() {
  std::fprintf(stderr,
               "usage: VSK_ROOT=DIR vsk-demo [--keep] [--verbose]\n"
               "       vsk-demo --cleanup DIR\n");
  return 2;
}

// Checks that `dir` is usable as a root and points VSK_ROOT at its canonical path.
bool UseRoot(const char* dir, std::string* root) {
  if (dir == nullptr || *dir == '\0') {
    std::fprintf(stderr, "vsk-demo: VSK_ROOT must name a throwaway directory\n");
    return false;
  }
  char* real = realpath(dir, nullptr);
  if (real == nullptr) {
    std::fprintf(stderr, "vsk-demo: %s: %s\n", dir, std::strerror(errno));
    return false;
  }
  *root = real;
  free(real);
  struct stat st {};
  if (stat(root->c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "vsk-demo: %s is not a directory\n", root->c_str());
    return false;
  }
  if (*root == "/") {
    std::fprintf(stderr, "vsk-demo: refusing \"/\" as the root: that is the system's own\n");
    return false;
  }
  setenv("VSK_ROOT", root->c_str(), 1);
  return true;
}

// The directories that orvd makes at its start; act 1 stands in for orvd.
bool MakeRootDirectories() {
  std::string failed;
  if (platform::MakeSystemDirs(&failed)) return true;
  return Fail("cannot create %s: %s", failed.c_str(), std::strerror(errno));
}

int RunDemo(bool keep) {
  std::string root;
  if (!UseRoot(std::getenv("VSK_ROOT"), &root)) return 2;
  // The demo shows the master routing engine; the platform's model id is left as set.
  setenv("VSK_RE_ROLE", "master", 1);
  std::error_code ec;
  std::string self = std::filesystem::read_symlink("/proc/self/exe", ec).string();
  if (ec) {
    std::fprintf(stderr, "vsk-demo: cannot find its own program: %s\n", ec.message().c_str());
    return 1;
  }
  std::printf("vsk-demo on root %s\n", root.c_str());

  bool ok = MakeRootDirectories();
  vsk_session_id_t session_id = 0;
  if (ok) {
    Act("1", "the creating daemon's store, in this process");
    ok = RunCreator(&session_id);
  }
  if (ok) {
    Act("2a", "the real orvd daemon opens the same root");
    ok = RunDaemons(self, session_id);
  }
  const bool acts_ok = ok;
  bool clean = true;
  if (keep) {
    std::printf("\nthe store stays on %s: look at it with\n  vskctl --root %s store\n"
                "and remove its System V objects with\n  vsk-demo --cleanup %s\n",
                root.c_str(), root.c_str(), root.c_str());
  } else {
    Act("3", "System V objects of the root");
    clean = RemoveRootObjects(root) == 0;
  }
  std::printf("\n%s\n", acts_ok && clean ? "vsk-demo: every step passed"
                                         : "vsk-demo: FAILED (see the step marked above)");
  return acts_ok && clean ? 0 : 1;
}

int RunCleanup(const char* dir) {
  std::string root;
  if (!UseRoot(dir, &root)) return 2;
  std::printf("vsk-demo --cleanup %s\n", root.c_str());
  return RemoveRootObjects(root);
}

int RunClientSwitch(const char* id_text) {
  std::string root;
  if (!UseRoot(std::getenv("VSK_ROOT"), &root)) return 2;
  char* end = nullptr;
  errno = 0;
  unsigned long long id = std::strtoull(id_text, &end, 10);
  if (errno != 0 || end == id_text || *end != '\0' || id == 0) {
    std::fprintf(stderr, "vsk-demo: --client wants a session id, not \"%s\"\n", id_text);
    return 2;
  }
  return RunClient(id);
}

}  // namespace
}  // namespace vsk::demo

int main(int argc, char** argv) {
  using namespace vsk::demo;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc == 3 && std::strcmp(argv[1], "--cleanup") == 0) return RunCleanup(argv[2]);
  bool verbose = argc > 1 && (std::strcmp(argv[argc - 1], "--verbose") == 0 ||
                              std::strcmp(argv[argc - 1], "-v") == 0);
  SetVerbose(verbose);
  int args = verbose ? argc - 1 : argc;
  if (args == 3 && std::strcmp(argv[1], "--client") == 0) return RunClientSwitch(argv[2]);
  bool keep = args == 2 && std::strcmp(argv[1], "--keep") == 0;
  if (args != 1 && !keep) return Usage();
  return RunDemo(keep);
}
