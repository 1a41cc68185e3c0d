// orvd's server side of the daemon link.
//
// Owns the listening socket "/var/run/orvd_server_communication" (rooted), every client
// connection, and the published table of connections. Runs entirely on orvd's one event
// loop (evlib); nothing blocks on a client, and no client can take orvd's resources:
//  1. every socket is non-blocking; input is gathered per connection until a whole
//     message (its size follows from its type) is there;
//  2. at most kMaxConnections connections (fewer if the descriptor limit is lower), and at
//     most kMaxConnectionsPerPeer from one process; at the limit orvd stops accepting
//     until a connection goes. accept() failing for want of descriptors or memory backs
//     off (kAcceptBackoffFirst doubling to kAcceptBackoffMax) instead of spinning;
//  3. a connection that has not completed a registration kRegisterTimeout after
//     connecting is dropped, whatever it sent; one that stops in the middle of a message
//     for kPartialTimeout is dropped; one that sends an unknown type is dropped at once;
//  4. a registration is accepted only while the store is ready, only from the process that
//     made the connection (its pid must be the peer's, SO_PEERCRED), and only after a check
//     of the store that began after it arrived (StoreOwner::RequestJoinCheck): a process
//     must not join an environment in which another has just died holding what the
//     joiner would wait on. Each gets a full ORVD_MSG_REGISTER_ACK;
//  5. a connection touches only its own row: registering, leaving, recovery complete, ISSU
//     state and replication requests all apply to the connection they came on;
//  6. when the store goes down every registered client gets a negative acknowledgement
//     carrying the store's status, and the server counts the told connections that are
//     still open, so that the owner can wait for them to leave.
// The table (libvsk/orvd_client/clients_table.h) holds one row per live registered
// connection, names cleaned of anything but printable characters; it is written at most
// once per kTableDelay after a change, in time proportional to the live connections only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "issu.h"
#include "libvsk/base/byte_reader.h"
#include "log.h"
#include "platform/evlib.h"
#include "platform/wtimer.h"

namespace orvd {

using Clock = std::chrono::steady_clock;

inline constexpr size_t kMaxConnections = 256;
inline constexpr size_t kMaxConnectionsPerPeer = 4;
inline constexpr auto kRegisterTimeout = std::chrono::seconds(3);
inline constexpr auto kPartialTimeout = std::chrono::seconds(2);
// A registration whose check does not end this long after it arrived is refused.
inline constexpr auto kJoinCheckLimit = std::chrono::seconds(2);
inline constexpr auto kAcceptBackoffFirst = std::chrono::milliseconds(50);
inline constexpr auto kAcceptBackoffMax = std::chrono::seconds(2);
inline constexpr wtimer_interval_t kHousekeepingTick = {0, 250u * 1000u * 1000u};
inline constexpr wtimer_interval_t kTableDelay = {0, 10u * 1000u * 1000u};
// ISSU states remembered for daemons that come back (by name), at most this many.
inline constexpr size_t kRememberedDaemons = 256;

class Server;

struct Connection {
  Server* owner = nullptr;
  int fd = -1;
  evFileID id{};
  pid_t peer_pid = 0;  // SO_PEERCRED at accept
  std::vector<uint8_t> input;  // bytes of the message being assembled
  Clock::time_point connected_at;
  Clock::time_point last_input;
  bool registered = false;  // a registration was accepted and the daemon has not left
  bool told_down = false;   // told that the store went down; the owner waits for it to go
  // This connection's row in the published table (valid once it has registered).
  std::string name;
  int pid = 0;
  int role = 0;
  bool recovery_complete = false;
  uint32_t issu_state = 0;
  uint32_t replication_requests = 0;
  bool has_row = false;
};

// The store's health as the server needs it: ready for clients, or the status to refuse
// them with.
struct StoreHealth {
  bool ready;
  int32_t status;
};

// What the server needs from the owner of the store.
class StoreOwner {
 public:
  virtual ~StoreOwner() = default;
  virtual StoreHealth Health() = 0;
  // A registered client asked for the newest log record to be re-sent.
  virtual void OnReplicationRequest() = 0;
  // The housekeeping tick, after the server's own.
  virtual void OnTick(Server& server) = 0;
  // Starts a check of the store for a join; the ticket to pass to JoinChecked.
  virtual uint64_t RequestJoinCheck() = 0;
  // True when a clean check has ended since `ticket` was handed out.
  virtual bool JoinChecked(uint64_t ticket) = 0;
};

// Counts for orvd's health file.
struct ServerFigures {
  size_t connections = 0;
  size_t registered = 0;
  uint64_t accepted = 0;
  uint64_t registrations = 0;
  uint64_t refused = 0;
  uint64_t dropped = 0;
  uint64_t accept_backoffs = 0;
};

class Server {
 public:
  Server(evContext ev, StoreOwner* owner);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Removes a stale socket file, binds, listens and starts the housekeeping tick.
  bool Start();
  // Closes every connection and the listener and removes the socket file.
  void Stop();

