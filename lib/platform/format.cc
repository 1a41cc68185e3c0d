#include "platform/format.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

namespace {

// The router's number for IPv6, which its stored values and callers use.
constexpr int kRouterInet6 = 28;

}  // namespace

extern "C" int format_ipaddr(int family, const void* address, unsigned address_len, int with_prefix,
                             unsigned prefix_len, int with_port, unsigned port, char* out,
                             size_t room) {
  if (out == nullptr || room == 0) return 0;
  out[0] = '\0';
  const bool v6 = family == AF_INET6 || family == kRouterInet6;
  if (address == nullptr || (!v6 && family != AF_INET)) return 0;
  const unsigned full = v6 ? 16 : 4;
  if (address_len == 0) address_len = full;
  if (address_len > full) return 0;
  unsigned char bytes[16] = {};
  std::memcpy(bytes, address, address_len);

  char text[INET6_ADDRSTRLEN];
  if (inet_ntop(v6 ? AF_INET6 : AF_INET, bytes, text, sizeof(text)) == nullptr) return 0;
  char prefix[16] = "";
  if (with_prefix != 0) std::snprintf(prefix, sizeof(prefix), "/%u", prefix_len);
  int n;
  if (with_port == 0) {
    n = std::snprintf(out, room, "%s%s", text, prefix);
  } else if (v6) {
    n = std::snprintf(out, room, "[%s%s]:%u", text, prefix, port);
  } else {
    n = std::snprintf(out, room, "%s%s:%u", text, prefix, port);
  }
  if (n < 0 || static_cast<size_t>(n) >= room) {
    out[0] = '\0';
    return 0;
  }
  return n;
}

extern "C" int format_mac_addr(char* out, size_t room, const void* address, int separator,
                               int upper) {
  if (out == nullptr || room == 0) return 0;
  out[0] = '\0';
  if (address == nullptr) return 0;
  const auto* b = static_cast<const unsigned char*>(address);
  const char sep = separator != 0 ? static_cast<char>(separator) : ':';
  const char* form = upper != 0 ? "%02X%c%02X%c%02X%c%02X%c%02X%c%02X"
                                : "%02x%c%02x%c%02x%c%02x%c%02x%c%02x";
  int n = std::snprintf(out, room, form, b[0], sep, b[1], sep, b[2], sep, b[3], sep, b[4], sep,
                        b[5]);
  if (n < 0 || static_cast<size_t>(n) >= room) {
    out[0] = '\0';
    return 0;
  }
  return n;
}

extern "C" char* addr2ascii(int family, const void* address, int address_len, char* out) {
  static char shared[INET6_ADDRSTRLEN];
  char* text = out != nullptr ? out : shared;
  text[0] = '\0';
  if (format_ipaddr(family, address, static_cast<unsigned>(address_len > 0 ? address_len : 0), 0,
                    0, 0, 0, text, INET6_ADDRSTRLEN) == 0) {
    text[0] = '\0';
  }
  return text;
}

extern "C" const char* time_isostr(time_t seconds) {
  static char text[32];
  struct tm parts {};
  if (localtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts) == 0) {
    text[0] = '\0';
  }
  return text;
}
