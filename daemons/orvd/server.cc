// orvd's server side of the daemon link: see server.h for the rules it keeps.
#include "server.h"

#include <errno.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "libvsk/orvd_client/clients_table.h"
#include "libvsk/orvd_client/wire.h"
#include "log.h"
#include "platform/paths.h"
#include "vsk/status.h"

namespace orvd {
namespace {

using namespace vsk::orvd;

// Descriptors kept back from the connection limit for the store's files, the log and
// the table.
constexpr rlim_t kReservedDescriptors = 64;
// A connection told that the store went down may take this long to close by itself.
constexpr auto kToldGrace = std::chrono::seconds(2);

size_t ConnectionLimit() {
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY) return kMaxConnections;
  if (rl.rlim_cur <= kReservedDescriptors + 8) return 8;
  return std::min<size_t>(kMaxConnections, static_cast<size_t>(rl.rlim_cur - kReservedDescriptors));
}

wtimer_interval_t Interval(Clock::duration d) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
  return {static_cast<uint32_t>(ns / 1000000000), static_cast<uint32_t>(ns % 1000000000)};
}

bool OutOfResources(int err) {
  return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

}  // namespace

std::string CleanName(const char* raw, size_t size) {
  std::string name;
  for (size_t i = 0; i < size && i < kProgramNameLen - 1 && raw[i] != '\0'; ++i) {
    const unsigned char c = static_cast<unsigned char>(raw[i]);
    name.push_back(c > 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
  }
  return name.empty() ? "?" : name;
}

Server::Server(evContext ev, StoreOwner* owner) : ev_(ev), owner_(owner) {}

Server::~Server() { Stop(); }

bool Server::Start() {
  socket_path_ = vsk::platform::RootedPath(vsk::platform::kOrvdSocket);
  max_connections_ = ConnectionLimit();
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socket_path_.size() >= sizeof addr.sun_path) {
    Log("socket path %s is too long", socket_path_.c_str());
    return false;
  }
  std::memcpy(addr.sun_path, socket_path_.c_str(), socket_path_.size() + 1);
  // A socket file left by an orvd that died would make bind fail. Only the owner of the
  // root's instance lock gets here, so the file is never a live orvd's.
  if (unlink(socket_path_.c_str()) == 0) Log("removed stale socket %s", socket_path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd_, 64) != 0) {
    Log("cannot listen on %s: %s", socket_path_.c_str(), std::strerror(errno));
    return false;
  }
  timer_root_ = wtimer_init(ev_, 0);
  tick_ = wtimer_create_leaf(timer_root_, 0, OnTick, this);
  table_timer_ = wtimer_create_leaf(timer_root_, 0, OnTableTimer, this);
  accept_timer_ = wtimer_create_leaf(timer_root_, 0, OnAcceptResume, this);
  if (tick_ == nullptr || table_timer_ == nullptr || accept_timer_ == nullptr ||
      wtimer_start_oneshot_precise(tick_, &kHousekeepingTick, 0) != 0) {
    Log("cannot start the housekeeping timer");
    return false;
  }
  Listen(true);
  if (!listening_) return false;
  WriteTable();
  Log("listening on %s (at most %zu connections)", socket_path_.c_str(), max_connections_);
  return true;
}

void Server::Stop() {
  while (!conns_.empty()) Drop(conns_.back().get(), "orvd stopping");
  Listen(false);
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    listen_fd_ = -1;
    unlink(socket_path_.c_str());
    WriteTable();
  }
  for (wtimer_leaf_t** leaf : {&tick_, &table_timer_, &accept_timer_}) {
    wtimer_destroy(*leaf);
    *leaf = nullptr;
  }
  wtimer_root_destroy(timer_root_);
  timer_root_ = nullptr;
}

void Server::Listen(bool on) {
  if (on == listening_ || listen_fd_ < 0) return;
  if (on) {
    if (__evSelectFD(ev_, listen_fd_, EV_READ, OnAccept, this, &listen_id_) != 0) {
      Log("cannot watch the listening socket: %s", std::strerror(errno));
      return;
    }
  } else {
    __evDeselectFD(ev_, listen_id_);
    listen_id_ = evFileID{};
  }
  listening_ = on;
}

void Server::OnAccept(evContext, void* uap, int, int) { static_cast<Server*>(uap)->Accept(); }

void Server::OnReadable(evContext, void* uap, int, int) {
  auto* conn = static_cast<Connection*>(uap);
  conn->owner->Read(conn);
}

void Server::OnTick(wtimer_leaf_t* leaf, void* arg) {
  auto* self = static_cast<Server*>(arg);
  self->Housekeeping();
  self->owner_->OnTick(*self);
  wtimer_start_oneshot_precise(leaf, &kHousekeepingTick, 0);
}

