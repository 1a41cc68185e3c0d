// Application private data and application-defined tables over the real store: removals
// that find nothing, the snapshot's private data by application, single reads of missing
// keys and of table 0, and the walks' ends, portions and refusals.
#include <vector>

#include "session_fixture.h"

namespace vsk::test {
namespace {

constexpr uint32_t kTable = 3;  // keys of 12 bytes

std::string Key(int n) {
  std::string k(12, '\0');
  std::snprintf(k.data(), k.size(), "key-%04d", n);
  return k;
}

class AppDataTest : public OrvdInProcessTest {
 protected:
  void SetUp() override {
    OrvdInProcessTest::SetUp();
    ASSERT_EQ(vsk_open_app_defined_table(kTable, "app-table-3"), 0);
  }
  static vsk_app_data_t Data(std::string& bytes) {
    vsk_app_data_t data{};
    data.length = static_cast<uint32_t>(bytes.size());
    data.data = bytes.data();
    return data;
  }
  static vsk_status_t Put(uint32_t table, std::string key, std::string value) {
    vsk_app_data_t data = Data(value);
    void* k = key.data();
    return vsk_put_app_defined_data(table, &k, &data);
  }
  static std::string Bytes(const vsk_app_data_t* d) {
    return d == nullptr ? "<null>" : std::string(static_cast<const char*>(d->data), d->length);
  }
};

TEST_F(AppDataTest, PrivateDataRemovedTwiceIsZeroTwiceAndReadsGiveNullAfter) {
  std::string bytes("\x01\x00\x02private", 10);
  vsk_app_data_t data = Data(bytes);
  ASSERT_EQ(vsk_put_app_private_data(12, 77, &data), 0);
  vsk_app_data_t* got = vsk_get_app_pri_data(77, 12);
  EXPECT_EQ(Bytes(got), bytes);
  vsk_db_release_app_pri_data(got, true);
  EXPECT_EQ(vsk_get_app_pri_data(12, 77), nullptr) << "the arguments' order matters";
  EXPECT_EQ(vsk_remove_app_private_data(12, 77), 0);
  EXPECT_EQ(vsk_remove_app_private_data(12, 77), 0);
  EXPECT_EQ(vsk_get_app_pri_data(77, 12), nullptr);
  EXPECT_EQ(vsk_put_app_private_data(12, 77, nullptr), VSK_ERR_INVALID_PARAM);
  // Published: the words end with a blank.
  EXPECT_TRUE(traces().Contains("Failed to put application private data -6 ")) << traces().Dump();
}

TEST_F(AppDataTest, SnapshotHoldsTheDataOfTheApplicationItWasTakenFor) {
  const vsk_session_id_t id = NewSession(false);
  std::string bytes = "pfltd-bytes";
  vsk_app_data_t data = Data(bytes);
  ASSERT_EQ(vsk_put_app_private_data(7, id, &data), 0);
  for (uint32_t snapshot_app : {7u, 0u}) {
    vsk_snapshot_handle h{};
    h.client_session_id = id;
    h.app_id = snapshot_app;
    ASSERT_EQ(vsk_get_snapshot(&h), 0);
    for (uint32_t asked : {7u, 9u}) {
      vsk_app_data_t* out = nullptr;
      vsk_status_t st = vsk_get_app_private_data(&h, 0, asked, &out);
      EXPECT_EQ(st, snapshot_app == 7 ? 0 : VSK_ERR_NOT_FOUND) << snapshot_app << "/" << asked;
      EXPECT_EQ(Bytes(out), snapshot_app == 7 ? bytes : "<null>");
    }
    vsk_app_data_t* out = nullptr;
    EXPECT_EQ(vsk_get_app_private_data(&h, 12345, 7, &out), VSK_ERR_NOT_FOUND) << "no service";
    EXPECT_EQ(vsk_get_app_private_data(&h, 0, 0, &out), VSK_ERR_INVALID_PARAM);
    vsk_free_snapshot_handle(&h);
  }
  vsk_app_data_t* out = nullptr;
  traces().Clear();
  EXPECT_EQ(vsk_get_app_private_data(nullptr, 0, 7, &out), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(traces().Count("Getting application private data without providing snapshot"), 1);
}

TEST_F(AppDataTest, SingleReadsOfMissingKeysTableZeroAndClosedTables) {
  ASSERT_EQ(Put(kTable, Key(1), "one"), 0);
  std::string key = Key(1), missing = Key(2);
  vsk_app_defined_handle h{};
  h.table_id = 0x10000 | kTable;  // only the low 16 bits count
  h.key = key.data();
  ASSERT_EQ(vsk_get_app_defined_snapshot(&h), 0);
  EXPECT_EQ(Bytes(h.data), "one");
  vsk_free_app_defined_handle(&h);
  vsk_free_app_defined_handle(&h);  // a second free finds nothing to release
  h.key = missing.data();
  EXPECT_EQ(vsk_get_app_defined_snapshot(&h), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(h.data, nullptr);
  vsk_free_app_defined_handle(&h);
  h.table_id = 0;
  EXPECT_EQ(vsk_get_app_defined_snapshot(&h), 0);
  EXPECT_EQ(h.data, nullptr);

  EXPECT_EQ(vsk_remove_app_defined_data(kTable, reinterpret_cast<void**>(&h.key)), 0);
  EXPECT_EQ(Put(7, Key(1), "x"), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("App defined table not open for table id 7"));
  EXPECT_EQ(vsk_get_app_defined_snapshot(nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_TRUE(traces().Contains("Getting application private data without providing snapshot\n"));
  EXPECT_EQ(vsk_get_app_defined_snapshot_internal(&h, 2, nullptr, nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_TRUE(traces().Contains("Missing filter with snapshot action 2\n"));
}

std::vector<std::string>* g_seen = nullptr;
int Collect(vsk_app_defined_handle* h) {
  g_seen->push_back(std::string(static_cast<const char*>(h->key), 12) + "=" +
                    std::string(static_cast<const char*>(h->data->data), h->data->length));
  return 0;
}

TEST_F(AppDataTest, WalksEndWithMinusSevenInPortionsAndOnlyOnTheMaster) {
  std::vector<std::string> seen;
  g_seen = &seen;
  EXPECT_EQ(vsk_recover_app_defined_table(Collect, kTable, nullptr), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(seen.empty());
  EXPECT_TRUE(traces().Contains("App Defined Table 3 Recover Start"));
  EXPECT_FALSE(traces().Contains("Recover Finish")) << "no finish trace, unlike sessions";

  std::vector<std::string> all;
  for (int n : {5, 1, 3, 4, 2}) ASSERT_EQ(Put(kTable, Key(n), "v" + std::to_string(n)), 0);
  for (int n = 1; n <= 5; ++n) all.push_back(Key(n) + "=v" + std::to_string(n));
  EXPECT_EQ(vsk_recover_app_defined_table(Collect, kTable, nullptr), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(seen, all);

  seen.clear();
  vsk_app_defined_handle h{};
  h.table_id = kTable;
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(Collect, nullptr, &h, -1, 0), 0);
  EXPECT_TRUE(seen.empty()) << "a negative portion walks nothing";
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(Collect, nullptr, &h, 2, 0), 0);
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(Collect, nullptr, &h, 2, 0), 0);
  EXPECT_EQ(seen.size(), 4u);
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(Collect, nullptr, &h, 2, 0), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(Collect, nullptr, &h, 0, 0), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(seen, all);
  EXPECT_EQ(vsk_get_next_recover_app_defined_table(nullptr, nullptr, &h, 0, 1), 0);
  EXPECT_EQ(h.walk, nullptr);
  EXPECT_EQ(h.current_key, nullptr);
  EXPECT_TRUE(traces().Contains("Recover Finish"));

  vsk_db_set_master(false);
  EXPECT_EQ(vsk_recover_app_defined_table(Collect, kTable, nullptr), VSK_ERR_FATAL);
  EXPECT_TRUE(traces().Contains("Application tried to recover data on standby RE"));
  vsk_db_set_master(true);
}

}  // namespace
}  // namespace vsk::test
