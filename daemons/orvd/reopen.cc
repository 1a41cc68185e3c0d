// orvd's reopen of the store in place: see reopen.h.
#include "reopen.h"

#include "platform/hwframe.h"
#include "vsk/orvd.h"
#include "vsk/status.h"
#include "vsk/store.h"

namespace orvd {

bool StoreReopen::active() const {
  if (active_) return true;
  return server_ != nullptr && orvd_is_registered() && !vsk_db_rep_is_master() &&
         server_->LostWhileRegistered() != lost_seen_;
}

bool StoreReopen::Tick(Server& server) {
  Clock::time_point now = Clock::now();
  if (!active_) {
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
    active_ = true;
    since_ = now;
    server.BroadcastStoreDown(VSK_ERR_NOT_STARTED);
    return true;
  }
  bool left = server.ConnectionCount() == 0 && now - since_ >= kSettle;
  if (!left && now - since_ < kWait) return true;
  if (!left) Log("clients still connected after the wait; reopening the store all the same");
  close_(wedged_);
  active_ = false;
  lost_seen_ = server.LostWhileRegistered();  // clients that went during the close
  if (open_()) Log("store reopened as %s", vsk_db_rep_is_master() ? "master" : "standby");
  return false;
}

}  // namespace orvd
