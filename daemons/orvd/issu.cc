// orvd's side of an in-service upgrade: see issu.h for the rules it keeps.
#include "issu.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "libvsk/orvd_client/wire.h"
#include "platform/mgtlib_issu.h"
#include "platform/paths.h"
#include "server.h"

namespace orvd {
namespace {

using namespace vsk::orvd;

constexpr const char kIssuStatusFile[] = "/var/run/orvd_issu";

constexpr const char* kCommandNames[] = {"status", "prepare", "done",  "switchover",
                                         "abort",  "idle",    "inject"};

// The chassis states of a normal upgrade; an injected value may be outside them.
bool Usual(uint32_t chassis) {
  return chassis <= ISSU_PLATD_PREPARE_DONE ||
         (chassis >= ISSU_PLATD_SWITCHOVER && chassis <= ISSU_PLATD_ABORT);
}

// The daemon state in which a participant has nothing left to do for `chassis`.
uint32_t SettledState(uint32_t chassis) {
  switch (chassis) {
    case ISSU_PLATD_PREPARE:
    case ISSU_PLATD_PREPARE_DONE:
      return ISSU_DAEMON_PREPARE_READY;
    case ISSU_PLATD_SWITCHOVER:
    case ISSU_PLATD_SWITCHOVER_DONE:
      return ISSU_DAEMON_SWITCHOVER_READY;
    default:
      return ISSU_DAEMON_IDLE;  // idle, or an abort that each daemon ends by its ready
  }
}

bool IsWait(uint32_t state) {
  return state == ISSU_DAEMON_PREPARE_WAIT || state == ISSU_DAEMON_SWITCHOVER_WAIT ||
         state == ISSU_DAEMON_ABORT_WAIT;
}

std::string Join(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) out += (out.empty() ? "" : ", ") + n;
  return out;
}

}  // namespace

void IssuCoordinator::OnRegister(const std::string& name, pid_t pid, bool issu_enabled,
                                 uint32_t kept_state) {
  if (!issu_enabled) {
    if (parts_.erase(name) != 0) Publish();
    return;
  }
  IssuParticipant& p = parts_[name];
  p.pid = pid;
  p.connected = true;
  p.state = kept_state;
  Publish();
}

bool IssuCoordinator::OnAnswer(const std::string& name, const vsk_issu_info_t& info) {
  auto it = parts_.find(name);
  if (it == parts_.end()) {
    Log("issu: %s answered without taking part in upgrades; ignored", name.c_str());
    return false;
  }
  // The block is the daemon's: its state must be one of the six and its reason must end
  // where its length says.
  if (info.state > ISSU_DAEMON_ABORT_WAIT || info.err_len > VSK_ISSU_ERR_TEXT_LEN ||
      (info.err_len != 0 && info.err_text[info.err_len - 1] != '\0')) {
    Log("issu: malformed state from %s (state %u, reason length %u); ignored", name.c_str(),
        info.state, info.err_len);
    return false;
  }
  IssuParticipant& p = it->second;
  const bool own_abort = info.state == ISSU_DAEMON_ABORT_WAIT &&
                         (chassis_ == ISSU_PLATD_PREPARE || chassis_ == ISSU_PLATD_PREPARE_DONE);
  p.state = info.state;
  p.wait = info.wait;
  p.reason = info.err_len != 0 ? std::string(info.err_text) : std::string();
  Log("issu: %s is %s, wait %u%s%s", name.c_str(), mgtlib_format_daemon_issu_state(p.state),
      p.wait, p.reason.empty() ? "" : ": ", p.reason.c_str());
  if (own_abort && std::find(aborted_.begin(), aborted_.end(), name) == aborted_.end()) {
    aborted_.push_back(name);
    Log("issu: %s aborted the upgrade", name.c_str());
  }
  if (chassis_ != ISSU_PLATD_IDLE && NotIn(SettledState(chassis_)).empty()) {
    Log("issu: every participant is %s",
        mgtlib_format_daemon_issu_state(SettledState(chassis_)));
  }
  Publish();
  return true;
}

