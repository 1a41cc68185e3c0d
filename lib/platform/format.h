// Text formatters of the router's support library.
//
// format_ipaddr(family, address, address_len, with_prefix, prefix_len, with_port, port,
//               out, room)
//   Writes an address as text into `out` (at most `room` bytes with its NUL) and returns the
//   text's length, or 0 on failure (then `out` holds "" when room allows).
//   - family: AF_INET (2) for IPv4; IPv6 under this host's AF_INET6 or under 28, the
//     router's own number for it, which stored values and the library's callers use.
//   - address: the address bytes in network order.
//   - address_len: how many bytes `address` holds; 0 means the family's full length (4 or
//     16). Fewer bytes are the leading ones, the rest read as zero.
//   - with_prefix: non-zero appends "/prefix_len" (the length is printed as given).
//   - with_port: non-zero appends ":port", with an IPv6 address in brackets.
//   Forms: "192.0.2.1", "10.0.0.0/8", "2001:db8::1", "2001:db8::/32", "[2001:db8::1]:80".
//
// format_mac_addr(out, room, address, separator, upper)
//   Writes the 6 bytes at `address` as "00:11:22:aa:bb:cc" (separator 0 means ':'; upper
//   non-zero gives upper-case digits); the text's length, 0 on failure.
//
// addr2ascii(family, address, address_len, out)
//   The address as text in a process-wide buffer (out null) or in `out` (at least 46
//   bytes); "" for an address it cannot format.
//
// time_isostr(seconds)
//   Local time as "YYYY-MM-DDThh:mm:ss" in a process-wide buffer.
#pragma once

#include <cstddef>
#include <ctime>

extern "C" {
__attribute__((visibility("default"))) int format_ipaddr(int family, const void* address,
                                                         unsigned address_len, int with_prefix,
                                                         unsigned prefix_len, int with_port,
                                                         unsigned port, char* out, size_t room);
__attribute__((visibility("default"))) int format_mac_addr(char* out, size_t room,
                                                           const void* address, int separator,
                                                           int upper);
__attribute__((visibility("default"))) char* addr2ascii(int family, const void* address,
                                                        int address_len, char* out);
__attribute__((visibility("default"))) const char* time_isostr(time_t seconds);
}
