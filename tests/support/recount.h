// The recount of the shared counts from the session tables lives in the library (the load
// generator checks its runs with it); tests use it under their own namespace.
#pragma once

#include "libvsk/vsk/recount.h"

namespace vsk::test {
using vsk::recount::CountDifferences;
using vsk::recount::LeftBehind;
using vsk::recount::ReadSharedCounts;
using vsk::recount::RecountFromTables;
using vsk::recount::SessionCounts;
}  // namespace vsk::test