void Server::OnTableTimer(wtimer_leaf_t*, void* arg) { static_cast<Server*>(arg)->WriteTable(); }

void Server::OnAcceptResume(wtimer_leaf_t*, void* arg) {
  auto* self = static_cast<Server*>(arg);
  if (self->conns_.size() < self->max_connections_) {
    self->Listen(true);
    self->Accept();
  }
}

size_t Server::ConnectionsOf(pid_t pid) const {
  return static_cast<size_t>(std::count_if(conns_.begin(), conns_.end(),
                                           [pid](const auto& c) { return c->peer_pid == pid; }));
}

void Server::Accept() {
  while (listening_ && conns_.size() < max_connections_) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      if (!OutOfResources(errno)) {
        Log("accept: %s", std::strerror(errno));
        return;
      }
      // Out of descriptors or memory: the pending connection stays pending, so watching
      // the socket would only spin. Look again after a pause that doubles while the
      // shortage lasts.
      backoff_ = backoff_ == Clock::duration::zero()
                     ? Clock::duration(kAcceptBackoffFirst)
                     : std::min<Clock::duration>(backoff_ * 2, kAcceptBackoffMax);
      ++figures_.accept_backoffs;
      Log("accept: %s; pausing accepts for %lld ms", std::strerror(errno),
          static_cast<long long>(
              std::chrono::duration_cast<std::chrono::milliseconds>(backoff_).count()));
      Listen(false);
      wtimer_interval_t pause = Interval(backoff_);
      wtimer_start_oneshot_precise(accept_timer_, &pause, 0);
      return;
    }
    backoff_ = Clock::duration::zero();
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) cred.pid = 0;
    if (cred.pid != 0 && ConnectionsOf(cred.pid) >= kMaxConnectionsPerPeer) {
      Log("refused a connection: pid %d already has %zu", static_cast<int>(cred.pid),
          kMaxConnectionsPerPeer);
      ++figures_.refused;
      close(fd);
      continue;
    }
    auto conn = std::make_unique<Connection>();
    conn->owner = this;
    conn->fd = fd;
    conn->peer_pid = cred.pid;
    conn->connected_at = conn->last_input = Clock::now();
    if (__evSelectFD(ev_, fd, EV_READ, OnReadable, conn.get(), &conn->id) != 0) {
      Log("cannot watch a client: %s", std::strerror(errno));
      close(fd);
      continue;
    }
    conns_.push_back(std::move(conn));
    ++figures_.accepted;
  }
  if (listening_ && conns_.size() >= max_connections_) {
    Log("connection limit (%zu) reached; accepting again when one goes", max_connections_);
    Listen(false);
  }
}

