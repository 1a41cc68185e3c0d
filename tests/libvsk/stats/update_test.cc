// The update rules on the sequences a forwarding engine produces, read back from the
// table, with the system log captured through the platform's seam; location id texts and
// the bundle rate sums.
#include <syslog.h>

#include <cstdarg>

#include "platform/logging.h"
#include "stats_fixture.h"

namespace vsk::test {
namespace {

std::vector<std::pair<int, std::string>>& SystemLines() {
  static std::vector<std::pair<int, std::string>> lines;
  return lines;
}

void CaptureSystemLog(int priority, const char* format, va_list args) {
  char line[512];
  std::vsnprintf(line, sizeof line, format, args);
  SystemLines().emplace_back(priority, line);
}

class UpdateTest : public StatsTest {
 protected:
  void SetUp() override {
    StatsTest::SetUp();
    platform::SetSystemLogSink(CaptureSystemLog);
    SystemLines().clear();
    libstats_iflstats_full_clear_syslog_entries_counter();
  }
  void TearDown() override {
    platform::SetSystemLogSink(nullptr);
    StatsTest::TearDown();
  }

  // Sends a reply with `ipackets` and `ipv6_obytes` (and one queue) for ifl 9 on "fpc1".
  vsk_status_t Reply(uint64_t ipackets, uint64_t ipv6_obytes = 0) {
    libstats_iflstats_full_set_t reply{};
    reply.generic.ipackets = ipackets;
    reply.generic.ipv6_obytes = ipv6_obytes;
    reply.q = &q_;
    reply.qcntr[0] = &qcntr_;
    reply.gen_num = 4;
    libstats_iflstats_full_set_version(&reply.ts);
    return libstats_iflstats_full_update_record_in_db(9, &reply, kLoc, 2, 0);
  }
  // The stored record of ifl 9 on "fpc1"; the caller frees it.
  libstats_iflstats_full_t* Stored() {
    libstats_iflstats_full_t* r =
        NewFullRecord(9, std::string(reinterpret_cast<const char*>(kLoc), 2));
    EXPECT_EQ(libstats_get_iflstats_full_record(r), VSK_OK);
    return r;
  }
  uint64_t StoredIpackets() {
    libstats_iflstats_full_t* r = Stored();
    uint64_t v = r->stats[LS_CURRENT].generic.ipackets;
    DeleteFullRecord(r);
    return v;
  }

