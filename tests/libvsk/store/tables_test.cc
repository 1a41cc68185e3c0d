// The session tables over a real store opened as the creating daemon: record round trips
// per table, filters, corrupt rows, the numeric order of the client table, the resumable
// walks with sessions deleted and added between steps, and the replication nudge.
#include <db.h>

#include <cstring>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/view.h"
#include "support/harness.h"
#include "support/txn.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

class TablesTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    AsOrvd();
    vsk_db_set_master(true);
    ASSERT_EQ(vsk_db_init(&link_, true), 0);
  }
  void TearDown() override {
    vsk_db_close();
    VskTest::TearDown();
  }

  vsk_status_t PutClient(vsk_session_id_t id, const char* user, uint8_t bits = 0) {
    vsk_attr_t a{VSK_USER_NAME, static_cast<uint16_t>(std::strlen(user)), const_cast<char*>(user),
                 nullptr};
    vsk_attr_list_t list{&a, &a.next};
    vsk_client_session_t rec{};
    rec.attrs = &list;
    rec.dynamic_id = id;
    uint8_t b[1] = {bits};
    if (bits != 0) rec.config_bits_len = 1, rec.config_bits = b;
    return InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_client_session(t, &id, &rec); });
  }

  vsk_status_t DelClient(vsk_session_id_t id) {
    return InTxn([&](vsk_db_txn_t* t) { return vsk_db_del_client_session(t, &id); });
  }

  // One walk over the client table, the way snapshots resume by key.
  struct Walk {
    vsk_db_txn_t block{};
    vsk_session_id_t current = 0, next = 0, start = 0;
    bool nearest = false;
    const uint8_t* mask = nullptr;
    uint16_t mask_len = 0;

    // Returns the status and the id read (0 if none).
    vsk_status_t Step(vsk_session_id_t* id, std::string* user = nullptr) {
      vsk_session_key_t* k = nullptr;
      vsk_session_key_t* n = nullptr;
      vsk_client_session_t* r = nullptr;
      vsk_status_t st = vsk_db_iterate_client_session(&block, current, next, start, nearest, &k, &n,
                                                      &r, mask, mask_len);
      EXPECT_EQ(block.cursor, nullptr);
      *id = 0;
      if (st == 0 || st == -20) {
        current = k->id;
        *id = k->id;
        next = n != nullptr ? n->id : 0;
        start = 0;
        if (user != nullptr && st == 0) {
          vsk_attr_t* a = vsk_get_attribute_from_list(r->attrs, VSK_USER_NAME);
          user->assign(static_cast<char*>(a->value), a->length);
        }
      }
      vsk_db_release_key_session_id(k, true);
      vsk_db_release_key_session_id(n, true);
      vsk_db_release_client_session(r, true);
      return st;
    }

    std::vector<vsk_session_id_t> Rest() {
      std::vector<vsk_session_id_t> ids;
      vsk_session_id_t id;
      vsk_status_t st;
      while ((st = Step(&id)) == 0 || st == -20) {
        if (st == 0) ids.push_back(id);
      }
      EXPECT_EQ(st, -7);
      return ids;
    }
  };

  orvd_ctx link_{};
};

TEST_F(TablesTest, SessionRecordsRoundTripPerTable) {
  ASSERT_EQ(PutClient(7, "alice", 0x03), 0);
  vsk_session_id_t id = 7;
  vsk_client_session_t* c = nullptr;
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_client_session(t, &id, &c, true); }), 0);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->dynamic_id, 7u);
  EXPECT_EQ(c->config_bits_len, 1);
  vsk_attr_t* a = nullptr;
  ASSERT_EQ(vsk_db_get_client_attr_by_type(&a, c->attrs, VSK_USER_NAME), 0);
  EXPECT_EQ(std::string(static_cast<char*>(a->value), a->length), "alice");
  EXPECT_EQ(vsk_db_get_client_attr_by_type(&a, c->attrs, VSK_PROFILE_NAME), -7);
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(vsk_db_get_client_attr_by_type(&a, nullptr, VSK_PROFILE_NAME), -6);
  vsk_db_release_client_session(c, true);

  EXPECT_EQ(
      InTxn([&](vsk_db_txn_t* t) { return vsk_db_client_session_record_exists(t, &id, true); }), 0);
  ASSERT_EQ(DelClient(7), 0);
  EXPECT_EQ(
      InTxn([&](vsk_db_txn_t* t) { return vsk_db_client_session_record_exists(t, &id, false); }),
      -7);
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_client_session(t, &id, &c, false); }),
            -7);
  EXPECT_EQ(c, nullptr);

  // Service records and the filter on their config bits.
  uint8_t bits[2] = {0x00, 0x10};
  vsk_service_session_t s{};
  s.client_id = 7;
  s.config_bits_len = 2;
  s.config_bits = bits;
  vsk_session_id_t sid = 8;
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_service_session(t, &sid, &s); }), 0);
  const uint8_t miss[2] = {0xff, 0x01}, hit[2] = {0x00, 0x30};
  vsk_service_session_t* so = nullptr;
  vsk_db_txn_t txn{};
  ASSERT_EQ(vsk_db_start_txn(&txn), 0);
  EXPECT_EQ(vsk_db_get_service_session(&txn, &sid, &so, false, miss, 2), -20);
  ASSERT_NE(so, nullptr);
  vsk_db_release_service_session(so, true);
  EXPECT_EQ(vsk_db_get_service_session(&txn, &sid, &so, false, hit, 2), 0);
  EXPECT_EQ(so->client_id, 7u);
  vsk_db_release_service_session(so, true);
  EXPECT_EQ(vsk_db_del_service_session(&txn, &sid), 0);
  EXPECT_EQ(vsk_db_get_service_session(&txn, &sid, &so, false, nullptr, 0), -7);
  ASSERT_EQ(vsk_db_end_txn(&txn), 0);

  // Auth request and response tables are separate.
  uint32_t v = 99;
  vsk_attr_t aa{200, 4, &v, nullptr};
  vsk_attr_list_t al{&aa, &aa.next};
  vsk_auth_info_t auth{};
  auth.attrs = &al;
  vsk_auth_info_t* ao = nullptr;
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_auth_request(t, &id, &auth); }), 0);
  EXPECT_EQ(
      InTxn([&](vsk_db_txn_t* t) { return vsk_db_auth_response_record_exists(t, &id, false); }),
      -7);
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_auth_request(t, &id, &ao, false); }), 0);
  EXPECT_EQ(ao->attrs->first->type, 200);
  vsk_db_release_auth_info(ao, true);
}