void Server::Read(Connection* conn) {
  uint8_t buf[512];
  for (;;) {
    ssize_t n = recv(conn->fd, buf, sizeof buf, 0);
    if (n > 0) {
      conn->input.insert(conn->input.end(), buf, buf + n);
      conn->last_input = Clock::now();
      if (!Dispatch(conn)) return;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    Drop(conn, n == 0 ? "closed by the client" : std::strerror(errno));
    return;
  }
}

bool Server::Alive(const Connection* conn) const {
  return std::find_if(conns_.begin(), conns_.end(),
                      [conn](const auto& c) { return c.get() == conn; }) != conns_.end();
}

bool Server::Dispatch(Connection* conn) {
  for (;;) {
    vsk::base::ByteReader input(conn->input.data(), conn->input.size());
    uint32_t type = 0;
    if (!input.Get(&type)) return true;  // wait for a whole type
    const size_t size = ClientMessageSize(type);
    if (size == 0) {
      Log("client (pid %d) sent unknown message type %u", static_cast<int>(conn->peer_pid), type);
      Drop(conn, "unknown message type");
      return false;
    }
    vsk::base::ByteReader msg;
    if (!vsk::base::ByteReader(conn->input.data(), conn->input.size()).Slice(size, &msg)) {
      return true;  // wait for the rest
    }
    if (type == ORVD_MSG_REGISTER) {
      HandleRegister(conn, msg);
    } else if (type == ORVD_MSG_ISSU_STATE) {
      HandleIssuState(conn, msg);
    } else if (type == ORVD_MSG_ISSU_CONTROL) {
      issu_.OnControl(conn, msg);
    } else if (!conn->registered) {
      Log("message %u from a client (pid %d) that has not registered", type,
          static_cast<int>(conn->peer_pid));
    } else if (type == ORVD_MSG_RECOVERY_COMPLETE) {
      Log("%s: recovery complete", conn->name.c_str());
      conn->recovery_complete = true;
      TableChanged();
    } else if (type == ORVD_MSG_REPLICATION_REQUEST) {
      Log("%s: replication request", conn->name.c_str());
      ++conn->replication_requests;
      owner_->OnReplicationRequest();
      TableChanged();
    }
    if (!Alive(conn)) return false;  // an answer failed and the connection is gone
    conn->input.erase(conn->input.begin(), conn->input.begin() + static_cast<long>(size));
  }
  return true;
}

void Server::HandleRegister(Connection* conn, vsk::base::ByteReader raw) {
  RegisterMsg msg;
  const vsk::base::ByteReader whole = raw;
  if (!raw.Get(&msg)) return;
  const std::string name = CleanName(msg.program, sizeof msg.program);
  if (conn->peer_pid != 0 && msg.pid != conn->peer_pid) {
    Log("refused %s: claims pid %d on a connection of pid %d", name.c_str(), msg.pid,
        static_cast<int>(conn->peer_pid));
    ++figures_.refused;
    if (msg.role != kRoleLeaving) SendAck(conn, false, VSK_ERR_INVALID_PARAM, 0);
    return;
  }
  if (msg.role == kRoleLeaving) {
    Log("%s (pid %d) leaves with status %d", name.c_str(), msg.pid, msg.status);
    if (conn->registered) issu_.OnGone(conn->name, "left");
    if (conn->has_row) {
      conn->role = kRoleLeaving;
      conn->registered = false;
      TableChanged();
    }
    return;
  }
  StoreHealth health = owner_->Health();
  if (!health.ready) {
    Log("refused %s (pid %d): store not ready (%d)", name.c_str(), msg.pid, health.status);
    ++figures_.refused;
    SendAck(conn, false, health.status, 0);
    return;
  }
  pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                [conn](const PendingJoin& p) { return p.conn == conn; }),
                 pending_.end());
  const uint8_t* bytes = nullptr;
  vsk::base::ByteReader copy = whole;
  if (!copy.Take(sizeof msg, &bytes)) return;
  pending_.push_back({conn, std::vector<uint8_t>(bytes, bytes + sizeof msg),
                      owner_->RequestJoinCheck(), Clock::now()});
}

void Server::AnswerPendingJoins() {
  const Clock::time_point now = Clock::now();
  std::vector<PendingJoin> waiting;
  waiting.swap(pending_);
  for (PendingJoin& p : waiting) {
    if (!Alive(p.conn)) continue;
    StoreHealth health = owner_->Health();
    if (health.ready && owner_->JoinChecked(p.ticket)) {
      CompleteRegister(p.conn, vsk::base::ByteReader(p.msg.data(), p.msg.size()));
    } else if (!health.ready || now - p.since > kJoinCheckLimit) {
      const int32_t status = health.ready ? VSK_ERR_NOT_STARTED : health.status;
      Log("refused a registration (pid %d): the store could not be checked (%d)",
          static_cast<int>(p.conn->peer_pid), status);
      ++figures_.refused;
      SendAck(p.conn, false, status, 0);
    } else {
      pending_.push_back(std::move(p));
    }
  }
}

void Server::CompleteRegister(Connection* conn, vsk::base::ByteReader raw) {
  RegisterMsg msg;
  if (!raw.Get(&msg)) return;
  const std::string name = CleanName(msg.program, sizeof msg.program);
  auto known = remembered_.find(name);
  uint32_t issu = msg.issu_info.state;
  if (known != remembered_.end() && msg.issu_enabled) issu = known->second;
  conn->name = name;
  conn->pid = msg.pid;
  conn->role = msg.role;
  conn->recovery_complete = conn->recovery_complete || msg.recovery_complete_sent != 0;
  conn->issu_state = issu;
  conn->registered = true;
  conn->told_down = false;
  conn->has_row = true;
  Remember(name, issu);
  issu_.OnRegister(name, msg.pid, msg.issu_enabled != 0, issu);
  ++figures_.registrations;
  Log("registered %s (pid %d, %s)", name.c_str(), msg.pid,
      msg.role == kRoleMaster ? "master" : "standby");
  TableChanged();
  SendAck(conn, true, 0, issu);
}

void Server::HandleIssuState(Connection* conn, vsk::base::ByteReader raw) {
  IssuStateMsg msg;
  if (!raw.Get(&msg)) return;
  if (!conn->registered || !issu_.OnAnswer(conn->name, msg.issu_info)) return;
  conn->issu_state = msg.issu_info.state;
  Remember(conn->name, conn->issu_state);
  TableChanged();
}

void Server::Remember(const std::string& name, uint32_t issu_state) {
  auto [it, added] = remembered_.insert_or_assign(name, issu_state);
  if (!added) return;
  remembered_order_.push_back(name);
  while (remembered_order_.size() > kRememberedDaemons) {
    remembered_.erase(remembered_order_.front());
    remembered_order_.pop_front();
  }
}

