#include "platform/progname.h"

#include <cstring>

extern "C" char* __progname;  // kept by the C library; tests may point it elsewhere

namespace vsk::platform {

const char* ProgramName() { return __progname != nullptr ? __progname : ""; }

bool IsOrvdProgram() { return std::strncmp(ProgramName(), "orvd", 4) == 0; }

}  // namespace vsk::platform
