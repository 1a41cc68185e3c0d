// This process's routing-engine role (master or standby), as the daemon link last set it
// with vsk_db_set_master. Every layer may ask; it survives every close of the store.
#pragma once

namespace vsk::base {

// True on the master routing engine.
bool IsMaster();

}  // namespace vsk::base
