// Failures injected under the UID table and the authentication records on the real store:
// a record that cannot be written gives its new number back, and a take whose commit
// deadlocks is retried whole, handing out one copy of the list.
#include <db.h>

#include "../vsk/session_fixture.h"
#include "libvsk/base/fault.h"
#include "support/attr_lists.h"

namespace vsk::test {
namespace {

class UidFaultTest : public OrvdInProcessTest {
 protected:
  void TearDown() override {
    fault::DisarmAll();
    OrvdInProcessTest::TearDown();
  }
};

TEST_F(UidFaultTest, AFailedWriteGivesTheNewNumberBackAndStoresNothing) {
  uint32_t uid = 0;
  ASSERT_EQ(vsk_uid_add_db_entry("kept", &uid), 0);
  fault::Arm(fault::Kind::kDbPut, 1, EIO);
  EXPECT_NE(vsk_uid_add_db_entry("lost", &uid), 0);
  EXPECT_TRUE(traces().Contains("vsk_uid_add_db_entry: Failed to Add UID Hash table\n"));
  const auto* pool = static_cast<const int32_t*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL1_OFFSET));
  EXPECT_EQ(pool[2], 1) << "1001 is free again, at the tail";
  EXPECT_EQ(vsk_uid_delete_db_entry("lost"), VSK_ERR_NOT_FOUND);
  ASSERT_EQ(vsk_uid_add_db_entry("kept", &uid), 0);
  EXPECT_EQ(uid, 1000u) << "the stored name is untouched";
}

TEST_F(UidFaultTest, TakeWhoseCommitDeadlocksIsRetriedAndHandsOutOneCopy) {
  const vsk_session_id_t id = NewSession(false);
  AttrList auth{{1, "alice"}, {25, "gold"}};
  ASSERT_EQ(vsk_set_auth_request(id, auth.get()), 0);
  fault::Arm(fault::Kind::kTxnCommit, 1, DB_LOCK_DEADLOCK);
  vsk_attr_list_t* out = nullptr;
  ASSERT_EQ(vsk_get_auth_request(id, true, &out), 0);
  int n = 0;
  for (const vsk_attr_t* a = out->first; a != nullptr; a = a->next) ++n;
  EXPECT_EQ(n, 2);
  vsk_free_auth_info(out);
  EXPECT_EQ(vsk_get_auth_request(id, true, &out), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
}  // namespace vsk::test
