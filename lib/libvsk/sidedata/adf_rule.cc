// The decoder of one stored filter rule into the lines of a firewall filter term, and its
// free. Callers: the firewall daemon and operator tools, from any thread (no state).
//
// A rule is a text of hexadecimal digit pairs, one pair per byte, white space allowed
// before any digit. Its bytes in order: address family (1 IPv4, 3 IPv6), action (1
// accept, else discard), two unused, source and destination address (4 or 16 bytes each),
// source and destination prefix length, protocol, one unused, source and destination port
// (2 bytes each, most significant first), source and destination port operator, four
// unused, then two names (forwarding class, policer), each a length byte of at most 40 and
// that many bytes.
//
// Invariants:
//  1. The reader never passes the text's NUL: an exhausted text reads as zero digits
//     without moving, so a short rule reads zeros where its bytes are missing.
//  2. Every line is formatted into one bounded work buffer and copied from there, so a
//     line never exceeds it whatever the rule holds.
#include <netinet/in.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/format.h"
#include "vsk/pfltd.h"

namespace vsk::sidedata {
namespace {

constexpr uint8_t kFamilyIpv4 = 1;
constexpr uint8_t kFamilyIpv6 = 3;
constexpr uint8_t kActionAccept = 1;
constexpr uint8_t kMaxNameLength = 40;
constexpr size_t kLineRoom = 100;
constexpr size_t kAddressRoom = 50;
constexpr const char kErrorLine[] = "Error decoding ADF rule.";

class HexText {
 public:
  explicit HexText(const char* text) : at_(text) {}

  // One byte of two digits. False on a character that is neither a digit nor white space;
  // the position then stays on it.
  bool Byte(uint8_t* out) {
    unsigned value = 0;
    for (int digit = 0; digit < 2; ++digit) {
      value = (value & 0x0f) * 16;
      while (*at_ != '\0' && std::isspace(static_cast<unsigned char>(*at_))) ++at_;
      if (*at_ == '\0') continue;  // exhausted: the digit is 0
      const int d = DigitValue(*at_);
      if (d < 0) return false;
      value += static_cast<unsigned>(d);
      ++at_;
    }
    *out = static_cast<uint8_t>(value);
    return true;
  }

  // `n` bytes in order, stopping at the first that fails.
  bool Bytes(uint8_t* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      if (!Byte(&out[i])) return false;
    }
    return true;
  }

  // A big-endian number of `n` bytes.
  bool Number(size_t n, uint32_t* out) {
    uint32_t value = 0;
    for (size_t i = 0; i < n; ++i) {
      uint8_t b;
      if (!Byte(&b)) return false;
      value = value << 8 | b;
    }
    *out = value;
    return true;
  }

  size_t CharactersLeft() const { return std::strlen(at_); }

 private:
  static int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  const char* at_;
};

struct Rule {
  uint8_t family = 0;
  uint8_t action = 0;
  uint8_t source[16] = {};
  uint8_t destination[16] = {};
  uint8_t source_prefix = 0;
  uint8_t destination_prefix = 0;
  uint8_t protocol = 0;
  uint32_t source_port = 0;
  uint32_t destination_port = 0;
  uint8_t source_op = 0;
  uint8_t destination_op = 0;
  char forwarding_class[kMaxNameLength + 1] = {};
  char policer[kMaxNameLength + 1] = {};
};

// A name: its length byte, then that many bytes. A byte that fails to read stays 0.
bool ReadName(HexText& in, char (&name)[kMaxNameLength + 1]) {
  uint8_t length;
  if (!in.Byte(&length)) return false;
  if (length == 0) return true;
  if (length > kMaxNameLength || in.CharactersLeft() < 2u * length) return false;
  for (uint8_t i = 0; i < length; ++i) {
    uint8_t b;
    if (in.Byte(&b)) name[i] = static_cast<char>(b);
  }
  return true;
}

bool ReadRule(HexText& in, Rule* r) {
  uint8_t unused[4];
  uint32_t unused_number;
  if (!in.Byte(&r->family)) return false;
  if (r->family != kFamilyIpv4 && r->family != kFamilyIpv6) return false;
  const size_t address_bytes = r->family == kFamilyIpv4 ? 4 : 16;
  return in.Byte(&r->action) && in.Bytes(unused, 2) && in.Bytes(r->source, address_bytes) &&
         in.Bytes(r->destination, address_bytes) && in.Byte(&r->source_prefix) &&
         in.Byte(&r->destination_prefix) && in.Byte(&r->protocol) && in.Byte(&unused[0]) &&
         in.Number(2, &r->source_port) && in.Number(2, &r->destination_port) &&
         in.Byte(&r->source_op) && in.Byte(&r->destination_op) && in.Number(2, &unused_number) &&
         in.Bytes(unused, 2) && ReadName(in, r->forwarding_class) && ReadName(in, r->policer);
}

// The lines of a term, each copied out of one work buffer.
class Lines {
 public:
  explicit Lines(char** out) : out_(out) {}

