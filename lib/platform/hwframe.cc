#include "platform/hwframe.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "platform/logging.h"

extern "C" bool hwframe_is_vc_or_single_re_protocol_master(void) {
  const char* role = std::getenv("VSK_RE_ROLE");
  if (role == nullptr || role[0] == '\0' || std::strcmp(role, "master") == 0) return true;
  if (std::strcmp(role, "standby") == 0) return false;
  static std::atomic<bool> reported{false};
  if (!reported.exchange(true)) {
    logging(3, "VSK_RE_ROLE=%s is neither master nor standby; acting as master", role);
  }
  return true;
}
