// The program's own name, as the C library keeps it (`__progname`).
//
// The infrastructure daemon is recognised by the first four characters of this name,
// "orvd"; the replication daemon by its whole name, "lodexd".
#pragma once

namespace vsk::platform {

const char* ProgramName();

// True when the first 4 characters of the program's name are "orvd".
bool IsOrvdProgram();

}  // namespace vsk::platform
