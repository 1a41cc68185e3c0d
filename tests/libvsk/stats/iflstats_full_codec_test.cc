// The TLV form of full interface statistics records: exact bytes on disk, round trips of
// records with every section, and a decoder that ends in the right status on any value.
#include "libvsk/stats/iflstats_full_codec.h"

#include <random>

#include "stats_fixture.h"

namespace vsk::test {
namespace {

using stats::Buffer;

// Decodes `value` into a fresh record; the status, and the record for the caller.
int Decode(const std::string& value, libstats_iflstats_full_t* out) {
  *out = {};
  // An exact-size heap copy, so that any read past the value is caught.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[value.size() + 1]);
  std::memcpy(copy.get(), value.data(), value.size());
  return stats::DecodeIflstatsFull(copy.get(), static_cast<uint32_t>(value.size()), out);
}

std::string Encode(const libstats_iflstats_full_t& r) {
  Buffer buf;
  uint32_t len = 0;
  EXPECT_EQ(stats::EncodeIflstatsFull(r, &buf, &len), VSK_OK);
  return std::string(reinterpret_cast<char*>(buf.get()), len);
}

class FullCodecTest : public StatsTest {};

TEST_F(FullCodecTest, GenericOnlyRecordIsWrittenAs264ExactBytes) {
  libstats_iflstats_full_t* r = NewFullRecord(0x01020304, "fpc3");
  auto& g = r->stats[LS_CURRENT].generic;
  g.ifl = 0x01020304;
  g.ipackets = 0x1111;
  g.obytes = 0x2222;
  g.ipps = 7;
  g.obps = 0x3333;
  g.reqid = 9;
  r->stats[LS_CURRENT].gen_num = 5;
  r->stats[LS_CLEARED].generic.ibytes = 0x44;
  r->stats[LS_CLEARED].ts = 0xA2;  // written as given: only set_version forces 0xA3

  Bytes current;  // the generic section by its offsets
  current.U32(0x01020304).Zeros(12).U64(0x1111).U64(0).U64(0).U64(0x2222).Zeros(32);
  current.U32(7).U32(0).U64(0).U64(0x3333).U16(9).U16(0).Zeros(4);
  Bytes cleared;
  cleared.Zeros(24).U64(0x44).Zeros(80);
  ASSERT_EQ(current.b.size(), 112u);
  Bytes want;
  want.Tlv(1, current.b).Tlv(12, Bytes{}.U32(0xA3).b).Tlv(13, Bytes{}.U32(5).b);
  want.Tlv(1, cleared.b).Tlv(12, Bytes{}.U32(0xA2).b).Tlv(13, Bytes{}.U32(0).b);
  ASSERT_EQ(want.b.size(), 264u);

  ASSERT_EQ(libstats_write_iflstats_full_record(r), VSK_OK) << traces().Dump();
  EXPECT_EQ(RawGet(g_stats.iflstats_full_db, FullKey(0x01020304, "fpc3")), want.b);
  // The secondary key is the four bytes at value offset 4.
  uint32_t ifl = 0x01020304;
  EXPECT_EQ(SecondaryKeys(g_stats.iflstats_full_sec_db, &ifl, 4),
            std::vector<std::string>{FullKey(ifl, "fpc3")});
  DeleteFullRecord(r);
}

TEST_F(FullCodecTest, EverySectionInBothSetsRoundTripsThroughTheTable) {
  libstats_iflstats_full_t* r = NewFullRecord(77, "loc-a");
  for (int s = 0; s < LS_MAX; ++s) {
    FillEverySection(&r->stats[s], static_cast<uint8_t>(s * 40));
    std::memset(&r->stats[s].generic, 0x5A + s, sizeof(libstats_ifl_generic_t));
    r->stats[s].gen_num = 100 + s;
  }
  r->stats[LS_CURRENT].generic.ifl = 77;
  // The design's fixed work buffer (17104 bytes) is too small for this record.
  EXPECT_EQ(stats::TotalTlvLen(*r), 17296u);
  ASSERT_EQ(libstats_write_iflstats_full_record(r), VSK_OK) << traces().Dump();
  EXPECT_EQ(RawGet(g_stats.iflstats_full_db, FullKey(77, "loc-a")).size(), 17296u);

  libstats_iflstats_full_t* back = NewFullRecord(77, "loc-a");
  ASSERT_EQ(libstats_get_iflstats_full_record(back), VSK_OK) << traces().Dump();
  EXPECT_EQ(Encode(*back), Encode(*r));  // every section came back, in its set and place
  EXPECT_EQ(back->stats[LS_CLEARED].inqcntr[7]->head[0], 40 + 20 + 7);
  EXPECT_EQ(back->stats[LS_CLEARED].gen_num, 101u);

  ASSERT_EQ(libstats_del_iflstats_full_record(back), VSK_OK);
  EXPECT_TRUE(traces().Contains("libstats_del_iflstats_full_record: buflen:256 key_len:9"));
  libstats_iflstats_full_t* gone = NewFullRecord(77, "loc-a");
  EXPECT_EQ(libstats_get_iflstats_full_record(gone), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(traces().Contains("libstats_get_iflstats_full_record: get failed:-7"));
  for (auto* p : {r, back, gone}) DeleteFullRecord(p);
}

// A value with queue counters and sections in both sets, and the offsets at which its
// TLVs start (the last entry is the value's size).
std::pair<std::string, std::vector<size_t>> RichValue() {
  libstats_iflstats_full_t r{};
  FillEverySection(&r.stats[LS_CURRENT], 1, 3);
  r.stats[LS_CLEARED].q = NewSection<libstats_ifl_qhdr_t>(0);
  r.stats[LS_CLEARED].mcast = NewSection<libstats_ifl_mcast_t>(9);
  std::string value = Encode(r);
  libstats_free_iflstats_full_all(&r);
  std::vector<size_t> starts;
  for (size_t pos = 0; pos < value.size();) {
    starts.push_back(pos);
    uint16_t len;
    std::memcpy(&len, value.data() + pos + 2, 2);
    pos += len;
  }
  starts.push_back(value.size());
  return {value, starts};
}

TEST_F(FullCodecTest, EveryTruncatedPrefixEndsCleanly) {
  auto [value, starts] = RichValue();
  for (size_t n = 0; n <= value.size(); ++n) {
    // Bytes behind the last whole TLV: up to 4 are ignored, more are a TLV cut short.
    size_t whole = *std::prev(std::upper_bound(starts.begin(), starts.end(), n));
    int want = n - whole <= 4 ? 0 : EINVAL;
    libstats_iflstats_full_t r;
    ASSERT_EQ(Decode(value.substr(0, n), &r), want) << "prefix " << n;
    libstats_free_iflstats_full_all(&r);
  }
}

TEST_F(FullCodecTest, LengthsTagsAndCountsGiveTheirResults) {
  const std::string generic(112, '\x01');
  struct Case {
    const char* name;
    std::string value;
    int want;
    const char* trace = nullptr;
  };
  std::vector<Case> cases = {
      {"length 3", Bytes{}.U16(1).U16(3).Zeros(8).b, EINVAL},
      {"length 4, an empty section", Bytes{}.U16(1).U16(4).U32(0).b, 0},
      {"length past the end", Bytes{}.U16(1).U16(120).Raw(generic.data(), 112).b, EINVAL},
      {"three stray bytes", Bytes{}.Tlv(1, generic).Zeros(3).b, 0},
      {"unknown tag 15", Bytes{}.Tlv(15, "abcd").Tlv(1, generic).b, 0},
      {"third generic", Bytes{}.Tlv(1, generic).Tlv(1, generic).Tlv(1, generic).b, EINVAL,
       "invalid index iflstats_full:1"},
      {"ninth queue counter of the second set", Bytes{}.b, EINVAL,
       "invalid index iflstats_full:10"},
      {"oversized section, cut to its size", Bytes{}.Tlv(5, std::string(300, 'e')).b, 0},
      {"null with nothing to read", {}, 0},
  };
  for (int i = 0; i < 17; ++i) cases[6].value += Bytes{}.Tlv(10, std::string(216, 'q')).b;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    traces().Clear();
    libstats_iflstats_full_t r;
    EXPECT_EQ(Decode(c.value, &r), c.want) << traces().Dump();
    if (c.trace != nullptr) {
      EXPECT_EQ(traces().Count(c.trace), 1) << traces().Dump();
    }
    libstats_free_iflstats_full_all(&r);
  }
  libstats_iflstats_full_t r{};
  EXPECT_EQ(stats::DecodeIflstatsFull(nullptr, 8, &r), EINVAL);
}

TEST_F(FullCodecTest, SectionsGoToSetsByCountingNotByPosition) {
  // With num of q 2, the third queue counter opens the second set.
  libstats_ifl_qhdr_t q{};
  q.num_q = 2;
  Bytes v;
  v.Tlv(1, std::string(112, '\0')).Tlv(8, Bytes{}.Raw(&q, sizeof q).b);
  for (char c : {'a', 'b', 'c'}) v.Tlv(10, std::string(216, c));
  // An mcast section written only in the second set still lands in the first.
  v.Tlv(1, std::string(112, '\0')).Tlv(14, std::string(104, 'm'));
  libstats_iflstats_full_t r;
  ASSERT_EQ(Decode(v.b, &r), 0);
  EXPECT_EQ(r.stats[0].qcntr[1]->head[0], 'b');
  ASSERT_NE(r.stats[1].qcntr[0], nullptr);
  EXPECT_EQ(r.stats[1].qcntr[0]->head[0], 'c');
  EXPECT_EQ(r.stats[0].qcntr[2], nullptr);
  EXPECT_NE(r.stats[0].mcast, nullptr);
  EXPECT_EQ(r.stats[1].mcast, nullptr);
  libstats_free_iflstats_full_all(&r);
}

TEST_F(FullCodecTest, RandomCorruptionNeverReadsOutOfBounds) {
  auto [value, starts] = RichValue();
  std::mt19937 rng(1234);
  for (int round = 0; round < 3000; ++round) {
    std::string v = value;
    for (int k = 0, n = 1 + round % 6; k < n; ++k) v[rng() % v.size()] = static_cast<char>(rng());
    if (round % 3 == 0) v.resize(rng() % v.size());
    libstats_iflstats_full_t r;
    int st = Decode(v, &r);
    EXPECT_TRUE(st == 0 || st == EINVAL) << st;
    libstats_free_iflstats_full_all(&r);
  }
}

TEST_F(FullCodecTest, UndecodableStoredValueIsReportedAndKept) {
  const std::string bad = Bytes{}.U16(1).U16(2).Zeros(8).b;
  ASSERT_EQ(RawPut(g_stats.iflstats_full_db, FullKey(5, "x"), bad), 0);
  libstats_iflstats_full_t* r = NewFullRecord(5, "x");
  EXPECT_EQ(libstats_get_iflstats_full_record(r), EINVAL);
  EXPECT_TRUE(traces().Contains("copy failed err:22\n"));
  EXPECT_EQ(RawGet(g_stats.iflstats_full_db, FullKey(5, "x")), bad);
  DeleteFullRecord(r);
}

TEST_F(FullCodecTest, FreeingStopsAtTheFirstGapInTheQueueCounters) {
  libstats_iflstats_full_set_t set{};
  set.mcast = NewSection<libstats_ifl_mcast_t>(1);
  set.qcntr[0] = NewSection<libstats_ifl_qcntr_t>(2);
  libstats_ifl_qcntr_t* behind_gap = NewSection<libstats_ifl_qcntr_t>(3);
  set.qcntr[2] = behind_gap;
  libstats_free_iflstats_full(&set);
  EXPECT_EQ(set.mcast, nullptr);
  EXPECT_EQ(set.qcntr[0], nullptr);
  EXPECT_EQ(set.qcntr[2], behind_gap);  // still the caller's
  std::free(behind_gap);
  libstats_free_iflstats_full(nullptr);
}

}  // namespace
}  // namespace vsk::test
