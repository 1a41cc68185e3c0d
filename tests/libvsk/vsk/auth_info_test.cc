// Authentication records over the real store and session cache: take on the table and in
// the cache, a cache block filled to its limit and one entry past it, the response's
// update that always goes to the table, and the published words.
#include "session_fixture.h"
#include "support/attr_lists.h"
#include "support/txn.h"

namespace vsk::test {
namespace {

class AuthTest : public OrvdInProcessTest {
 protected:
  vsk_session_id_t Create(bool cache) {
    const vsk_session_id_t id = NewSession(cache);
    EXPECT_EQ(vsk_is_session_in_shm(id, vsk_snap_get_shared_memory_ptr()), cache);
    return id;
  }
  // The list as "type=value;" text, or "<none>".
  static std::string Show(const vsk_attr_list_t* list) {
    if (list == nullptr) return "<none>";
    std::string out;
    for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next)
      out += std::to_string(a->type) + "=" +
             std::string(static_cast<const char*>(a->value), a->length) + ";";
    return out;
  }
  static std::string Get(vsk_session_id_t id, bool request, bool take, vsk_status_t* st) {
    vsk_attr_list_t* out = reinterpret_cast<vsk_attr_list_t*>(1);
    *st = request ? vsk_get_auth_request(id, take, &out) : vsk_get_auth_response(id, take, &out);
    std::string text = Show(out);
    vsk_free_auth_info(out);
    return text;
  }
  // The table row, read past the cache.
  static std::string Row(vsk_session_id_t id, bool request) {
    std::string text = "<absent>";
    InTxn([&](vsk_db_txn_t* t) {
      vsk_auth_info_t* rec = nullptr;
      vsk_status_t st = request ? vsk_db_get_auth_request(t, &id, &rec, false)
                                : vsk_db_get_auth_response(t, &id, &rec, false);
      if (st == 0) text = Show(rec->attrs);
      vsk_db_release_auth_info(rec, true);
      return 0;
    });
    return text;
  }
};

TEST_F(AuthTest, TakeTwiceGivesMinusSevenOnTheTableAndTheSameListFromTheCache) {
  AttrList list{{1, "alice"}, {25, "gold"}};
  for (bool cache : {false, true}) {
    for (bool request : {true, false}) {
      SCOPED_TRACE(testing::Message() << "cache " << cache << " request " << request);
      const vsk_session_id_t id = Create(cache);
      ASSERT_EQ(
          request ? vsk_set_auth_request(id, list.get()) : vsk_set_auth_response(id, list.get()),
          0);
      vsk_status_t st = 1;
      const std::string want = "1=alice;25=gold;";
      EXPECT_EQ(Get(id, request, true, &st), want);
      EXPECT_EQ(st, 0);
      traces().Clear();
      EXPECT_EQ(Get(id, request, true, &st), cache ? want : "<none>");
      EXPECT_EQ(st, cache ? 0 : VSK_ERR_NOT_FOUND);
      // Published words: the response's have no comma before "err" and end in a newline.
      const std::string words =
          request
              ? "vsk_get_auth_request: Failed to get authentication request in client session " +
                    std::to_string(id) + ", err=" + vsk_get_err_msg(VSK_ERR_NOT_FOUND)
              : "vsk_get_auth_response: Failed to get authentication response in client session " +
                    std::to_string(id) + " err=" + vsk_get_err_msg(VSK_ERR_NOT_FOUND) + "\n";
      EXPECT_EQ(traces().Count(words), cache ? 0 : 1) << traces().Dump();
    }
  }
}

// Entries take L + 5 bytes from offset 10; one is refused when offset + L + 7 passes 380.
// Three of 100 bytes reach 325: a fourth of 48 is exactly at the limit, one of 49 is past.
TEST_F(AuthTest, BlockFilledToTheLimitStaysCachedOneBytePastGoesToTheTables) {
  for (int last : {48, 49}) {
    SCOPED_TRACE(last);
    const vsk_session_id_t id = Create(true);
    AttrList list{{1, std::string(100, 'a')},
                  {25, std::string(100, 'b')},
                  {18, std::string(100, 'c')},
                  {11, std::string(last, 'd')}};
    traces().Clear();
    ASSERT_EQ(vsk_set_auth_request(id, list.get()), 0) << "an overflow still reports success";
    const bool fits = last == 48;
    EXPECT_EQ(vsk_is_session_in_shm(id, vsk_snap_get_shared_memory_ptr()), fits);
    EXPECT_EQ(traces().Count("vsk_set_auth_info too big for buffer " + std::to_string(id)),
              fits ? 0 : 1);
    vsk_status_t st = 1;
    std::string got = Get(id, true, false, &st);
    EXPECT_EQ(st, 0);
    const std::string three = "1=" + std::string(100, 'a') + ";25=" + std::string(100, 'b') +
                              ";18=" + std::string(100, 'c') + ";";
    // Published: the entry that did not fit is dropped; the three before it reach the table.
    EXPECT_EQ(got, fits ? three + "11=" + std::string(48, 'd') + ";" : three);
    if (!fits) {
      EXPECT_EQ(Row(id, true), three);
      // The session's own attributes went to the table with the slot.
      vsk_snapshot_handle h{};
      h.client_session_id = id;
      ASSERT_EQ(vsk_get_snapshot(&h), 0);
      vsk_attr_value_t* v = nullptr;
      ASSERT_EQ(vsk_get_client_session_attr(&h, VSK_INTERFACE_NAME, &v), 0);
      EXPECT_STREQ(static_cast<const char*>(v->next->value), "ge-0/0/1");
      vsk_free_snapshot_handle(&h);
    }
  }
}

// The request's update edits the slot of a cached session; the response's always edits
// the table row, which the cached reads then do not see.
TEST_F(AuthTest, UpdateOfTheResponseGoesToTheTableEvenForACachedSession) {
  const vsk_session_id_t id = Create(true);
  UpdateList add;
  add.Replace(1, "bob");
  ASSERT_EQ(vsk_update_auth_request(id, add.get()), 0);
  ASSERT_EQ(vsk_update_auth_response(id, add.get()), 0);
  EXPECT_TRUE(vsk_is_session_in_shm(id, vsk_snap_get_shared_memory_ptr()));
  vsk_status_t st = 1;
  EXPECT_EQ(Get(id, true, false, &st), "1=bob;");
  EXPECT_EQ(Get(id, false, false, &st), "") << "the response block was not touched";
  EXPECT_EQ(Row(id, true), "<absent>");
  EXPECT_EQ(Row(id, false), "1=bob;");

  // On the table an update starts from the stored list and keeps what it does not name.
  const vsk_session_id_t plain = Create(false);
  AttrList two{{1, "carol"}, {25, "silver"}};
  ASSERT_EQ(vsk_set_auth_response(plain, two.get()), 0);
  UpdateList change;
  change.Replace(25, "bronze");
  ASSERT_EQ(vsk_update_auth_response(plain, change.get()), 0);
  EXPECT_EQ(Row(plain, false), "1=carol;25=bronze;");
  EXPECT_EQ(vsk_update_auth_request(plain, nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_get_auth_request(plain, false, nullptr), VSK_ERR_INVALID_PARAM);
  vsk_free_auth_info(nullptr);
  EXPECT_EQ(Row(plain, true), "<absent>") << "nothing written for a refused update";
}

}  // namespace
}  // namespace vsk::test
