// Failures inside a bundled create's pass, driven through the fault seam on the real
// store: each ends the pass as a whole (nothing of the new session stored, the shared
// dynamic record as it was, nothing counted), or is retried from a clean pass, or, for
// the underlying snapshot, leaves the create without inheritance. Leaks of the pass's
// lists and snapshot show under the sanitizer build.
#include <cerrno>

#include "bundle_rows.h"
#include "libvsk/base/fault.h"

namespace vsk::test {
namespace {

using fault::Kind;

class BundleFaultTest : public EngineTest {
 protected:
  void TearDown() override {
    fault::DisarmAll();
    EngineTest::TearDown();
  }
};

// The puts of one pass: the client record, then the inherited attributes' update of it,
// then the dynamic changes. Transactions begun: the pass's, then the snapshot's.
TEST_F(BundleFaultTest, FailuresInThePassLeaveNothingOrGoOnWithoutInheritance) {
  const uint64_t u = CreateUnderlying();
  ASSERT_NE(u, 0u);
  const std::string shared_row = RawDynamicRow(u);

  struct Case {
    const char* name;
    Kind kind;
    uint32_t nth;
    int injected;
    vsk_status_t want;
    const char* mac;    // in the record when the create succeeded
    const char* trace;  // a line that must be traced
  } cases[] = {
      {"inherited update", Kind::kDbPut, 2, ENOSPC, VSK_ERR_FATAL, nullptr,
       "attribs with underlying sid:"},
      {"dynamic changes", Kind::kDbPut, 3, ENOSPC, VSK_ERR_FATAL, nullptr, nullptr},
      {"client record, retried", Kind::kDbPut, 1, DB_LOCK_DEADLOCK, VSK_OK, "00:11:22", nullptr},
      {"snapshot", Kind::kTxnBegin, 2, ENOMEM, VSK_OK, "<absent>",
       "failed to get snapshot handle for underlying sid:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    traces().Clear();
    const SessionCounts before = ReadSharedCounts();
    AttrList attrs{{VSK_USER_NAME, "bea"}, {VSK_INTERFACE_NAME, Text("ge-0/0/1")}};
    AttrList inherit{{VSK_USER_MAC_ADDRESS, ""}};
    DynList changes{{"kelvo-a", "2"}};
    fault::Arm(c.kind, c.nth, c.injected);
    vsk_status_t st = -1;
    const uint64_t b = CreateOn(u, attrs, &changes, &inherit, false, &st);
    fault::DisarmAll();
    EXPECT_EQ(st, c.want) << traces().Dump();
    if (c.trace != nullptr) {
      EXPECT_EQ(traces().CountContaining(c.trace), 1) << traces().Dump();
    }
    if (c.want != VSK_OK) {
      const uint64_t lost = vsk_id_get_last();
      EXPECT_EQ(Row(lost, VSK_USER_NAME), "st-7");
      EXPECT_EQ(RawDynamicRow(u), shared_row) << "the shared record as it was";
      EXPECT_EQ(CountDifferences(before, ReadSharedCounts()), "") << "nothing counted";
      continue;
    }
    EXPECT_EQ(Row(b, VSK_USER_MAC_ADDRESS), c.mac);
    DynList want{{"kelvo-a", "2"}};
    EXPECT_EQ(RawDynamicRow(u), EncodedDynamic(want));
    ASSERT_EQ(vsk_remove_client_session(b), 0);
  }
  EXPECT_EQ(Drift(), "");
}

}  // namespace
}  // namespace vsk::test
