// orvd's reopen of the store in place: see reopen.h.
#include "reopen.h"

#include "log.h"

#include <time.h>

#include "platform/hwframe.h"
#include "platform/lodex_status.h"
#include "vsk/orvd.h"
#include "vsk/status.h"
#include "vsk/store.h"

namespace orvd {

namespace {

// The replication daemon keeps the store through a fence.
constexpr char kReplicationDaemon[] = "lodexd";

int64_t RealtimeMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

// lodexd reports, in a status written after `since_ms`, that the standby has applied all
// this master has logged.
bool StandbyInStep(int64_t since_ms) {
  vsk::platform::LodexStatus s;
  return vsk::platform::ReadLodexStatus(&s) && s.master && s.in_sync && s.updated_ms > since_ms;
}

}  // namespace

bool StoreReopen::active() const {
  if (phase_ != Phase::kIdle) return true;
  return server_ != nullptr && orvd_is_registered() && !vsk_db_rep_is_master() &&
         server_->LostWhileRegistered() != lost_seen_;
}

bool StoreReopen::Tick(Server& server) {
  Clock::time_point now = Clock::now();
  if (phase_ == Phase::kIdle) {
    const uint64_t lost = server.LostWhileRegistered();
    const bool client_died = lost != lost_seen_;
    lost_seen_ = lost;
    if (!orvd_is_registered()) return false;
    const bool master = vsk_db_rep_is_master();
    const bool role_changed = hwframe_is_vc_or_single_re_protocol_master() != master;
    wedged_ = !master && client_died;
    if (!role_changed && !wedged_) return false;
    if (role_changed) {
      Log("role changes to %s: closing the store for every client", master ? "standby" : "master");
    } else {
      Log("a client died in the standby's store: reopening it with recovery");
    }
    since_ = now;
    if (role_changed && master) {
      phase_ = Phase::kFencing;
      fenced_at_ms_ = RealtimeMs();
      server.BroadcastStoreDown(VSK_ERR_NOT_STARTED, kReplicationDaemon);
    } else {
      phase_ = Phase::kClosing;
      server.BroadcastStoreDown(VSK_ERR_NOT_STARTED);
    }
    return true;
  }
  if (phase_ == Phase::kFencing) {
    bool in_step = StandbyInStep(fenced_at_ms_);
    if (!in_step && now - since_ < kFenceWait) return true;
    if (!in_step) Log("the standby is not in step after the wait; stepping down all the same");
    phase_ = Phase::kClosing;
    since_ = now;
    server.BroadcastStoreDown(VSK_ERR_NOT_STARTED);
    return true;
  }
  bool left = server.ConnectionCount() == 0 && now - since_ >= kSettle;
  if (!left && now - since_ < kWait) return true;
  if (!left) Log("clients still connected after the wait; reopening the store all the same");
  close_(wedged_);
  phase_ = Phase::kIdle;
  lost_seen_ = server.LostWhileRegistered();  // clients that went during the close
  if (open_()) Log("store reopened as %s", vsk_db_rep_is_master() ? "master" : "standby");
  return false;
}

}  // namespace orvd
