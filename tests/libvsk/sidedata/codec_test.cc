// The filter daemon's data codecs through the public functions: byte-exact encodings,
// round trips of full records in both forms, the decoders' rules for odd input, every
// truncated prefix and random corruptions (under ASan, with every allocation accounted
// for), and the session index unions.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pfltd_records.h"
#include "vsk/pfltd.h"

namespace vsk::test {
namespace {

using Bytes = std::vector<uint8_t>;

// One tagged element of the record's form, padded as the encoder pads texts and lists.
Bytes Elem(uint16_t tag, const std::string& value, bool pad = true) {
  Bytes b = {static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag),
             static_cast<uint8_t>(value.size() >> 8), static_cast<uint8_t>(value.size())};
  b.insert(b.end(), value.begin(), value.end());
  while (pad && b.size() % 4 != 0) b.push_back(0);
  return b;
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A decode whose allocations are all released and accounted for when it goes.
struct Decoded {
  pfltd_vsk_data_t record{};
  uint8_t mask[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  CountingHeap heap;
  int32_t result = 0;

  Decoded(const Bytes& in, bool with_mask, bool positional = false, int fail_at = -1) {
    heap.fail_at = fail_at;
    const auto size = static_cast<uint32_t>(in.size());
    result = positional
                 ? idr_decode_pfltd_vsk_data_0(&record, in.data(), size, CountingHeap::Alloc, &heap)
                 : tlv_decode_pfltd_vsk_data(&record, with_mask ? mask : nullptr, in.data(), size,
                                             CountingHeap::Alloc, &heap);
  }
  ~Decoded() {
    tlv_release_pfltd_vsk_data(&record, nullptr, CountingHeap::Free, &heap);
    EXPECT_EQ(heap.live, 0);
  }
};

TEST(PfltdCodec, AllZeroRecordIsNumbersAndEmptyListsInFieldOrder) {
  pfltd_vsk_data_t zero{};
  Bytes want;
  for (uint16_t tag : {2,  37, 3,  5,  38, 6,  8,  10, 12, 39, 13, 15, 40,
                       16, 18, 19, 21, 22, 24, 25, 27, 28, 30, 32, 34, 36}) {
    const bool list =
        std::string("\3\6\15\20\23\26\31\34").find(static_cast<char>(tag)) != std::string::npos;
    want = want + Elem(tag, list ? std::string() : std::string(4, '\0'));
  }
  ASSERT_EQ(want.size(), 176u);
  EXPECT_EQ(tlv_encode_pfltd_vsk_data(&zero, nullptr, nullptr, 0), 176u);
  EXPECT_EQ(EncodeTlv(zero), want);
  // The positional form of the same record: each empty text is its NUL padded to 4, each
  // list its zero count.
  EXPECT_EQ(EncodeIdr(zero), Bytes(160, 0));
}

TEST(PfltdCodec, MaskedTextsNumbersAndListsByteExact) {
  pfltd_vsk_data_t r{};
  char ab[] = "ab", x[] = "x", yz[] = "yz";
  char* items[] = {x, yz};
  r.t1 = ab;
  r.t2 = 0x11223344;
  r.t37 = 5;
  r.t3 = {items, 2, 0};
  const uint8_t mask[8] = {0x1b};  // bits 0, 1, 3, 4: the null text of bit 4 writes nothing
  const Bytes want = {0,    1,    0, 3, 'a', 'b', 0,   0, 0,   2,   0, 4, 0x11, 0x22,
                      0x33, 0x44, 0, 3, 0,   5,   'x', 0, 'y', 'z', 0, 0, 0,    0};
  EXPECT_EQ(EncodeTlv(r, mask), want);

  const Bytes positional = {'a', 'b', 0, 0, 0x11, 0x22, 0x33, 0x44, 0, 0, 0, 5,
                            0,   0,   0, 2, 'x',  0,    'y',  'z',  0, 0, 0, 0};
  const Bytes got = EncodeIdr(r);
  ASSERT_GE(got.size(), positional.size());
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 24), positional);
}

TEST(PfltdCodec, EveryBufferSizeWritesOnlyWholeElementsInsideIt) {
  FullRecord full;
  const Bytes tlv = EncodeTlv(full.record);
  const Bytes idr = EncodeIdr(full.record);
  for (const bool tagged : {true, false}) {
    const Bytes& whole = tagged ? tlv : idr;
    for (uint32_t n = 0; n <= whole.size(); ++n) {
      Bytes buf(whole.size() + 8, 0xEE);
      const uint32_t need = tagged ? tlv_encode_pfltd_vsk_data(&full.record, nullptr, buf.data(), n)
                                   : idr_encode_pfltd_vsk_data_0(&full.record, buf.data(), n);
      ASSERT_EQ(need, whole.size());
      for (size_t i = 0; i < buf.size(); ++i) {
        const bool untouched = buf[i] == 0xEE;
        ASSERT_TRUE(i < n ? untouched || buf[i] == whole[i] : untouched) << n << " at " << i;
      }
    }
  }
}

TEST(PfltdCodec, FullRecordsRoundTripInBothForms) {
  for (int salt = 0; salt < 4; ++salt) {
    FullRecord full(salt);
    Decoded tagged(EncodeTlv(full.record), true);
    EXPECT_EQ(tagged.result, static_cast<int32_t>(EncodeTlv(full.record).size()));
    EXPECT_EQ(Diff(tagged.record, full.record), "");
    EXPECT_EQ(Bytes(tagged.mask, tagged.mask + 8), Bytes({0xff, 0xff, 0xff, 0xff, 0xff, 0, 0, 0}));
    Decoded positional(EncodeIdr(full.record), false, true);
    EXPECT_EQ(positional.result, static_cast<int32_t>(EncodeIdr(full.record).size()));
    EXPECT_EQ(Diff(positional.record, full.record), "");
  }
}

TEST(PfltdCodec, TaggedDecoderRules) {
  const Bytes text1 = Elem(1, std::string("abc\0", 4));
  const Bytes number2 = Elem(2, std::string("\x01\x02\x03\x04", 4));
  {  // tag 41 is skipped; the input is used up
    Decoded d(Elem(41, "zzz") + number2, false);
    EXPECT_EQ(d.result, 16);
    EXPECT_EQ(d.record.t2, 0x01020304u);
  }
  {  // a second text: malformed without a mask, the first wins with one
    const Bytes twice = text1 + Elem(1, std::string("second\0", 7));
    EXPECT_EQ(Decoded(twice, false).result, -1);
    Decoded masked(twice, true);
    EXPECT_EQ(masked.result, static_cast<int32_t>(twice.size()));
    EXPECT_STREQ(masked.record.t1, "abc");
    EXPECT_EQ(masked.mask[0], 0x01);
  }
  {  // a second number overwrites without a mask
    Decoded d(number2 + Elem(2, std::string("\0\0\0\x09", 4)), false);
    EXPECT_EQ(d.record.t2, 9u);
  }
  EXPECT_EQ(Decoded(Elem(2, "\x01\x02"), false).result, -1);  // a number of 2 bytes
  EXPECT_EQ(Decoded(Elem(1, ""), false).result, -1);          // a text without room for NUL
  {  // text bytes without their NUL: all but the last byte are kept
    Decoded d(Elem(1, "abcd"), false);
    EXPECT_STREQ(d.record.t1, "abc");
  }
  {  // a list: texts end at NULs, a last one without NUL counts
    Decoded d(Elem(3, std::string("a\0\0bc", 5)), false);
    ASSERT_EQ(d.record.t3.count, 3u);
    EXPECT_STREQ(d.record.t3.items[1], "");
    EXPECT_STREQ(d.record.t3.items[2], "bc");
    EXPECT_EQ(Decoded(Elem(3, "a") + Elem(3, "b"), false).result, -1);
  }
  {  // a length past the input ends the decode before the element
    const Bytes cut = number2 + Bytes{0, 1, 0, 9, 'a', 'b'};
    Decoded d(cut, false);
    EXPECT_EQ(d.result, 8);
    EXPECT_EQ(d.record.t1, nullptr);
  }
  {  // padding past the input ends the decode at the element's end
    Decoded d(Elem(1, std::string("ab\0", 3), false), false);
    EXPECT_EQ(d.result, 7);
    EXPECT_STREQ(d.record.t1, "ab");
  }
  {  // no allocator: texts cannot be read, numbers can
    pfltd_vsk_data_t r{};
    EXPECT_EQ(tlv_decode_pfltd_vsk_data(&r, nullptr, text1.data(), 8, nullptr, nullptr), -2);
    EXPECT_EQ(tlv_decode_pfltd_vsk_data(&r, nullptr, number2.data(), 8, nullptr, nullptr), 8);
  }
}

TEST(PfltdCodec, FailedAllocationsLeaveNothingUnreleased) {
  FullRecord full;
  const Bytes tlv = EncodeTlv(full.record);
  const Bytes idr = EncodeIdr(full.record);
  const int allocations = Decoded(tlv, false).heap.allocations;
  ASSERT_GT(allocations, 30);
  for (int n = 0; n < allocations; ++n) {
    EXPECT_EQ(Decoded(tlv, false, false, n).result, -2) << n;
    EXPECT_EQ(Decoded(idr, false, true, n).result, -2) << n;
  }
}

TEST(PfltdCodec, TruncatedAndCorruptInputNeverFails) {
  FullRecord full;
  const Bytes tlv = EncodeTlv(full.record);
  const Bytes idr = EncodeIdr(full.record);
  int32_t last = -1;
  for (size_t n = 0; n < tlv.size(); ++n) {
    // Exact-size copies, so that ASan sees any read past the end.
    Decoded d(Bytes(tlv.begin(), tlv.begin() + static_cast<long>(n)), true);
    ASSERT_GE(d.result, last) << n;
    ASSERT_LE(d.result, static_cast<int32_t>(n));
    last = d.result;
  }
  for (size_t n = 0; n < idr.size(); ++n) {
    ASSERT_EQ(Decoded(Bytes(idr.begin(), idr.begin() + static_cast<long>(n)), false, true).result,
              -1)
        << n;
  }
  std::mt19937 rng(7);
  for (int i = 0; i < 3000; ++i) {
    Bytes b = (i % 2 == 0) ? tlv : idr;
    for (int k = 0; k < 1 + i % 4; ++k) b[rng() % b.size()] = static_cast<uint8_t>(rng());
    Decoded d(b, i % 3 == 0, i % 2 == 1);
    ASSERT_LE(d.result, static_cast<int32_t>(b.size()));
    ASSERT_GE(d.result, -2);
  }
}

TEST(PfltdCodec, PositionalDecoderRules) {
  Bytes zero(160, 0);
  EXPECT_EQ(Decoded(zero, false, true).result, 160);
  EXPECT_EQ(Decoded(Bytes(), false, true).result, -1);
  Bytes huge = zero;
  huge[15] = 0xff;  // the first list claims more texts than bytes remain
  EXPECT_EQ(Decoded(huge, false, true).result, -1);
  Bytes unterminated = zero;
  unterminated[15] = 1;  // one text, whose NUL would be the next field's first byte
  std::fill(unterminated.begin() + 16, unterminated.end(), 'a');
  EXPECT_EQ(Decoded(unterminated, false, true).result, -1);
}

// The session index unions: every member through its union, byte-exact for one.
TEST(IndexCodec, UnionsRoundTripAndKeepTheirEdgeRules) {
  uint8_t a[] = {10, 0, 0, 1}, b[] = {1, 2, 3, 4, 5};
  vsk_indexes_t v4{};
  v4.type = VSK_INDEXES_IPV4_VR;
  v4.u.ipv4_vr = {{a, 4}, {nullptr, 0}, {b, 5}};
  const Bytes want = {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4, 10, 0, 0, 1, 0, 0, 0, 2,
                      0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 5, 1,  2, 3, 4, 5, 0, 0, 0};
  Bytes got(tlv_encode_vsk_indexes(&v4, nullptr, nullptr, 0));
  ASSERT_EQ(got.size(), want.size());
  tlv_encode_vsk_indexes(&v4, nullptr, got.data(), static_cast<uint32_t>(got.size()));
  EXPECT_EQ(got, want);

  CountingHeap heap;
  for (int32_t type = 0; type < 4; ++type) {
    vsk_dup_indexes_t in{};
    in.type = type;
    in.u.unnum_intf_pref_ip = {{b, 5}, {a, 4}};  // members of one blob use the first
    Bytes buf(tlv_encode_vsk_dup_indexes(&in, nullptr, nullptr, 0));
    tlv_encode_vsk_dup_indexes(&in, nullptr, buf.data(), static_cast<uint32_t>(buf.size()));
    vsk_dup_indexes_t out{};
    uint8_t mask[4];
    EXPECT_EQ(tlv_decode_vsk_dup_indexes(&out, mask, buf.data(), static_cast<uint32_t>(buf.size()),
                                         CountingHeap::Alloc, &heap),
              static_cast<int32_t>(buf.size()));
    EXPECT_EQ(out.type, type);
    EXPECT_EQ(mask[0], type == 0 ? 3 : 1);
    EXPECT_EQ(Bytes(out.u.profile_name.t1.data, out.u.profile_name.t1.data + 5), Bytes(b, b + 5));
    tlv_release_vsk_dup_indexes(&out, nullptr, CountingHeap::Free, &heap);
  }
  EXPECT_EQ(heap.live, 0);

  vsk_indexes_t out{};
  EXPECT_EQ(tlv_decode_vsk_indexes(&out, nullptr, want.data(), 3, CountingHeap::Alloc, &heap), 0);
  EXPECT_EQ(out.type, -1);
  const Bytes unknown = {0, 0, 0, 7};
  EXPECT_EQ(tlv_decode_vsk_indexes(&out, nullptr, unknown.data(), 4, CountingHeap::Alloc, &heap),
            -4);
  v4.type = 7;  // an unknown discriminator encodes as itself alone
  EXPECT_EQ(tlv_encode_vsk_indexes(&v4, nullptr, got.data(), 40), 4u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 4), unknown);
  Bytes repeated = want;
  repeated[19] = 1;  // the second element becomes a second tag 1
  EXPECT_EQ(tlv_decode_vsk_indexes(&out, nullptr, repeated.data(), 40, CountingHeap::Alloc, &heap),
            -1);
  tlv_release_vsk_indexes(&out, nullptr, CountingHeap::Free, &heap);
  EXPECT_EQ(tlv_decode_ipv6_vr(&out.u.ipv6_vr, nullptr, want.data() + 4, 36, nullptr, nullptr), -2);
  EXPECT_EQ(heap.live, 0);
}

}  // namespace
}  // namespace vsk::test
