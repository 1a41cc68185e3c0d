// The one list of what a process attaches, read by the test the way the library walks
// it: after registration's bring-up every row is held; after vsk_close_internal exactly
// the rows that stay (the interface table) are, in a real store and in a forked child.
#include "libvsk/shared/attachments.h"

#include <string>

#include "libvsk/orvd_ctx.h"
#include "libvsk/shared/intf_recover.h"
#include "libvsk/store/view.h"
#include "shared_fixture.h"
#include "vsk/intf.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

using shared::Attachment;
using shared::Attachments;

// The rows this process holds now, by name.
std::string Held() {
  std::string held;
  for (const Attachment& row : Attachments()) {
    if (row.attached != nullptr && row.attached()) held += std::string(row.name) + ";";
  }
  return held;
}

std::string AllHoldable() {
  std::string all;
  for (const Attachment& row : Attachments()) {
    if (row.attached != nullptr) all += std::string(row.name) + ";";
  }
  return all;
}

class AttachmentsTest : public SharedTest {};

TEST_F(AttachmentsTest, RegistrationHoldsEveryRowAndTheCloseDropsAllButTheTable) {
  // Every row either comes up in vsk_open_internal or names who brings it up.
  for (const Attachment& row : Attachments()) {
    EXPECT_TRUE(row.attach != nullptr || row.attached_by != nullptr) << row.name;
  }
  auto r = RunInChild([] {
    SetProgramName("orvd");
    if (vsk_open_internal(true) != 0) return 1;
    orvd_ctx link{};
    vsk_db_set_master(true);
    if (vsk_db_init(&link, true) != VSK_OK) return 2;
    if (vsk_db_secondary_init(true) != VSK_OK) return 3;
    if (Held() != AllHoldable()) return 4;
    // A forked child holds the same rows (System V attachments and mappings are
    // inherited) until it drops them for itself; it leaves the store's handles alone, as
    // Berkeley DB handles do not survive a fork, so the queue stays with the store.
    auto child = RunInChild([] {
      if (Held() != AllHoldable()) return 1;
      shared::DetachAll();
      return Held() == "replication queue;interface file;" ? 0 : 2;
    });
    if (!child.Ok()) return 5;
    if (Held() != AllHoldable()) return 6;  // the child's close took nothing from us
    if (vsk_close_internal() != 0) return 7;
    if (Held() != "interface file;") return 8;
    if (store::View().state() != VSK_ENV_CLOSED) return 9;
    return 0;
  });
  EXPECT_TRUE(r.Ok()) << r << "\nholdable: " << AllHoldable();
}

}  // namespace
}  // namespace vsk::test
