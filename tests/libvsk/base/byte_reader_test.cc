// The bounded reader: every read either fits and advances, or fails and leaves the
// position alone; no sequence of reads gets past the end.
#include "libvsk/base/byte_reader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace vsk::test {
namespace {

using base::ByteReader;

// A section walk like the record decoders': tag u32, length u32, contents; the contents
// hold a u16 count and that many u64s, and a text with its NUL.
bool WalkSection(ByteReader r, uint64_t* sum, size_t* text_len) {
  uint32_t tag = 0, length = 0;
  ByteReader body;
  if (!r.Get(&tag) || !r.Get(&length) || !r.Slice(length, &body)) return false;
  uint16_t count = 0;
  if (!body.Get(&count)) return false;
  for (uint16_t i = 0; i < count; ++i) {
    uint64_t v = 0;
    if (!body.Get(&v)) return false;
    *sum += v;
  }
  const char* text = nullptr;
  if (!body.CString(&text, text_len)) return false;
  return body.empty() && r.empty();
}

std::vector<uint8_t> Section(uint16_t count_field, size_t values, const char* text) {
  std::vector<uint8_t> contents(2);
  std::memcpy(contents.data(), &count_field, 2);
  for (size_t i = 0; i < values; ++i) {
    const uint64_t v = i + 1;
    const size_t at = contents.size();
    contents.resize(at + 8);
    std::memcpy(contents.data() + at, &v, 8);
  }
  contents.insert(contents.end(), text, text + std::strlen(text) + 1);
  std::vector<uint8_t> out(8);
  const uint32_t tag = 7, length = static_cast<uint32_t>(contents.size());
  std::memcpy(out.data(), &tag, 4);
  std::memcpy(out.data() + 4, &length, 4);
  out.insert(out.end(), contents.begin(), contents.end());
  return out;
}

TEST(ByteReader, WholeSectionDecodesAndEveryPrefixFailsCleanly) {
  const std::vector<uint8_t> bytes = Section(3, 3, "eth0");
  uint64_t sum = 0;
  size_t text_len = 0;
  ASSERT_TRUE(WalkSection(ByteReader(bytes.data(), bytes.size()), &sum, &text_len));
  EXPECT_EQ(sum, 6u);
  EXPECT_EQ(text_len, 4u);
  for (size_t n = 0; n < bytes.size(); ++n) {
    // A copy of the prefix alone, so that ASan sees any read past it.
    std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(n));
    EXPECT_FALSE(WalkSection(ByteReader(prefix.data(), prefix.size()), &sum, &text_len))
        << "prefix " << n;
  }
}

TEST(ByteReader, LengthsReadFromTheDataAreNotTrusted) {
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
  };
  std::vector<uint8_t> long_length = Section(1, 1, "x");
  const uint32_t huge = 0xFFFFFFF0u;
  std::memcpy(long_length.data() + 4, &huge, 4);
  const Case cases[] = {
      {"count above the values present", Section(5, 2, "x")},
      {"section length past the end", long_length},
      {"text without its NUL",
       [] {
         std::vector<uint8_t> b = Section(0, 0, "ab");
         b.pop_back();
         const uint32_t len = static_cast<uint32_t>(b.size() - 8);
         std::memcpy(b.data() + 4, &len, 4);
         return b;
       }()},
  };
  for (const Case& c : cases) {
    uint64_t sum = 0;
    size_t text_len = 0;
    EXPECT_FALSE(WalkSection(ByteReader(c.bytes.data(), c.bytes.size()), &sum, &text_len))
        << c.what;
  }
}

TEST(ByteReader, FailedReadLeavesThePositionAndPosNeverPassesSize) {
  const uint8_t bytes[6] = {1, 0, 2, 0, 0, 0};
  ByteReader r(bytes, sizeof bytes);
  uint16_t a = 0;
  uint64_t big = 0;
  uint8_t copy[8];
  const uint8_t* p = nullptr;
  ByteReader slice;
  ASSERT_TRUE(r.Get(&a));
  EXPECT_EQ(a, 1u);
  EXPECT_FALSE(r.Get(&big));
  EXPECT_FALSE(r.Bytes(copy, 5));
  EXPECT_FALSE(r.Skip(5));
  EXPECT_FALSE(r.Take(5, &p));
  EXPECT_FALSE(r.Slice(5, &slice));
  EXPECT_EQ(r.pos(), 2u);
  EXPECT_EQ(r.remaining(), 4u);
  uint32_t b = 0;
  ASSERT_TRUE(r.Get(&b));
  EXPECT_EQ(b, 2u);
  EXPECT_TRUE(r.empty());
  EXPECT_FALSE(r.Skip(1));
  EXPECT_TRUE(r.Skip(0));
  EXPECT_EQ(r.pos(), r.size());
  // A null buffer reads as empty whatever size it is given.
  ByteReader none(nullptr, 100);
  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(none.Get(&a));
}

}  // namespace
}  // namespace vsk::test
