// A walk of an application-defined table in portions, in one client daemon, while another
// client daemon inserts between the portions: records behind the walk's position are
// seen, those before it (or between it and the key it already looked ahead to) are not,
// and no record is seen twice.
#include <set>
#include <string>

#include "session_fixture.h"

namespace vsk::test {
namespace {

constexpr uint32_t kTable = 5;  // keys of 60 bytes

int PutKey(int n) {
  std::string key(60, '\0');
  std::snprintf(key.data(), key.size(), "k%02d", n);
  std::string value = "v" + std::to_string(n);
  vsk_app_data_t data{};
  data.length = static_cast<uint32_t>(value.size());
  data.data = value.data();
  void* k = key.data();
  return vsk_put_app_defined_data(kTable, &k, &data);
}

std::set<std::string>* g_keys = nullptr;
int g_duplicates = 0;
int Note(vsk_app_defined_handle* h) {
  if (!g_keys->insert(static_cast<const char*>(h->current_key)).second) ++g_duplicates;
  return 0;
}

using AppDataSystemTest = SessionSystemTest;

TEST_F(AppDataSystemTest, PortionsGoOnAcrossAnotherProcesssInserts) {
  ASSERT_TRUE(StartSystem());
  ChildResult seed = AsClientDaemon([] {
    CHILD_CHECK(vsk_open_app_defined_table(kTable, "walked") == 0);
    for (int n : {1, 3, 5, 7}) CHILD_CHECK(PutKey(n) == 0);
    return 0;
  });
  ASSERT_TRUE(seed.Ok()) << seed;

  Child walker;
  walker.Start([](Child::Channel& ch) {
    orvd_ctx link{};
    if (Up(&link, false) != VSK_OK) return 100;
    CHILD_CHECK(vsk_open_app_defined_table(kTable, "walked") == 0);
    std::set<std::string> keys;
    g_keys = &keys;
    vsk_app_defined_handle h{};
    h.table_id = kTable;
    // After k01 the walk has looked ahead to k03.
    CHILD_CHECK(vsk_get_next_recover_app_defined_table(Note, nullptr, &h, 1, 0) == 0);
    ch.Ready();
    CHILD_CHECK(ch.WaitGo());
    vsk_status_t st = 0;
    while ((st = vsk_get_next_recover_app_defined_table(Note, nullptr, &h, 2, 0)) == 0) {
    }
    CHILD_CHECK(st == VSK_ERR_NOT_FOUND);
    CHILD_CHECK(vsk_get_next_recover_app_defined_table(nullptr, nullptr, &h, 0, 1) == 0);
    const std::set<std::string> want{"k01", "k03", "k04", "k05", "k07", "k08"};
    CHILD_CHECK(keys == want);
    CHILD_CHECK(g_duplicates == 0);
    vsk_close_internal();
    return 0;
  });
  ASSERT_TRUE(walker.WaitReady());
  ChildResult insert = AsClientDaemon([] {
    CHILD_CHECK(vsk_open_app_defined_table(kTable, "walked") == 0);
    for (int n : {0, 2, 4, 8}) CHILD_CHECK(PutKey(n) == 0);
    return 0;
  });
  ASSERT_TRUE(insert.Ok()) << insert;
  walker.Go();
  ChildResult walked = walker.Wait();
  EXPECT_TRUE(walked.Ok()) << walked;
}

}  // namespace
}  // namespace vsk::test
