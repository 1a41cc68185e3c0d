// The link between the two lodexd: see peer_link.h for the rules.
#include "peer_link.h"

#include <arpa/inet.h>
#include <errno.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "libvsk/base/byte_reader.h"
#include "log.h"

namespace lodexd {
namespace {

constexpr int kDialMs = 500;
constexpr int kDialJitterMs = 250;

bool Resolve(const Endpoint& e, sockaddr_in* out) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(e.host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) return false;
  std::memcpy(out, res->ai_addr, sizeof *out);
  freeaddrinfo(res);
  out->sin_port = htons(e.port);
  return true;
}

void Tune(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

struct PeerLink::Conn {
  PeerLink* owner;
  bufferevent* bev;
  bool outgoing;
  bool hello_sent = false;
  bool hello_seen = false;
  uint64_t dialler_nonce = 0;  // nonce of the end that dialled this connection
};

bool ParseEndpoint(const std::string& text, Endpoint* out) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size()) return false;
  char* end = nullptr;
  unsigned long port = std::strtoul(text.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || port == 0 || port > 65535) return false;
  out->host = text.substr(0, colon);
  out->port = static_cast<uint16_t>(port);
  return true;
}

PeerLink::PeerLink(event_base* base, Endpoint listen, Endpoint peer, Listener* listener)
    : base_(base), listen_(std::move(listen)), peer_(std::move(peer)), listener_(listener) {
  std::random_device rd;
  nonce_ = (uint64_t{rd()} << 32) ^ rd() ^ static_cast<uint64_t>(getpid());
}

PeerLink::~PeerLink() {
  DropAll();
  if (accept_ev_ != nullptr) event_free(accept_ev_);
  if (dial_ev_ != nullptr) event_free(dial_ev_);
  if (listen_fd_ >= 0) close(listen_fd_);
}

bool PeerLink::Start() {
  dial_ev_ = evtimer_new(base_, OnDialTimer, this);
  if (listen_.valid()) {
    sockaddr_in addr{};
    if (!Resolve(listen_, &addr)) {
      Log("cannot resolve the listening address %s", listen_.host.c_str());
      return false;
    }
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 8) != 0) {
      Log("cannot listen on %s:%u: %s", listen_.host.c_str(), listen_.port, std::strerror(errno));
      return false;
    }
    accept_ev_ = event_new(base_, listen_fd_, EV_READ | EV_PERSIST, OnAccept, this);
    event_add(accept_ev_, nullptr);
  }
  if (peer_.valid()) Dial();
  return true;
}

void PeerLink::ArmDial() {
  if (!peer_.valid() || evtimer_pending(dial_ev_, nullptr)) return;
  static std::minstd_rand jitter(static_cast<unsigned>(nonce_));
  int ms = kDialMs + static_cast<int>(jitter() % kDialJitterMs);
  timeval tv{ms / 1000, (ms % 1000) * 1000};
  evtimer_add(dial_ev_, &tv);
}

void PeerLink::OnDialTimer(evutil_socket_t, short, void* arg) {
  static_cast<PeerLink*>(arg)->Dial();
}

