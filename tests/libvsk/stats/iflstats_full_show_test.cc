// The operator's view of a full record, compared line by line with text written from the
// published formats, after a trip through the table.
#include "stats_fixture.h"

namespace vsk::test {
namespace {

class FullShowTest : public StatsTest {};

libstats_iflstats_full_t* RichRecord() {
  libstats_iflstats_full_t* r = NewFullRecord(42, "fpc0");
  libstats_iflstats_full_set_t& s = r->stats[LS_CURRENT];
  s.gen_num = r->stats[LS_CLEARED].gen_num = 3;
  s.generic = {42, 0,    42, 1, 100,  6400, 200, 12800, 10, 640,
               20, 1280, 5,  6, 4000, 8000, 11,  12,    {}};
  s.aggr = NewSection<libstats_ifl_agg_t>(0);
  *s.aggr = {{}, 42, 1, {}, 7, 70, 700, 8, 80, 800, 7000, 8000, {}, 13, 14, {}};
  s.aggr->link[0] = {43, 1, {}, 3, 30, 300, 4, 40, 400, 3, 4};
  s.aggr->link[1].ifl = 44;
  s.q = NewSection<libstats_ifl_qhdr_t>(0);
  *s.q = {{}, 100, 2, 3, 4, 101, 0, 1, 90, 0};
  s.qcntr[0] = NewSection<libstats_ifl_qcntr_t>(0);
  *s.qcntr[0] = {{},
                 1000,
                 900,
                 10,
                 9,
                 1,
                 2,
                 3,
                 4,
                 5,
                 6,
                 {1, 2, 3, 4},
                 {10, 20, 30, 40},
                 500,
                 50000,
                 450,
                 45000,
                 50,
                 5000,
                 7,
                 {},
                 {11, 12, 13, 14},
                 {110, 120, 130, 140}};
  s.mcast = NewSection<libstats_ifl_mcast_t>(0);
  *s.mcast = {{}, 1, 5, 2, 6, 3, 7, 4, 8, 9, 13, 10, 14, 11, 15, 12, 16};
  s.pol = NewSection<libstats_ifl_l2pol_t>(0);
  *s.pol = {{},
            42,
            0,
            {1, 2, 3, 4, 5},
            {10, 20, 30, 40, 50},
            {100, 200, 300, 400, 500},
            {6, 7, 8, 9, 10},
            {60, 70, 80, 90, 100},
            {600, 700, 800, 900, 1000},
            15,
            16,
            {}};
  s.es = NewSection<libstats_ifl_es_t>(0x77);  // stored, never shown
  return r;
}

std::vector<std::string> Expected() {
  std::vector<std::string> want = {
      "Displaying LS_CURRENT ifl full stats",
      "gen_num:3 version:163",
      "generic stats for ifl:42 align:1",
      "input packets:100 bytes:6400",
      "output packets:200 bytes:12800",
      "input ipv6 packets:10 bytes:640",
      "output ipv6 packets:20 bytes:1280",
      "input pps:5 bps:4000",
      "output pps:6 bps:8000",
      "reqid:11 pfe-listid:12\n",
      "ae stats for ifl:42 present:1",
      "input pkts:7 bytes:70",
      "input bps:700 input pps:7000",
      "output pkts:8 bytes:80",
      "output bps800 output pps:8000",
      "stats for ae link:0 ifl:43 present:1",
      "link:0 input pkts:3 bytes:30",
      "link:0 input bps:300 pps:3",
      "link:0 output pkts:4 bytes:40",
      "link:0 output bps:400 pps:4",
      "stats for ae link:1 ifl:44 present:0",
  };
  for (int i = 1; i < 32; ++i) {
    if (i > 1) want.push_back("stats for ae link:" + std::to_string(i) + " ifl:0 present:0");
    for (const char* tail : {" input pkts:0 bytes:0", " input bps:0 pps:0",
                             " output pkts:0 bytes:0", " output bps:0 pps:0"}) {
      want.push_back("link:" + std::to_string(i) + tail);
    }
  }
  for (const char* line : {
           "reqid:13 pfe-listid:14\n",
           "q hdr for ifd_index:100 desc:2 reqid:3 listid:4",
           "cifd_index:101 qstart:0 num of q:1",
           "high_threshold:90 unused:0",
           "q counter stats offered-load bps:1000 output bps:900",
           "offered load pps:10 output pps:9",
           "tail drop pps:1 rate limit drop bps:2 pps:3",
           "buf usage mu_byte:4 mu_percent:5 bu_byte:6",
           "red drop pps[0]:1 bps[0]:10",
           "red drop pkts[0]:11 byte[0]:110",
           "red drop pps[1]:2 bps[1]:20",
           "red drop pkts[1]:12 byte[1]:120",
           "red drop pps[2]:3 bps[2]:30",
           "red drop pkts[2]:13 byte[2]:130",
           "red drop pps[3]:4 bps[3]:40",
           "red drop pkts[3]:14 byte[3]:140",
           "offered load pkts:500 bytes:50000",
           "output_pkts:450 bytes:45000",
           "tail drop pkts:50 bytes:5000",
           "rate limit drop pkts:7\n",
           "ipv4 mcast input: 1packets 2bytes",
           "ipv4 mcast input rate: 3 pps 4 bps",
           "ipv4 mcast output: 5packets 6bytes",
           "ipv4 mcast output rate: 7 pps 8 bps",
           "ipv6 mcast input: 9packets 10bytes",
           "ipv6 mcast input rate: 11 pps 12 bps",
           "ipv6 mcast output: 13packets 14bytes",
           "ipv6 mcast output rate: 15 pps 16 bps",
           "l2policer stats ifl:42 align:0",
           "input: low:1 med-low:2 high-low:3 frame count",
           "input: high:4 drop:5 frame count",
           "input: low:10 med-low:20 high-low:30 byte count",
           "input: high:40 drop:50 byte count",
           "input: low:100 med-low:200 high-low:300 rate",
           "input: high:400 drop:500 rate",
           "output: low:6 med-low:7 high-low:8 frame count",
           "output: high:9 drop:10 frame count",
           "output: low:60 med-low:70 high-low:80 byte count",
           "output: high:90 drop:100 byte count",
           "output: low:600 med-low:700 high-low:800 rate",
           "output: high:900 drop:1000 rate",
           "l2policer reqid:15 pfe-listid:16",
           "Displaying LS_CLEARED ifl full stats",
           "gen_num:3 version:163",
           "generic stats for ifl:0 align:0",
           "input packets:0 bytes:0",
           "output packets:0 bytes:0",
           "input ipv6 packets:0 bytes:0",
           "output ipv6 packets:0 bytes:0",
           "input pps:0 bps:0",
           "output pps:0 bps:0",
           "reqid:0 pfe-listid:0\n",
       }) {
    want.push_back(line);
  }
  return want;
}

TEST_F(FullShowTest, RichRecordReadBackShowsEveryLineAsPublished) {
  libstats_iflstats_full_t* r = RichRecord();
  ASSERT_EQ(libstats_write_iflstats_full_record(r), VSK_OK);
  libstats_iflstats_full_t* back = NewFullRecord(42, "fpc0");
  ASSERT_EQ(libstats_get_iflstats_full_record(back), VSK_OK);
  traces().Clear();
  libstats_iflstats_full_show_records(back);
  std::vector<std::string> got = traces().Texts();
  std::vector<std::string> want = Expected();
  for (size_t i = 0; i < std::max(got.size(), want.size()); ++i) {
    ASSERT_EQ(i < got.size() ? got[i] : "<none>", i < want.size() ? want[i] : "<none>")
        << "line " << i;
  }
  traces().Clear();
  libstats_iflstats_full_show_records(nullptr);
  EXPECT_EQ(traces().Texts(),
            std::vector<std::string>{"record for ifl full stats is NULL cannot be dispalyed"});
  DeleteFullRecord(r);
  DeleteFullRecord(back);
}

}  // namespace
}  // namespace vsk::test
