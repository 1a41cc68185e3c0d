// The UID table over the real store and unit pool 1: references counted in the stored
// 8-byte record under the zero-padded 32-byte key (checked byte for byte), numbers given
// back at the last delete, unknown and bad names, an empty pool, an empty table's rebuild.
#include <set>

#include "../vsk/session_fixture.h"
#include "support/txn.h"

namespace vsk::test {
namespace {

// Free numbers of pool 1, by its free list.
std::set<uint32_t> FreeUids() {
  std::set<uint32_t> out;
  const auto* pool = static_cast<const uint32_t*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL1_OFFSET));
  const auto* entries = reinterpret_cast<const int32_t*>(pool + 3);
  for (int32_t i = static_cast<int32_t>(pool[1]); i >= 0 && out.size() <= pool[0]; i = entries[i])
    out.insert(1000u + static_cast<uint32_t>(i));
  return out;
}

class UidTest : public OrvdInProcessTest {
 protected:
  // The stored record of `name`, as its bytes, read under the name zero-padded to 32 bytes
  // (so a key stored any other way reads as "<absent>").
  static std::string Record(const std::string& name) {
    std::string key(32, '\0');
    key.replace(0, name.size(), name);
    std::string out = "<absent>";
    InTxn([&](vsk_db_txn_t* t) {
      vsk_app_def_key_t k{6, key.data()};
      vsk_app_data_t* d = nullptr;
      if (vsk_db_get_app_def_data(t, &k, &d, false) == 0)
        out.assign(static_cast<const char*>(d->data), d->length);
      vsk_db_release_app_pri_data(d, true);
      return 0;
    });
    return out;
  }
  static std::string Bytes(uint32_t uid, uint16_t count) {
    std::string b(8, '\0');
    std::memcpy(b.data(), &uid, 4);
    std::memcpy(b.data() + 4, &count, 2);
    return b;
  }
};

TEST_F(UidTest, AddAddDeleteDeleteCountsReferencesAndGivesTheNumberBack) {
  uint32_t uid = 0, again = 0;
  ASSERT_EQ(vsk_uid_add_db_entry("alpha", &uid), 0);
  EXPECT_EQ(uid, 1000u) << "the lowest free number";
  EXPECT_EQ(Record("alpha"), Bytes(1000, 1));
  ASSERT_EQ(vsk_uid_add_db_entry("alpha", &again), 0);
  EXPECT_EQ(again, 1000u);
  EXPECT_EQ(Record("alpha"), Bytes(1000, 2));
  ASSERT_EQ(vsk_uid_add_db_entry("beta", &again), 0);
  EXPECT_EQ(again, 1001u);

  EXPECT_EQ(vsk_uid_delete_db_entry("alpha"), 0);
  EXPECT_EQ(Record("alpha"), Bytes(1000, 1));
  EXPECT_EQ(FreeUids().count(1000), 0u);
  traces().Clear();
  EXPECT_EQ(vsk_uid_delete_db_entry("alpha"), 0);
  EXPECT_EQ(Record("alpha"), "<absent>");
  EXPECT_EQ(FreeUids().count(1000), 1u);
  bool at_level = false;
  for (const auto& line : traces().Lines()) {
    if (line.text == "vsk_uid_delete_db_entry: Removing UID Hash table alpha\n")
      at_level = line.level == 65286;
  }
  EXPECT_TRUE(at_level) << traces().Dump();
}

TEST_F(UidTest, UnknownAndBadNamesAreRefusedAndNothingChanges) {
  EXPECT_EQ(vsk_uid_delete_db_entry("ghost"), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(traces().Contains("vsk_uid_delete_db_entry: Failed to get UID Hash table\n"))
      << traces().Dump();
  uint32_t uid = 0;
  const std::string longest(32, 'n');
  EXPECT_EQ(vsk_uid_add_db_entry(longest.c_str(), &uid), 0) << "32 bytes fill the key";
  EXPECT_EQ(vsk_uid_add_db_entry((longest + "x").c_str(), &uid), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_uid_add_db_entry(nullptr, &uid), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_uid_add_db_entry("a", nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_uid_delete_db_entry(nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(FreeUids().size(), 9998u) << "only the 32-byte name holds a number";
}

// With pool 1 empty the name is stored with number 0, which is no number of the pool: its
// delete and a rebuild leave the pool alone.
TEST_F(UidTest, EmptyPoolStoresZeroWhichNeitherDeleteNorRebuildGivesToThePool) {
  EXPECT_EQ(vsk_uid_recover(), 0) << "an empty table";
  uint32_t unit = 0;
  while (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) == 0) {
  }
  uint32_t uid = 7;
  ASSERT_EQ(vsk_uid_add_db_entry("late", &uid), 0);
  EXPECT_EQ(uid, 0u);
  EXPECT_EQ(Record("late"), Bytes(0, 1));
  traces().Clear();
  EXPECT_EQ(vsk_uid_recover(), 0);
  EXPECT_EQ(traces().CountContaining("Failed to recover UID unit number"), 0);
  EXPECT_EQ(vsk_uid_delete_db_entry("late"), 0);
  EXPECT_TRUE(FreeUids().empty());
}

}  // namespace
}  // namespace vsk::test
