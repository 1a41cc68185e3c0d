// The address formatter with the argument orders its callers use: the router's IPv6
// number and this host's, prefix and port forms, short addresses, and the failures.
#include "platform/format.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

namespace vsk::test {
namespace {

TEST(FormatIpaddr, FormsAndFailures) {
  const unsigned char v4[4] = {192, 0, 2, 1};
  const unsigned char v6[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  // family, address, its length, prefix?, prefix, port?, port, room, text ("" = failure)
  const std::tuple<int, const void*, unsigned, int, unsigned, int, unsigned, size_t, const char*>
      cases[] = {{AF_INET, v4, 0, 0, 0, 0, 0, 32, "192.0.2.1"},
                 {AF_INET, v4, 0, 1, 32, 0, 0, 32, "192.0.2.1/32"},
                 {AF_INET, v4, 2, 1, 16, 0, 0, 32, "192.0.0.0/16"},  // two leading bytes
                 {28, v6, 0, 1, 128, 0, 0, 92, "2001:db8::1/128"},   // the router's IPv6
                 {AF_INET6, v6, 0, 0, 0, 1, 443, 92, "[2001:db8::1]:443"},
                 {AF_INET, v4, 0, 0, 0, 1, 80, 32, "192.0.2.1:80"},
                 {AF_INET, v4, 0, 1, 32, 0, 0, 12, ""},  // the text and its NUL need 13
                 {AF_INET, v4, 5, 0, 0, 0, 0, 32, ""},   // more bytes than IPv4 has
                 {7, v4, 0, 0, 0, 0, 0, 32, ""},
                 {AF_INET, nullptr, 0, 0, 0, 0, 0, 32, ""}};
  for (const auto& [family, address, len, with_prefix, prefix, with_port, port, room, want] :
       cases) {
    char out[100] = "untouched";
    EXPECT_EQ(format_ipaddr(family, address, len, with_prefix, prefix, with_port, port, out, room),
              static_cast<int>(std::string(want).size()));
    EXPECT_EQ(std::string(out), want);
  }
}

}  // namespace
}  // namespace vsk::test