void IssuCoordinator::OnGone(const std::string& name, const char* how) {
  auto it = parts_.find(name);
  if (it == parts_.end() || !it->second.connected) return;
  IssuParticipant& p = it->second;
  p.connected = false;
  if (chassis_ != ISSU_PLATD_IDLE) {
    gone_.push_back({{"name", name},
                     {"pid", p.pid},
                     {"how", how},
                     {"state", p.state},
                     {"state_name", mgtlib_format_daemon_issu_state(p.state)}});
    Log("issu: %s %s during the upgrade (was %s); no longer counted", name.c_str(), how,
        mgtlib_format_daemon_issu_state(p.state));
  }
  Publish();
}

std::vector<std::string> IssuCoordinator::NotIn(uint32_t want) const {
  std::vector<std::string> out;
  for (const auto& [name, p] : parts_) {
    if (p.connected && p.state != want) out.push_back(name);
  }
  return out;
}

std::string IssuCoordinator::Check(uint32_t command, uint32_t value, uint32_t* next) const {
  *next = chassis_;
  if (command == kIssuCmdInject) {
    *next = value;
    return {};
  }
  if (!Usual(chassis_) && command != kIssuCmdStatus) {
    if (command != kIssuCmdIdle) return "the chassis state is unexpected; only idle leads out";
    *next = ISSU_PLATD_IDLE;
    return {};
  }
  switch (command) {
    case kIssuCmdStatus:
      return {};
    case kIssuCmdPrepare:
      if (chassis_ == ISSU_PLATD_IDLE || chassis_ == ISSU_PLATD_PREPARE ||
          chassis_ == ISSU_PLATD_PREPARE_DONE) {
        *next = ISSU_PLATD_PREPARE;
        return {};
      }
      return chassis_ == ISSU_PLATD_ABORT ? "an abort is under way; go idle once it has ended"
                                          : "the switchover has begun";
    case kIssuCmdDone:
      if (chassis_ == ISSU_PLATD_PREPARE) {
        if (!aborted_.empty()) return "the prepare was aborted by " + Join(aborted_);
        auto waiting = NotIn(ISSU_DAEMON_PREPARE_READY);
        if (!waiting.empty()) return "not ready yet: " + Join(waiting);
        *next = ISSU_PLATD_PREPARE_DONE;
        return {};
      }
      if (chassis_ == ISSU_PLATD_SWITCHOVER) {
        auto waiting = NotIn(ISSU_DAEMON_SWITCHOVER_READY);
        if (!waiting.empty()) return "not switched over yet: " + Join(waiting);
        *next = ISSU_PLATD_SWITCHOVER_DONE;
        return {};
      }
      return "no prepare or switchover phase to finish";
    case kIssuCmdSwitchover:
      if (chassis_ == ISSU_PLATD_PREPARE_DONE) {
        *next = ISSU_PLATD_SWITCHOVER;
        return {};
      }
      return chassis_ == ISSU_PLATD_PREPARE ? "the prepare phase has not finished (done first)"
                                            : "a switchover needs a finished prepare phase";
    case kIssuCmdAbort:
      if (chassis_ == ISSU_PLATD_PREPARE || chassis_ == ISSU_PLATD_PREPARE_DONE ||
          chassis_ == ISSU_PLATD_SWITCHOVER) {
        *next = ISSU_PLATD_ABORT;
        return {};
      }
      if (chassis_ == ISSU_PLATD_IDLE) return "no upgrade is under way";
      if (chassis_ == ISSU_PLATD_ABORT) return "an abort is already under way";
      return "the switchover is done; the upgrade can no longer be called off";
    case kIssuCmdIdle:
      if (chassis_ == ISSU_PLATD_SWITCHOVER_DONE) {
        *next = ISSU_PLATD_IDLE;
        return {};
      }
      if (chassis_ == ISSU_PLATD_ABORT) {
        auto busy = NotIn(ISSU_DAEMON_IDLE);
        if (!busy.empty()) return "still aborting: " + Join(busy);
        *next = ISSU_PLATD_IDLE;
        return {};
      }
      if (chassis_ == ISSU_PLATD_IDLE) return "already idle";
      return "an upgrade is under way; abort it first";
    default:
      return "unknown command " + std::to_string(command);
  }
}

