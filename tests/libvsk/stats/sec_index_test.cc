// Clear, delete and sum over the records of one interface on several forwarding
// locations while another process writes to the same tables; the plain table's group
// operations; and the conversion and clean-up walks.
#include <filesystem>
#include <fstream>
#include <functional>

#include "platform/mgtlib_iflm.h"
#include "stats_fixture.h"

namespace vsk::test {
namespace {

// A record of `ifl` on `loc` whose counters derive from `seed`, with queues and an
// aggregate bundle whose children are 50 and 51.
void WriteGroupRecord(uint32_t ifl, const std::string& loc, uint64_t seed, uint32_t gen = 1) {
  libstats_iflstats_full_t* r = NewFullRecord(ifl, loc);
  for (auto& s : r->stats) {
    s.generic = {ifl, 0, ifl, 0, seed, 2 * seed, 3 * seed, 4 * seed, 5, 6,
                 7,   8, 1,   2, 3,    4,        0,        0,        {}};
    s.gen_num = gen;
    s.q = NewSection<libstats_ifl_qhdr_t>(0);
    s.q->num_q = 2;
    for (int i = 0; i < 2; ++i) {
      s.qcntr[i] = NewSection<libstats_ifl_qcntr_t>(0);
      s.qcntr[i]->output_packets = seed + i;
    }
    s.aggr = NewSection<libstats_ifl_agg_t>(0);
    s.aggr->link[seed % 2] = {50, 1, {}, seed, 0, 10, 0, 0, 0, 1, 0};
    s.aggr->link[1 - seed % 2] = {51, 1, {}, seed, 0, 20, 0, 0, 0, 2, 0};
  }
  ASSERT_EQ(libstats_write_iflstats_full_record(r), VSK_OK);
  DeleteFullRecord(r);
}

class SecIndexTest : public StatsTest {};

TEST_F(SecIndexTest, GroupOperationsBesideAWriterInAnotherProcess) {
  for (uint64_t i = 0; i < 3; ++i) WriteGroupRecord(7, "fpc" + std::to_string(i), 10 + i);
  ASSERT_EQ(vsk_db_close(), 0);  // no environment handle may cross a fork
  // Another daemon rewrites the records of interface 100 until told to stop. The tables
  // are small, so its locks fall on the pages the group operations walk: either side may
  // be picked by the deadlock detector and retries, as a daemon does.
  const std::string stop = Path("/mfs/var/tmp/stop-writer");
  Child writer;
  writer.Start([&stop](Child::Channel& ch) {
    orvd_ctx link{};
    if (OpenStore(&link, false) != VSK_OK) return 1;
    ch.Ready();
    uint64_t n = 0;
    for (; n < 4 || !std::filesystem::exists(stop); ++n) {
      libstats_iflstats_full_t* r = NewFullRecord(100, "fpc" + std::to_string(n % 4));
      r->stats[LS_CURRENT].generic.ifl = 100;
      vsk_status_t st = libstats_write_iflstats_full_record(r);
      DeleteFullRecord(r);
      if (st != VSK_OK && st != VSK_ERR_RETRY) return 2;
    }
    return vsk_db_close() == 0 && n > 0 ? 0 : 3;
  });
  ASSERT_TRUE(writer.WaitReady());
  ASSERT_EQ(OpenStore(&link_, false), VSK_OK);
  auto retried = [](const std::function<vsk_status_t()>& op) {
    vsk_status_t st = VSK_ERR_RETRY;
    for (int i = 0; i < 50 && st == VSK_ERR_RETRY; ++i) st = op();
    return st;
  };

  // The sum equals the records read one by one.
  uint64_t ipackets = 0, output0 = 0;
  for (int i = 0; i < 3; ++i) {
    libstats_iflstats_full_t* r = NewFullRecord(7, "fpc" + std::to_string(i));
    ASSERT_EQ(retried([r] { return libstats_get_iflstats_full_record(r); }), VSK_OK);
    ipackets += r->stats[LS_CLEARED].generic.ipackets;
    output0 += r->stats[LS_CURRENT].qcntr[0]->output_packets;
    DeleteFullRecord(r);
  }
  libstats_agg_link_table_t links{};
  links.link[0].ifl = 51;
  links.link[1].ifl = 50;
  uint32_t count = 99;
  libstats_iflstats_full_t* sum = nullptr;
  // A walk cut short by the deadlock detector gives a partial sum: read again.
  for (int i = 0; i < 50 && count != 3; ++i) {
    DeleteFullRecord(sum);
    ASSERT_EQ(libstats_iflstats_full_op_using_sec_index(7, LIBSTATS_OP_GET, &count, &sum, &links,
                                                        nullptr),
              VSK_OK);
  }
  ASSERT_NE(sum, nullptr);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(sum->stats[LS_CLEARED].generic.ipackets, ipackets);
  EXPECT_EQ(sum->stats[LS_CURRENT].qcntr[0]->output_packets, output0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(sum->loc_id), sum->loc_id_len), "fpc0");
  // Links summed by child wherever they stand; the bundle's rates are the links' sums
  // over the added records (the first record's bundle fields stand as they were).
  const libstats_ifl_agg_t& agg = *sum->stats[LS_CURRENT].aggr;
  const auto& link50 = agg.link[0].ifl == 50 ? agg.link[0] : agg.link[1];
  EXPECT_EQ(link50.ipackets, 10u + 11 + 12);
  EXPECT_EQ(agg.ibps, 2u * (10 + 20));
  EXPECT_EQ(agg.ipps, 2u * (1 + 2));
  DeleteFullRecord(sum);

