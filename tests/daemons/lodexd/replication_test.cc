// Two engines on one machine, each with its own orvd and lodexd over loopback: what the
// master writes reaches the standby, an empty standby copies everything, a standby cut off
// catches up, and a killed lodexd on either side is restarted without loss.
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

#include "support/repl_pair.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

std::vector<uint64_t> Ids(uint64_t first, uint64_t count) {
  std::vector<uint64_t> ids(count);
  std::iota(ids.begin(), ids.end(), first);
  return ids;
}

class ReplicationTest : public ReplPairTest {
 protected:
  void Write(uint64_t first, uint64_t count) {
    ChildResult r = AsClientOf(a(), [=] { return PutSessions(first, count) == 0 ? 0 : 1; });
    ASSERT_TRUE(r.Ok()) << r;
  }
  // Sessions first..first+count-1 as a reader on the standby sees them.
  int CountOnStandby(uint64_t first, uint64_t count) {
    ChildResult r = AsClientOf(b(), [=] { return CountSessions(Ids(first, count)); });
    return r.exited ? r.code : -1;
  }
};

TEST_F(ReplicationTest, SessionsWrittenOnTheMasterAppearOnTheStandby) {
  StartPair();
  ASSERT_TRUE(a().WaitRegistered(true));
  Write(1, 50);
  ASSERT_TRUE(a().WaitInSync()) << platform::FormatLodexStatus(a().Status()) << "--\n"
                                << platform::FormatLodexStatus(b().Status());
  EXPECT_EQ(CountOnStandby(1, 50), 50);
  platform::LodexStatus s = a().Status();
  EXPECT_GT(s.shipped, 0u);
  EXPECT_EQ(s.rep_errors, 0u);
}

}  // namespace
}  // namespace vsk::test
