// orvd's server side of the daemon link: see server.h for the rules it keeps.
#include "server.h"

#include <db.h>
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "libvsk/orvd_client/clients_table.h"
#include "libvsk/orvd_client/wire.h"
#include "platform/paths.h"
#include "vsk/status.h"
#include "vsk/store.h"

namespace orvd {
namespace {

using namespace vsk::orvd;

}  // namespace

Server::Server(evContext ev, HealthFn health) : ev_(ev), health_(health) {}

Server::~Server() { Stop(); }

bool Server::Start() {
  socket_path_ = vsk::platform::RootedPath(vsk::platform::kOrvdSocket);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socket_path_.size() >= sizeof addr.sun_path) {
    Log("socket path %s is too long", socket_path_.c_str());
    return false;
  }
  std::memcpy(addr.sun_path, socket_path_.c_str(), socket_path_.size() + 1);
  // A socket file left by an orvd that died would make bind fail.
  if (unlink(socket_path_.c_str()) == 0) Log("removed stale socket %s", socket_path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd_, 64) != 0) {
    Log("cannot listen on %s: %s", socket_path_.c_str(), std::strerror(errno));
    return false;
  }
  if (__evSelectFD(ev_, listen_fd_, EV_READ, OnAccept, this, &listen_id_) != 0) {
    Log("cannot watch the listening socket: %s", std::strerror(errno));
    return false;
  }
  timer_root_ = wtimer_init(ev_, 0);
  tick_ = wtimer_create_leaf(timer_root_, 0, OnTick, this);
  if (tick_ == nullptr || wtimer_start_oneshot_precise(tick_, &kTick, 0) != 0) {
    Log("cannot start the housekeeping timer");
    return false;
  }
  WriteTable();
  Log("listening on %s", socket_path_.c_str());
  return true;
}

void Server::Stop() {
  while (!conns_.empty()) Drop(conns_.back().get(), "orvd stopping");
  if (listen_id_.opaque != nullptr) {
    __evDeselectFD(ev_, listen_id_);
    listen_id_ = evFileID{};
  }
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    listen_fd_ = -1;
    unlink(socket_path_.c_str());
  }
  wtimer_destroy(tick_);
  tick_ = nullptr;
  wtimer_root_destroy(timer_root_);
  timer_root_ = nullptr;
}

void Server::OnAccept(evContext, void* uap, int, int) { static_cast<Server*>(uap)->Accept(); }

void Server::OnReadable(evContext, void* uap, int, int) {
  auto* conn = static_cast<Connection*>(uap);
  conn->owner->Read(conn);
}

void Server::OnTick(wtimer_leaf_t* leaf, void* arg) {
  auto* self = static_cast<Server*>(arg);
  self->Housekeeping();
  if (self->tick_hook_ != nullptr) self->tick_hook_(*self);
  wtimer_start_oneshot_precise(leaf, &kTick, 0);
}

void Server::Accept() {
  for (;;) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) Log("accept: %s", std::strerror(errno));
      return;
    }
    auto conn = std::make_unique<Connection>();
    conn->owner = this;
    conn->fd = fd;
    conn->connected_at = conn->last_input = Clock::now();
    if (__evSelectFD(ev_, fd, EV_READ, OnReadable, conn.get(), &conn->id) != 0) {
      Log("cannot watch a client: %s", std::strerror(errno));
      close(fd);
      continue;
    }
    conns_.push_back(std::move(conn));
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

bool Server::Dispatch(Connection* conn) {
  for (;;) {
    vsk::base::ByteReader input(conn->input.data(), conn->input.size());
    uint32_t type = 0;
    if (!input.Get(&type)) return true;  // wait for a whole type
    const size_t size = ClientMessageSize(type);
    if (size == 0) {
      Log("client sent unknown message type %u", type);
      Drop(conn, "unknown message type");
      return false;
    }
    vsk::base::ByteReader msg;
    if (!vsk::base::ByteReader(conn->input.data(), conn->input.size()).Slice(size, &msg)) {
      return true;  // wait for the rest
    }
    conn->got_message = true;
    if (type == ORVD_MSG_REGISTER) {
      HandleRegister(conn, msg);
    } else if (type == ORVD_MSG_ISSU_STATE) {
      HandleIssuState(conn, msg);
    } else if (type == ORVD_MSG_ISSU_CONTROL) {
      issu_.OnControl(conn, msg);
    } else if (!conn->registered) {
      Log("message %u from a client that has not registered", type);
    } else if (type == ORVD_MSG_RECOVERY_COMPLETE) {
      Log("%s: recovery complete", conn->name.c_str());
      table_[conn->name].recovery_complete = true;
      WriteTable();
    } else if (type == ORVD_MSG_REPLICATION_REQUEST) {
      Log("%s: replication request", conn->name.c_str());
      table_[conn->name].replication_requests++;
      // Re-broadcast the newest log record: a lagging standby asks for what it lacks.
      DB_ENV* env = nullptr;
      if (vsk_db_get_dbenv(&env) == 0 && env != nullptr && !vsk_in_panic) {
        int ret = env->rep_flush(env);
        if (ret != 0) Log("replication request failed: %s", db_strerror(ret));
      }
      WriteTable();
    }
    if (std::find_if(conns_.begin(), conns_.end(),
                     [conn](const auto& c) { return c.get() == conn; }) == conns_.end()) {
      return false;  // an answer failed and the connection is gone
    }
    conn->input.erase(conn->input.begin(), conn->input.begin() + static_cast<long>(size));
  }
  return true;
}

