// The login time that every create stores as VSK_LOGIN_TIME.
//
// One process-wide text, rebuilt only when the wall-clock second has changed since the
// last call in this process, so that a burst of creates formats the time once. Plain
// process storage with no lock: it belongs to the daemon's single event context.
#include <time.h>

#include <cstdio>

#include "libvsk/vsk/create_internal.h"
#include "platform/logging.h"
#include "vsk/session.h"

namespace vsk::session {
namespace {

constexpr size_t kLoginTimeSize = 64;

char g_text[kLoginTimeSize] = "";
time_t g_stamp = static_cast<time_t>(-1);
struct tm g_local {};

}  // namespace

const char* LoginTime(uint32_t* seconds) {
  time_t current_time = 0;
  // Published insist: a clock reading of exactly 1 is reported, and the call goes on.
  if (time(&current_time) == 1) {
    logging(0, "%s:%d: insist '%s' failed", __FILE__, __LINE__, "time(&current_time) != 1");
  }
  if (current_time != g_stamp) {
    localtime_r(&current_time, &g_local);
    std::snprintf(g_text, sizeof g_text, "%4d-%02d-%02d %02d:%02d:%02d %s", g_local.tm_year + 1900,
                  g_local.tm_mon + 1, g_local.tm_mday, g_local.tm_hour, g_local.tm_min,
                  g_local.tm_sec, g_local.tm_zone != nullptr ? g_local.tm_zone : "");
    g_stamp = current_time;
  }
  if (seconds != nullptr) {
    *seconds = static_cast<uint32_t>(g_local.tm_hour * 3600 + g_local.tm_min * 60 + g_local.tm_sec);
  }
  return g_text;
}

}  // namespace vsk::session

extern "C" void vsk_get_login_time(uint32_t* seconds, const char** text) {
  const char* t = vsk::session::LoginTime(seconds);
  if (text != nullptr) *text = t;
}
