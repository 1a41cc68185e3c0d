// The generic table engine against a real environment: keys and values of every size,
// what decoder results become, lookups through secondary tables and cursors, and the
// registry of application-defined tables across a close.
#include <db.h>

#include <cstring>
#include <string>
#include <vector>

#include "libvsk/store/view.h"
#include "store_helpers.h"
#include "support/harness.h"

namespace vsk::test {
namespace {

class DynDbTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(InitAs(&link_, true, true), VSK_OK) << traces().Dump();
    ASSERT_EQ(vsk_db_get_dbenv(&env_), 0);
    // A plain table: keys of any length, byte order.
    ASSERT_EQ(dyn_db_open(&raw_, env_, "dyn-db-test", 0, true), 0) << traces().Dump();
  }
  void TearDown() override {
    EXPECT_EQ(dyn_db_close(raw_), 0);
    EXPECT_EQ(vsk_db_close(), 0);
    VskTest::TearDown();
  }

  vsk_status_t Put(const Bytes& key, const Bytes& value) {
    return dyn_db_put(raw_, nullptr, &key, Bytes::Encode, &value, Bytes::Encode, 0);
  }

  orvd_ctx link_{};
  DB_ENV* env_ = nullptr;
  DB* raw_ = nullptr;
};

Bytes Key(size_t n, char fill = 'k') { return Bytes{std::string(n, fill)}; }

// Keys and values on either side of the engine's local buffers (8 and 12 bytes of key,
// 512 of value) come back byte for byte; exists and del find the same key.
TEST_F(DynDbTest, KeysAndValuesOfEverySizeRoundTrip) {
  for (size_t key_size : {8u, 9u, 12u, 13u, 300u}) {
    for (size_t size : {0u, 1u, 512u, 513u, 70000u}) {
      SCOPED_TRACE(testing::Message() << key_size << "-byte key, " << size << "-byte value");
      Bytes key = Key(key_size, static_cast<char>('a' + size % 26));
      std::string body(size, '\0');
      for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 + 3);
      ASSERT_EQ(Put(key, Bytes{body}), VSK_OK);
      EXPECT_EQ(dyn_db_exists(raw_, nullptr, &key, Bytes::Encode, 0), VSK_OK);
      Decoded out;
      ASSERT_EQ(dyn_db_get(raw_, nullptr, &key, Bytes::Encode, &out, Decoded::Value, 0, nullptr, 0),
                VSK_OK);
      EXPECT_EQ(out.bytes, body);
      EXPECT_EQ(dyn_db_del(raw_, nullptr, &key, Bytes::Encode, 0), VSK_OK);
      EXPECT_EQ(dyn_db_exists(raw_, nullptr, &key, Bytes::Encode, 0), VSK_ERR_NOT_FOUND);
      EXPECT_EQ(dyn_db_del(raw_, nullptr, &key, Bytes::Encode, 0), VSK_ERR_NOT_FOUND);
    }
  }
}

TEST_F(DynDbTest, DecoderResultsBecomeStatusesAndTheBufferStaysWithTheObject) {
  Bytes key = Key(8);
  ASSERT_EQ(Put(key, Bytes{"0123456789"}), VSK_OK);

  // Filtered: the status passes and the object holds the record for the caller to release.
  Decoded filtered;
  filtered.result_override = VSK_ERR_SNAPSHOT_ONLY;
  EXPECT_EQ(
      dyn_db_get(raw_, nullptr, &key, Bytes::Encode, &filtered, Decoded::Value, 0, nullptr, 0),
      VSK_ERR_SNAPSHOT_ONLY);
  EXPECT_NE(filtered.raw, nullptr);
  EXPECT_EQ(filtered.bytes, "0123456789");

  Decoded nomem;
  nomem.result_override = VSK_ERR_NOMEM;
  EXPECT_EQ(dyn_db_get(raw_, nullptr, &key, Bytes::Encode, &nomem, Decoded::Value, 0, nullptr, 0),
            VSK_ERR_NOMEM);

  // Anything else that is not the record's size is corruption: short, long, other statuses.
  for (int result : {9, 11, -1, static_cast<int>(VSK_ERR_NOT_FOUND)}) {
    SCOPED_TRACE(result);
    Decoded bad;
    bad.result_override = result;
    EXPECT_EQ(dyn_db_get(raw_, nullptr, &key, Bytes::Encode, &bad, Decoded::Value, 0, nullptr, 0),
              VSK_ERR_CORRUPT);
  }

  // A missing record never reaches the decoder.
  Bytes missing = Key(8, 'z');
  Decoded none;
  EXPECT_EQ(
      dyn_db_get(raw_, nullptr, &missing, Bytes::Encode, &none, Decoded::Value, 0, nullptr, 0),
      VSK_ERR_NOT_FOUND);
  EXPECT_EQ(none.raw, nullptr);
}

