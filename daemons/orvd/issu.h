// orvd's side of an in-service upgrade. The chassis daemon is not part of this system,
// so orvd keeps the chassis state itself and takes it from an operator command (the
// control message of libvsk/orvd_client/wire.h, sent by tools/vsk-issu).
//
// Rules it keeps:
//  1. a participant is a registered daemon that set an ISSU option; each new chassis
//     state goes to every connected participant, and a late one gets it in the
//     acknowledgement of its registration;
//  2. each participant's answered state, wait and reason are kept and published (the
//     daemons table carries the state, "/var/run/orvd_issu" the whole status as JSON);
//  3. the chassis state moves only along the operator's transitions:
//       prepare     from idle, prepare or prepare done
//       done        prepare -> prepare done, once every participant is prepare-ready;
//                   switchover -> switchover done, once every one is switchover-ready
//       switchover  from prepare done
//       abort       from prepare, prepare done or switchover
//       idle        from switchover done; from abort once every participant is idle again;
//                   from any state outside these (only an injected state gets there)
//       inject N    relays N without any check (rehearsing unexpected states)
//     anything else is refused with a reason and changes nothing;
//  4. a participant that dies or leaves during an upgrade is dropped from the count, and
//     the status names it, as it names who waits (and for how long it asked) and who
//     aborted.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvsk/base/byte_reader.h"
#include "vsk/orvd.h"

namespace orvd {

class Server;
struct Connection;

struct IssuParticipant {
  pid_t pid = 0;
  bool connected = false;
  uint32_t state = 0;  // the daemon's last answered state
  uint32_t wait = 0;
  std::string reason;
};

class IssuCoordinator {
 public:
  explicit IssuCoordinator(Server& server) : server_(server) {}

  uint32_t chassis_state() const { return chassis_; }

  // A daemon registered; `issu_enabled` makes it a participant. `kept_state` is the
  // daemon state orvd answers it with.
  void OnRegister(const std::string& name, pid_t pid, bool issu_enabled, uint32_t kept_state);
  // A participant answered. False (nothing recorded) for a non-participant or a
  // malformed block.
  bool OnAnswer(const std::string& name, const vsk_issu_info_t& info);
  // A daemon left (`how` says whether by its own word or by dying).
  void OnGone(const std::string& name, const char* how);
  // One operator command on `conn`; the answer goes back on it.
  void OnControl(Connection* conn, vsk::base::ByteReader msg);

  nlohmann::json Status() const;

 private:
  // Reason the command can't run now, or empty when it can; `next` gets the new state.
  std::string Check(uint32_t command, uint32_t value, uint32_t* next) const;
  // Names of connected participants not (yet) in daemon state `want`.
  std::vector<std::string> NotIn(uint32_t want) const;
  void Announce(uint32_t state);
  void Publish() const;

  Server& server_;
  uint32_t chassis_ = ISSU_PLATD_IDLE;
  std::map<std::string, IssuParticipant> parts_;
  std::vector<std::string> aborted_;  // daemons that called this upgrade off
  std::vector<nlohmann::json> gone_;  // participants lost during this upgrade
};

}  // namespace orvd
