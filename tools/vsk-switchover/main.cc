// vsk-switchover: hands mastership from one routing engine's store to the other's (see
// libvsk/repl/switchover.h). Engines are named by their roots.
//
//   vsk-switchover --from ROOT --to ROOT [--timeout SECONDS]
//
// Exit status 0 when the new master has taken over, 1 otherwise; one line says what
// happened.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "libvsk/repl/switchover.h"

int main(int argc, char** argv) {
  CLI::App app{"vsk-switchover: make the standby engine master"};
  std::string from, to;
  int timeout_s = 40;
  app.add_option("--from", from, "root of the current master")->required();
  app.add_option("--to", to, "root of the standby that takes over")->required();
  app.add_option("--timeout", timeout_s, "seconds allowed for each step")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  vsk::repl::SwitchoverResult r =
      vsk::repl::Switchover(from, to, std::chrono::seconds(timeout_s));
  std::printf("%s\n", r.detail.c_str());
  return r.ok ? 0 : 1;
}
