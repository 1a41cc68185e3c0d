// lodexd's side of the acknowledgement channel (wire: platform/lodex_ack.h).
//
// When is a request acknowledged. When a request message arrives, lodexd reads the
// master's end of log (log_stat's current LSN: where the next record will go) once for
// the whole message and keeps it with the message's ids. Every transaction that committed
// before the request was made has its commit record below that LSN. The standby reports
// its next expected LSN (rep_stat's st_next_lsn): the standby has processed, in order,
// every log record below it, and it applies a transaction when it processes the commit
// record. So once the standby, in the master's generation and with its start-up sync
// complete, reports a next LSN at or past the request's LSN, everything committed before
// the request is applied there, and the ids are answered.
//
// Invariants:
//  1. A client's waiting messages are in arrival order, so their LSNs never decrease and
//     answering stops at the first message the standby has not reached.
//  2. While acknowledging is impossible (no standby linked and in step), nothing waits:
//     the state frame that says so makes each client answer its requests negatively, and
//     requests that arrive meanwhile are dropped for the same reason.
// Runs on lodexd's one event loop.
#pragma once

#include <db.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace lodexd {

class AckServer {
 public:
  // Gives the master's end of log; false when it cannot be read.
  using LogEndFn = std::function<bool(DB_LSN*)>;

  AckServer(event_base* base, LogEndFn log_end);
  ~AckServer();
  AckServer(const AckServer&) = delete;
  AckServer& operator=(const AckServer&) = delete;

  // Listens on the acknowledgement socket. False if it cannot.
  bool Start();

  // Whether a standby is linked and in step with this master.
  void SetCanAck(bool can);
  bool can_ack() const { return can_ack_; }
  // The standby's next expected LSN moved: answers every message it covers.
  void Advance(const DB_LSN& standby_next);

  uint64_t clients() const { return clients_.size(); }
  uint64_t waiting() const;
  uint64_t answered() const { return answered_; }

 private:
  struct Waiting {
    DB_LSN lsn;
    std::vector<uint32_t> ids;
  };
  struct Client {
    AckServer* owner;
    struct bufferevent* bev;
    std::deque<Waiting> waiting;
  };

  static void OnAccept(evutil_socket_t fd, short, void* arg);
  static void OnRead(struct bufferevent* bev, void* arg);
  static void OnEvent(struct bufferevent* bev, short what, void* arg);
  void SendState(Client* c);
  void Drop(Client* c);
  void AnswerCovered(Client* c);

  event_base* base_;
  LogEndFn log_end_;
  int listen_fd_ = -1;
  event* accept_ev_ = nullptr;
  std::vector<std::unique_ptr<Client>> clients_;
  bool can_ack_ = false;
  DB_LSN standby_next_{};
  uint64_t answered_ = 0;
};

}  // namespace lodexd
