// Removes the test roots, and their System V objects, that test processes left when they
// were killed (see SweepStaleRoots in the harness). CTest runs it around the suite.
#include <cstdio>

#include "support/harness.h"

int main() {
  int removed = vsk::test::SweepStaleRoots();
  if (removed > 0) std::printf("removed %d stale test roots\n", removed);
  return 0;
}
