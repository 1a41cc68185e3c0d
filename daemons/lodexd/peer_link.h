// The link to the other engine's lodexd over TCP.
//
// Both ends listen (when given an address) and both dial the peer (when given one) while
// they have no link, every half second with some jitter. Two connections may cross; each
// end sends a hello with a random nonce first, and of two connections the one dialled by
// the end with the larger nonce stays: both ends see both nonces and keep the same one.
// A connection is the link only once its hellos are through.
//
// Invariants:
//  1. At most one connection is the link; frames arriving on any other are dropped.
//  2. A frame is appended to the link's output whole or not at all.
//  3. on_down is called once for each on_up, when the link's connection ends.
// Runs on lodexd's one event loop; nothing here blocks.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link_wire.h"

namespace lodexd {

struct Endpoint {
  std::string host;  // empty: none
  uint16_t port = 0;
  bool valid() const { return !host.empty() && port != 0; }
};
// Parses "host:port". False on a malformed text.
bool ParseEndpoint(const std::string& text, Endpoint* out);

class PeerLink {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void OnLinkUp() = 0;
    virtual void OnLinkDown() = 0;
    virtual void OnFrame(const FrameHeader& h, const uint8_t* control, const uint8_t* rec) = 0;
    // After the frames that one read brought.
    virtual void OnFramesDone() = 0;
  };

  PeerLink(event_base* base, Endpoint listen, Endpoint peer, Listener* listener);
  ~PeerLink();
  PeerLink(const PeerLink&) = delete;
  PeerLink& operator=(const PeerLink&) = delete;

  // Listens (if an address was given) and starts dialling. False if it cannot listen.
  bool Start();
  bool up() const { return link_ != nullptr; }
  // Appends one frame to the link's output. False without a link.
  bool Send(const FrameHeader& h, const void* control, const void* rec);
  // Bytes written to the link but not yet taken by the kernel.
  size_t Backlog() const;
  // Drops every connection (the peer sees the link end).
  void DropAll();

 private:
  struct Conn;
  static void OnAccept(evutil_socket_t fd, short, void* arg);
  static void OnDialTimer(evutil_socket_t, short, void* arg);
  static void OnRead(struct bufferevent* bev, void* arg);
  static void OnEvent(struct bufferevent* bev, short what, void* arg);

  void Dial();
  void ArmDial();
  Conn* Adopt(int fd, bool outgoing);
  void SendHello(Conn* c);
  void OnHello(Conn* c, uint64_t nonce);
  void Close(Conn* c);
  void ReadFrames(Conn* c);

  event_base* base_;
  Endpoint listen_;
  Endpoint peer_;
  Listener* listener_;
  uint64_t nonce_;
  int listen_fd_ = -1;
  event* accept_ev_ = nullptr;
  event* dial_ev_ = nullptr;
  std::vector<std::unique_ptr<Conn>> conns_;
  Conn* link_ = nullptr;
};

}  // namespace lodexd