bool Server::SendAck(Connection* conn, bool accepted, int32_t error, uint32_t daemon_issu) {
  RegisterAckMsg ack{};
  ack.type = ORVD_MSG_REGISTER_ACK;
  ack.flags = accepted ? kAckAccepted : 0;
  ack.error = error;
  ack.daemon_issu_state = daemon_issu;
  ack.platd_issu_state = platd_issu_state_;
  ssize_t n = send(conn->fd, &ack, sizeof ack, MSG_NOSIGNAL);
  if (n == static_cast<ssize_t>(sizeof ack)) return true;
  // A client that can't take 20 bytes is not reading: it goes, the others stay.
  Drop(conn, "cannot send acknowledgement");
  return false;
}

std::vector<pid_t> Server::BroadcastStoreDown(int32_t status, const std::string& spare) {
  std::vector<Connection*> registered;
  for (const auto& c : conns_) {
    if (c->registered && (spare.empty() || c->name != spare)) registered.push_back(c.get());
  }
  const Clock::time_point now = Clock::now();
  std::vector<pid_t> told;
  for (Connection* c : registered) {
    Log("telling %s (pid %d) that the store is down (%d)", c->name.c_str(), c->pid, status);
    c->registered = false;
    c->told_down = true;
    c->last_input = now;  // the grace to close runs from here
    told.push_back(c->peer_pid);
    SendAck(c, false, status, 0);
  }
  TableChanged();
  return told;
}

size_t Server::ToldStillOpen() const {
  return static_cast<size_t>(
      std::count_if(conns_.begin(), conns_.end(), [](const auto& c) { return c->told_down; }));
}

void Server::Drop(Connection* conn, const char* why) {
  auto it = std::find_if(conns_.begin(), conns_.end(),
                         [conn](const auto& c) { return c.get() == conn; });
  if (it == conns_.end()) return;
  Log("dropping %s (pid %d): %s", conn->has_row ? conn->name.c_str() : "client",
      static_cast<int>(conn->peer_pid), why);
  if (conn->registered) {  // gone without its leaving message
    ++lost_registered_;
    issu_.OnGone(conn->name, "was lost");
  }
  __evDeselectFD(ev_, conn->id);
  close(conn->fd);
  pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                [conn](const PendingJoin& p) { return p.conn == conn; }),
                 pending_.end());
  const bool had_row = conn->has_row;
  conns_.erase(it);
  ++figures_.dropped;
  if (had_row) TableChanged();
  if (!listening_ && conns_.size() < max_connections_ && accept_timer_ != nullptr &&
      !wtimer_running(accept_timer_) && listen_fd_ >= 0) {
    Listen(true);
  }
}

void Server::Housekeeping() {
  AnswerPendingJoins();
  const Clock::time_point now = Clock::now();
  std::vector<std::pair<Connection*, const char*>> late;
  for (const auto& c : conns_) {
    if (!c->input.empty() && now - c->last_input > kPartialTimeout) {
      late.emplace_back(c.get(), "incomplete message timed out");
    } else if (c->told_down) {
      if (now - c->last_input > kToldGrace) late.emplace_back(c.get(), "did not leave after the store went down");
    } else if (!c->registered && !c->has_row && now - c->connected_at > kRegisterTimeout) {
      late.emplace_back(c.get(), "no registration in time");
    } else if (!c->registered && c->has_row && c->role == kRoleLeaving &&
               now - c->last_input > kRegisterTimeout) {
      late.emplace_back(c.get(), "left but kept the connection");
    }
  }
  for (auto& [conn, why] : late) Drop(conn, why);
}

void Server::TableChanged() {
  if (table_timer_ != nullptr && !wtimer_running(table_timer_)) {
    wtimer_start_oneshot_precise(table_timer_, &kTableDelay, 0);
  }
}

void Server::WriteTable() const {
  std::string path = vsk::platform::RootedPath(vsk::orvd::kClientsTableFile);
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) return;
    for (const auto& c : conns_) {
      if (!c->has_row) continue;
      vsk::orvd::WriteClientsRow(
          out, c->name,
          {c->pid, c->role, c->recovery_complete ? 1 : 0, static_cast<unsigned>(c->issu_state),
           c->registered ? 1 : 0, static_cast<unsigned>(c->replication_requests)});
    }
  }
  std::rename(tmp.c_str(), path.c_str());  // readers never see half a table
}

ServerFigures Server::Figures() const {
  ServerFigures f = figures_;
  f.connections = conns_.size();
  f.registered = static_cast<size_t>(
      std::count_if(conns_.begin(), conns_.end(), [](const auto& c) { return c->registered; }));
  return f;
}

}  // namespace orvd
