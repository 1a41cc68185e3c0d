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
  struct Case {
    int family;
    const void* address;
    unsigned len;
    int with_prefix;
    unsigned prefix;
    int with_port;
    unsigned port;
    size_t room;
    const char* want;  // "" for a failure
  };
  const Case cases[] = {
      {AF_INET, v4, 0, 0, 0, 0, 0, 32, "192.0.2.1"},
      {AF_INET, v4, 0, 1, 32, 0, 0, 32, "192.0.2.1/32"},
      {AF_INET, v4, 2, 1, 16, 0, 0, 32, "192.0.0.0/16"},  // two leading bytes given
      {28, v6, 0, 1, 128, 0, 0, 92, "2001:db8::1/128"},   // the router's IPv6 number
      {AF_INET6, v6, 0, 0, 0, 0, 0, 92, "2001:db8::1"},
      {AF_INET6, v6, 0, 0, 0, 1, 443, 92, "[2001:db8::1]:443"},
      {AF_INET, v4, 0, 0, 0, 1, 80, 32, "192.0.2.1:80"},
      {AF_INET, v4, 0, 1, 32, 0, 0, 12, ""},  // 12 characters and the NUL do not fit
      {AF_INET, v4, 5, 0, 0, 0, 0, 32, ""},   // more bytes than an IPv4 address has
      {7, v4, 0, 0, 0, 0, 0, 32, ""},         // no such family
      {AF_INET, nullptr, 0, 0, 0, 0, 0, 32, ""},
  };
  for (const Case& c : cases) {
    char out[100] = "untouched";
    const int n = format_ipaddr(c.family, c.address, c.len, c.with_prefix, c.prefix, c.with_port,
                                c.port, out, c.room);
    EXPECT_EQ(std::string(out), c.want);
    EXPECT_EQ(n, static_cast<int>(std::string(c.want).size())) << c.want;
  }
}

}  // namespace
}  // namespace vsk::test
