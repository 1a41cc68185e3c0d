// Calls with bad arguments end with the status and a trace, never a crash: null
// transaction blocks and tables, transaction blocks used after their transaction ended
// or through a copy, and over-long interface names. What was committed stays.
#include <db.h>

#include <cstring>
#include <string>

#include "libvsk/store/context.h"
#include "store_helpers.h"
#include "support/harness.h"
#include "vsk/shared.h"

namespace vsk::test {
namespace {

class BadArgumentsTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    link_.fd = -1;
    link_.is_orvd = true;
    ASSERT_EQ(InitAs(&link_, true, true), 0);
    db_ = store::Context()->client_session_db;
  }
  void TearDown() override {
    vsk_db_close();
    VskTest::TearDown();
  }
  orvd_ctx link_{};
  DB* db_ = nullptr;
};

TEST_F(BadArgumentsTest, NullBlocksAndTablesGiveMinus6) {
  Bytes key = IdKey(1);
  Bytes val{"one"};
  Decoded out;
  struct Case {
    const char* what;
    vsk_status_t got;
    vsk_status_t want;
  } cases[] = {
      {"start(NULL)", vsk_db_start_txn(nullptr), VSK_ERR_INVALID_PARAM},
      {"end(NULL)", vsk_db_end_txn(nullptr), VSK_ERR_INVALID_PARAM},
      {"abort(NULL, -4)", vsk_db_abort_txn(nullptr, VSK_ERR_RETRY), VSK_OK},  // nothing to abort
      // The recovering rule comes first and touches nothing.
      {"abort(NULL, -11)", vsk_db_abort_txn(nullptr, VSK_ERR_RECOVERING), VSK_ERR_RECOVERING},
      {"put(no table)", dyn_db_put(nullptr, nullptr, &key, Bytes::Encode, &val, Bytes::Encode, 0),
       VSK_ERR_INVALID_PARAM},
      {"put(no encoder)", dyn_db_put(db_, nullptr, &key, Bytes::Encode, &val, nullptr, 0),
       VSK_ERR_INVALID_PARAM},
      {"get(no table)",
       dyn_db_get(nullptr, nullptr, &key, Bytes::Encode, &out, Decoded::Value, 0, nullptr, 0),
       VSK_ERR_INVALID_PARAM},
      {"get(no decoder)", dyn_db_get(db_, nullptr, &key, Bytes::Encode, &out, nullptr, 0, nullptr, 0),
       VSK_ERR_INVALID_PARAM},
      {"del(no table)", dyn_db_del(nullptr, nullptr, &key, Bytes::Encode, 0), VSK_ERR_INVALID_PARAM},
      {"exists(no table)", dyn_db_exists(nullptr, nullptr, &key, Bytes::Encode, 0),
       VSK_ERR_INVALID_PARAM},
      {"get_cursor(no cursor)",
       dyn_db_get_cursor(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, DB_FIRST, nullptr, 0),
       VSK_ERR_INVALID_PARAM},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
  EXPECT_EQ(traces().CountContaining("bad argument"), 7) << traces().Dump();
  EXPECT_EQ(traces().CountContaining("null transaction block"), 2);
  EXPECT_EQ(StoreState(), VSK_ENV_READY) << "nothing of the store was disturbed";
}

TEST_F(BadArgumentsTest, FinishedOrCopiedTransactionBlocksAreRefused) {
  ASSERT_EQ(PutRaw(db_, 10, "kept"), 0);

  // A copy of a block whose original has committed holds a freed handle.
  vsk_db_txn_t original{};
  ASSERT_EQ(vsk_db_start_txn(&original), 0);
  vsk_db_txn_t copy = original;
  Bytes key = IdKey(11);
  Bytes val{"eleven"};
  ASSERT_EQ(dyn_db_put(db_, original.txn, &key, Bytes::Encode, &val, Bytes::Encode, 0), 0);
  EXPECT_EQ(vsk_db_end_txn(&original), 0);
  EXPECT_EQ(vsk_db_end_txn(&original), 0) << "a finished block is an empty one";
  EXPECT_EQ(vsk_db_end_txn(&copy), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(copy.txn, nullptr) << "the stale handle is dropped from the block";
  EXPECT_EQ(vsk_db_abort_txn(&copy, VSK_ERR_RETRY), 0) << "and the block is empty now";

  // A copy made while the original is open may not end it either; the original may.
  vsk_db_txn_t open{};
  ASSERT_EQ(vsk_db_start_txn(&open), 0);
  vsk_db_txn_t twin = open;
  EXPECT_EQ(vsk_db_abort_txn(&twin, VSK_ERR_RETRY), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_abort_txn(&open, VSK_ERR_RETRY), 0);

  // A child ends with its parent: its block is stale afterwards.
  vsk_db_txn_t parent{};
  ASSERT_EQ(vsk_db_start_txn(&parent), 0);
  vsk_db_txn_t child{};
  child.parent = &parent;
  ASSERT_EQ(vsk_db_start_txn(&child), 0);
  EXPECT_EQ(vsk_db_end_txn(&parent), 0);
  EXPECT_EQ(vsk_db_end_txn(&child), VSK_ERR_INVALID_PARAM);

  // A block left over from an environment that has closed.
  vsk_db_txn_t leftover{};
  ASSERT_EQ(vsk_db_start_txn(&leftover), 0);
  ASSERT_EQ(vsk_db_close(), -1) << "a transaction was still open";
  ASSERT_EQ(InitAs(&link_, true, true), 0);
  db_ = store::Context()->client_session_db;
  EXPECT_EQ(vsk_db_abort_txn(&leftover, VSK_ERR_RETRY), VSK_ERR_INVALID_PARAM);

  EXPECT_EQ(traces().CountContaining("is not open in this block"), 4) << traces().Dump();
  std::string value;
  EXPECT_EQ(GetRaw(db_, 10, &value), 0);
  EXPECT_EQ(value, "kept");
  EXPECT_EQ(GetRaw(db_, 11, &value), 0);
  EXPECT_EQ(value, "eleven");
}

TEST_F(BadArgumentsTest, OverlongInterfaceNamesWriteNothing) {
  const std::string longest(VSK_IFD_NAME_MAX - 5, 'a');  // with ".123": 63 characters
  struct Case {
    std::string name;
    std::string device;
    std::string unit;
  } cases[] = {
      {"ge-0/0/1.100", "ge-0/0/1", "100"},
      {longest + ".123", longest, "123"},
      {std::string(VSK_IFD_NAME_MAX, 'b') + ".7", "", ""},
      {std::string(100000, 'c'), "", ""},
  };
  for (const Case& c : cases) {
    char device[VSK_IFD_NAME_MAX + 8];
    char unit[VSK_IFD_NAME_MAX + 8];
    std::memset(device, 0, sizeof device);
    std::memset(unit, 0, sizeof unit);
    device[VSK_IFD_NAME_MAX] = unit[VSK_IFD_NAME_MAX] = '#';  // a guard past the room
    vsk_parse_ifd_name(c.name.c_str(), device, unit);
    EXPECT_EQ(device[VSK_IFD_NAME_MAX], '#') << c.name.size();
    EXPECT_EQ(unit[VSK_IFD_NAME_MAX], '#') << c.name.size();
    EXPECT_EQ(device, c.device) << c.name.size();
    EXPECT_EQ(unit, c.unit) << c.name.size();
  }
  EXPECT_EQ(traces().CountContaining("interface name longer than"), 2);
}

}  // namespace
}  // namespace vsk::test
