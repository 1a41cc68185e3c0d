// The side data on a real store: provision records across processes, their stored bytes,
// a store close and re-open, refusals that leave the table as it was, the panic rule, a
// standby that lacks the table; and the firewall daemon's record read from a session's
// private data in another process.
#include <db.h>

#include <filesystem>
#include <string>

#include "libvsk/orvd_ctx.h"
#include "libvsk/sidedata/provdb_internal.h"
#include "libvsk/store/store_helpers.h"
#include "pfltd_records.h"
#include "support/harness.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

// A provision record with its own key and data bytes.
struct Provision {
  std::string key;  // head (4 bytes) and tail
  std::string data;
  provdb_provision_info_record_t rec{};

  Provision(std::string k, std::string d) : key(std::move(k)), data(std::move(d)) {
    rec.key_len = static_cast<uint32_t>(key.size() - 4);
    rec.key = reinterpret_cast<uint8_t*>(key.data());
    rec.data_len = static_cast<uint32_t>(data.size());
    rec.data = reinterpret_cast<uint8_t*>(data.data());
  }
  // 0 when the stored record reads back as written, else the step that differed.
  int ReadsBack() {
    provdb_provision_info_record_t got = rec;
    got.data = nullptr;
    if (provdb_get_provision_info_record(&got) != VSK_OK) return 1;
    const std::string bytes(reinterpret_cast<char*>(got.data), got.data_len);
    provdb_provision_free(&got);
    return bytes == data && got.data == nullptr ? 0 : 2;
  }
};

Provision Records(int i) {
  switch (i) {
    case 0:
      return {std::string("\x01\x02\x03\x04", 4), "alpha"};  // no tail: a 4-byte key
    case 1:
      return {std::string("\x01\x02\x03\x04", 4) + "tail", std::string(1020, 'd')};
    default:
      return {std::string("\x09\x00\x00\x07", 4) + std::string(1020, 'k'), ""};
  }
}

class SideDataStoreTest : public VskTest {
 protected:
  // A creating daemon that keeps the store open until told to close it.
  void StartOrvd() {
    orvd_.Start([](Child::Channel& ch) {
      orvd_ctx link{};
      if (InitAs(&link, true, true) != 0) return 1;
      ch.Ready();
      ch.WaitGo();
      return vsk_db_close() == 0 ? 0 : 2;
    });
    ASSERT_TRUE(orvd_.WaitReady());
  }
  void StopOrvd() {
    orvd_.Go();
    EXPECT_TRUE(orvd_.Wait().Ok());
  }
  Child orvd_;
};

TEST_F(SideDataStoreTest, ProvisionRecordsCrossProcessesAndSurviveReopen) {
  StartOrvd();
  auto writer = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    Provision first({std::string("\x01\x02\x03\x04", 4), "replaced below"});
    if (provdb_write_provision_info_record(&first.rec) != 0) return 2;
    for (int i = 0; i < 3; ++i) {
      Provision p = Records(i);
      if (provdb_write_provision_info_record(&p.rec) != 0) return 3 + i;
    }
    return vsk_db_close() == 0 ? 0 : 9;
  });
  ASSERT_TRUE(writer.Ok()) << writer;
  auto reader = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    for (int i = 0; i < 3; ++i) {
      if (int r = Records(i).ReadsBack()) return 10 * i + r;
    }
    // An absent key (same head, other tail) is -7 and leaves `data` alone.
    Provision absent({std::string("\x01\x02\x03\x04", 4) + "tai", "kept"});
    if (provdb_get_provision_info_record(&absent.rec) != VSK_ERR_NOT_FOUND) return 40;
    if (absent.rec.data != reinterpret_cast<uint8_t*>(absent.data.data())) return 41;
    return vsk_db_close() == 0 ? 0 : 42;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
  StopOrvd();

  // The store closed everywhere; a new creator finds every record, stored as laid out.
  orvd_ctx link{};
  ASSERT_EQ(InitAs(&link, true, true), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Records(i).ReadsBack(), 0) << i;
  DB* db = sidedata::provdb_state().db;
  ASSERT_NE(db, nullptr);
  std::string key = std::string("\x01\x02\x03\x04", 4) + "tail";
  DBT k{};
  k.data = key.data();
  k.size = static_cast<uint32_t>(key.size());
  DBT v{};
  v.flags = DB_DBT_MALLOC;
  ASSERT_EQ(db->get(db, nullptr, &k, &v, 0), 0);
  const uint32_t len = 1020;
  EXPECT_EQ(std::string(static_cast<char*>(v.data), v.size),
            std::string(reinterpret_cast<const char*>(&len), 4) + std::string(1020, 'd'));
  std::free(v.data);
  EXPECT_TRUE(std::filesystem::exists(Path("/mfs/var/vsk/dcpprovDB.db")));
  EXPECT_EQ(vsk_db_close(), 0);
}