void IssuCoordinator::Announce(uint32_t state) {
  if (chassis_ == ISSU_PLATD_IDLE && state == ISSU_PLATD_PREPARE) {
    aborted_.clear();
    gone_.clear();
  }
  Log("issu: chassis %s -> %s", mgtlib_format_platd_issu_state(chassis_),
      mgtlib_format_platd_issu_state(state));
  chassis_ = state;
  std::vector<std::string> to;
  for (auto& [name, p] : parts_) {
    // Each daemon goes back to idle without an answer when the chassis does.
    if (state == ISSU_PLATD_IDLE) p = IssuParticipant{p.pid, p.connected, 0, 0, {}};
    if (p.connected) to.push_back(name);
  }
  server_.RelayPlatdIssuState(state, to, state == ISSU_PLATD_IDLE);
  Publish();
}

void IssuCoordinator::OnControl(Connection* conn, vsk::base::ByteReader raw) {
  IssuControlMsg msg{};
  if (!raw.Get(&msg)) return;
  uint32_t next = chassis_;
  std::string error = Check(msg.command, msg.value, &next);
  const char* what = msg.command < std::size(kCommandNames) ? kCommandNames[msg.command] : "?";
  if (!error.empty()) {
    Log("issu: %s refused in state %s: %s", what, mgtlib_format_platd_issu_state(chassis_),
        error.c_str());
  } else if (msg.command != kIssuCmdStatus) {
    Announce(next);
  }
  nlohmann::json body = Status();
  body["command"] = what;
  body["ok"] = error.empty();
  if (!error.empty()) body["error"] = error;
  std::string text = body.dump();
  IssuControlReply head{ORVD_MSG_ISSU_CONTROL_REPLY,
                        error.empty() ? 0 : VSK_ERR_ORVD_FATAL,
                        static_cast<uint32_t>(text.size())};
  std::string out(reinterpret_cast<const char*>(&head), sizeof head);
  out += text;
  server_.SendOrDrop(conn, out.data(), out.size(), "cannot answer the operator");
}

nlohmann::json IssuCoordinator::Status() const {
  const uint32_t settled = SettledState(chassis_);
  nlohmann::json clients = nlohmann::json::array();
  nlohmann::json waiting = nlohmann::json::array();
  size_t count = 0, ready = 0;
  for (const auto& [name, p] : parts_) {
    clients.push_back({{"name", name},
                       {"pid", p.pid},
                       {"connected", p.connected},
                       {"state", p.state},
                       {"state_name", mgtlib_format_daemon_issu_state(p.state)},
                       {"wait", p.wait},
                       {"reason", p.reason}});
    if (!p.connected) continue;
    ++count;
    if (p.state == settled) ++ready;
    if (IsWait(p.state) && p.state != settled) {
      waiting.push_back({{"name", name}, {"wait", p.wait}, {"reason", p.reason}});
    }
  }
  return {{"chassis_state", chassis_},
          {"chassis", mgtlib_format_platd_issu_state(chassis_)},
          {"participants", count},
          {"ready", ready},
          {"all_ready", ready == count},
          {"clients", clients},
          {"waiting", waiting},
          {"aborted", aborted_},
          {"gone", gone_}};
}

void IssuCoordinator::Publish() const {
  std::string path = vsk::platform::RootedPath(kIssuStatusFile);
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) return;
    out << Status().dump(1) << '\n';
  }
  std::rename(tmp.c_str(), path.c_str());
}

// ---- the server's part: relaying and answering -----------------------------------------

void Server::RelayPlatdIssuState(uint32_t state, const std::vector<std::string>& names,
                                 bool reset_states) {
  platd_issu_state_ = state;
  PlatdIssuStateMsg msg{ORVD_MSG_PLATD_ISSU_STATE, state};
  std::vector<Connection*> to;
  for (const auto& c : conns_) {
    if (c->registered && std::find(names.begin(), names.end(), c->name) != names.end()) {
      to.push_back(c.get());
    }
  }
  if (reset_states) {
    for (Connection* c : to) c->issu_state = 0;
    for (const std::string& name : names) Remember(name, 0);
  }
  for (Connection* c : to) SendOrDrop(c, &msg, sizeof msg, "cannot relay the ISSU state");
  TableChanged();
}

bool Server::SendOrDrop(Connection* conn, const void* data, size_t size, const char* why) {
  ssize_t n = send(conn->fd, data, size, MSG_NOSIGNAL);
  if (n == static_cast<ssize_t>(size)) return true;
  Drop(conn, why);
  return false;
}

}  // namespace orvd
