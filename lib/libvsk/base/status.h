// Status codes for C++ callers: the translation of raw Berkeley DB and errno values, and
// the status texts. The exported get_vsk_err and vsk_get_err_msg are shims over these.
#pragma once

#include "vsk/status.h"

namespace vsk::base {

const char* ErrorText(vsk_status_t code);
vsk_status_t TranslateError(int value);

}  // namespace vsk::base
