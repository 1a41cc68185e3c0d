// The routing-engine role of this process. Written only by the daemon link (during
// registration) from the daemon's single event context; nothing here is locked.
#include "libvsk/base/role.h"

#include "vsk/store.h"

namespace vsk::base {
namespace {

bool g_master = false;

}  // namespace

bool IsMaster() { return g_master; }

}  // namespace vsk::base

extern "C" {

void vsk_db_set_master(bool flag) { vsk::base::g_master = flag; }

bool vsk_db_rep_is_master(void) { return vsk::base::IsMaster(); }

bool vsk_is_master(void) { return vsk::base::IsMaster(); }

}  // extern "C"
