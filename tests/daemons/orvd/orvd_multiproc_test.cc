// orvd as a process: its answers on the raw socket, how it drops misbehaving clients
// without affecting the others, and its start and stop.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>

#include "libvsk/orvd_client/wire.h"
#include "support/harness.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace vsk::orvd;

class OrvdTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop();
    VskTest::TearDown();
  }

  int Connect() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = Path("/var/run/orvd_server_communication");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      close(fd);
      return -1;
    }
    return fd;
  }

  // Milliseconds until orvd closes `fd` (end of file), or -1 if it stays open `limit_ms`.
  static long MsUntilClosed(int fd, int limit_ms) {
    auto start = Clock::now();
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, limit_ms) == 1) {
      char buf[64];
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start)
            .count();
      }
    }
    return -1;
  }

  static RegisterMsg Registration(const char* name, uint8_t role) {
    RegisterMsg msg{};
    msg.type = ORVD_MSG_REGISTER;
    std::strncpy(msg.program, name, sizeof msg.program - 1);
    msg.pid = getpid();
    msg.role = role;
    return msg;
  }

  OrvdProcess orvd_;
};

TEST_F(OrvdTest, AnswersARegistrationWithAFullAcknowledgement) {
  ASSERT_TRUE(orvd_.Start());
  int fd = Connect();
  ASSERT_GE(fd, 0);
  RegisterMsg msg = Registration("rawd", kRoleMaster);
  msg.issu_info.state = 2;
  ASSERT_EQ(send(fd, &msg, sizeof msg, 0), static_cast<ssize_t>(sizeof msg));
  RegisterAckMsg ack{};
  ASSERT_EQ(recv(fd, &ack, sizeof ack, MSG_WAITALL), static_cast<ssize_t>(sizeof ack));
  EXPECT_EQ(ack.type, ORVD_MSG_REGISTER_ACK);
  EXPECT_EQ(ack.flags & kAckAccepted, kAckAccepted);
  EXPECT_EQ(ack.error, 0);
  EXPECT_EQ(ack.daemon_issu_state, 2u) << "orvd remembers the daemon's ISSU state";
  EXPECT_EQ(ack.platd_issu_state, 0u);

  // Two messages in one write are both taken.
  uint32_t two[2] = {ORVD_MSG_RECOVERY_COMPLETE, ORVD_MSG_REPLICATION_REQUEST};
  ASSERT_EQ(send(fd, two, sizeof two, 0), static_cast<ssize_t>(sizeof two));
  OrvdTableRow row = OrvdProcess::WaitForRow("rawd", [](const OrvdTableRow& r) {
    return r.recovery_complete && r.replication_requests == 1;
  });
  EXPECT_EQ(row.pid, getpid());
  EXPECT_EQ(row.role, 3);
  EXPECT_EQ(row.recovery_complete, 1);
  EXPECT_EQ(row.replication_requests, 1u);
  EXPECT_EQ(row.connected, 1);
  close(fd);
}

TEST_F(OrvdTest, ARefusedDaemonIsNotListed) {
  ASSERT_TRUE(orvd_.Start());
  // orvd's store goes down and stays down: the status word says the shared state is being
  // rebuilt, and orvd's own attempts to open the store again find no directory.
  ASSERT_EQ(rename(Path("/mfs/var/vsk").c_str(), Path("/mfs/var/vsk.away").c_str()), 0);
  ASSERT_TRUE(RunInChild([] {
                if (vsk_open_internal(false) != 0) return 1;
                *vsk_db_status = VSK_DB_STATUS_RECOVERING;
                vsk_close_internal();
                return 0;
              }).Ok());
  int fd = Connect();
  ASSERT_GE(fd, 0);
  RegisterMsg msg = Registration("refusedd", kRoleMaster);
  ASSERT_EQ(send(fd, &msg, sizeof msg, 0), static_cast<ssize_t>(sizeof msg));
  RegisterAckMsg ack{};
  ASSERT_EQ(recv(fd, &ack, sizeof ack, MSG_WAITALL), static_cast<ssize_t>(sizeof ack));
  EXPECT_EQ(ack.flags & kAckAccepted, 0);
  EXPECT_EQ(ack.error, VSK_ERR_NOT_STARTED);
  // Dropping the connection makes orvd publish its table again.
  struct stat before {};
  std::string table = Path("/var/run/orvd_clients");
  ASSERT_EQ(stat(table.c_str(), &before), 0);
  close(fd);
  struct stat after = before;
  for (int i = 0; i < 500 && after.st_ino == before.st_ino; ++i) {
    usleep(10 * 1000);
    stat(table.c_str(), &after);
  }
  ASSERT_NE(after.st_ino, before.st_ino) << "orvd did not publish its table";
  EXPECT_EQ(OrvdProcess::Table().count("refusedd"), 0u);
}