  // Tells every registered client that the store is gone (negative acknowledgement), but
  // the one named `spare`, if any. The process ids told.
  std::vector<pid_t> BroadcastStoreDown(int32_t status, const std::string& spare = std::string());
  // Open client connections, registered or not.
  size_t ConnectionCount() const { return conns_.size(); }
  // Registered clients whose connection ended without their leaving message (they died).
  uint64_t LostWhileRegistered() const { return lost_registered_; }
  // Connections told by BroadcastStoreDown that are still open.
  size_t ToldStillOpen() const;

  // Upgrades (issu.cc): the chassis state becomes `state`; it goes to the registered
  // clients named (their table state back to 0 with `reset_states`) and to every later
  // registrant in its acknowledgement.
  void RelayPlatdIssuState(uint32_t state, const std::vector<std::string>& names,
                           bool reset_states);
  // Sends all of `data` or drops the connection (`why`). False when dropped.
  bool SendOrDrop(Connection* conn, const void* data, size_t size, const char* why);

  // Answers the registrations waiting for their check (called when a check ends, and
  // every tick).
  void AnswerPendingJoins();

  ServerFigures Figures() const;

 private:
  struct PendingJoin {
    Connection* conn;
    std::vector<uint8_t> msg;
    uint64_t ticket;
    Clock::time_point since;
  };
  static void OnAccept(evContext ctx, void* uap, int fd, int mask);
  static void OnReadable(evContext ctx, void* uap, int fd, int mask);
  static void OnTick(wtimer_leaf_t* leaf, void* arg);
  static void OnTableTimer(wtimer_leaf_t* leaf, void* arg);
  static void OnAcceptResume(wtimer_leaf_t* leaf, void* arg);

  void Accept();
  // Stops or resumes watching the listening socket.
  void Listen(bool on);
  void Read(Connection* conn);
  // Handles every whole message at the front of conn->input. False when the connection
  // was dropped.
  bool Dispatch(Connection* conn);
  // Each takes exactly one whole message of its type.
  void HandleRegister(Connection* conn, vsk::base::ByteReader msg);
  // A registration whose check has ended: accepted if the store is (still) ready.
  void CompleteRegister(Connection* conn, vsk::base::ByteReader msg);
  void HandleIssuState(Connection* conn, vsk::base::ByteReader msg);
  bool SendAck(Connection* conn, bool accepted, int32_t error, uint32_t daemon_issu);
  void Drop(Connection* conn, const char* why);
  bool Alive(const Connection* conn) const;
  void Housekeeping();
  void TableChanged();
  void WriteTable() const;
  void Remember(const std::string& name, uint32_t issu_state);
  size_t ConnectionsOf(pid_t pid) const;

  evContext ev_;
  StoreOwner* owner_;
  int listen_fd_ = -1;
  evFileID listen_id_{};
  bool listening_ = false;
  size_t max_connections_ = kMaxConnections;
  Clock::duration backoff_ = Clock::duration::zero();
  std::string socket_path_;
  wtimer_root_t* timer_root_ = nullptr;
  wtimer_leaf_t* tick_ = nullptr;
  wtimer_leaf_t* table_timer_ = nullptr;
  wtimer_leaf_t* accept_timer_ = nullptr;
  std::vector<std::unique_ptr<Connection>> conns_;
  std::vector<PendingJoin> pending_;
  // ISSU state by daemon name, for the acknowledgement of a daemon that comes back;
  // oldest first in remembered_order_.
  std::map<std::string, uint32_t> remembered_;
  std::deque<std::string> remembered_order_;
  uint32_t platd_issu_state_ = 0;
  uint64_t lost_registered_ = 0;
  ServerFigures figures_;
  IssuCoordinator issu_{*this};
};

// A daemon's name as published: at most 63 bytes up to the first NUL, every byte outside
// the printable range (and the space, which separates fields) replaced by '?', "?" when
// empty. So no name can forge a row or a field.
std::string CleanName(const char* raw, size_t size);

}  // namespace orvd
