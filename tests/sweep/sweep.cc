// The sweeper: with no argument removes the test roots, and their System V objects, that
// test processes left when they were killed (CTest runs it around the suite); with roots
// as arguments removes those (a dying test process hands over its own).
#include <cstdio>

#include "support/harness.h"

int main(int argc, char** argv) {
  if (argc >= 2) {
    bool ok = true;
    for (int i = 1; i < argc; ++i) ok = vsk::test::RemoveRoot(argv[i]) && ok;
    return ok ? 0 : 1;
  }
  int removed = vsk::test::SweepStaleRoots();
  if (removed > 0) std::printf("removed %d stale test roots\n", removed);
  return 0;
}
