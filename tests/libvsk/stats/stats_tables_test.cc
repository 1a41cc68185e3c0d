// The statistics tables inside the store: opening and closing with it, exact plain and
// service records, the cursor walk, refusals on a closed store, failures while opening,
// and records shared between processes through both secondary indexes.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "libvsk/store/context.h"
#include "stats_fixture.h"

namespace vsk::test {
namespace {

libstats_iflstats_t* NewIflstats(uint64_t index, const std::string& name, uint32_t flags) {
  auto* r = static_cast<libstats_iflstats_t*>(std::calloc(1, sizeof(libstats_iflstats_t)));
  r->index = index;
  r->name_len = static_cast<uint16_t>(name.size());
  r->name = strdup(name.c_str());
  r->value.stats.flags = flags;
  for (int i = 0; i < LIBSTATS_IFLSTATS_COUNTERS; ++i) {
    r->value.stats.counters[i] = index + i;
    r->value.stats.ext_counters[i] = 1000 + i;
  }
  return r;
}

std::string IflstatsKey(uint64_t index, const std::string& name) {
  return Bytes{}.U64(index).Raw(name.data(), name.size()).b;
}

class StatsTablesTest : public StatsTest {};

TEST_F(StatsTablesTest, TablesOpenWithTheStoreAndKeepRecordsAcrossAReopen) {
  const std::string home = Path("/mfs/var/vsk/");
  EXPECT_EQ(std::string(g_stats.base_path), home);
  EXPECT_EQ(std::string(g_stats.iflstats_full_sec_file), home + "iflstatsfullSecondaryDB.db");
  for (const char* f : {"iflstatsDB.db", "iflstatsSecDB.db", "servstatsDB.db", "iflstatsfullDB.db",
                        "iflstatsfullSecondaryDB.db"}) {
    EXPECT_TRUE(std::filesystem::exists(home + f)) << f;
  }
  libstats_iflstats_t* plain = NewIflstats(3, "ge-0/0/0.3", 0);
  ASSERT_EQ(libstats_write_iflstats_record(plain), VSK_OK);
  libstats_iflstats_full_t* full = NewFullRecord(3, "fpc1");
  ASSERT_EQ(libstats_write_iflstats_full_record(full), VSK_OK);

  traces().Clear();
  ASSERT_EQ(vsk_db_close(), 0);
  EXPECT_TRUE(traces().Contains("closed stats database")) << traces().Dump();
  EXPECT_EQ(g_stats.base_path, nullptr);
  EXPECT_EQ(g_stats.iflstats_full_db, nullptr);

  ASSERT_EQ(OpenStore(&link_), VSK_OK);
  EXPECT_EQ(libstats_get_iflstats_record(plain), VSK_OK);
  EXPECT_EQ(libstats_get_iflstats_full_record(full), VSK_OK);
  uint64_t index = 3;
  EXPECT_EQ(SecondaryKeys(g_stats.iflstats_sec_db, &index, 8).size(), 1u);
  libstats_free_iflstats_record(plain);
  DeleteFullRecord(full);
}

TEST_F(StatsTablesTest, PanicDropsTheHandlesWithoutClosingThem) {
  ASSERT_EQ(vsk_db_close(), 0);  // the panic is the environment's: this process stays out
  ChildResult r = RunInChild([] {
    orvd_ctx link{};
    if (OpenStore(&link) != VSK_OK) return 5;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    env->set_flags(env, DB_PANIC_ENVIRONMENT, 1);
    GlobalTraces().Clear();
    if (vsk_db_close() != -1) return 1;
    if (GlobalTraces().CountContaining("stats database") != 0) return 2;
    if (GlobalTraces().CountContaining("close failed") != 0) return 3;
    return g_stats.iflstats_db == nullptr && g_stats.iflstats_file == nullptr ? 0 : 4;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(StatsTablesTest, PlainRecordIsStoredByteForByteWithMagicAndVersionForced) {
  libstats_iflstats_t* r = NewIflstats(0x1122334455667788, "ae0.7", 0x20000);
  r->value.magic = 0;
  r->value.version = 9;
  r->value.reserved = 0xBEEF;
  Bytes want;
  want.U8(0xA5).U8(1).U16(0xBEEF).U32(0x20000);
  for (int i = 0; i < 12; ++i) want.U64(0x1122334455667788 + i);
  for (int i = 0; i < 12; ++i) want.U64(1000 + i);
  ASSERT_EQ(libstats_write_iflstats_record(r), VSK_OK);
  EXPECT_EQ(RawGet(g_stats.iflstats_db, IflstatsKey(0x1122334455667788, "ae0.7")), want.b);

  libstats_iflstats_t* back = NewIflstats(0x1122334455667788, "ae0.7", 0);
  ASSERT_EQ(libstats_get_iflstats_record(back), VSK_OK);
  EXPECT_EQ(std::memcmp(&back->value, want.b.data(), 200), 0);
  EXPECT_EQ(libstats_del_iflstats_record(back), VSK_OK);  // frees `back`
  EXPECT_EQ(libstats_get_iflstats_record(r), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(traces().Contains("libstats_get_stats_record_from_db: get failed:-7"));
  EXPECT_EQ(libstats_del_iflstats_record(r), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(traces().Contains("libstats_del_stats_record: del failed:-7"));
}

TEST_F(StatsTablesTest, ServiceRecordSizeFollowsItsEntries) {
  struct Case {
    uint16_t count, extra;
    uint32_t size;
  };
  for (Case c : {Case{0, 9, 32}, Case{1, 4, 104}, Case{2, 5, 192}, Case{3, 0, 248}}) {
    SCOPED_TRACE(c.size);
    std::vector<uint8_t> block(8 + c.size);
    auto* r = reinterpret_cast<libstats_servstats_t*>(block.data());
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i * 3);
    r->key = 40 + c.count;
    r->entry_count = c.count;
    r->entry_extra_len = c.extra;
    ASSERT_EQ(libstats_write_servstats_record(r), VSK_OK);
    std::string want(reinterpret_cast<char*>(block.data()) + 8, c.size);
    want[0] = '\xA5';
    want[1] = 1;
    EXPECT_EQ(RawGet(g_stats.servstats_db, Bytes{}.U64(40 + c.count).b), want);

    void* got = nullptr;
    void* payload = nullptr;
    ASSERT_EQ(libstats_get_servstats_record(r, &got, &payload), VSK_OK);
    EXPECT_EQ(payload, static_cast<uint8_t*>(got) + 4);
    EXPECT_EQ(std::memcmp(got, want.data(), c.size), 0);
    std::free(got);
    EXPECT_EQ(libstats_get_servstats_record(r, nullptr, &payload), VSK_ERR_INVALID_PARAM);
    EXPECT_EQ(libstats_del_servstats_record(r, 0), VSK_OK);
    EXPECT_EQ(libstats_get_servstats_record(r, &got, &payload), VSK_ERR_NOT_FOUND);
  }
  EXPECT_TRUE(traces().Contains("invalid NULL argument passed"));
}

TEST_F(StatsTablesTest, CursorWalkCopiesTheStoredValueFromItsFirstByte) {
  for (uint64_t i : {3, 1, 2}) {
    libstats_iflstats_t* r = NewIflstats(i, "if" + std::to_string(i), 0x100 + i);
    ASSERT_EQ(libstats_write_iflstats_record(r), VSK_OK);
    libstats_free_iflstats_record(r);
  }
  libstats_cursor_ctx_t ctx{};
  EXPECT_EQ(libstats_close_cursor(&ctx), VSK_ERR_FATAL);
  for (uint64_t want = 1; want <= 3; ++want) {
    libstats_iflstats_t r{};
    ASSERT_EQ(libstats_get_final_stats_using_cursor(&ctx, &r), VSK_OK);
    EXPECT_EQ(r.index, want);
    EXPECT_EQ(std::string(r.name, r.name_len), "if" + std::to_string(want));
    // The statistics area starts with the stored magic, version and reserved bytes; the
    // stored flags follow at its offset 4.
    const auto* area = reinterpret_cast<const uint8_t*>(&r.value.stats);
    EXPECT_EQ(area[0], 0xA5);
    EXPECT_EQ(area[1], 1);
    uint32_t flags;
    std::memcpy(&flags, area + 4, 4);
    EXPECT_EQ(flags, 0x100 + want);
    std::free(r.name);
  }
  libstats_iflstats_t r{};
  EXPECT_EQ(libstats_get_final_stats_using_cursor(&ctx, &r), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(ctx.cursor, nullptr);
  EXPECT_EQ(ctx.txn, nullptr);

  // A walk ended early commits and releases its cursor.
  ASSERT_EQ(libstats_get_final_stats_using_cursor(&ctx, &r), VSK_OK);
  std::free(r.name);
  EXPECT_EQ(libstats_close_cursor(&ctx), VSK_OK);
  EXPECT_TRUE(traces().Contains("libstats_close_cursor: cursor closed status:0"));
  EXPECT_EQ(ctx.cursor, nullptr);
}

TEST_F(StatsTablesTest, ClosedStoreRefusesEveryOperationAndHonoursTheFreeFlags) {
  ASSERT_EQ(vsk_db_close(), 0);
  vsk_db_reset_orvd_handle();  // as after unregistering: the gate refuses at once
  traces().Clear();
  libstats_iflstats_t* plain = NewIflstats(1, "x", 0);
  EXPECT_EQ(libstats_write_iflstats_record(plain), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("libstats_write_iflstats_record: bad vsk env ptr"));
  EXPECT_EQ(libstats_del_iflstats_record(plain), VSK_ERR_FATAL);  // freed all the same
  libstats_iflstats_full_t* full = NewFullRecord(1, "x");
  EXPECT_EQ(libstats_write_iflstats_full_record(full), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("libstats_write_iflstats_full_record_internal: bad vsk env ptr"));
  DeleteFullRecord(full);
  // A flag of 2 frees on an open store but not on a closed one.
  auto* serv = static_cast<libstats_servstats_t*>(std::calloc(1, sizeof(libstats_servstats_t)));
  EXPECT_EQ(libstats_del_servstats_record(serv, 2), VSK_ERR_FATAL);
  EXPECT_EQ(libstats_del_servstats_record(serv, 1), VSK_ERR_FATAL);  // freed now
  libstats_show_vsk_env_ptr();
  EXPECT_TRUE(traces().Contains("libstats_show_vsk_env_ptr: bad vsk env ptr"));
}

TEST_F(StatsTablesTest, AFailingOpenClosesWhatWasOpenedAndFailsTheStore) {
  ASSERT_EQ(vsk_db_close(), 0);
  EXPECT_EQ(libstats_init_db(nullptr), -1);
  EXPECT_TRUE(traces().Contains("libstats_init_db: Error invalid vsk env ptr"));
  // The servstats file is not a table: the plain pair opened before it is closed again.
  // (A joining daemon runs no recovery, which would trip over the file first.)
  std::filesystem::remove(Path("/mfs/var/vsk/servstatsDB.db"));
  std::ofstream(Path("/mfs/var/vsk/servstatsDB.db")) << std::string(4096, 'x');
  traces().Clear();
  EXPECT_EQ(OpenStore(&link_, false), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("libstats_init_db: Error opening databases")) << traces().Dump();
  EXPECT_EQ(traces().CountContaining("Failed to init stats db "), 1);
  EXPECT_EQ(g_stats.iflstats_db, nullptr);
  EXPECT_EQ(g_stats.iflstats_file, nullptr);
  EXPECT_NE(store::Context()->state, VSK_ENV_READY);
}

TEST_F(StatsTablesTest, RecordsWrittenByOneProcessAreFoundByInterfaceInAnother) {
  ASSERT_EQ(vsk_db_close(), 0);
  Child orvd;
  orvd.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    if (OpenStore(&link) != VSK_OK) return 1;
    ch.Ready();
    ch.WaitGo();
    return vsk_db_close() == 0 ? 0 : 2;
  });
  ASSERT_TRUE(orvd.WaitReady());
  ChildResult writer = RunInChild([] {
    orvd_ctx link{};
    if (OpenStore(&link, false) != VSK_OK) return 1;
    for (const char* loc : {"fpc2", "fpc0", "fpc1"}) {
      libstats_iflstats_full_t* r = NewFullRecord(7, loc);
      r->stats[LS_CURRENT].generic.ifl = 7;
      r->stats[LS_CURRENT].generic.ipackets = loc[3];
      int st = libstats_write_iflstats_full_record(r);
      DeleteFullRecord(r);
      if (st != VSK_OK) return 2;
    }
    libstats_iflstats_t* plain = NewIflstats(7, "other", 0);
    if (libstats_write_iflstats_record(plain) != VSK_OK) return 3;
    libstats_free_iflstats_record(plain);
    return vsk_db_close() == 0 ? 0 : 4;
  });
  ASSERT_TRUE(writer.Ok()) << writer;
  ChildResult reader = RunInChild([] {
    orvd_ctx link{};
    if (OpenStore(&link, false) != VSK_OK) return 1;
    uint32_t ifl = 7;
    std::vector<std::string> want = {FullKey(7, "fpc0"), FullKey(7, "fpc1"), FullKey(7, "fpc2")};
    if (SecondaryKeys(g_stats.iflstats_full_sec_db, &ifl, 4) != want) return 2;
    libstats_iflstats_full_t* r = NewFullRecord(7, "fpc1");
    bool ok = libstats_get_iflstats_full_record(r) == VSK_OK &&
              r->stats[LS_CURRENT].generic.ipackets == '1';
    DeleteFullRecord(r);
    if (!ok) return 3;
    uint64_t index = 7;
    if (SecondaryKeys(g_stats.iflstats_sec_db, &index, 8).size() != 1) return 4;
    return vsk_db_close() == 0 ? 0 : 5;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
  orvd.Go();
  EXPECT_TRUE(orvd.Wait().Ok());
}

}  // namespace
}  // namespace vsk::test