TEST_F(SideDataStoreTest, RefusalsAndClosedStoreLeaveTheTableAsItWas) {
  Provision r = Records(0);
  EXPECT_EQ(provdb_is_db_open(), 0);
  EXPECT_EQ(provdb_write_provision_info_record(&r.rec), VSK_ERR_FATAL);
  EXPECT_EQ(traces().Count("provdb_store_provision_info_record:- Error invalid vsk env ptr\n"), 1);
  EXPECT_EQ(traces().CountContaining("function:provdb_store_provision_info_record line:"), 2);
  EXPECT_EQ(provdb_get_provision_info_record(&r.rec), VSK_ERR_FATAL);

  orvd_ctx link{};
  ASSERT_EQ(InitAs(&link, true, true), 0);
  EXPECT_EQ(provdb_is_db_open(), 1);
  Provision long_key({std::string(4, 'h') + std::string(1021, 'k'), "x"});
  Provision long_data({std::string(4, 'h'), std::string(1021, 'd')});
  Provision no_key = Records(0);
  no_key.rec.key = nullptr;
  for (Provision* bad : {&long_key, &long_data, &no_key}) {
    EXPECT_EQ(provdb_write_provision_info_record(&bad->rec), VSK_ERR_INVALID_PARAM);
  }
  EXPECT_EQ(provdb_write_provision_info_record(nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(provdb_get_provision_info_record(&long_key.rec), VSK_ERR_INVALID_PARAM);
  long_data.data.resize(1020);
  long_data.rec.data_len = 1020;
  EXPECT_EQ(long_data.ReadsBack(), 1);  // nothing was stored under its key
  provdb_provision_info_record_t empty{};
  provdb_provision_free(&empty);
  EXPECT_EQ(vsk_db_close(), 0);
  EXPECT_EQ(provdb_is_db_open(), 0);
}

TEST_F(SideDataStoreTest, PanicForgetsTheTableWithoutClosingIt) {
  auto r = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, true, true) != 0) return 1;
    if (!sidedata::ProvisionTableOpen()) return 2;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    env->set_flags(env, DB_PANIC_ENVIRONMENT, 1);
    if (!vsk_in_panic) return 3;
    GlobalTraces().Clear();
    if (provdb_db_close() != 0) return 4;
    if (sidedata::ProvisionTableOpen() || sidedata::provdb_state().file_name != nullptr) return 5;
    if (!GlobalTraces().Texts().empty()) return 6;
    vsk_db_close();
    return GlobalTraces().CountContaining("dcp provisioning") == 0 ? 0 : 7;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

TEST_F(SideDataStoreTest, StandbyWithoutTheProvisioningFileGetsMinus12) {
  auto master = RunInChild([] {
    orvd_ctx link{};
    return InitAs(&link, true, true) == 0 && vsk_db_close() == 0 ? 0 : 1;
  });
  ASSERT_TRUE(master.Ok()) << master;
  orvd_.Start([this](Child::Channel& ch) {
    orvd_ctx link{};
    if (InitAs(&link, true, false) != 0) return 1;
    // Recovery brings the file back from the log; take it away again, as on a standby that
    // replication has not yet brought it to.
    std::filesystem::remove(Path("/mfs/var/vsk/dcpprovDB.db"));
    ch.Ready();
    ch.WaitGo();
    return vsk_db_close() == 0 ? 0 : 2;
  });
  ASSERT_TRUE(orvd_.WaitReady());
  auto client = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, false) != VSK_ERR_REP_NOT_STARTED) return 1;
    if (StoreState() != VSK_ENV_NOT_REPLICATED || sidedata::ProvisionTableOpen()) return 2;
    const std::string want =
        std::string("DCF Provisioning database is not available ") + db_strerror(ENOENT);
    if (!GlobalTraces().Contains(want)) return 3;
    if (!GlobalTraces().Contains("provdb_init_db:- Error opening databases\n")) return 4;
    return vsk_db_close() == 0 ? 0 : 5;
  });
  EXPECT_TRUE(client.Ok()) << client;
  StopOrvd();
}

