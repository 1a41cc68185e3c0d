// orvd's server side of the daemon link.
//
// Owns the listening socket "/var/run/orvd_server_communication" (rooted), every client
// connection, and the table of registered daemons. Runs entirely on orvd's one event
// loop (evlib); nothing blocks on a client:
//  1. every socket is non-blocking; input is gathered per client until a whole message
//     (its size follows from its type) is there;
//  2. a client that sends an unknown type is dropped at once; one that stops in the
//     middle of a message for kPartialTimeout, or sends nothing at all for kSilentTimeout
//     after connecting, is dropped by the housekeeping tick;
//  3. a registration is accepted only while orvd's own store is ready, and each one gets
//     a full ORVD_MSG_REGISTER_ACK;
//  4. when orvd's store goes down every registered client gets a negative
//     acknowledgement carrying the store's status.
// The table is published after each change in the format of
// libvsk/orvd_client/clients_table.h.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "issu.h"
#include "libvsk/base/byte_reader.h"
#include "platform/evlib.h"
#include "platform/wtimer.h"

namespace orvd {

using Clock = std::chrono::steady_clock;

inline constexpr auto kSilentTimeout = std::chrono::seconds(3);
inline constexpr auto kPartialTimeout = std::chrono::seconds(2);
inline constexpr wtimer_interval_t kTick = {0, 250u * 1000u * 1000u};

// What orvd remembers of a daemon, by program name; kept across its reconnects.
struct DaemonEntry {
  pid_t pid = 0;
  uint8_t role = 0;  // 1 standby, 3 master, 0 left
  bool recovery_complete = false;
  uint32_t issu_state = 0;
  bool connected = false;
  int32_t last_status = 0;  // the status with which it left
  uint32_t replication_requests = 0;
};

class Server;

struct Connection {
  Server* owner = nullptr;
  int fd = -1;
  evFileID id{};
  std::vector<uint8_t> input;  // bytes of the message being assembled
  Clock::time_point connected_at;
  Clock::time_point last_input;
  bool got_message = false;
  bool registered = false;
  std::string name;  // program name once registered
};

// The store's health as the server needs it: ready for clients, or the status to refuse
// them with.
struct StoreHealth {
  bool ready;
  int32_t status;
};
using HealthFn = StoreHealth (*)();

class Server {
 public:
  Server(evContext ev, HealthFn health);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Removes a stale socket file, binds, listens and starts the housekeeping tick.
  bool Start();
  // Closes every connection and the listener and removes the socket file.
  void Stop();

  // Tells every registered client that the store is gone (negative acknowledgement), but
  // the one named `spare`, if any.
  void BroadcastStoreDown(int32_t status, const std::string& spare = std::string());

  // Called by the housekeeping tick; also exposed so the daemon can run its own checks.
  using TickHook = void (*)(Server& server);
  void SetTickHook(TickHook hook) { tick_hook_ = hook; }

  // Open client connections, registered or not.
  size_t ConnectionCount() const { return conns_.size(); }
  // Registered clients whose connection ended without their leaving message (they died).
  uint64_t LostWhileRegistered() const { return lost_registered_; }

  // Upgrades (issu.cc): the chassis state becomes `state`; it goes to the registered
  // clients named (their table state back to 0 with `reset_states`) and to every later
  // registrant in its acknowledgement.
  void RelayPlatdIssuState(uint32_t state, const std::vector<std::string>& names,
                           bool reset_states);
  // Sends all of `data` or drops the connection (`why`). False when dropped.
  bool SendOrDrop(Connection* conn, const void* data, size_t size, const char* why);

 private:
  static void OnAccept(evContext ctx, void* uap, int fd, int mask);
  static void OnReadable(evContext ctx, void* uap, int fd, int mask);
  static void OnTick(wtimer_leaf_t* leaf, void* arg);

  void Accept();
  void Read(Connection* conn);
  // Handles every whole message at the front of conn->input. False when the connection
  // was dropped.
  bool Dispatch(Connection* conn);
  // Each takes exactly one whole message of its type.
  void HandleRegister(Connection* conn, vsk::base::ByteReader msg);
  void HandleIssuState(Connection* conn, vsk::base::ByteReader msg);
  bool SendAck(Connection* conn, bool accepted, int32_t error, uint32_t daemon_issu);
  void Drop(Connection* conn, const char* why);
  void Housekeeping();
  void WriteTable() const;

  evContext ev_;
  HealthFn health_;
  TickHook tick_hook_ = nullptr;
  int listen_fd_ = -1;
  evFileID listen_id_{};
  std::string socket_path_;
  wtimer_root_t* timer_root_ = nullptr;
  wtimer_leaf_t* tick_ = nullptr;
  std::vector<std::unique_ptr<Connection>> conns_;
  std::map<std::string, DaemonEntry> table_;
  uint32_t platd_issu_state_ = 0;
  uint64_t lost_registered_ = 0;
  IssuCoordinator issu_{*this};
};

// orvd's log: the trace callback of the link and the server's own messages.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace orvd
