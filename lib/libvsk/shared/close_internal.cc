// vsk_close_internal: the take-down of everything of the library in this process, the
// store first (its result is the call's), then every pointer into shared memory. The
// interface table stays mapped and the shared objects outlive the process.
#include "libvsk/shared/lifecycle.h"
#include "vsk/shared.h"
#include "vsk/store.h"

extern "C" int vsk_close_internal(void) {
  int rc = vsk_db_close();
  vsk::shared::DetachAll();
  return rc;
}
