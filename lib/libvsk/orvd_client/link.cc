// The link's traffic: sending, the message reader, closing the link, the re-registration
// timer and the three ways a daemon services the link (event, select, poll).
//
// The reader blocks in recv for the fixed size of each message: orvd writes whole
// messages, and the socket is only read when it is readable. No wait on orvd is
// unbounded: the connect gives up after the connect timeout (an orvd that is stopped or
// has a full backlog never accepts), and a send or a receive that stalls longer than
// kStallLimitMs fails like a broken link.
#include "libvsk/orvd_client/link.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/role.h"
#include "libvsk/base/status.h"
#include "libvsk/orvd_client/wire.h"
#include "libvsk/store/env.h"
#include "platform/logging.h"
#include "platform/mgtlib_issu.h"
#include "platform/paths.h"
#include "platform/progname.h"
#include "vsk/store.h"

namespace vsk::orvd {
namespace {

using Clock = std::chrono::steady_clock;

// Longest a send or the rest of a message may stall: orvd answers in microseconds.
constexpr int kStallLimitMs = 2000;
// Pause between attempts while orvd's backlog is full.
constexpr auto kBacklogRetry = std::chrono::milliseconds(5);

bool SetNonBlocking(int fd, bool on) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  flags = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  return fcntl(fd, F_SETFL, flags) == 0;
}

// Connects `fd` to `addr` within `timeout_ms`. A non-blocking Unix-domain connect does not
// wait for room in a full backlog: it fails with EAGAIN, and is tried again until the
// deadline. 0 or -1 with errno (ETIMEDOUT when the time ran out).
int ConnectWithin(int fd, const sockaddr_un& addr, int timeout_ms) {
  if (!SetNonBlocking(fd, true)) return -1;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int rc = -1;
  for (;;) {
    rc = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    if (rc == 0 || errno == EISCONN) {
      rc = 0;
      break;
    }
    if (errno == EINTR) continue;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (errno == EINPROGRESS) {
      pollfd pfd{fd, POLLOUT, 0};
      int n;
      do {
        n = poll(&pfd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
      } while (n < 0 && errno == EINTR);
      int err = n == 0 ? ETIMEDOUT : 0;
      socklen_t len = sizeof err;
      if (n > 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
      errno = err;
      rc = err == 0 ? 0 : -1;
      break;
    }
    if (errno != EAGAIN) break;
    if (left.count() <= 0) {
      errno = ETIMEDOUT;
      break;
    }
    std::this_thread::sleep_for(std::min<Clock::duration>(kBacklogRetry, left));
  }
  int saved = errno;
  if (!SetNonBlocking(fd, false) && rc == 0) return -1;
  errno = saved;
  return rc;
}

// Bounds every later send and receive on the link.
void BoundStalls(int fd) {
  timeval tv{kStallLimitMs / 1000, (kStallLimitMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

// Receives exactly `size` bytes. Returns the byte count received (size on success, 0
// when orvd closed the link, less on a failure or a cut).
ssize_t ReceiveExactly(int fd, void* buf, size_t size) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = recv(fd, static_cast<char*>(buf) + got, size - got, MSG_WAITALL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 && got == 0 ? -1 : static_cast<ssize_t>(got);
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// Receives into `buf`; on failure traces, closes and takes the store down. True on
// success.
bool Receive(orvd_ctx* ctx, void* buf, size_t size) {
  ssize_t n = ReceiveExactly(ctx->fd, buf, size);
  if (n == static_cast<ssize_t>(size)) return true;
  if (n == 0) {
    ORVD_TRACE(ctx, "Connection with orvd closed");
  } else {
    ORVD_TRACE(ctx, "Failed to recv nread=%d, expected=%d", static_cast<int>(n),
               static_cast<int>(size));
  }
  orvd_reg_cleanup(ctx, true, true);
  return false;
}

void OnSocketReadable(evContext, void* uap, int, int) {
  auto* ctx = static_cast<orvd_ctx*>(uap);
  ORVD_TRACE(ctx, "Received message from ORVD");
  ReadMessage(ctx);
}

}  // namespace

vsk_status_t SendMessage(orvd_ctx* ctx, const void* msg, size_t size) {
  // MSG_NOSIGNAL: a dead orvd must close the link, not kill the daemon with SIGPIPE.
  ssize_t n = ctx->fd >= 0 ? send(ctx->fd, msg, size, MSG_NOSIGNAL) : -1;
  if (n == static_cast<ssize_t>(size)) return VSK_OK;
  if (ctx->fd < 0) errno = EBADF;
  ORVD_TRACE(ctx, "Unable to send message, err %s", std::strerror(errno));
  orvd_reg_cleanup(ctx, false, true);
  return VSK_ERR_ORVD_FATAL;
}

vsk_status_t SendRegister(orvd_ctx* ctx, uint8_t role, vsk_status_t status) {
  RegisterMsg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.type = ORVD_MSG_REGISTER;
  std::strncpy(msg.program, platform::ProgramName(), kProgramNameLen - 1);
  msg.pid = getpid();
  msg.role = role;
  msg.status = status;
  msg.recovery_complete_sent = ctx->recovery_complete_sent;
  msg.issu_enabled = ctx->issu_enabled;
  msg.issu_info = ctx->issu_info;
  return SendMessage(ctx, &msg, sizeof msg);
}

void ReadMessage(orvd_ctx* ctx) {
  if (ctx->fd < 0) {
    ORVD_TRACE(ctx, "Bad socket descriptor %d", ctx->fd);
    orvd_reg_cleanup(ctx, true, true);
    return;
  }
  uint32_t type = 0;
  if (!Receive(ctx, &type, sizeof type)) return;
  if (type != ORVD_MSG_REGISTER_ACK && type != ORVD_MSG_PLATD_ISSU_STATE) {
    ORVD_TRACE(ctx, "Invalid message: type=%d, len=%d", static_cast<int>(type), -1);
    orvd_reg_cleanup(ctx, true, true);
    return;
  }
  size_t body = type == ORVD_MSG_REGISTER_ACK ? kAckBodySize : kPlatdBodySize;
  if (!Receive(ctx, ctx->rx_buffer, body)) return;

  base::ByteReader in(ctx->rx_buffer, body);
  if (type == ORVD_MSG_PLATD_ISSU_STATE) {
    uint32_t state = 0;
    in.Get(&state);
    OnPlatdIssuState(ctx, state);
    return;
  }
  // The body of RegisterAckMsg, field by field (its members are unaligned).
  struct {
    uint8_t flags = 0;
    int32_t error = 0;
    uint32_t daemon_issu_state = 0;
    uint32_t platd_issu_state = 0;
  } ack;
  in.Get(&ack.flags);
  in.Skip(sizeof(RegisterAckMsg::reserved));
  in.Get(&ack.error);
  in.Get(&ack.daemon_issu_state);
  in.Get(&ack.platd_issu_state);
  if (ack.flags & kAckAccepted) {
    if (ctx->issu_enabled) {
      ORVD_TRACE(ctx, "Received ORVD Reg, daemon issu state <%s>, platd issu state <%s>",
                 mgtlib_format_daemon_issu_state(ack.daemon_issu_state),
                 mgtlib_format_platd_issu_state(ack.platd_issu_state));
      ctx->issu_info.state = ack.daemon_issu_state;
      ctx->platd_issu_state = ack.platd_issu_state;
    } else {
      ORVD_TRACE(ctx, "Received ORVD Reg");
    }
    ctx->reg_ack = true;
    return;
  }
  ORVD_TRACE(ctx, "VSK env is invalid: %s",
             ack.error == 0 ? "OK" : vsk::base::ErrorText(ack.error));
  // -11: the environment is being recovered under us; the close must not touch it.
  if (ack.error == VSK_ERR_RECOVERING) vsk_in_panic = true;
  orvd_reg_cleanup(ctx, true, true);
}

vsk_status_t ConnectAndRegister(orvd_ctx* ctx) {
  if (ctx->fd < 0) {
    ctx->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (ctx->fd < 0) {
      ctx->fd = -1;
      ORVD_TRACE(ctx, "Failed to create ORVD sock");
      return VSK_ERR_ORVD_FATAL;
    }
    ORVD_TRACE(ctx, "ORVD sock created");
  }
  sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::string path = platform::RootedPath(platform::kOrvdSocket);
  int timeout = ctx->connect_timeout > INT_MAX ? INT_MAX : static_cast<int>(ctx->connect_timeout);
  int rc = -1;
  if (path.size() < sizeof addr.sun_path) {
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    rc = ConnectWithin(ctx->fd, addr, timeout);
  } else {
    errno = ENAMETOOLONG;
  }
  if (rc != 0) {
    // The caller's clean-up closes the socket: a connect that timed out is not reused.
    ORVD_TRACE(ctx, "Unable to connect to ORVD socket: %s", std::strerror(errno));
    return VSK_ERR_ORVD_CONNECT;
  }
  BoundStalls(ctx->fd);
  ORVD_TRACE(ctx, "Connected to ORVD");

  if (ctx->issu_enabled) {
    ORVD_TRACE(ctx, "Send registration message to ORVD, daemon issu state <%s>",
               mgtlib_format_daemon_issu_state(ctx->issu_info.state));
  } else {
    ORVD_TRACE(ctx, "Send registration message to ORVD");
  }
  uint8_t role = vsk::base::IsMaster() ? kRoleMaster : kRoleStandby;
  if (SendRegister(ctx, role, VSK_OK) != VSK_OK) {
    ORVD_TRACE(ctx, "Failed to send registration message");
    return VSK_ERR_ORVD_FATAL;
  }

  pollfd pfd{ctx->fd, POLLIN, 0};
  int n;
  do {
    n = poll(&pfd, 1, timeout);
  } while (n < 0 && errno == EINTR);
  ORVD_TRACE(ctx, "Poll %d, ev %d, ms %d", n, static_cast<int>(pfd.revents), timeout);
  if (n == 0) {
    ORVD_TRACE(ctx, "No response from ORVD");
    return VSK_ERR_ORVD_FATAL;
  }
  ReadMessage(ctx);
  if (!ctx->reg_ack) {
    ORVD_TRACE(ctx, "ORVD reg failed");
    return VSK_ERR_ORVD_FATAL;
  }

  if (ctx->reg_type_event) {
    if (__evSelectFD(ctx->event_ctx, ctx->fd, EV_READ, OnSocketReadable, ctx,
                     &ctx->event_file_id) != 0) {
      ORVD_TRACE(ctx, "Unable to complete socket-selection operation %s", std::strerror(errno));
      ctx->event_registered = false;
      return VSK_ERR_ORVD_FATAL;
    }
    ctx->event_registered = true;
  }
  if (ctx->reg_type_select) {
    ctx->select_register(ctx->select_cookie, ctx->fd);
    ctx->select_registered = true;
  }
  // A daemon that connects during an upgrade catches up with the announced state unless
  // it has nothing left to answer (2, 4, 5).
  if (ctx->issu_enabled) {
    uint32_t platd = ctx->platd_issu_state;
    uint32_t mine = ctx->issu_info.state;
    if (platd == 7 || (platd != 0 && mine != 2 && mine != 4 && mine != 5)) {
      std::memcpy(ctx->rx_buffer, &platd, sizeof platd);
      OnPlatdIssuState(ctx, platd);
    }
  }
  return VSK_OK;
}

void OnReregisterTimer(wtimer_leaf_t*, void* arg) {
  auto* ctx = static_cast<orvd_ctx*>(arg);
  if (!VSK_INSIST(ctx)) return;
  if (ctx->fd >= 0) return;  // the link is up again
  // Only a registered daemon is re-registered: one whose first registration failed
  // retries by itself, and nothing opens the store unasked.
  if (!ctx->user_reg) return;
  if (orvd_reregister(ctx) != VSK_OK) {
    ORVD_TRACE(ctx, "Start a timer to try to reregister with ORVD");
    wtimer_start_oneshot_precise(ctx->timer_leaf, &ctx->timer_interval, 0);
  }
}

}  // namespace vsk::orvd

using vsk::orvd::BareMsg;

extern "C" {

void orvd_reg_cleanup(orvd_ctx_t* ctx, bool take_down, bool start_timer) {
  if (ctx == nullptr) return;
  if (ctx->reg_type_event && ctx->event_registered) {
    __evDeselectFD(ctx->event_ctx, ctx->event_file_id);
    ctx->event_file_id = evFileID{};
    ctx->event_registered = false;
  }
  if (ctx->select_registered) {
    ctx->select_deregister(ctx->select_cookie, ctx->fd);
    ctx->select_registered = false;
  }
  if (ctx->fd >= 0) {
    ORVD_TRACE(ctx, "Closing communication with ORVD");
    if (close(ctx->fd) != 0) ORVD_TRACE(ctx, "Close failed");
    ctx->fd = -1;
  }
  ctx->reg_ack = false;
  if (start_timer && ctx->reg_type_event && ctx->timer_leaf != nullptr &&
      !wtimer_running(ctx->timer_leaf)) {
    ORVD_TRACE(ctx, "Start a timer to try to reregister with ORVD");
    wtimer_start_oneshot_precise(ctx->timer_leaf, &ctx->timer_interval, 0);
  }
  if (take_down) vsk::store::EventDown(ctx);
}

void orvd_select_fd_read(orvd_ctx_t* ctx) {
  if (ctx == nullptr || ctx->fd < 0) return;
  vsk::orvd::ReadMessage(ctx);
}

void orvd_poll_check(orvd_ctx_t* ctx) {
  if (ctx == nullptr || !ctx->reg_type_poll) return;
  // Everything orvd has sent so far; each message may close the link.
  while (ctx->fd >= 0) {
    pollfd pfd{ctx->fd, POLLIN, 0};
    if (poll(&pfd, 1, 0) <= 0) return;
    vsk::orvd::ReadMessage(ctx);
  }
}

vsk_status_t orvd_send_recovery_complete(orvd_ctx_t* ctx) {
  if (ctx == nullptr) return VSK_ERR_ORVD_FATAL;
  if (!ctx->reg_ack) {
    ORVD_TRACE(ctx, "Cannot send recovery complete to ORVD if not registered");
    return VSK_ERR_ORVD_FATAL;
  }
  if (ctx->recovery_complete_sent) return VSK_OK;
  ctx->recovery_complete_sent = true;
  ORVD_TRACE(ctx, "Send recovery complete to ORVD");
  BareMsg msg{vsk::orvd::ORVD_MSG_RECOVERY_COMPLETE};
  return vsk::orvd::SendMessage(ctx, &msg, sizeof msg);
}

vsk_status_t orvd_send_replication_request(orvd_ctx_t* ctx) {
  if (ctx->fd < 0) {
    ORVD_TRACE(ctx, "Unable to send replication, no connection");
    return VSK_ERR_ORVD_FATAL;
  }
  BareMsg msg{vsk::orvd::ORVD_MSG_REPLICATION_REQUEST};
  return vsk::orvd::SendMessage(ctx, &msg, sizeof msg);
}

}  // extern "C"