TEST_F(DynDbTest, CursorWalksInKeyOrderAndDecoderRefusalsFreeWhatTheyDidNotTake) {
  for (char c : std::string("dbca")) ASSERT_EQ(Put(Key(4, c), Bytes{std::string(3, c)}), VSK_OK);

  DBC* cursor = nullptr;
  ASSERT_EQ(raw_->cursor(raw_, nullptr, &cursor, 0), 0);
  std::string keys;
  std::string values;
  for (;;) {
    Decoded k;
    Decoded v;
    vsk_status_t st = dyn_db_get_cursor(cursor, nullptr, nullptr, &k, Decoded::Key, &v,
                                        Decoded::Value, nullptr, nullptr, DB_NEXT, nullptr, 0);
    if (st == VSK_ERR_NOT_FOUND) break;
    ASSERT_EQ(st, VSK_OK);
    keys += k.bytes.substr(0, 1);
    values += v.bytes;
  }
  EXPECT_EQ(keys, "abcd");
  EXPECT_EQ(values, "aaabbbcccddd");

  // Positioning without data, then a keyed read from there.
  std::string c_key(4, 'c');
  EXPECT_EQ(dyn_db_set_cursor(cursor, c_key.data(), 4), VSK_OK);
  std::string e_key(4, 'e');
  EXPECT_EQ(dyn_db_set_cursor(cursor, e_key.data(), 4), VSK_ERR_NOT_FOUND);
  Bytes b_key = Key(4, 'b');
  Decoded k;
  Decoded v;
  EXPECT_EQ(dyn_db_get_cursor(cursor, &b_key, Bytes::Encode4, &k, Decoded::Key, &v, Decoded::Value,
                              nullptr, nullptr, DB_SET, nullptr, 0),
            VSK_OK);
  EXPECT_EQ(v.bytes, "bbb");

  // A refusing key decoder: the status maps as for values; the leak checker of the
  // sanitizer build sees any buffer that was neither taken nor freed.
  Decoded refusing_key;
  refusing_key.result_override = VSK_ERR_SNAPSHOT_ONLY;
  Decoded untouched;
  EXPECT_EQ(dyn_db_get_cursor(cursor, nullptr, nullptr, &refusing_key, Decoded::Key, &untouched,
                              Decoded::Value, nullptr, nullptr, DB_FIRST, nullptr, 0),
            VSK_ERR_SNAPSHOT_ONLY);
  EXPECT_EQ(untouched.raw, nullptr);
  refusing_key.result_override = 1;
  EXPECT_EQ(dyn_db_get_cursor(cursor, nullptr, nullptr, &refusing_key, Decoded::Key, nullptr,
                              nullptr, nullptr, nullptr, DB_FIRST, nullptr, 0),
            VSK_ERR_CORRUPT);
  // No decoders at all: everything Berkeley DB returned is freed by the engine.
  EXPECT_EQ(dyn_db_get_cursor(cursor, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr, DB_LAST, nullptr, 0),
            VSK_OK);
  ASSERT_EQ(cursor->close(cursor), 0);
}

// Secondary key: the first two bytes of the value.
int FirstTwoBytes(DB*, const DBT*, const DBT* data, DBT* result) {
  std::memset(result, 0, sizeof(*result));
  result->data = data->data;
  result->size = data->size < 2 ? data->size : 2;
  return 0;
}

struct SecondaryOut {
  std::string bytes;
  static int Decode(void* out, int, void* data, uint32_t size, void* (*)(size_t), int) {
    static_cast<SecondaryOut*>(out)->bytes.assign(static_cast<const char*>(data), size);
    std::free(data);
    return static_cast<int>(size);
  }
};

