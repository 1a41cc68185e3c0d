// The connect timeout covers the connect itself: an orvd that does not accept (stopped,
// its backlog full) makes orvd_register give up with -26 instead of waiting for ever.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "support/harness.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

class ConnectTimeoutTest : public VskTest {
 protected:
  void TearDown() override {
    if (orvd_.pid() > 0) kill(orvd_.pid(), SIGCONT);
    for (int fd : fillers_) close(fd);
    orvd_.Stop();
    VskTest::TearDown();
  }

  // Connects without waiting until the socket's backlog refuses more.
  void FillBacklog() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = Path("/var/run/orvd_server_communication");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    for (int i = 0; i < 4096; ++i) {
      int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
      if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return;
      }
      fillers_.push_back(fd);
    }
  }

  OrvdProcess orvd_;
  std::vector<int> fillers_;
};

TEST_F(ConnectTimeoutTest, RegisterGivesUpOnAnOrvdThatDoesNotAccept) {
  ASSERT_TRUE(orvd_.Start());
  ASSERT_EQ(kill(orvd_.pid(), SIGSTOP), 0);
  FillBacklog();
  ASSERT_FALSE(fillers_.empty());
  ChildResult r = RunInChild(
      [] {
        orvd_ctx_t* ctx = orvd_init_handle();
        orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
        orvd_set_reg_type_poll(ctx);
        orvd_set_connect_timeout(ctx, 300);
        vsk_status_t rc = orvd_register(ctx);
        bool traced = GlobalTraces().CountContaining("Unable to connect to ORVD socket") == 1;
        orvd_unregister(&ctx);
        return rc == VSK_ERR_ORVD_CONNECT && traced ? 0 : 1;
      },
      std::chrono::seconds(20));
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
