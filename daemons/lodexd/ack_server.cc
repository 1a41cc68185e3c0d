// lodexd's acknowledgement server: see ack_server.h for when an id is answered.
#include "ack_server.h"

#include <errno.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "log.h"
#include "platform/lodex_ack.h"
#include "platform/lodex_status.h"
#include "platform/paths.h"

namespace lodexd {

using vsk::platform::CompareLsn;

AckServer::AckServer(event_base* base, LogEndFn log_end)
    : base_(base), log_end_(std::move(log_end)) {}

AckServer::~AckServer() {
  while (!clients_.empty()) Drop(clients_.back().get());
  if (accept_ev_ != nullptr) event_free(accept_ev_);
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    unlink(vsk::platform::RootedPath(vsk::platform::kLodexAckSocket).c_str());
  }
}

bool AckServer::Start() {
  std::string path = vsk::platform::RootedPath(vsk::platform::kLodexAckSocket);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    Log("acknowledgement socket path %s is too long", path.c_str());
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());  // left by a lodexd that died
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd_, 64) != 0) {
    Log("cannot listen on %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  accept_ev_ = event_new(base_, listen_fd_, EV_READ | EV_PERSIST, OnAccept, this);
  return accept_ev_ != nullptr && event_add(accept_ev_, nullptr) == 0;
}

void AckServer::OnAccept(evutil_socket_t, short, void* arg) {
  auto* self = static_cast<AckServer*>(arg);
  for (;;) {
    int fd = accept4(self->listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    auto c = std::make_unique<Client>();
    c->owner = self;
    c->bev = bufferevent_socket_new(self->base_, fd, BEV_OPT_CLOSE_ON_FREE);
    if (c->bev == nullptr) {
      close(fd);
      continue;
    }
    bufferevent_setcb(c->bev, OnRead, nullptr, OnEvent, c.get());
    bufferevent_enable(c->bev, EV_READ | EV_WRITE);
    self->SendState(c.get());
    self->clients_.push_back(std::move(c));
  }
}

void AckServer::SendState(Client* c) {
  lodex_ack_msg_t msg{};
  msg.kind = LODEX_ACK_STATE;
  msg.count = can_ack_ ? 1 : 0;
  bufferevent_write(c->bev, &msg, vsk::platform::kLodexAckHeaderSize);
}

void AckServer::Drop(Client* c) {
  auto it = std::find_if(clients_.begin(), clients_.end(),
                         [c](const auto& p) { return p.get() == c; });
  if (it == clients_.end()) return;
  bufferevent_free(c->bev);
  clients_.erase(it);
}

void AckServer::OnEvent(bufferevent*, short what, void* arg) {
  auto* c = static_cast<Client*>(arg);
  if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) c->owner->Drop(c);
}

void AckServer::OnRead(bufferevent*, void* arg) {
  auto* c = static_cast<Client*>(arg);
  AckServer* self = c->owner;
  evbuffer* in = bufferevent_get_input(c->bev);
  lodex_ack_msg_t msg;
  for (;;) {
    size_t have = evbuffer_get_length(in);
    size_t look = std::min(have, sizeof msg);
    const uint8_t* bytes = evbuffer_pullup(in, static_cast<ev_ssize_t>(look));
    long n = vsk::platform::ParseLodexAckFrame(bytes, look, &msg);
    if (n == 0) return;
    if (n < 0 || msg.kind != LODEX_ACK_REQUEST) {
      Log("acknowledgement client sent a bad frame (kind %u, count %u): dropped", msg.kind,
          msg.count);
      self->Drop(c);
      return;
    }
    evbuffer_drain(in, static_cast<size_t>(n));
    if (!self->can_ack_) continue;  // invariant 2
    Waiting w;
    if (!self->log_end_(&w.lsn)) continue;
    w.ids.assign(msg.ids, msg.ids + msg.count);
    c->waiting.push_back(std::move(w));
    self->AnswerCovered(c);
  }
}

void AckServer::SetCanAck(bool can) {
  if (can == can_ack_) return;
  can_ack_ = can;
  standby_next_ = DB_LSN{};  // the caller's next Advance gives the position in force
  Log("acknowledgements %s", can ? "possible: the standby is in step" : "impossible");
  for (const auto& c : clients_) {
    if (!can) c->waiting.clear();
    SendState(c.get());
  }
}

void AckServer::Advance(const DB_LSN& standby_next) {
  standby_next_ = standby_next;
  if (!can_ack_) return;
  for (const auto& c : clients_) AnswerCovered(c.get());
}

void AckServer::AnswerCovered(Client* c) {
  while (!c->waiting.empty() && CompareLsn(c->waiting.front().lsn, standby_next_) <= 0) {
    Waiting& w = c->waiting.front();
    lodex_ack_msg_t msg{};
    msg.kind = LODEX_ACK_ANSWER;
    msg.count = static_cast<uint32_t>(w.ids.size());
    std::copy(w.ids.begin(), w.ids.end(), msg.ids);
    bufferevent_write(c->bev, &msg, vsk::platform::LodexAckFrameSize(msg.count));
    answered_ += msg.count;
    c->waiting.pop_front();
  }
}

uint64_t AckServer::waiting() const {
  uint64_t n = 0;
  for (const auto& c : clients_) {
    for (const auto& w : c->waiting) n += w.ids.size();
  }
  return n;
}

}  // namespace lodexd
