// The transaction guard over a real environment: commit keeps, failure aborts and hands
// back the caller's status, -11 leaves the handle alone, the destructor aborts what is
// still open; and its first user, vsk_trigger_sync, with its published trace.
#include "libvsk/store/txn.h"

#include <db.h>

#include "libvsk/store/view.h"
#include "store_helpers.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

using store::Txn;

class TxnGuardTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(InitAs(&link_, true, true), 0) << traces().Dump();
    db_ = store::View().client_session_db();
  }
  void TearDown() override {
    vsk_db_close();
    VskTest::TearDown();
  }
  // One raw write of `id` inside `txn`.
  vsk_status_t Put(Txn& txn, uint64_t id) {
    Bytes key = IdKey(id);
    Bytes value{"v"};
    return dyn_db_put(db_, txn.block()->txn, &key, Bytes::Encode, &value, Bytes::Encode, 0);
  }
  bool Stored(uint64_t id) {
    std::string v;
    return GetRaw(db_, id, &v) == VSK_OK;
  }
  orvd_ctx link_{};
  DB* db_ = nullptr;
};

TEST_F(TxnGuardTest, CommitKeepsFailAbortsWithTheCallersStatusDestructorAborts) {
  {
    vsk_db_txn_t block{};
    Txn txn(&block);
    ASSERT_EQ(txn.Begin(), VSK_OK);
    ASSERT_EQ(Put(txn, 1), VSK_OK);
    EXPECT_EQ(txn.Commit(), VSK_OK);
    EXPECT_FALSE(txn.open());
  }
  {
    vsk_db_txn_t block{};
    Txn txn(&block);
    ASSERT_EQ(txn.Begin(), VSK_OK);
    ASSERT_EQ(Put(txn, 2), VSK_OK);
    EXPECT_EQ(txn.Fail(VSK_ERR_NOT_FOUND), VSK_ERR_NOT_FOUND);
    EXPECT_FALSE(txn.open());
  }
  {
    vsk_db_txn_t block{};
    Txn txn(&block);
    ASSERT_EQ(txn.Begin(), VSK_OK);
    ASSERT_EQ(Put(txn, 3), VSK_OK);
  }  // left open: aborted here
  EXPECT_TRUE(Stored(1));
  EXPECT_FALSE(Stored(2));
  EXPECT_FALSE(Stored(3));
}

TEST_F(TxnGuardTest, RecoveringLeavesTheHandleAndChildTransactionsNest) {
  vsk_db_txn_t parent{};
  Txn outer(&parent);
  ASSERT_EQ(outer.Begin(), VSK_OK);
  DB_TXN* handle = parent.txn;
  EXPECT_EQ(outer.Fail(VSK_ERR_RECOVERING), VSK_ERR_RECOVERING);
  EXPECT_EQ(parent.txn, handle) << "-11: the handle must not be used";
  {
    vsk_db_txn_t child{};
    child.parent = &parent;
    Txn inner(&child);
    ASSERT_EQ(inner.Begin(), VSK_OK);
    ASSERT_EQ(Put(inner, 4), VSK_OK);
    EXPECT_EQ(inner.Commit(), VSK_OK);
  }
  EXPECT_EQ(outer.Commit(), VSK_OK);
  EXPECT_TRUE(Stored(4));
  // The shims refuse a missing block with a status, not a crash.
  EXPECT_EQ(vsk_db_start_txn(nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_end_txn(nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_abort_txn(nullptr, VSK_ERR_RETRY), VSK_OK);
}

// Published text: the misspelt "synchronizatoin" is what daemons and operators match.
TEST_F(TxnGuardTest, TriggerSyncOnAReadOnlyStandbyTracesThePublishedMisspelling) {
  EXPECT_EQ(vsk_trigger_sync(), VSK_OK);
  ASSERT_EQ(vsk_db_close(), 0);
  auto r = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, false, false) != VSK_OK) return 1;
    GlobalTraces().Clear();
    // Not a retry status: one attempt, one trace.
    if (vsk_trigger_sync() != VSK_ERR_READ_ONLY) return 2;
    const std::string want =
        "Failed to trigger db synchronizatoin " + std::to_string(VSK_ERR_READ_ONLY);
    if (GlobalTraces().Count(want) != 1) return 3;
    vsk_db_close();
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
