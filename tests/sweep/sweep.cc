// The sweeper: with no argument removes the test roots, and their System V objects, that
// test processes left when they were killed (CTest runs it around the suite); with a root
// as argument removes that one (a dying test process hands over its own).
#include <cstdio>

#include "support/harness.h"

int main(int argc, char** argv) {
  if (argc == 2) return vsk::test::RemoveRoot(argv[1]) ? 0 : 1;
  int removed = vsk::test::SweepStaleRoots();
  if (removed > 0) std::printf("removed %d stale test roots\n", removed);
  return 0;
}
