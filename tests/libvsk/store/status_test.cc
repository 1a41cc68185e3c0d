// The status table and the translation of raw values, through the public interface.
#include "vsk/status.h"

#include <db.h>

#include <cstring>

#include "support/harness.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

class StatusTest : public VskTest {};

TEST_F(StatusTest, MessageTableByCode) {
  struct Case {
    vsk_status_t status;
    const char* text;  // null: no text
  } cases[] = {
      {-1, "session database unexpected fatal error"},
      {-7,
       "session not found during the lookup or read, or caller requested attribute is not "
       "found"},
      {-20, "snapshot handle only; filtered by config bits"},
      {-26, "Failed to connect to ORVD"},
      {-27, "ISSU in progress"},
      {-18, nullptr},  // no row
      {0, nullptr},
      {-28, "vsk error code exceeds table size"},
      {-29, "vsk error code exceeds table size"},
      {1, "vsk error code exceeds table size"},
  };
  for (const Case& c : cases) {
    const char* got = vsk_get_err_msg(c.status);
    EXPECT_EQ(got == nullptr ? std::string("<null>") : got,
              c.text == nullptr ? std::string("<null>") : c.text)
        << c.status;
  }
}

TEST_F(StatusTest, TranslatesBerkeleyDbValuesByTable) {
  struct Case {
    int raw;
    vsk_status_t status;
  } cases[] = {
      {0, 0},
      {ENOMEM, -2},
      {DB_LOCK_DEADLOCK, -4},
      {DB_LOCK_NOTGRANTED, -4},
      {DB_REP_HANDLE_DEAD, -4},
      {DB_REP_LOCKOUT, -4},
      {DB_NOTFOUND, -7},
      {DB_RUNRECOVERY, -11},
      {DB_SECONDARY_BAD, -5},
      {DB_KEYEXIST, DB_KEYEXIST},  // others pass through unchanged
  };
  for (const Case& c : cases) EXPECT_EQ(get_vsk_err(c.raw), c.status) << c.raw;
}

TEST_F(StatusTest, TracesReservedRangeButNotNotFoundOrBufferSmall) {
  EXPECT_EQ(get_vsk_err(DB_NOTFOUND), -7);
  EXPECT_EQ(get_vsk_err(DB_BUFFER_SMALL), DB_BUFFER_SMALL);
  EXPECT_TRUE(traces().Lines().empty()) << traces().Dump();

  EXPECT_EQ(get_vsk_err(DB_KEYEXIST), DB_KEYEXIST);
  EXPECT_TRUE(traces().Contains(std::string(db_strerror(DB_KEYEXIST)) + "\n"));
  traces().Clear();
  EXPECT_EQ(get_vsk_err(DB_LOCK_DEADLOCK), -4);
  EXPECT_EQ(traces().Lines().size(), 1u);
  traces().Clear();
  // Both ends of the traced range.
  get_vsk_err(DB_BUFFER_SMALL + 1);
  get_vsk_err(-30801);
  EXPECT_EQ(traces().Lines().size(), 2u);
  traces().Clear();
  get_vsk_err(-30800);
  EXPECT_TRUE(traces().Lines().empty());
}

TEST_F(StatusTest, StatusesSurviveTranslationTwice) {
  for (int s = -1; s >= -29; --s) {
    EXPECT_EQ(get_vsk_err(get_vsk_err(s)), s) << s;
  }
  EXPECT_TRUE(traces().Lines().empty()) << traces().Dump();
}

TEST_F(StatusTest, EaccesDependsOnRole) {
  vsk_db_set_master(false);
  EXPECT_EQ(get_vsk_err(EACCES), -13);
  EXPECT_TRUE(traces().Lines().empty());
  vsk_db_set_master(true);
  EXPECT_EQ(get_vsk_err(EACCES), -1);
  EXPECT_TRUE(traces().Contains("VSK unknown error 13"));
  traces().Clear();
  vsk_db_set_master(false);
  EXPECT_EQ(get_vsk_err(ENOENT), -1);
  ASSERT_EQ(traces().Texts(), std::vector<std::string>{"VSK unknown error 2"});
  // Without a store context the trace's handle is null; the level is the library's own.
  EXPECT_EQ(traces().Lines()[0].handle, nullptr);
  EXPECT_EQ(traces().Lines()[0].level, VSK_TRACE_LEVEL);
}

TEST_F(StatusTest, NullHookFormatsNothing) {
  vsk_set_trace_cbk(nullptr);
  // A format that would read a bad pointer if it were formatted.
  EXPECT_EQ(get_vsk_err(ENOENT), -1);
  EXPECT_EQ(get_vsk_err(DB_KEYEXIST), DB_KEYEXIST);
  EXPECT_TRUE(traces().Lines().empty());
}

TEST_F(StatusTest, DebugSwitchTakesLowByte) {
  vsk_orvd_set_debug(1);
  EXPECT_TRUE(vsk_debug);
  vsk_orvd_set_debug(0x100);
  EXPECT_FALSE(vsk_debug);
  vsk_orvd_set_debug(0x101);
  EXPECT_TRUE(vsk_debug);
  vsk_orvd_set_debug(0);
  EXPECT_FALSE(vsk_debug);
}

}  // namespace
}  // namespace vsk::test
