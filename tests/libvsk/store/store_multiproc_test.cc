// The store shared by real processes: the creator and clients reading each other's
// records, and the standby, where the creator opens no table and clients only read what
// replication has brought.
#include <db.h>

#include <string>

#include "libvsk/store/context.h"
#include "store_helpers.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

class StoreProcessesTest : public VskTest {};

TEST_F(StoreProcessesTest, OrvdCreatesAndClientsShareRecords) {
  Child orvd;
  orvd.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    if (InitAs(&link, true, true) != 0) return 1;
    if (StoreState() != VSK_ENV_READY) return 2;
    ch.Ready();
    ch.WaitGo();
    return vsk_db_close() == 0 ? 0 : 3;
  });
  ASSERT_TRUE(orvd.WaitReady());

  auto writer = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    if (StoreState() != VSK_ENV_READY) return 2;
    if (PutRaw(store::View().client_session_db(), 42, std::string(300, 'x')) != 0) return 3;
    return vsk_db_close() == 0 ? 0 : 4;
  });
  EXPECT_TRUE(writer.Ok()) << writer;

  auto reader = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, true) != 0) return 1;
    std::string value;
    if (GetRaw(store::View().client_session_db(), 42, &value) != 0) return 2;
    if (value != std::string(300, 'x')) return 3;
    if (GetRaw(store::View().client_session_db(), 43, &value) != VSK_ERR_NOT_FOUND) return 4;
    return vsk_db_close() == 0 ? 0 : 5;
  });
  EXPECT_TRUE(reader.Ok()) << reader;

  orvd.Go();
  EXPECT_TRUE(orvd.Wait().Ok());
}

TEST_F(StoreProcessesTest, StandbyClientWithoutReplicatedTablesGetsMinus12) {
  Child orvd;
  orvd.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    // On the standby the creator stops after replication and opens no table.
    if (InitAs(&link, true, false) != 0) return 1;
    if (StoreState() != VSK_ENV_REPLICATING) return 2;
    if (store::View().client_session_db() != nullptr) return 3;
    ch.Ready();
    ch.WaitGo();
    return vsk_db_close() == 0 ? 0 : 4;
  });
  ASSERT_TRUE(orvd.WaitReady());

  auto client = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, false) != VSK_ERR_REP_NOT_STARTED) return 1;
    if (StoreState() != VSK_ENV_NOT_REPLICATED) return 2;
    std::string want = std::string("Client databases is not available ") + db_strerror(ENOENT);
    if (!GlobalTraces().Contains(want)) return 3;
    // The gate repairs in passing: the link's re-registration finds no shared state.
    if (vsk_db_check() == VSK_OK) return 4;
    if (!GlobalTraces().Contains("db env state is invalid 3, re-init")) return 6;
    return vsk_db_close() == 0 ? 0 : 5;
  });
  EXPECT_TRUE(client.Ok()) << client;

  // The replication daemon, like the creator, stops before the tables on the standby.
  auto lodexd = RunInChild([] {
    orvd_ctx link{};
    SetProgramName("lodexd");
    vsk_db_set_master(false);
    if (vsk_db_init(&link, false) != 0) return 1;
    if (StoreState() != VSK_ENV_REPLICATING) return 2;
    return vsk_db_close() == 0 ? 0 : 3;
  });
  EXPECT_TRUE(lodexd.Ok()) << lodexd;
  orvd.Go();
  EXPECT_TRUE(orvd.Wait().Ok());
}

// The standby only reads, and only what replication has brought.
TEST_F(StoreProcessesTest, StandbyOpensNoMissingTableAndRefusesWrites) {
  Child creator;
  creator.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    if (InitAs(&link, true, true) != VSK_OK) return 1;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    DB* db = nullptr;
    if (dyn_db_open(&db, env, "present-table", 0, true) != 0) return 2;
    Bytes key = IdKey(1);
    if (dyn_db_put(db, nullptr, &key, Bytes::Encode, &key, Bytes::Encode, 0) != VSK_OK) return 3;
    dyn_db_close(db);
    if (vsk_db_close() != 0) return 4;
    ch.Ready();
    ch.WaitGo();
    return 0;
  });
  ASSERT_TRUE(creator.WaitReady());
  creator.Go();
  ASSERT_TRUE(creator.Wait().Ok());

  // The same files, now seen by the creator of a standby, which stops after replication
  // and opens no table of its own: the existing table opens read-only.
  auto standby = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, true, false) != VSK_OK) return 1;
    if (StoreState() != VSK_ENV_REPLICATING) return 12;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    DB* db = reinterpret_cast<DB*>(1);
    if (dyn_db_open(&db, env, "never-replicated", 0, false) != ENOENT) return 2;
    if (db != nullptr) return 3;
    if (dyn_db_open(&db, env, "present-table", 0, false) != 0) return 4;
    Bytes key = IdKey(1);
    if (dyn_db_exists(db, nullptr, &key, Bytes::Encode, 0) != VSK_OK) return 5;
    Bytes other = IdKey(2);
    if (dyn_db_put(db, nullptr, &other, Bytes::Encode, &other, Bytes::Encode, 0) !=
        VSK_ERR_READ_ONLY)
      return 6;
    dyn_db_close(db);
    GlobalTraces().Clear();
    if (vsk_db_app_define(4, "never-replicated") != VSK_ERR_REP_NOT_STARTED) return 7;
    if (StoreState() != VSK_ENV_NOT_REPLICATED) return 8;
    std::string want =
        std::string("Application private database for table id 4 is not available ") +
        db_strerror(ENOENT);
    if (!GlobalTraces().Contains(want)) return 9;
    if (store::View().app_defined_db(4) != nullptr) return 10;
    return vsk_db_close() == 0 ? 0 : 11;
  });
  EXPECT_TRUE(standby.Ok()) << standby;
}

}  // namespace
}  // namespace vsk::test
