// A real orvd killed with SIGKILL and started again rebuilds pool 1 from the UID table:
// the numbers that stored names hold are in use again, so a new name does not get one of
// them, and a known name keeps its number and count.
#include "../vsk/session_fixture.h"

namespace vsk::test {
namespace {

using UidRestartTest = RealOrvdSessionTest;

TEST_F(UidRestartTest, RestartMarksStoredNumbersInUseAgain) {
  ASSERT_TRUE(StartRealOrvd(false));
  ChildResult before = AsClientDaemon([] {
    uint32_t uid = 0;
    for (const char* name : {"a", "b", "c"}) CHILD_CHECK(vsk_uid_add_db_entry(name, &uid) == 0);
    CHILD_CHECK(uid == 1002);
    CHILD_CHECK(vsk_uid_delete_db_entry("b") == 0);
    return 0;
  });
  ASSERT_TRUE(before.Ok()) << before;

  orvd_.Stop(SIGKILL);
  vsk_close_internal();
  ASSERT_TRUE(StartRealOrvd(false));
  // The rebuild marks 1000 and 1002 in use: 1001 is the first to go, 1003 the next.
  ChildResult after = AsClientDaemon([] {
    uint32_t uid = 0;
    CHILD_CHECK(vsk_uid_add_db_entry("d", &uid) == 0);
    CHILD_CHECK(uid == 1001);
    CHILD_CHECK(vsk_uid_add_db_entry("e", &uid) == 0);
    CHILD_CHECK(uid == 1003);
    CHILD_CHECK(vsk_uid_add_db_entry("a", &uid) == 0);
    CHILD_CHECK(uid == 1000);
    return 0;
  });
  EXPECT_TRUE(after.Ok()) << after;
}

}  // namespace
}  // namespace vsk::test