TEST_F(TablesTest, CorruptRowGivesMinus5AndNothingLeaks) {
  vsk_session_id_t id = 5;
  std::string junk =
      std::string("\x01\x00", 2) + std::string("\x00\x00\x00\x00\xff\x00\x00\x00", 8);
  DBT k{}, v{};
  k.data = &id, k.size = 8;
  v.data = junk.data(), v.size = static_cast<uint32_t>(junk.size());
  DB* db = store::View().client_session_db();
  ASSERT_EQ(db->put(db, nullptr, &k, &v, DB_AUTO_COMMIT), 0);
  vsk_client_session_t* c = nullptr;
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_client_session(t, &id, &c, false); }),
            -5);
  EXPECT_EQ(c, nullptr);
}

TEST_F(TablesTest, PrivateAndApplicationDefinedData) {
  vsk_app_pri_key_t pk{11, 3};
  vsk_app_data_t data{};
  data.length = 5;
  data.data = const_cast<char*>("hello");
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_app_pri_data(t, &pk, &data); }), 0);
  vsk_app_pri_key_t other{11, 4};
  vsk_app_data_t* out = nullptr;
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_app_pri_data(t, &other, &out, false); }),
            -7);
  ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_app_pri_data(t, &pk, &out, true); }), 0);
  EXPECT_EQ(std::string(static_cast<char*>(out->data), out->length), "hello");
  vsk_db_release_app_pri_data(out, true);
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_del_app_pri_data(t, &pk); }), 0);

  char key7[12] = "k";
  vsk_app_def_key_t bad{7, key7};
  traces().Clear();
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_app_def_data(t, &bad, &out, false); }),
            -1);
  EXPECT_TRUE(traces().Contains("App defined table not open for table id 7")) << traces().Dump();

  ASSERT_EQ(vsk_db_app_define(1, "tunnels"), 0);
  char keys[3][12] = {"gamma", "alpha", "beta"};
  for (auto& k : keys) {
    vsk_app_def_key_t dk{1, k};
    vsk_app_data_t d{};
    d.length = 6;
    d.data = k;
    ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_put_app_def_data(t, &dk, &d); }), 0);
  }
  // Walk the table: keys in byte order, each read back by key.
  std::vector<std::string> seen;
  vsk_db_txn_t walk{};
  vsk_app_def_key_t cur{}, nxt{};
  vsk_app_def_key_t* cp = &cur;
  vsk_app_def_key_t* np = &nxt;
  void* current = nullptr;
  void* next = nullptr;
  std::string next_copy;
  for (int guard = 0; guard < 10; ++guard) {
    vsk_status_t st = vsk_db_iterate_app_defined(&walk, current, next, &cp, &np, nullptr, 1);
    if (st == -7) break;
    ASSERT_EQ(st, 0);
    ASSERT_NE(cur.key, nullptr);
    EXPECT_EQ(cur.table_id, 1);
    seen.emplace_back(static_cast<char*>(cur.key));
    vsk_app_data_t* d = nullptr;
    ASSERT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_get_app_def_data(t, &cur, &d, false); }),
              0);
    EXPECT_STREQ(static_cast<char*>(d->data), static_cast<char*>(cur.key));
    vsk_db_release_app_pri_data(d, true);
    current = &cur;  // any non-null marks a running walk
    if (nxt.key != nullptr) next_copy.assign(static_cast<char*>(nxt.key), 12);
    next = nxt.key != nullptr ? next_copy.data() : nullptr;
    vsk_db_release_key_app_def_id(&cur, false);
    vsk_db_release_key_app_def_id(&nxt, false);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"alpha", "beta", "gamma"}));
  vsk_app_def_key_t dk{1, keys[0]};
  EXPECT_EQ(InTxn([&](vsk_db_txn_t* t) { return vsk_db_del_app_def_data(t, &dk); }), 0);
}