TEST_F(OrvdTest, MisbehavingClientsAreDroppedWithoutAffectingOthers) {
  ASSERT_TRUE(orvd_.Start());
  // A good client, registered through the library, stays registered throughout.
  Child good;
  good.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = orvd_init_handle();
    orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
    orvd_set_reg_type_poll(ctx);
    if (orvd_register(ctx) != 0) return 10;
    ch.Ready();
    if (!ch.WaitGo()) return 11;
    if (vsk_db_check() != 0) return 12;
    if (GlobalTraces().CountContaining("Closing communication") != 0) return 13;
    return orvd_unregister(&ctx) == 0 ? 0 : 14;
  });
  ASSERT_TRUE(good.WaitReady());

  int unknown = Connect();
  int shorty = Connect();
  int silent = Connect();
  ASSERT_GE(unknown, 0);
  ASSERT_GE(shorty, 0);
  ASSERT_GE(silent, 0);
  uint32_t bad_type = 77;
  ASSERT_EQ(send(unknown, &bad_type, sizeof bad_type, 0), 4);
  RegisterMsg half = Registration("shorty", kRoleMaster);
  ASSERT_EQ(send(shorty, &half, 100, 0), 100);

  EXPECT_GE(MsUntilClosed(unknown, 1000), 0) << "an unknown type is dropped at once";
  // Meanwhile another client registers normally, although two connections hang.
  int other = Connect();
  RegisterMsg reg = Registration("otherd", kRoleMaster);
  ASSERT_EQ(send(other, &reg, sizeof reg, 0), static_cast<ssize_t>(sizeof reg));
  pollfd p{other, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 1000), 1) << "orvd answers while others stall";
  RegisterAckMsg ack{};
  ASSERT_EQ(recv(other, &ack, sizeof ack, MSG_WAITALL), static_cast<ssize_t>(sizeof ack));
  EXPECT_EQ(ack.flags & kAckAccepted, kAckAccepted);

  long shorty_ms = MsUntilClosed(shorty, 6000);
  EXPECT_GE(shorty_ms, 0) << "a short message then silence is dropped";
  long silent_ms = MsUntilClosed(silent, 6000);
  EXPECT_GE(silent_ms, 0) << "a silent connection is dropped";
  EXPECT_EQ(OrvdProcess::Table().count("shorty"), 0u);

  good.Go();
  ChildResult r = good.Wait();
  EXPECT_TRUE(r.Ok()) << r;
  EXPECT_EQ(OrvdProcess::Table()["otherd"].connected, 1) << "the well-behaved one stays";
  close(unknown);
  close(shorty);
  close(silent);
  close(other);
}

TEST_F(OrvdTest, RemovesAStaleSocketAndStopsCleanly) {
  std::string sock = Path("/var/run/orvd_server_communication");
  std::ofstream(sock).close();  // left behind by an orvd that died
  ASSERT_TRUE(orvd_.Start());
  int fd = Connect();
  EXPECT_GE(fd, 0) << "orvd listens in place of the stale file";
  if (fd >= 0) close(fd);
  EXPECT_EQ(orvd_.Stop(SIGTERM), 0);
  struct stat st;
  EXPECT_NE(stat(sock.c_str(), &st), 0) << "the socket file is removed on SIGTERM";
}

}  // namespace
}  // namespace vsk::test