  EXPECT_EQ(retried([&] {
              return libstats_iflstats_full_op_using_sec_index(7, LIBSTATS_OP_CLEAR, &count,
                                                               nullptr, nullptr, nullptr);
            }),
            VSK_OK);
  EXPECT_EQ(count, 3u);
  std::ofstream(stop).put('x');
  EXPECT_TRUE(writer.Wait().Ok());
  libstats_iflstats_full_t* r = NewFullRecord(7, "fpc2");
  ASSERT_EQ(libstats_get_iflstats_full_record(r), VSK_OK);
  EXPECT_EQ(r->stats[LS_CLEARED].generic.ipackets, 12u);
  EXPECT_EQ(r->stats[LS_CLEARED].qcntr[1]->output_packets, 13u);
  DeleteFullRecord(r);

  // An unknown code does nothing and leaves its walk open until the tables close.
  EXPECT_EQ(libstats_iflstats_full_op_using_sec_index(7, 9, &count, nullptr, nullptr, nullptr),
            VSK_OK);
  EXPECT_EQ(libstats_iflstats_full_del_by_index(7), VSK_OK);
  uint32_t seven = 7, hundred = 100;
  EXPECT_TRUE(SecondaryKeys(g_stats.iflstats_full_sec_db, &seven, 4).empty());
  EXPECT_EQ(SecondaryKeys(g_stats.iflstats_full_sec_db, &hundred, 4).size(), 4u);
  EXPECT_EQ(vsk_db_close(), 0) << traces().Dump();
}

TEST_F(SecIndexTest, AnInterfaceWithoutRecords) {
  uint32_t count = 5;
  libstats_iflstats_full_t* sum = nullptr;
  EXPECT_EQ(libstats_iflstats_full_clear_by_index(3), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(libstats_iflstats_full_del_by_index(3), VSK_OK);
  EXPECT_EQ(
      libstats_iflstats_full_op_using_sec_index(3, LIBSTATS_OP_GET, &count, &sum, nullptr, nullptr),
      VSK_OK);
  EXPECT_EQ(count, 0u);
  DeleteFullRecord(sum);
}

TEST_F(SecIndexTest, PlainRecordsAreSummedClearedAndDeletedByIndex) {
  for (uint32_t flags : {0x20000u, 0x1u}) {
    libstats_iflstats_t r{};
    r.index = 5;
    std::string name = "n" + std::to_string(flags);
    r.name_len = static_cast<uint16_t>(name.size());
    r.name = name.data();
    r.value.stats.flags = flags;
    for (int i = 0; i < 12; ++i) {
      r.value.stats.counters[i] = i;
      r.value.stats.ext_counters[i] = 100 + i;
    }
    ASSERT_EQ(libstats_write_iflstats_record(&r), VSK_OK);
  }
  libstats_iflstats_counters_t sum{};
  ASSERT_EQ(libstats_op_iflstats_using_sec_index(5, LIBSTATS_OP_GET, &sum), VSK_OK);
  EXPECT_EQ(sum.flags, 0x20001u);
  EXPECT_EQ(sum.counters[11], 22u);
  EXPECT_EQ(sum.ext_counters[11], 111u);  // from the flagged record only
  ASSERT_EQ(libstats_op_iflstats_using_sec_index(5, LIBSTATS_OP_CLEAR, nullptr), VSK_OK);
  ASSERT_EQ(libstats_op_iflstats_using_sec_index(5, LIBSTATS_OP_GET, &sum), VSK_OK);
  EXPECT_EQ(sum.flags, LIBSTATS_IFLSTATS_CLEARED_FLAGS);
  EXPECT_EQ(sum.counters[3], 0u);
  EXPECT_EQ(libstats_op_iflstats_using_sec_index(5, 0, nullptr), VSK_OK);
  ASSERT_EQ(libstats_op_iflstats_using_sec_index(5, LIBSTATS_OP_DELETE, nullptr), VSK_OK);
  uint64_t index = 5;
  EXPECT_TRUE(SecondaryKeys(g_stats.iflstats_sec_db, &index, 8).empty());
}

TEST_F(SecIndexTest, ConversionWalkCountsVersionsAndChangesNothing) {
  for (uint8_t v : {0, 1, 2}) {
    std::string value(200, '\0');
    value[0] = '\xA5';
    value[1] = static_cast<char>(v);
    ASSERT_EQ(RawPut(g_stats.iflstats_db, Bytes{}.U64(v).b, value), 0);
  }
  traces().Clear();
  libstats_issu_walk_all_stats(LIBSTATS_ISSU_IFLSTATS);
  EXPECT_EQ(traces().Count("add sample issu conversion routine, type 1"), 1);
  EXPECT_EQ(traces().Count("libstats_issu_walk_all_stats(1) iflstats DB version 2 more recent "
                           "than current version 1: IGNORE"),
            1);
  EXPECT_TRUE(
      traces().Contains("libstats_issu_walk_all_stats(1) closing DB: recovered:3, converted:1"));
  EXPECT_EQ(RawGet(g_stats.iflstats_db, Bytes{}.U64(0).b)[1], 0);

  traces().Clear();
  libstats_issu_walk_all_stats(LIBSTATS_ISSU_SERVSTATS);
  std::vector<std::string> want = {
      "libstats_issu_walk_all_stats(2)",
      std::string("libstats_issu_walk_all_stats(2): c_get(") + g_stats.servstats_file +
          ") ret DB_NOTFOUND",
      "libstats_issu_walk_all_stats(2) closing DB: recovered:0, converted:0"};
  EXPECT_EQ(traces().Texts(), want);
  libstats_issu_walk_all_stats(3);
  EXPECT_TRUE(traces().Contains("libstats_issu_walk_all_stats() unknown type 3"));
}

TEST_F(SecIndexTest, CleanUpWalkRemovesExactlyTheRecordsOfGoneInterfaces) {
  mgtlib_iflm_t* living = mgtlib_iflm_open();
  ASSERT_EQ(mgtlib_iflm_add(living, 1, 5, "ge-0/0/0.1", 1500), 0);
  ASSERT_EQ(mgtlib_iflm_add(living, 2, 6, "ge-0/0/0.2", 1500), 0);
  ASSERT_EQ(mgtlib_iflm_add(living, 3, 5, "ge-0/0/0.3", 1500), 0);
  ASSERT_EQ(mgtlib_iflm_remove(living, 3), 0);  // interface 3 went away
  ASSERT_EQ(mgtlib_iflm_remove(living, 3), ENOENT);
  WriteGroupRecord(1, "keep", 1, 5);
  WriteGroupRecord(1, "older-generation", 1, 4);
  WriteGroupRecord(3, "gone", 1, 5);
  libstats_iflstats_full_t* r = NewFullRecord(2, "other-version");
  r->stats[LS_CURRENT].generic.ifl = 2;
  r->stats[LS_CURRENT].gen_num = 6;
  r->stats[LS_CURRENT].ts = 0xA2;
  ASSERT_EQ(libstats_write_iflstats_full_record(r), VSK_OK);
  DeleteFullRecord(r);

  // While the registry cannot say, nothing goes.
  mgtlib_iflm_set_reachable(living, false);
  EXPECT_EQ(libstats_iflstats_full_walk_all_stats(living), VSK_ERR_NOT_FOUND);
  uint32_t one = 1;
  EXPECT_EQ(SecondaryKeys(g_stats.iflstats_full_sec_db, &one, 4).size(), 2u);
  mgtlib_iflm_set_reachable(living, true);
  EXPECT_EQ(libstats_iflstats_full_walk_all_stats(living), VSK_ERR_NOT_FOUND);
  for (uint32_t ifl : {1u, 2u, 3u}) {
    std::vector<std::string> want;
    if (ifl == 1) want.push_back(FullKey(1, "keep"));
    EXPECT_EQ(SecondaryKeys(g_stats.iflstats_full_sec_db, &ifl, 4), want) << ifl;
  }
  mgtlib_iflm_close(living);
}

}  // namespace
}  // namespace vsk::test
