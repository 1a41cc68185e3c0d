// The store when Berkeley DB or the file system fails under it, driven through the fault
// seam on a real environment: the status a caller gets, the trace, and that nothing that
// was stored before is lost.
#include <db.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "libvsk/base/fault.h"
#include "platform/paths.h"
#include "store_helpers.h"
#include "vsk/tables.h"

namespace vsk::test {
namespace {

using fault::Kind;

class StoreFaultTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
    db_ = store::Context()->client_session_db;
    ASSERT_EQ(PutRaw(db_, 7, "before"), 0);
    traces().Clear();
  }
  void TearDown() override {
    fault::DisarmAll();
    vsk_db_close();
    VskTest::TearDown();
  }

  // The record stored before the failure, read in a transaction of its own.
  std::string Stored(uint64_t id) {
    std::string value;
    vsk_status_t st = GetRaw(db_, id, &value);
    return st == 0 ? value : "status " + std::to_string(st);
  }

  orvd_ctx link_{};
  DB* db_ = nullptr;
};

TEST_F(StoreFaultTest, AFailedCommitAbortsAndLosesNothingStoredBefore) {
  vsk_db_txn_t txn{};
  ASSERT_EQ(vsk_db_start_txn(&txn), 0);
  Bytes key = IdKey(7);
  Bytes changed{"changed"};
  ASSERT_EQ(dyn_db_put(db_, txn.txn, &key, Bytes::Encode, &changed, Bytes::Encode, 0), 0);
  Bytes other = IdKey(8);
  ASSERT_EQ(dyn_db_put(db_, txn.txn, &other, Bytes::Encode, &changed, Bytes::Encode, 0), 0);
  fault::Arm(Kind::kTxnCommit, 1, DB_LOCK_DEADLOCK);
  EXPECT_EQ(vsk_db_end_txn(&txn), VSK_ERR_RETRY);
  EXPECT_FALSE(fault::Pending(Kind::kTxnCommit));
  EXPECT_EQ(txn.txn, nullptr) << "the handle is gone whatever the result";
  EXPECT_TRUE(traces().Contains(std::string("Failed to end transaction: ") +
                                db_strerror(DB_LOCK_DEADLOCK) + "\n"))
      << traces().Dump();
  EXPECT_EQ(Stored(7), "before");
  EXPECT_EQ(Stored(8), "status -7");
  // The next attempt of the owner's loop goes through.
  ASSERT_EQ(PutRaw(db_, 7, "after"), 0);
  EXPECT_EQ(Stored(7), "after");
}

TEST_F(StoreFaultTest, AFailedBeginLeavesNoTransaction) {
  fault::Arm(Kind::kTxnBegin, 1, ENOMEM);
  vsk_db_txn_t txn{};
  EXPECT_EQ(vsk_db_start_txn(&txn), VSK_ERR_NOMEM);
  EXPECT_EQ(txn.txn, nullptr);
  EXPECT_TRUE(
      traces().Contains(std::string("Failed to start transaction: ") + db_strerror(ENOMEM)));
  EXPECT_EQ(vsk_db_abort_txn(&txn, VSK_ERR_NOMEM), 0) << "nothing to abort";
  EXPECT_EQ(Stored(7), "before");
}

// A table operation that fails inside its caller's transaction gives the translated
// status; the caller's abort keeps what was stored.
TEST_F(StoreFaultTest, FailedTableOperationsTranslateAndTheAbortKeepsTheStore) {
  struct Case {
    Kind kind;
    int injected;
    vsk_status_t want;
  } cases[] = {
      {Kind::kDbPut, DB_LOCK_DEADLOCK, VSK_ERR_RETRY},
      {Kind::kDbPut, ENOSPC, VSK_ERR_FATAL},
      {Kind::kDbGet, DB_LOCK_NOTGRANTED, VSK_ERR_RETRY},
      {Kind::kDbGet, DB_RUNRECOVERY, VSK_ERR_RECOVERING},
      {Kind::kDbDel, DB_LOCK_DEADLOCK, VSK_ERR_RETRY},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.kind));
    SCOPED_TRACE(c.injected);
    vsk_session_id_t id = 7;
    vsk_client_session_t rec{};
    vsk_client_session_t* out = nullptr;
    vsk_db_txn_t txn{};
    ASSERT_EQ(vsk_db_start_txn(&txn), 0);
    fault::Arm(c.kind, 1, c.injected);
    vsk_status_t st = c.kind == Kind::kDbPut   ? vsk_db_put_client_session(&txn, &id, &rec)
                      : c.kind == Kind::kDbGet ? vsk_db_get_client_session(&txn, &id, &out, true)
                                               : vsk_db_del_client_session(&txn, &id);
    EXPECT_EQ(st, c.want);
    EXPECT_EQ(out, nullptr);
    EXPECT_FALSE(fault::Pending(c.kind));
    // -11 leaves the handle alone, as the environment must not be touched; the test's
    // environment is sound, so it is aborted here to go on.
    if (vsk_db_abort_txn(&txn, st) == VSK_ERR_RECOVERING) vsk_db_abort_txn(&txn, VSK_ERR_FATAL);
    EXPECT_EQ(Stored(7), "before");
  }
}

TEST_F(StoreFaultTest, CatastrophicRecoveryGoesOnPastAnUnreadableDirectory) {
  for (const char* f : {"/mfs/var/vsk/shmem/vsk_intf.db", "/mfs/var/vsk/stray"}) {
    std::ofstream(Path(f)) << "x";
  }
  fault::Arm(Kind::kOpendir, 1, EACCES);  // the store's directory
  EXPECT_EQ(vsk_recover_catastrophic(), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("could not open dir : " + platform::RootedPath("/mfs/var/vsk/")));
  EXPECT_TRUE(std::filesystem::exists(Path("/mfs/var/vsk/stray")));
  EXPECT_FALSE(std::filesystem::exists(Path("/mfs/var/vsk/shmem/vsk_intf.db")))
      << "the second directory is emptied all the same";
}

TEST_F(StoreFaultTest, CatastrophicRecoveryCountsTheFilesItCannotRemove) {
  std::ofstream(Path("/mfs/var/vsk/shmem/vsk_intf.db")) << "x";
  // Every file of the store's directory goes but one; the interface file goes too.
  fault::Arm(Kind::kUnlink, 2, EBUSY);
  EXPECT_EQ(vsk_recover_catastrophic(), VSK_ERR_FATAL);
  const std::string dir = platform::RootedPath("/mfs/var/vsk/");
  EXPECT_TRUE(traces().Contains("1 files not removed from " + dir)) << traces().Dump();
  EXPECT_EQ(traces().CountContaining(std::string(": ") + std::strerror(EBUSY)), 1);
  int left = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) left += !e.is_directory();
  EXPECT_EQ(left, 1);
  EXPECT_FALSE(std::filesystem::exists(Path("/mfs/var/vsk/shmem/vsk_intf.db")));
}

}  // namespace
}  // namespace vsk::test
