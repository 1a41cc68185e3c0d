// The acknowledgement channel's client: one connection to lodexd on the daemon's loop.
//
// States: unlinked (fd -1, the retry timer armed) -> linked (fd open, `up` as lodexd last
// said) -> unlinked again on end of file, a read or write failure, or a frame that makes
// no sense. `up` is reported to the state callback only when it changes, and a link that
// goes away while up reports down.
//
// Invariants:
//  1. `out` holds whole frames only, minus what has already been written of the first;
//     a frame is queued whole or not at all, so the stream never carries half a frame
//     followed by another.
//  2. The state callback never runs inside lodex_ack_send: a failure found there is acted
//     on from a zero-delay timer, so the caller's lists are never changed under it.
#include "platform/lodex_ack.h"

#include <errno.h>
#include <event2/event.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "libvsk/base/byte_reader.h"
#include "platform/paths.h"

namespace vsk::platform {
namespace {

constexpr wtimer_interval_t kRetryInterval = {1, 0};
constexpr wtimer_interval_t kNow = {0, 0};
constexpr size_t kMaxQueuedBytes = 256 * 1024;

struct Channel {
  void* cookie = nullptr;
  wtimer_root_t* root = nullptr;
  event_base* base = nullptr;
  lodex_ack_answer_fn answer = nullptr;
  lodex_ack_state_fn state = nullptr;
  wtimer_leaf_t* retry = nullptr;  // connect again, or drop a broken link
  int fd = -1;
  event* readable = nullptr;
  event* writable = nullptr;
  bool up = false;
  bool broken = false;  // a send failed; the retry leaf drops the link
  std::vector<uint8_t> in;
  std::vector<uint8_t> out;
};

Channel* g_channel = nullptr;

void SetUp(Channel* ch, bool up) {
  if (ch->up == up) return;
  ch->up = up;
  ch->state(ch->cookie, up);
}

void Unlink(Channel* ch) {
  if (ch->readable != nullptr) event_free(ch->readable);
  if (ch->writable != nullptr) event_free(ch->writable);
  ch->readable = ch->writable = nullptr;
  if (ch->fd >= 0) close(ch->fd);
  ch->fd = -1;
  ch->in.clear();
  ch->out.clear();
  ch->broken = false;
  wtimer_start_oneshot_precise(ch->retry, &kRetryInterval, 0);
  SetUp(ch, false);
}

bool Flush(Channel* ch) {
  size_t done = 0;
  while (done < ch->out.size()) {
    ssize_t n = send(ch->fd, ch->out.data() + done, ch->out.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    } else {
      return false;
    }
  }
  ch->out.erase(ch->out.begin(), ch->out.begin() + static_cast<long>(done));
  if (!ch->out.empty()) event_add(ch->writable, nullptr);
  return true;
}

void OnWritable(evutil_socket_t, short, void* arg) {
  auto* ch = static_cast<Channel*>(arg);
  if (!Flush(ch)) Unlink(ch);
}

// Hands every whole frame at the front of `in` to the callbacks. False on a bad frame.
bool Dispatch(Channel* ch) {
  size_t used = 0;
  bool ok = true;
  lodex_ack_msg_t msg;
  while (ok) {
    long n = ParseLodexAckFrame(ch->in.data() + used, ch->in.size() - used, &msg);
    if (n == 0) break;
    if (n < 0 || msg.kind == LODEX_ACK_REQUEST) {
      ok = false;
      break;
    }
    used += static_cast<size_t>(n);
    if (msg.kind == LODEX_ACK_STATE) {
      SetUp(ch, msg.count != 0);
    } else if (ch->up) {
      ch->answer(ch->cookie, &msg);
    }
    // The callbacks may not unlink (they run on this loop, not inside a send).
  }
  ch->in.erase(ch->in.begin(), ch->in.begin() + static_cast<long>(used));
  return ok;
}

void OnReadable(evutil_socket_t, short, void* arg) {
  auto* ch = static_cast<Channel*>(arg);
  uint8_t buf[4096];
  for (;;) {
    ssize_t n = recv(ch->fd, buf, sizeof buf, 0);
    if (n > 0) {
      ch->in.insert(ch->in.end(), buf, buf + n);
      if (!Dispatch(ch)) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    break;  // end of file or failure
  }
  Unlink(ch);
}

bool Connect(Channel* ch) {
  std::string path = RootedPath(kLodexAckSocket);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return false;
  }
  ch->fd = fd;
  ch->readable = event_new(ch->base, fd, EV_READ | EV_PERSIST, OnReadable, ch);
  ch->writable = event_new(ch->base, fd, EV_WRITE, OnWritable, ch);
  if (ch->readable == nullptr || ch->writable == nullptr || event_add(ch->readable, nullptr) != 0) {
    Unlink(ch);
    return false;
  }
  return true;
}

void OnRetry(wtimer_leaf_t*, void* arg) {
  auto* ch = static_cast<Channel*>(arg);
  if (ch->broken) {
    Unlink(ch);
    return;
  }
  if (ch->fd < 0 && !Connect(ch)) wtimer_start_oneshot_precise(ch->retry, &kRetryInterval, 0);
}

}  // namespace

long ParseLodexAckFrame(const uint8_t* data, size_t size, lodex_ack_msg_t* out) {
  base::ByteReader in(data, size);
  if (!in.Get(&out->kind) || !in.Get(&out->count)) return 0;
  switch (out->kind) {
    case LODEX_ACK_STATE:
      return out->count > 1 ? -1 : static_cast<long>(in.pos());
    case LODEX_ACK_REQUEST:
    case LODEX_ACK_ANSWER:
      break;
    default:
      return -1;
  }
  if (out->count == 0 || out->count > LODEX_ACK_MAX_IDS) return -1;
  if (!in.Bytes(out->ids, sizeof(uint32_t) * out->count)) return 0;
  return static_cast<long>(in.pos());
}

}  // namespace vsk::platform

