// vskctl: the operator's view of a libvsk system.
//
//   vskctl [--root DIR] [--json] [--no-progress] [-v] COMMAND [options]
//
// Commands: counters, pools, interfaces, daemons, sessions, session ID, store,
// serve-metrics. Each one reads the shared state of the root in force (--root, else
// VSK_ROOT, else the system's own paths) without creating or changing anything, and prints
// a listing as text or, with --json, as one JSON document.
//
// Exit codes: 0 done, 1 failure (the message names the path or object that failed),
// 2 usage.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "ctl.h"

namespace vskctl {
namespace {

constexpr AddCommand kCommands[] = {AddCounters, AddPools, AddInterfaces,  AddDaemons,
                                    AddSessions, AddStore, AddServeMetrics};

// --root takes effect for the library through VSK_ROOT, which every path and key follows.
bool UseRoot(const std::string& root) {
  if (root.empty()) return true;
  struct stat st {};
  if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    Failure("root " + root + " is not a directory");
    return false;
  }
  setenv("VSK_ROOT", root.c_str(), 1);
  return true;
}

int Run(int argc, char** argv) {
  CLI::App app{"vskctl: read the session store's shared state, counters and daemons", "vskctl"};
  app.require_subcommand(1);
  app.fallthrough();
  Globals globals;
  app.add_option("--root", globals.root,
                 "root directory of the system (default: VSK_ROOT, else the system's own)");
  app.add_flag("--json", globals.json, "print one JSON document instead of text");
  app.add_flag("--no-progress", globals.no_progress, "never show progress, even on a terminal");
  app.add_flag("-v,--verbose", globals.verbose, "print the library's traces on stderr");

  Action action;
  for (AddCommand add : kCommands) add(app, globals, &action);
  for (CLI::App* sub : app.get_subcommands({})) sub->fallthrough();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? kExitOk : kExitUsage;
  }
  if (!UseRoot(globals.root)) return kExitFailure;
  if (globals.verbose) TraceTo(stderr);
  if (!action) return kExitUsage;
  return action();
}

}  // namespace
}  // namespace vskctl

int main(int argc, char** argv) {
  try {
    return vskctl::Run(argc, argv);
  } catch (const std::exception& e) {
    return vskctl::Failure(std::string("internal error: ") + e.what());
  }
}