void Server::HandleRegister(Connection* conn, vsk::base::ByteReader raw) {
  RegisterMsg msg;
  if (!raw.Get(&msg)) return;
  msg.program[kProgramNameLen - 1] = '\0';
  std::string name(msg.program);
  if (msg.role == kRoleLeaving) {
    Log("%s (pid %d) leaves with status %d", name.c_str(), msg.pid, msg.status);
    auto it = table_.find(name);
    if (it != table_.end()) {
      it->second.role = kRoleLeaving;
      it->second.connected = false;
      it->second.last_status = msg.status;
    }
    issu_.OnGone(name, "left");
    conn->registered = false;
    WriteTable();
    return;
  }
  StoreHealth health = health_();
  bool known = table_.count(name) != 0;
  DaemonEntry& entry = table_[name];
  if (!known || !msg.issu_enabled) entry.issu_state = msg.issu_info.state;
  if (!health.ready) {
    Log("refused %s (pid %d): store not ready (%d)", name.c_str(), msg.pid, health.status);
    if (!known) table_.erase(name);
    SendAck(conn, false, health.status, 0);
    return;
  }
  entry.pid = msg.pid;
  entry.role = msg.role;
  entry.connected = true;
  entry.recovery_complete = entry.recovery_complete || msg.recovery_complete_sent != 0;
  conn->registered = true;
  conn->name = name;
  Log("registered %s (pid %d, %s)", name.c_str(), msg.pid,
      msg.role == kRoleMaster ? "master" : "standby");
  issu_.OnRegister(name, msg.pid, msg.issu_enabled != 0, entry.issu_state);
  WriteTable();
  SendAck(conn, true, 0, entry.issu_state);
}

void Server::HandleIssuState(Connection* conn, vsk::base::ByteReader raw) {
  IssuStateMsg msg;
  if (!raw.Get(&msg)) return;
  if (!conn->registered || !issu_.OnAnswer(conn->name, msg.issu_info)) return;
  table_[conn->name].issu_state = msg.issu_info.state;
  WriteTable();
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

void Server::BroadcastStoreDown(int32_t status, const std::string& spare) {
  std::vector<Connection*> registered;
  for (const auto& c : conns_) {
    if (c->registered && (spare.empty() || c->name != spare)) registered.push_back(c.get());
  }
  for (Connection* c : registered) {
    Log("telling %s that the store is down (%d)", c->name.c_str(), status);
    table_[c->name].connected = false;
    c->registered = false;
    SendAck(c, false, status, 0);
  }
  WriteTable();
}

void Server::Drop(Connection* conn, const char* why) {
  auto it =
      std::find_if(conns_.begin(), conns_.end(), [conn](const auto& c) { return c.get() == conn; });
  if (it == conns_.end()) return;
  Log("dropping %s: %s", conn->name.empty() ? "client" : conn->name.c_str(), why);
  if (conn->registered) {
    table_[conn->name].connected = false;
    ++lost_registered_;
    issu_.OnGone(conn->name, "was lost");
  }
  __evDeselectFD(ev_, conn->id);
  close(conn->fd);
  conns_.erase(it);
  WriteTable();
}

void Server::Housekeeping() {
  Clock::time_point now = Clock::now();
  std::vector<std::pair<Connection*, const char*>> late;
  for (const auto& c : conns_) {
    if (!c->input.empty() && now - c->last_input > kPartialTimeout) {
      late.emplace_back(c.get(), "incomplete message timed out");
    } else if (!c->got_message && c->input.empty() && now - c->connected_at > kSilentTimeout) {
      late.emplace_back(c.get(), "silent since connecting");
    }
  }
  for (auto& [conn, why] : late) Drop(conn, why);
}

void Server::WriteTable() const {
  std::string path = vsk::platform::RootedPath(vsk::orvd::kClientsTableFile);
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) return;
    for (const auto& [name, e] : table_) {
      vsk::orvd::WriteClientsRow(
          out, name,
          {static_cast<int>(e.pid), static_cast<int>(e.role), e.recovery_complete ? 1 : 0,
           static_cast<unsigned>(e.issu_state), e.connected ? 1 : 0,
           static_cast<unsigned>(e.replication_requests)});
    }
  }
  std::rename(tmp.c_str(), path.c_str());  // readers never see half a table
}

}  // namespace orvd
