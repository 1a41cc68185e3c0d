// The recount that the load generator's closing check rests on, against a real orvd and a
// client daemon: a cached session counts its slot on both sides, and a slot whose session
// went from the tables behind the library's back is a difference, named.
#include "libvsk/vsk/recount.h"

#include <gtest/gtest.h>

#include <string>

#include "session_fixture.h"
#include "support/attr_lists.h"

namespace vsk::test {
namespace {

class RecountTest : public SessionSystemTest {};

vsk_status_t DeleteClientRow(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st == VSK_OK) st = vsk_db_del_client_session(&txn, &id);
  if (st == VSK_OK) return vsk_db_end_txn(&txn);
  vsk_db_abort_txn(&txn, st);
  return st;
}

// Exit codes: 0 all held; 1-4 the step that did not give what it should.
int CachedSessionThenLostRow() {
  AttrList attrs{{VSK_INTERFACE_NAME, std::string("pp0.7") + '\0'},
                 {VSK_UNDERLYING_INTERFACE_NAME, std::string("ge-0/0/7.0") + '\0'}};
  vsk_session_ids_t ids{};
  const vsk_create_options_t cache{0, 1, {0, 0}};
  if (vsk_create_extended_client_session(2, attrs.get(), nullptr, nullptr, &ids, &cache, nullptr) !=
      VSK_OK)
    return 1;
  vsk::recount::SessionCounts tables = vsk::recount::RecountFromTables();
  vsk::recount::SessionCounts shared = vsk::recount::ReadSharedCounts();
  if (tables.slots_in_use != 1 || shared.slots_in_use != 1 ||
      !vsk::recount::CountDifferences(tables, shared).empty())
    return 2;
  // The row goes, the slot and the counts stay: the recount must see all three.
  if (DeleteClientRow(ids.session_id) != VSK_OK) return 3;
  const std::string diff = vsk::recount::CountDifferences(vsk::recount::RecountFromTables(),
                                                          vsk::recount::ReadSharedCounts());
  if (diff.find("cache slots: tables 0, segment 1") == std::string::npos ||
      diff.find("interface pp0.7: tables 0/0, shared 1/0") == std::string::npos ||
      diff.find("interface ge-0/0/7.0: tables 0/0, shared 0/1") == std::string::npos)
    return 4;
  return 0;
}

TEST_F(RecountTest, CachedSlotsCountOnBothSidesAndAnOrphanSlotIsNamed) {
  ASSERT_TRUE(StartSystem());
  ChildResult r = AsClientDaemon(CachedSessionThenLostRow);
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