using vsk::platform::g_channel;

extern "C" {

int lodex_ack_init(void* cookie, wtimer_root_t* timer_ctx, lodex_ack_answer_fn answer,
                   lodex_ack_state_fn state) {
  using namespace vsk::platform;
  if (g_channel != nullptr || timer_ctx == nullptr || answer == nullptr || state == nullptr) {
    return -1;
  }
  auto* ch = new Channel;
  ch->cookie = cookie;
  ch->root = timer_ctx;
  ch->base = TimerRootBase(timer_ctx);
  ch->answer = answer;
  ch->state = state;
  ch->retry = wtimer_create_leaf(timer_ctx, 0, OnRetry, ch);
  if (ch->base == nullptr || ch->retry == nullptr) {
    wtimer_destroy(ch->retry);
    delete ch;
    return -1;
  }
  g_channel = ch;
  if (!Connect(ch)) wtimer_start_oneshot_precise(ch->retry, &kRetryInterval, 0);
  return 0;
}

bool lodex_ack_send(lodex_ack_msg_t* msg) {
  using namespace vsk::platform;
  Channel* ch = g_channel;
  if (ch == nullptr || ch->fd < 0 || ch->broken || msg == nullptr || msg->count == 0 ||
      msg->count > LODEX_ACK_MAX_IDS) {
    return false;
  }
  size_t size = LodexAckFrameSize(msg->count);
  if (ch->out.size() + size > kMaxQueuedBytes) return false;
  msg->kind = LODEX_ACK_REQUEST;
  const auto* bytes = reinterpret_cast<const uint8_t*>(msg);
  bool was_idle = ch->out.empty();
  ch->out.insert(ch->out.end(), bytes, bytes + size);
  if (was_idle && !Flush(ch)) {
    // Nothing of a later frame follows a half-written one: the link is dropped (from the
    // timer, invariant 2) and the message counts as not sent.
    ch->broken = true;
    wtimer_start_oneshot_precise(ch->retry, &kNow, 0);
    return false;
  }
  return true;
}

}  // extern "C"