TEST_F(TablesTest, ClientTableWalksInNumericIdOrder) {
  for (vsk_session_id_t id : {0x100000000ull, 256ull, 2ull, 1ull, 0x1ff00ull}) {
    ASSERT_EQ(PutClient(id, "u"), 0);
  }
  Walk w;
  EXPECT_EQ(w.Rest(), (std::vector<vsk_session_id_t>{1, 2, 256, 0x1ff00ull, 0x100000000ull}));
  // A finished walk returns -7 without touching the table.
  vsk_session_key_t* k = nullptr;
  vsk_session_key_t* n = nullptr;
  vsk_client_session_t* r = nullptr;
  vsk_db_txn_t block{};
  EXPECT_EQ(vsk_db_iterate_client_session(&block, 7, 0, 0, true, &k, &n, &r, nullptr, 0), -7);
  EXPECT_EQ(k, nullptr);
}

TEST_F(TablesTest, WalkWhoseNextRecordWasDeleted) {
  for (vsk_session_id_t id : {10, 20, 30, 40}) ASSERT_EQ(PutClient(id, "u"), 0);
  for (bool nearest : {false, true}) {
    Walk w;
    w.nearest = nearest;
    vsk_session_id_t id;
    ASSERT_EQ(w.Step(&id), 0);
    EXPECT_EQ(id, 10u);
    ASSERT_EQ(w.next, 20u);
    ASSERT_EQ(DelClient(20), 0);
    if (!nearest) {
      EXPECT_EQ(w.Step(&id), -7) << "without nearest the walk ends";
    } else {
      // The current record is still there: continue behind it.
      EXPECT_EQ(w.Rest(), (std::vector<vsk_session_id_t>{30, 40}));
    }
    ASSERT_EQ(PutClient(20, "u"), 0);
  }
  // Both the current and the next record gone: continue at the next id that exists.
  Walk w;
  w.nearest = true;
  vsk_session_id_t id;
  ASSERT_EQ(w.Step(&id), 0);
  ASSERT_EQ(w.Step(&id), 0);
  ASSERT_EQ(id, 20u);
  ASSERT_EQ(DelClient(20), 0);
  ASSERT_EQ(DelClient(30), 0);
  ASSERT_EQ(PutClient(35, "u"), 0);
  EXPECT_EQ(w.Rest(), (std::vector<vsk_session_id_t>{35, 40}));
  // Nothing behind the last key: the walk ends.
  Walk tail;
  tail.nearest = true;
  tail.current = 40;
  tail.next = 50;
  EXPECT_EQ(tail.Step(&id), -7);
}

TEST_F(TablesTest, WalkResumesBehindStartKey) {
  for (vsk_session_id_t id : {10, 20, 30, 40}) ASSERT_EQ(PutClient(id, "u"), 0);
  Walk w;
  w.start = 20;
  EXPECT_EQ(w.Rest(), (std::vector<vsk_session_id_t>{30, 40}));
  // A start key that has gone, with nearest and no next key: the walk finds the next id
  // that exists; with both a start and a next key the found record is stepped over.
  Walk gone;
  gone.nearest = true;
  gone.start = 25;
  EXPECT_EQ(gone.Rest(), (std::vector<vsk_session_id_t>{30, 40}));
  Walk both;
  both.nearest = true;
  both.start = 11;
  both.next = 12;
  both.current = 1;
  EXPECT_EQ(both.Rest(), (std::vector<vsk_session_id_t>{30, 40}));
}

TEST_F(TablesTest, WalkFiltersByConfigBits) {
  ASSERT_EQ(PutClient(1, "a", 0x01), 0);
  ASSERT_EQ(PutClient(2, "b", 0x02), 0);
  ASSERT_EQ(PutClient(3, "c"), 0);
  const uint8_t mask[1] = {0x02};
  Walk w;
  w.mask = mask;
  w.mask_len = 1;
  EXPECT_EQ(w.Rest(), (std::vector<vsk_session_id_t>{2, 3}));
}

TEST_F(TablesTest, TriggerSyncLeavesNoRecord) {
  EXPECT_EQ(vsk_trigger_sync(), 0);
  vsk_session_id_t zero = 0;
  EXPECT_EQ(
      InTxn([&](vsk_db_txn_t* t) { return vsk_db_client_session_record_exists(t, &zero, false); }),
      -7);
}

}  // namespace
}  // namespace vsk::test