  // Formats the next line into the work buffer and copies it out.
  template <typename... Args>
  void Add(const char* format, Args... args) {
    std::snprintf(work_, sizeof(work_), format, args...);
    Repeat();
  }
  // Copies the work buffer as the previous line left it.
  void Repeat() {
    if (count_ < VSK_ADF_RULE_LINES) out_[count_++] = strdup(work_);
  }

 private:
  char** out_;
  size_t count_ = 0;
  char work_[kLineRoom] = {};
};

struct PortTexts {
  const char* less;
  const char* equal;
  const char* greater;
  const char* not_equal;
};
constexpr PortTexts kSourcePort = {"    source-port 0-%d;", "    source-port %d;",
                                   "    source-port %d-65535;", "    source-port-except %d;"};
constexpr PortTexts kDestinationPort = {"    destination-port 0-%d;", "    destination-port %d;",
                                        "    destination-port %d-65535;",
                                        "    destination-port-except %d;"};

void PortLine(Lines& lines, const PortTexts& texts, uint8_t op, uint32_t port) {
  const int p = static_cast<int>(port);
  switch (op) {
    case 1:
      lines.Add(texts.less, p - 1);  // port 0 prints an upper bound of -1
      break;
    case 2:
      lines.Add(texts.equal, p);
      break;
    case 3:
      lines.Add(texts.greater, p + 1);
      break;
    case 4:
      lines.Add(texts.not_equal, p);
      break;
    default:
      // An operator without a text of its own repeats the previous line.
      lines.Repeat();
      break;
  }
}

void AddressLine(Lines& lines, const char* format, const Rule& r, const uint8_t* address,
                 uint8_t prefix) {
  char text[kAddressRoom];
  const int family = r.family == kFamilyIpv4 ? AF_INET : AF_INET6;
  format_ipaddr(family, address, 0, 1, prefix, 0, 0, text, sizeof(text));
  lines.Add(format, text);
}

void WriteTerm(const Rule& r, char** out) {
  Lines lines(out);
  const bool match = r.source_prefix != 0 || r.destination_prefix != 0 || r.protocol != 0 ||
                     r.source_op != 0 || r.destination_op != 0;
  if (match) {
    lines.Add("%s", "from {");
    if (r.source_prefix != 0) {
      AddressLine(lines, "    source-address %s;", r, r.source, r.source_prefix);
    }
    if (r.destination_prefix != 0) {
      AddressLine(lines, "    destination-address %s;", r, r.destination, r.destination_prefix);
    }
    if (r.protocol != 0) lines.Add("    protocol %d;", static_cast<int>(r.protocol));
    if (r.source_op != 0) PortLine(lines, kSourcePort, r.source_op, r.source_port);
    if (r.destination_op != 0) {
      PortLine(lines, kDestinationPort, r.destination_op, r.destination_port);
    }
    lines.Add("%s", "}");
  }
  lines.Add("%s", "then {");
  if (r.forwarding_class[0] != '\0') lines.Add("    forwarding-class %s;", r.forwarding_class);
  if (r.policer[0] != '\0') lines.Add("    policer %s;", r.policer);
  lines.Add("%s", r.action == kActionAccept ? "    accept;" : "    discard;");
  lines.Add("%s", "}");
}

}  // namespace
}  // namespace vsk::sidedata

extern "C" {

void vsk_app_pflt_adf_rule_decode(const char* text, char*** lines) {
  using namespace vsk::sidedata;
  if (lines == nullptr) return;
  *lines = static_cast<char**>(std::calloc(VSK_ADF_RULE_LINES, sizeof(char*)));
  if (*lines == nullptr) return;
  HexText in(text != nullptr ? text : "");
  Rule rule;
  if (ReadRule(in, &rule)) {
    WriteTerm(rule, *lines);
  } else {
    (*lines)[0] = strdup(kErrorLine);
  }
}

// The published name says "adr" where the decoder says "adf"; both are kept as they stand.
void vsk_app_pflt_adr_decode_free(char*** lines) {
  if (lines == nullptr || *lines == nullptr) return;
  for (size_t i = 0; i < VSK_ADF_RULE_LINES; ++i) std::free((*lines)[i]);
  std::free(*lines);
  *lines = nullptr;
}

}  // extern "C"