TEST_F(DynDbTest, SecondaryTableLookupsReturnPrimaryKeyAndValue) {
  DB* secondary = nullptr;
  ASSERT_EQ(
      dyn_db_sec_open(&secondary, env_, "dyn-db-test-by-prefix", raw_, FirstTwoBytes, DB_DUPSORT),
      0)
      << traces().Dump();
  ASSERT_EQ(Put(Key(8, '1'), Bytes{"xyone"}), VSK_OK);
  ASSERT_EQ(Put(Key(8, '2'), Bytes{"potwo"}), VSK_OK);

  Bytes prefix{"po"};
  Decoded primary;
  Decoded value;
  ASSERT_EQ(dyn_vsk_get(secondary, nullptr, &prefix, Bytes::Encode4, &primary, Decoded::Key, &value,
                        Decoded::Value, 0),
            VSK_OK);
  EXPECT_EQ(primary.bytes, std::string(8, '2'));
  EXPECT_EQ(value.bytes, "potwo");
  // Without decoders the engine frees both buffers.
  EXPECT_EQ(dyn_vsk_get(secondary, nullptr, &prefix, Bytes::Encode4, nullptr, nullptr, nullptr,
                        nullptr, 0),
            VSK_OK);
  // A key decoder that refuses: its status maps, nothing leaks.
  Decoded refusing;
  refusing.result_override = VSK_ERR_NOMEM;
  EXPECT_EQ(dyn_vsk_get(secondary, nullptr, &prefix, Bytes::Encode4, &refusing, Decoded::Key,
                        nullptr, nullptr, 0),
            VSK_ERR_NOMEM);
  Bytes absent{"zz"};
  EXPECT_EQ(dyn_vsk_get(secondary, nullptr, &absent, Bytes::Encode4, &primary, Decoded::Key,
                        nullptr, nullptr, 0),
            VSK_ERR_NOT_FOUND);

  // A secondary cursor with the secondary decoder gets all three parts.
  DBC* cursor = nullptr;
  ASSERT_EQ(secondary->cursor(secondary, nullptr, &cursor, 0), 0);
  Decoded k;
  Decoded v;
  SecondaryOut skey;
  ASSERT_EQ(dyn_db_get_cursor(cursor, nullptr, nullptr, &k, Decoded::Key, &v, Decoded::Value, &skey,
                              SecondaryOut::Decode, DB_FIRST, nullptr, 0),
            VSK_OK);
  EXPECT_EQ(skey.bytes, "po");
  EXPECT_EQ(k.bytes, std::string(8, '2'));
  EXPECT_EQ(v.bytes, "potwo");
  ASSERT_EQ(cursor->close(cursor), 0);

  // Deleting through the primary removes the secondary entry.
  Bytes two = Key(8, '2');
  ASSERT_EQ(dyn_db_del(raw_, nullptr, &two, Bytes::Encode, 0), VSK_OK);
  EXPECT_EQ(dyn_vsk_get(secondary, nullptr, &prefix, Bytes::Encode4, nullptr, nullptr, nullptr,
                        nullptr, 0),
            VSK_ERR_NOT_FOUND);
  EXPECT_EQ(dyn_db_close(secondary), 0);
}

TEST_F(DynDbTest, OpenAndCloseReturnRawValues) {
  EXPECT_EQ(dyn_db_close(nullptr), 0);
  // A flag Berkeley DB does not know: set_flags fails, the raw value comes back and the
  // handle stays with the caller.
  DB* db = nullptr;
  int ret = dyn_db_open(&db, env_, "dyn-db-bad-flags", 0x40000000, true);
  EXPECT_EQ(ret, EINVAL);
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(dyn_db_close(db), 0);
  // A flag of another access method: the open fails, the handle is closed and forgotten.
  traces().Clear();
  db = reinterpret_cast<DB*>(1);
  ret = dyn_db_open(&db, env_, "dyn-db-recno-flag", DB_RENUMBER, true);
  EXPECT_EQ(ret, EINVAL);
  EXPECT_EQ(db, nullptr);
  EXPECT_TRUE(traces().Contains(std::string("Failed to open db dyn-db-recno-flag: ") +
                                db_strerror(EINVAL) + "\n"))
      << traces().Dump();
  // The session table installs its 64-bit key order and says so.
  traces().Clear();
  DB* sessions = nullptr;
  ASSERT_EQ(dyn_db_open(&sessions, env_, "client-session-db", 0, true), 0);
  EXPECT_TRUE(traces().Contains("Set compare routine for client-session-db")) << traces().Dump();
  EXPECT_EQ(dyn_db_close(sessions), 0);
}

