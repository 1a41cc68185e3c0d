// The interface table in one process: the counting rules, states, reads of clients on an
// underlying interface, the session list, the heap's free lists and the rebuild.
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "intf_fixture.h"

namespace vsk::test {
namespace {

using Ids = std::vector<vsk_session_id_t>;

TEST_F(IntfTest, OwnInterfaceCountedTwiceNeedsTwoRemoves) {
  ASSERT_EQ(vsk_db_interface_add("ge-0/0/0.1", 1, 11, 1, 5), 0);
  ASSERT_EQ(vsk_db_interface_add("ge-0/0/0.1", 1, 12, 0, 0), 0);
  EXPECT_TRUE(traces().Contains("if ge-0/0/0.1 add cnt 1 uifl cnt 0, state 5"));
  EXPECT_TRUE(traces().Contains("if ge-0/0/0.1 add cnt 2 uifl cnt 0"));
  EXPECT_EQ(State("ge-0/0/0.1"), 5) << "set_state 0 keeps the state";
  ASSERT_EQ(vsk_db_interface_remove("ge-0/0/0.1", 1, 11), 0);
  EXPECT_EQ(State("ge-0/0/0.1"), 5) << "one client left";
  ASSERT_EQ(vsk_db_interface_remove("ge-0/0/0.1", 1, 12), 0);
  EXPECT_TRUE(traces().Contains("if ge-0/0/0.1 del empty"));
  EXPECT_EQ(State("ge-0/0/0.1"), VSK_ERR_NOT_FOUND);
  // The record came back from the free list: its state went with the old one.
  ASSERT_EQ(vsk_db_interface_add("ge-0/0/0.1", 1, 13, 0, 0), 0);
  EXPECT_EQ(State("ge-0/0/0.1"), 0);
  // Kind 1 keeps no session ids.
  EXPECT_EQ(NumClients("ge-0/0/0.1"), VSK_ERR_NOT_FOUND);
  vsk_session_id_t id = 0;
  EXPECT_EQ(vsk_db_get_first_client_on_uifl("ge-0/0/0.1", &id), VSK_ERR_NOT_FOUND);
}

TEST_F(IntfTest, UnderlyingClientsKeptInIdOrder) {
  for (vsk_session_id_t id : {30u, 10u, 20u})
    ASSERT_EQ(vsk_db_interface_add("ae0", 2, id, 0, 0), 0);
  ASSERT_EQ(vsk_db_interface_add("ae0", 3, 0x100000000ull, 0, 0), 0);  // both bits
  EXPECT_EQ(NumClients("ae0"), 4);
  EXPECT_EQ(Clients("ae0"), (Ids{10, 20, 30, 0x100000000ull}));
  vsk_session_id_t first = 0;
  ASSERT_EQ(vsk_db_get_first_client_on_uifl("ae0", &first), 0);
  EXPECT_EQ(first, 10u);
  EXPECT_TRUE(traces().Contains("*** Found session 10 on ifl ae0 ***"));
  ASSERT_EQ(vsk_db_interface_remove("ae0", 2, 10), 0);
  EXPECT_TRUE(traces().Contains("if ae0 session id 10 del"));
  EXPECT_EQ(Clients("ae0"), (Ids{20, 30, 0x100000000ull}));
  ASSERT_EQ(vsk_db_interface_remove("ae0", 3, 0x100000000ull), 0);
  EXPECT_TRUE(traces().Contains("if ae0 del cnt 0 uifl cnt 2"));
  EXPECT_EQ(State("ae0"), 0) << "still in use by two underlying clients";
}

TEST_F(IntfTest, DuplicateIdCountsButIsStoredOnce) {
  ASSERT_EQ(vsk_db_interface_add("ae1", 2, 7, 0, 0), 0);
  ASSERT_EQ(vsk_db_interface_add("ae1", 2, 7, 0, 0), 0);
  EXPECT_EQ(NumClients("ae1"), 2);
  uint32_t count = 0;
  vsk_session_id_t* ids = nullptr;
  ASSERT_EQ(vsk_db_get_clients_by_uifl("ae1", &count, &ids), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(ids[0], 7u);
  std::free(ids);
  // One remove takes the id out of the tree, the next finds it gone; then the record goes.
  ASSERT_EQ(vsk_db_interface_remove("ae1", 2, 7), 0);
  ASSERT_EQ(vsk_db_interface_remove("ae1", 2, 7), 0);
  EXPECT_TRUE(traces().Contains("if ae1 session id 7 not found"));
  EXPECT_EQ(State("ae1"), VSK_ERR_NOT_FOUND);
}

TEST_F(IntfTest, RemoveOfAnotherIdLosesTheNodeAndFreesTheRecord) {
  ASSERT_EQ(vsk_db_interface_add("xe-1/0/0", 2, 100, 1, 9), 0);
  ASSERT_EQ(vsk_db_interface_remove("xe-1/0/0", 2, 101), 0);
  EXPECT_TRUE(traces().Contains("if xe-1/0/0 session id 101 not found"));
  EXPECT_TRUE(traces().Contains("if xe-1/0/0 del cnt 0 uifl cnt 0"));
  EXPECT_TRUE(traces().Contains("if xe-1/0/0 del empty"));
  EXPECT_EQ(State("xe-1/0/0"), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(NumClients("xe-1/0/0"), VSK_ERR_NOT_FOUND);
  // A new record for the name starts with an empty tree of its own.
  ASSERT_EQ(vsk_db_interface_add("xe-1/0/0", 2, 5, 0, 0), 0);
  EXPECT_EQ(Clients("xe-1/0/0"), (Ids{5}));
}

TEST_F(IntfTest, UnknownNamesAndBadArguments) {
  EXPECT_EQ(vsk_db_interface_remove("nope", 3, 1), 0);
  EXPECT_TRUE(traces().Contains("if nope not found"));
  EXPECT_EQ(State("nope"), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(vsk_db_interface_set_state("nope", 1), VSK_ERR_NOT_FOUND);
  uint32_t count = 77;
  vsk_session_id_t* ids = nullptr;
  EXPECT_EQ(vsk_db_get_clients_by_uifl("nope", &count, &ids), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(ids, nullptr);
  EXPECT_EQ(vsk_db_get_clients_by_uifl("nope", nullptr, &ids), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_get_clients_by_uifl("nope", &count, nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_interface_add(nullptr, 1, 1, 0, 0), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_db_interface_get_state("x", nullptr), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_get_session_list(nullptr, &ids), VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(vsk_get_session_list(&count, nullptr), VSK_ERR_INVALID_PARAM);
  // Nothing was stored along the way, and the table still works.
  ASSERT_EQ(vsk_db_interface_add("x", 1, 1, 1, 4), 0);
  EXPECT_EQ(vsk_db_interface_set_state("x", 6), 0);
  EXPECT_TRUE(traces().Contains("*** Found ifl x, current state 4, new state 6 ***"));
  EXPECT_EQ(State("x"), 6);
}

TEST_F(IntfTest, LongNamesAreCutAndMatchOnlyWhenCutAlike) {
  std::string longname(70, 'n');
  std::string cut = longname.substr(0, 59);
  ASSERT_EQ(vsk_db_interface_add(longname.c_str(), 1, 1, 1, 3), 0);
  EXPECT_EQ(State(longname.c_str()), VSK_ERR_NOT_FOUND);
  EXPECT_EQ(State(cut.c_str()), 3);
  // A second add under the long name lands on the same record instead of a lost one.
  ASSERT_EQ(vsk_db_interface_add(longname.c_str(), 1, 2, 0, 0), 0);
  EXPECT_TRUE(traces().Contains("if " + longname + " add cnt 2 uifl cnt 0"));
  std::string other = cut + "x";  // 60 characters, differs only past the cut
  EXPECT_EQ(State(other.c_str()), VSK_ERR_NOT_FOUND);
}

TEST_F(IntfTest, HeapIsCutOnceAndFreedRecordsAreReused) {
  ASSERT_EQ(vsk_db_interface_add("a", 2, 1, 0, 0), 0);
  EXPECT_TRUE(traces().Contains("MEM AQUIRE 100, offset 48"));
  EXPECT_TRUE(traces().Contains("MEM AQUIRE 28, offset 148"));
  for (int round = 0; round < 3; ++round) {
    traces().Clear();
    for (int i = 0; i < 50; ++i) {
      std::string name = "if" + std::to_string(i);
      ASSERT_EQ(vsk_db_interface_add(name.c_str(), 2, 1000 + i, 0, 0), 0);
    }
    int acquired = traces().CountContaining("MEM AQUIRE");
    EXPECT_EQ(acquired, round == 0 ? 100 : 0) << "round " << round;
    for (int i = 0; i < 50; ++i) {
      std::string name = "if" + std::to_string(i);
      ASSERT_EQ(vsk_db_interface_remove(name.c_str(), 2, 1000 + i), 0);
    }
  }
  EXPECT_EQ(Clients("a"), (Ids{1}));
}

TEST_F(IntfTest, SessionListByInterfaceThenId) {
  vsk_session_id_t* ids = reinterpret_cast<vsk_session_id_t*>(0x1);
  uint32_t count = 5;
  SetTotal(0);
  ASSERT_EQ(vsk_get_session_list(&count, &ids), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(ids, reinterpret_cast<vsk_session_id_t*>(0x1)) << "untouched with no sessions";

  ASSERT_EQ(vsk_db_interface_add("b", 2, 5, 0, 0), 0);
  ASSERT_EQ(vsk_db_interface_add("a", 2, 9, 0, 0), 0);
  ASSERT_EQ(vsk_db_interface_add("a", 2, 3, 0, 0), 0);
  ASSERT_EQ(vsk_db_interface_add("c", 1, 4, 0, 0), 0);  // no underlying clients
  ASSERT_EQ(vsk_db_interface_add("b", 2, 1, 0, 0), 0);
  SetTotal(6);
  ASSERT_EQ(vsk_get_session_list(&count, &ids), 0);
  ASSERT_EQ(count, 4u);
  EXPECT_EQ(Ids(ids, ids + count), (Ids{3, 9, 1, 5}));
  std::free(ids);
}

TEST_F(IntfTest, SessionListOverflowKeepsArrayAndCount) {
  for (vsk_session_id_t id = 1; id <= 3; ++id) ASSERT_EQ(vsk_db_interface_add("u", 2, id, 0, 0), 0);
  SetTotal(2);
  uint32_t count = 0;
  vsk_session_id_t* ids = nullptr;
  ASSERT_EQ(vsk_get_session_list(&count, &ids), VSK_ERR_FATAL);
  ASSERT_NE(ids, nullptr);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(Ids(ids, ids + count), (Ids{1, 2}));
  std::free(ids);
  bool seen = false;
  for (const auto& line : traces().Lines()) {
    if (line.text == "*** num_sessions 3 exceeded total count 2 ***") {
      seen = true;
      EXPECT_EQ(line.level, VSK_TRACE_LEVEL_ERROR);
    }
  }
  EXPECT_TRUE(seen) << traces().Dump();
  // The lock was given back.
  EXPECT_EQ(NumClients("u"), 3);
  vsk_summary_counter_detach();
  EXPECT_EQ(vsk_get_session_list(&count, &ids), VSK_ERR_NOMEM) << "counters not attached";
}

TEST_F(IntfTest, RebuildEmptiesTableAndMovesStatusWord) {
  ASSERT_EQ(vsk_db_interface_add("a", 3, 1, 1, 2), 0);
  vsk_summary_counter[VSK_SUMMARY_COUNTER_TYPE_SUM] = 4;
  vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL] = 4;
  vsk_unit_init(VSK_UNIT_POOL_IFL_MAX, true, VSK_UNIT_POOL_IFL);
  ASSERT_EQ(vsk_db_secondary_recover(), 0);
  EXPECT_TRUE(traces().Contains("Recover Secondary Table"));
  EXPECT_EQ(*vsk_db_status, static_cast<uint32_t>(VSK_DB_STATUS_READY));
  EXPECT_EQ(State("a"), VSK_ERR_NOT_FOUND);
  // The counters were recounted from nothing and replaced as a whole.
  EXPECT_EQ(vsk_summary_counter[VSK_SUMMARY_COUNTER_TYPE_SUM], 0u);
  EXPECT_EQ(vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL], 0u);
  // The interface-unit pool was listed: allocation starts at its first unit.
  uint32_t unit = 0;
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL), 0);
  EXPECT_EQ(unit, VSK_UNIT_POOL_IFL_FIRST);
  // The heap restarted at the header.
  traces().Clear();
  ASSERT_EQ(vsk_db_interface_add("b", 1, 1, 0, 0), 0);
  EXPECT_TRUE(traces().Contains("MEM AQUIRE 100, offset 48"));
}

// Bytes of this process's address space that map the interface file.
uint64_t MappedBytesOfTheFile() {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  uint64_t total = 0;
  while (std::getline(maps, line)) {
    if (line.find("/vsk_intf.db") == std::string::npos) continue;
    std::istringstream range(line);
    uint64_t start = 0, end = 0;
    char dash;
    range >> std::hex >> start >> dash >> end;
    total += end - start;
  }
  return total;
}

TEST_F(IntfTest, RebuildOfAGrownTableUnmapsAllOfTheOldMapping) {
  const uint64_t initial = static_cast<uint64_t>(getpagesize()) * 10;
  ASSERT_EQ(MappedBytesOfTheFile(), initial);
  for (int i = 0; i < 1000; ++i) {  // 100 KB of records: two growth steps
    ASSERT_EQ(vsk_db_interface_add(("ge-" + std::to_string(i)).c_str(), 1, 1, 0, 0), 0)
        << traces().Dump();
  }
  ASSERT_EQ(MappedBytesOfTheFile(), 3 * initial);
  // orvd's rebuild (at its start and in failcheck) formats the file at its initial size.
  ASSERT_EQ(vsk_db_secondary_init(true), 0);
  EXPECT_TRUE(traces().Contains("INIT MEMORY"));
  EXPECT_EQ(MappedBytesOfTheFile(), initial) << "part of the old mapping leaked";
  EXPECT_EQ(State("ge-1"), VSK_ERR_NOT_FOUND);
  // A client's second init keeps its mapping and what it holds.
  ASSERT_EQ(vsk_db_interface_add("a", 1, 1, 1, 2), 0);
  EXPECT_EQ(vsk_db_secondary_init(false), 0);
  EXPECT_EQ(State("a"), 2);
}

}  // namespace
}  // namespace vsk::test