void PeerLink::Dial() {
  bool dialling = std::any_of(conns_.begin(), conns_.end(),
                              [](const auto& c) { return c->outgoing; });
  if (link_ != nullptr || dialling) return;
  sockaddr_in addr{};
  if (!Resolve(peer_, &addr)) {
    ArmDial();
    return;
  }
  Conn* c = Adopt(-1, true);
  if (c == nullptr ||
      bufferevent_socket_connect(c->bev, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    if (c != nullptr) Close(c);
    ArmDial();
    return;
  }
  ArmDial();  // a dial that fails is retried; a link that forms makes the retry a no-op
}

void PeerLink::OnAccept(evutil_socket_t, short, void* arg) {
  auto* self = static_cast<PeerLink*>(arg);
  for (;;) {
    int fd = accept4(self->listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    Tune(fd);
    self->Adopt(fd, false);
  }
}

PeerLink::Conn* PeerLink::Adopt(int fd, bool outgoing) {
  auto c = std::make_unique<Conn>();
  c->owner = this;
  c->outgoing = outgoing;
  c->bev = bufferevent_socket_new(base_, fd, BEV_OPT_CLOSE_ON_FREE);
  if (c->bev == nullptr) {
    if (fd >= 0) close(fd);
    return nullptr;
  }
  Conn* raw = c.get();
  bufferevent_setcb(c->bev, OnRead, nullptr, OnEvent, raw);
  bufferevent_enable(c->bev, EV_READ | EV_WRITE);
  conns_.push_back(std::move(c));
  if (!outgoing) SendHello(raw);  // a dialled connection says hello once it is connected
  return raw;
}

void PeerLink::SendHello(Conn* c) {
  FrameHeader h{};
  h.magic = kFrameMagic;
  h.kind = kHello;
  h.control_size = sizeof nonce_;
  evbuffer* out = bufferevent_get_output(c->bev);
  evbuffer_add(out, &h, sizeof h);
  evbuffer_add(out, &nonce_, sizeof nonce_);
  c->hello_sent = true;
}

void PeerLink::OnEvent(bufferevent*, short what, void* arg) {
  auto* c = static_cast<Conn*>(arg);
  PeerLink* self = c->owner;
  if (what & BEV_EVENT_CONNECTED) {
    Tune(bufferevent_getfd(c->bev));
    self->SendHello(c);
    return;
  }
  if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) {
    self->Close(c);
    self->ArmDial();
  }
}

void PeerLink::Close(Conn* c) {
  auto it = std::find_if(conns_.begin(), conns_.end(),
                         [c](const auto& p) { return p.get() == c; });
  if (it == conns_.end()) return;
  bool was_link = link_ == c;
  if (was_link) link_ = nullptr;
  bufferevent_free(c->bev);
  conns_.erase(it);
  if (was_link) listener_->OnLinkDown();
}

void PeerLink::DropAll() {
  while (!conns_.empty()) Close(conns_.back().get());
}

void PeerLink::OnHello(Conn* c, uint64_t peer_nonce) {
  c->hello_seen = true;
  c->dialler_nonce = c->outgoing ? nonce_ : peer_nonce;
  if (link_ == nullptr) {
    link_ = c;
    listener_->OnLinkUp();
    return;
  }
  if (link_ == c) return;
  // Two connections crossed: both ends keep the one dialled by the larger nonce.
  if (c->dialler_nonce > link_->dialler_nonce) {
    Conn* old = link_;
    link_ = c;
    auto it = std::find_if(conns_.begin(), conns_.end(),
                           [old](const auto& p) { return p.get() == old; });
    bufferevent_free(old->bev);
    conns_.erase(it);
    listener_->OnLinkUp();  // the new connection may have missed what the old one carried
  } else {
    Close(c);
  }
}

void PeerLink::OnRead(bufferevent*, void* arg) {
  auto* c = static_cast<Conn*>(arg);
  c->owner->ReadFrames(c);
}

void PeerLink::ReadFrames(Conn* c) {
  evbuffer* in = bufferevent_get_input(c->bev);
  bool any = false;
  for (;;) {
    FrameHeader h;
    uint8_t raw[sizeof h];
    if (evbuffer_copyout(in, raw, sizeof raw) != static_cast<ev_ssize_t>(sizeof raw)) break;
    vsk::base::ByteReader(raw, sizeof raw).Get(&h);
    if (h.magic != kFrameMagic || h.kind < kHello || h.kind > kProgress ||
        h.control_size > kMaxPart || h.rec_size > kMaxPart ||
        (h.kind == kHello && h.control_size != sizeof(uint64_t))) {
      Log("protocol error from the peer (kind %u, sizes %u/%u): dropping the connection", h.kind,
          h.control_size, h.rec_size);
      Close(c);
      ArmDial();
      return;
    }
    size_t total = sizeof h + size_t{h.control_size} + h.rec_size;
    if (evbuffer_get_length(in) < total) break;
    const uint8_t* bytes = evbuffer_pullup(in, static_cast<ev_ssize_t>(total));
    const uint8_t* control = bytes + sizeof h;
    const uint8_t* rec = control + h.control_size;
    if (h.kind == kHello) {
      uint64_t nonce = 0;
      vsk::base::ByteReader(control, h.control_size).Get(&nonce);  // size checked above
      evbuffer_drain(in, total);
      OnHello(c, nonce);
      // OnHello may have closed this connection.
      if (std::none_of(conns_.begin(), conns_.end(),
                       [c](const auto& p) { return p.get() == c; })) {
        return;
      }
      continue;
    }
    if (c == link_) {  // frames on a connection that is not the link are dropped
      listener_->OnFrame(h, control, rec);
      any = true;
    }
    evbuffer_drain(in, total);
  }
  if (any) listener_->OnFramesDone();
}

bool PeerLink::Send(const FrameHeader& h, const void* control, const void* rec) {
  if (link_ == nullptr) return false;
  evbuffer* out = bufferevent_get_output(link_->bev);
  // One evbuffer_add per part: libevent appends each whole, and nothing else writes to this
  // buffer in between, so the frame goes out whole (invariant 2).
  evbuffer_add(out, &h, sizeof h);
  if (h.control_size > 0) evbuffer_add(out, control, h.control_size);
  if (h.rec_size > 0) evbuffer_add(out, rec, h.rec_size);
  return true;
}

size_t PeerLink::Backlog() const {
  return link_ != nullptr ? evbuffer_get_length(bufferevent_get_output(link_->bev)) : 0;
}

}  // namespace lodexd
