// Bring-up and take-down of all shared regions of one process.
//
// vsk_open_internal runs inside registration, before the store is opened; vsk_close_internal
// runs when a daemon unregisters or re-registers. Both run in the daemon's event context.
//
// Order of bring-up: key files (creator only), main segment, snapshot segment, id generator
// (which obtains the semaphores), summary counters, status word. A failure does not undo
// the earlier steps: the caller runs vsk_close_internal, which copes with any subset.
// Take-down drops the pointers in the reverse sense and never removes a System V object;
// the semaphore id is kept and the interface table stays mapped.
#include "libvsk/shared/lifecycle.h"

#include <errno.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "libvsk/shared/layout.h"
#include "libvsk/base/trace.h"
#include "platform/paths.h"
#include "vsk/shared.h"
#include "vsk/store.h"

extern "C" {
uint32_t* vsk_db_status = nullptr;
}

namespace vsk::shared {
namespace {

// Makes sure a key file exists ("a" creates it and leaves an existing one as it is).
bool TouchKeyFile(const char* system_path) {
  std::string path = platform::RootedPath(system_path);
  std::FILE* f = std::fopen(path.c_str(), "a");
  if (f == nullptr) {
    VSK_TRACE("Failed to open shared memory key file %s, errno=%s", path.c_str(), strerror(errno));
    return false;
  }
  std::fclose(f);
  return true;
}

}  // namespace
}  // namespace vsk::shared

using namespace vsk::shared;

extern "C" {

int vsk_open_internal(bool create) {
  if (create) {
    if (!TouchKeyFile(vsk::platform::kShmKeyFile)) return -1;
    if (!TouchKeyFile(vsk::platform::kLodexKeyFile)) return -1;
  }
  int rc = vsk_shared_memory_init(create);
  if (rc != 0) {
    VSK_TRACE("Failed to init shared memory %d", rc);
    return -1;
  }
  rc = vsk_snap_shared_memory_init(create);
  if (rc != 0) {
    VSK_TRACE("Failed to init snapshot shared memory %d\n", rc);
    return -1;
  }
  rc = vsk_id_generator_attach(create);
  if (rc != 0) {
    VSK_TRACE("Failed to init id generator %d", rc);
    return -1;
  }
  vsk_summary_counter_attach();
  vsk_db_status = static_cast<uint32_t*>(vsk_get_shm_ptr(VSK_SHM_DB_STATUS_OFFSET));
  if (create) *vsk_db_status = VSK_DB_STATUS_OPENED;
  return 0;
}

int vsk_close_internal(void) {
  const int result = vsk_db_close();
  vsk::shared::DetachAll();
  return result;
}

}  // extern "C"

namespace vsk::shared {

void DetachAll() {
  vsk_id_generator_detach();
  vsk_unit_allocator_detach(VSK_UNIT_POOL_IFL);
  vsk_unit_allocator_detach(VSK_UNIT_POOL_UID);
  vsk_summary_counter_detach();
  vsk_detach_shm();
  vsk_snap_detach_shm();
  vsk_db_status = nullptr;
}

}  // namespace vsk::shared