  static constexpr uint8_t kLoc[2] = {0x12, 0x34};  // shown as "134"
  libstats_ifl_qhdr_t q_{};
  libstats_ifl_qcntr_t qcntr_{};
};

TEST_F(UpdateTest, CountersGrowGlitchesAreKeptAndSpikesAreLogged) {
  q_.num_q = 1;
  qcntr_.output_packets = 77;
  ASSERT_EQ(Reply(1000), VSK_OK);
  EXPECT_TRUE(traces().Contains("iflstats_full for ifl:9 loc_id:134 err:-7 not found in db"));
  libstats_iflstats_full_t* r = Stored();
  // A new record starts with an all-zero LS_CLEARED with the same sections.
  EXPECT_EQ(r->stats[LS_CURRENT].generic.ifl, 9u);
  EXPECT_EQ(r->stats[LS_CURRENT].qcntr[0]->output_packets, 77u);
  ASSERT_NE(r->stats[LS_CLEARED].qcntr[0], nullptr);
  EXPECT_EQ(r->stats[LS_CLEARED].qcntr[0]->output_packets, 0u);
  EXPECT_NE(r->stats[LS_CLEARED].q, nullptr);
  EXPECT_EQ(r->stats[LS_CLEARED].mcast, nullptr);
  EXPECT_EQ(r->stats[LS_CLEARED].gen_num, 4u);
  DeleteFullRecord(r);

  struct Step {
    uint64_t reply, stored;
    uint32_t inflated;  // g_inflated_ifl_ipackets after the step
    size_t log_lines;
  };
  const uint32_t before = g_inflated_ifl_ipackets;
  for (Step s : {Step{999, 1000, 1, 0}, Step{100000, 100000, 1, 0}, Step{0, 100000, 2, 0},
                 Step{34464, 100000, 3, 0}, Step{34463, 34463, 3, 1},
                 Step{0x100000000, 0x100000000, 3, 1}, Step{0xFFFFFFFF, 0x100000000, 4, 1}}) {
    SCOPED_TRACE(s.reply);
    ASSERT_EQ(Reply(s.reply), VSK_OK);
    EXPECT_EQ(StoredIpackets(), s.stored);
    EXPECT_EQ(g_inflated_ifl_ipackets - before, s.inflated);
    EXPECT_EQ(SystemLines().size(), s.log_lines);
  }
  EXPECT_TRUE(
      traces().Contains("record not updated ipackets_record:1000 ipackets_reply:999 for ifl:9"));
  ASSERT_EQ(SystemLines().size(), 1u);
  EXPECT_EQ(SystemLines()[0].first, LOG_ERR);
  EXPECT_EQ(SystemLines()[0].second,
            "downward spike recived from pfe for ipackets_reply:34463 ipackets_record:100000 for "
            "ifl:9 loc_id:134");
  EXPECT_EQ(g_libstats_iflfull_stats_syslog_entries, 1u);

  // A spike in an IPv6 counter is taken without a word.
  ASSERT_EQ(Reply(0x100000000, 500000), VSK_OK);
  ASSERT_EQ(Reply(0x100000000, 1), VSK_OK);
  EXPECT_EQ(SystemLines().size(), 1u);

  // The log limit is shared and holds until cleared.
  g_libstats_iflfull_stats_syslog_entries = 1999;
  ASSERT_EQ(Reply(5), VSK_OK);
  ASSERT_EQ(Reply(0x100000000), VSK_OK);
  ASSERT_EQ(Reply(7), VSK_OK);
  EXPECT_EQ(SystemLines().size(), 2u);
  EXPECT_EQ(g_libstats_iflfull_stats_syslog_entries, 2000u);
  libstats_iflstats_full_clear_syslog_entries_counter();
  EXPECT_EQ(g_libstats_iflfull_stats_syslog_entries, 0u);
}

TEST_F(UpdateTest, AClearMovesTheBaselineAndGrowthLeavesIt) {
  ASSERT_EQ(Reply(500), VSK_OK);
  ASSERT_EQ(Reply(800), VSK_OK);
  ASSERT_EQ(libstats_iflstats_full_clear_by_index(9), VSK_OK);
  EXPECT_TRUE(traces().Contains("num of ifl stats:1 cleared\n"));
  ASSERT_EQ(Reply(1300), VSK_OK);
  libstats_iflstats_full_t* r = Stored();
  EXPECT_EQ(r->stats[LS_CURRENT].generic.ipackets, 1300u);
  EXPECT_EQ(r->stats[LS_CLEARED].generic.ipackets, 800u);
  DeleteFullRecord(r);
}

TEST_F(UpdateTest, LocationTextKeepsTheFirstDigitOfEachByteButTheLast) {
  const uint8_t bytes[] = {0x12, 0x34, 0x0A, 0x05, 0xBC};
  EXPECT_STREQ(fwdd_convert_location_id_str(5, bytes), "13A5BC");  // 0x0A has one digit
  EXPECT_STREQ(fwdd_convert_location_id_str(1, bytes + 2), "A");
  EXPECT_STREQ(fwdd_convert_location_id_str(0, bytes), "");
  const std::vector<uint8_t> many(400, 0xEE);
  EXPECT_EQ(std::strlen(fwdd_convert_location_id_str(400, many.data())), 255u);
}

TEST_F(UpdateTest, BundleRatesAddUpAcrossSetsAndCopyByPosition) {
  libstats_iflstats_full_set_t set{};
  libstats_ifl_agg_t agg{};
  set.aggr = &agg;
  agg.link[0] = {50, 1, {}, 0, 0, 100, 0, 0, 200, 1, 2};
  agg.link[1] = {51, 0, {}, 0, 0, 999, 0, 0, 999, 9, 9};  // not present: not counted
  agg.link[2] = {52, 1, {}, 0, 0, 10, 0, 0, 20, 3, 4};
  libstats_agg_rates_t rates{};
  libstats_iflstats_full_agg_bps_pps(40, 1, &rates, &set);
  libstats_iflstats_full_agg_bps_pps(40, 1, &rates, &set);
  EXPECT_EQ(rates.ibps, 220u);
  EXPECT_EQ(rates.opps, 12u);
  EXPECT_EQ(rates.link[2].obps, 40u);
  EXPECT_EQ(rates.link[1].ifl, 0u);
  EXPECT_TRUE(traces().Contains(" bundle input bps:220 pps:8 output bps:440 pps:12 for ifl:40"));
  libstats_iflstats_full_agg_bps_pps(40, 1, &rates, nullptr);
  EXPECT_TRUE(traces().Contains("failed to update bps/pps for ifl:40"));

  libstats_iflstats_full_t results{};
  libstats_ifl_agg_t out{};
  out.link[0].ifl = 50;
  out.link[2].ifl = 99;  // another child at this position: left alone
  results.stats[LS_CURRENT].aggr = &out;
  libstats_iflstats_full_copy_agg_bps_pps(&results, &rates);
  EXPECT_EQ(out.obps, 440u);
  EXPECT_EQ(out.link[0].ibps, 200u);
  EXPECT_EQ(out.link[2].ibps, 0u);
  results.stats[LS_CURRENT].aggr = nullptr;
  traces().Clear();
  libstats_iflstats_full_copy_agg_bps_pps(&results, &rates);
  EXPECT_EQ(traces().CountContaining("not an agg IFL"), 1);
}

}  // namespace
}  // namespace vsk::test