TEST_F(DynDbTest, ApplicationTablesAreDefinedOnceAndComeBackAfterAReopen) {
  traces().Clear();
  EXPECT_EQ(vsk_db_app_define(7, "too-far"), VSK_ERR_INVALID_PARAM);
  EXPECT_TRUE(
      traces().Contains("Application private databases table id 7, is not valid for too-far"))
      << traces().Dump();
  EXPECT_EQ(vsk_db_app_define(-1, "negative"), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_app_define(3, nullptr), VSK_ERR_INVALID_PARAM);

  ASSERT_EQ(vsk_db_app_define(3, "subscriber-notes"), VSK_OK);
  DB* table = store::View().app_defined_db(3);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(vsk_app_defined[3].key_len, 12);
  EXPECT_STREQ(vsk_app_defined[3].name, "subscriber-notes");
  ASSERT_EQ(dyn_db_put(
                table, nullptr, &table,
                [](const void*, void* b, uint32_t room) -> uint32_t {
                  if (room >= 12) std::memcpy(b, "note-key-001", 12);
                  return 12;
                },
                &table,
                [](const void*, void* b, uint32_t room) -> uint32_t {
                  if (room >= 5) std::memcpy(b, "hello", 5);
                  return 5;
                },
                0),
            VSK_OK);

  // The first definition of an id stands.
  EXPECT_EQ(vsk_db_app_define(3, "another-name"), VSK_OK);
  EXPECT_EQ(store::View().app_defined_db(3), table);
  EXPECT_STREQ(vsk_app_defined[3].name, "subscriber-notes");

  // Close and re-open: the daemon does nothing, the table is open again with its records.
  EXPECT_EQ(dyn_db_close(raw_), 0);
  raw_ = nullptr;
  ASSERT_EQ(vsk_db_close(), 0);
  EXPECT_EQ(store::View().app_defined_db(3), nullptr);
  EXPECT_STREQ(vsk_app_defined[3].name, "subscriber-notes");
  ASSERT_EQ(InitAs(&link_, true, true), VSK_OK) << traces().Dump();
  DB* again = store::View().app_defined_db(3);
  ASSERT_NE(again, nullptr);
  Bytes key{"note-key-001"};
  Decoded out;
  ASSERT_EQ(dyn_db_get(again, nullptr, &key, Bytes::Encode, &out, Decoded::Value, 0, nullptr, 0),
            VSK_OK);
  EXPECT_EQ(out.bytes, "hello");
  for (int id = 0; id < VSK_APP_DEFINED_TABLES; ++id) {
    if (id != 3) {
      EXPECT_EQ(store::View().app_defined_db(id), nullptr) << id;
    }
  }
}

// A table defined before a close that the standby does not have makes the re-open fail as
// a whole, unlike a missing fixed table, which keeps its own status.
TEST_F(VskTest, ReopenFailsWhenADefinedTableIsMissingOnTheStandby) {
  auto r = RunInChild([] {
    orvd_ctx link{};
    if (InitAs(&link, true, true) != VSK_OK) return 1;
    if (vsk_db_app_define(2, "vanishing-table") != VSK_OK) return 2;
    // The table goes away behind the registry's back, as on a standby that never got it.
    store::StoreContext* ctx = store::Context();
    dyn_db_close(ctx->app_defined_db[2]);
    ctx->app_defined_db[2] = nullptr;
    if (ctx->dbenv->dbremove(ctx->dbenv, nullptr, "vsk.db", "vanishing-table", DB_AUTO_COMMIT) != 0)
      return 3;
    if (vsk_db_close() != 0) return 4;

    GlobalTraces().Clear();
    if (InitAs(&link, false, false) != VSK_ERR_FATAL) return 5;
    if (StoreState() != VSK_ENV_NOT_REPLICATED) return 6;
    if (!GlobalTraces().Contains("Failed to init application defined table id 2, ret -12")) {
      return 7;
    }
    if (store::View().client_session_db() == nullptr) return 8;  // fixed tables opened
    return vsk_db_close() == 0 ? 0 : 9;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
