// Filter rule texts decoded into filter term lines, compared line by line with the texts
// a firewall operator expects for IPv4 and IPv6 rules, and the rules that do not decode.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pfltd_records.h"
#include "vsk/pfltd.h"

namespace vsk::test {
namespace {

using Lines = std::vector<std::string>;

Lines Decode(const char* text) {
  char** lines = nullptr;
  vsk_app_pflt_adf_rule_decode(text, &lines);
  Lines out;
  EXPECT_NE(lines, nullptr);
  if (lines == nullptr) return out;
  for (int i = 0; i < VSK_ADF_RULE_LINES; ++i) {
    if (lines[i] != nullptr) out.emplace_back(lines[i]);
  }
  vsk_app_pflt_adr_decode_free(&lines);
  EXPECT_EQ(lines, nullptr);
  return out;
}

const Lines kError = {"Error decoding ADF rule."};

TEST(AdfRule, Ipv4RuleWithEveryMatchField) {
  RuleText r;
  r.action = 1;
  r.src = {10, 1, 0, 0};
  r.src_prefix = 16;
  r.dst = {192, 0, 2, 1};
  r.dst_prefix = 32;
  r.protocol = 6;
  r.src_port = 1024, r.src_op = 3;
  r.dst_port = 80, r.dst_op = 2;
  r.forwarding_class = "expedited";
  r.policer = "police-10m";
  EXPECT_EQ(
      Decode(r.Hex().c_str()),
      Lines({"from {", "    source-address 10.1.0.0/16;", "    destination-address 192.0.2.1/32;",
             "    protocol 6;", "    source-port 1025-65535;", "    destination-port 80;", "}",
             "then {", "    forwarding-class expedited;", "    policer police-10m;", "    accept;",
             "}"}));
}

TEST(AdfRule, Ipv6RuleWithEveryMatchField) {
  RuleText r;
  r.family = 3;
  r.action = 2;
  r.src = {0x20, 0x01, 0x0d, 0xb8};
  r.src_prefix = 32;
  r.dst = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  r.dst_prefix = 128;
  r.protocol = 17;
  r.src_port = 0, r.src_op = 1;  // the upper bound of "less than 0" prints as -1
  r.dst_port = 53, r.dst_op = 4;
  r.policer = std::string(40, 'p');
  EXPECT_EQ(
      Decode(r.Hex().c_str()),
      Lines({"from {", "    source-address 2001:db8::/32;", "    destination-address fe80::1/128;",
             "    protocol 17;", "    source-port 0--1;", "    destination-port-except 53;", "}",
             "then {", "    policer " + std::string(40, 'p') + ";", "    discard;", "}"}));
  r.src_op = 3, r.src_port = 65535;
  r.dst_op = 1, r.dst_port = 1024;
  const Lines got = Decode(r.Hex().c_str());
  ASSERT_GE(got.size(), 6u);
  EXPECT_EQ(got[4], "    source-port 65536-65535;");
  EXPECT_EQ(got[5], "    destination-port 0-1023;");
}

TEST(AdfRule, RulesWithoutMatchFieldsAndOddOperators) {
  RuleText r;
  r.src = {10, 0, 0, 1};  // an address without a prefix length is not a match
  r.src_port = 80;        // nor a port without an operator
  EXPECT_EQ(Decode(r.Hex().c_str()), Lines({"then {", "    discard;", "}"}));
  // An operator without a text of its own repeats the line before it.
  r.protocol = 6;
  r.src_op = 9;
  r.dst_op = 7;
  EXPECT_EQ(Decode(r.Hex().c_str()),
            Lines({"from {", "    protocol 6;", "    protocol 6;", "    protocol 6;", "}", "then {",
                   "    discard;", "}"}));
}

TEST(AdfRule, TextForms) {
  RuleText r;
  r.action = 1;
  r.forwarding_class = "af1";
  const std::string hex = r.Hex();
  std::string spaced;
  for (char c : hex)
    spaced += std::string(" \t\n", 1 + spaced.size() % 3) + c;  // white space before every digit
  std::string upper = hex;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  const Lines want = {"then {", "    forwarding-class af1;", "    accept;", "}"};
  EXPECT_EQ(Decode(spaced.c_str()), want);
  EXPECT_EQ(Decode(upper.c_str()), want);
  // A text that ends after the fixed fields reads both name lengths as 0.
  EXPECT_EQ(Decode(hex.substr(0, 2 * 26).c_str()), Lines({"then {", "    accept;", "}"}));
  // A bad character inside the last name leaves that byte, and every one after it, 0;
  // inside the first name it also fails the second name's length.
  r.policer = "pol";
  std::string bad_name = r.Hex();
  bad_name[2 * 32] = 'g';
  EXPECT_EQ(Decode(bad_name.c_str()),
            Lines({"then {", "    forwarding-class af1;", "    policer p;", "    accept;", "}"}));
  bad_name[2 * 28] = 'g';
  EXPECT_EQ(Decode(bad_name.c_str()), kError);
}

TEST(AdfRule, RulesThatDoNotDecode) {
  RuleText r;
  std::string bad_char = r.Hex();
  bad_char[9] = 'x';  // inside the source address
  RuleText family = r;
  family.family = 2;
  RuleText too_long = r;
  too_long.policer = std::string(41, 'q');
  const std::string short_name =
      r.Hex().substr(0, 2 * 26) + "05616263";  // 5 bytes claimed, 3 given
  for (const std::string& text :
       {std::string(), bad_char, family.Hex(), too_long.Hex(), short_name, std::string("  \n")}) {
    EXPECT_EQ(Decode(text.c_str()), kError) << text;
  }
  EXPECT_EQ(Decode(nullptr), kError);
  vsk_app_pflt_adf_rule_decode("0100", nullptr);  // nowhere to put lines: nothing happens
}

}  // namespace
}  // namespace vsk::test
