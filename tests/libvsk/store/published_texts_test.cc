// Published texts that look like typos are kept exactly: daemons and operators match them.
// The others of their kind are pinned beside the behaviour that prints them.
#include <db.h>

#include <string>

#include "libvsk/store/env_internal.h"
#include "support/harness.h"
#include "vsk/status.h"

namespace vsk::test {
namespace {

class PublishedTextTest : public VskTest {};

TEST_F(PublishedTextTest, OddTextsStayAsPublished) {
  // The status table's row for -16, capital "Cannot" and all.
  EXPECT_STREQ(vsk_get_err_msg(VSK_ERR_NO_ARRAY),
               "session database Cannot find array; need array identifying TLV; please set");
  // Berkeley DB asking for this process's identity before any store exists.
  auto r = RunInChild([] {
    pid_t pid = -1;
    db_threadid_t tid{};
    store::ThreadIdCallback(nullptr, &pid, &tid);
    return pid == 0 && GlobalTraces().Count("**  NO PID **") == 1 ? 0 : 1;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