// Stores `bytes` as application `app`'s private data of `session`.
vsk_status_t PutPrivate(vsk_session_id_t session, uint32_t app, std::vector<uint8_t> bytes) {
  const vsk_app_pri_key_t key{session, app};
  vsk_app_data_t data{};
  data.length = static_cast<uint32_t>(bytes.size());
  data.data = bytes.data();
  return InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_app_pri_data(t, &key, &data); });
}

TEST_F(SideDataStoreTest, FirewallRecordReadFromAnotherProcess) {
  StartOrvd();
  auto writer = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    FullRecord full;
    pfltd_vsk_data_t no_lists = full.record;
    no_lists.t6 = {nullptr, 0, 0};
    no_lists.t19 = {nullptr, 0, 0};
    if (PutPrivate(77, VSK_APP_ID_PFLTD, EncodeTlv(no_lists)) != 0) return 2;
    if (PutPrivate(78, VSK_APP_ID_PFLTD - 1, EncodeTlv(full.record)) != 0) return 3;
    // Two elements of one text are not a record.
    std::vector<uint8_t> twice = EncodeTlv(full.record);
    const std::vector<uint8_t> copy = twice;
    twice.insert(twice.end(), copy.begin(), copy.begin() + 12);
    if (PutPrivate(79, VSK_APP_ID_PFLTD, twice) != 0) return 4;
    return vsk_db_close() == 0 ? 0 : 5;
  });
  ASSERT_TRUE(writer.Ok()) << writer;

  auto reader = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    vsk_app_pflt_data_t* d = nullptr;
    if (vsk_app_pflt_data_get(77, &d) != 0 || d == nullptr) return 2;
    FullRecord want;
    auto text = [](const char* a, const char* b) { return a && b && std::string(a) == b; };
    bool ok = text(d->t1, want.record.t1) && d->t2 == want.record.t2 && d->t3_present == 1 &&
              d->t6_present == 0 && text(d->t11, want.record.t11) && d->t12 == want.record.t12 &&
              text(d->t14, want.record.t14) && d->t16_present == 1 && text(d->t7, want.record.t7) &&
              text(d->t9, want.record.t9) && d->t19_count == 0 && d->t19 == nullptr &&
              d->t22_count == want.record.t22.count && text(d->t22[0], want.record.t22.items[0]) &&
              d->t28_count == want.record.t28.count &&
              text(d->t28[d->t28_count - 1], want.record.t28.items[d->t28_count - 1]) &&
              text(d->t33, want.record.t33) && d->t36 == want.record.t36 &&
              text(d->t29, want.record.t29) && text(d->t31, want.record.t31) &&
              d->t32 == want.record.t32;
    vsk_app_pflt_data_free(&d);
    if (!ok || d != nullptr) return 3;
    d = reinterpret_cast<vsk_app_pflt_data_t*>(1);
    if (vsk_app_pflt_data_get(78, &d) != VSK_ERR_NOT_FOUND || d != nullptr) return 4;
    if (vsk_app_pflt_data_get(79, &d) != VSK_ERR_CORRUPT || d != nullptr) return 5;
    return vsk_db_close() == 0 ? 0 : 6;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
  StopOrvd();
}

}  // namespace
}  // namespace vsk::test
