// The two System V segments: finding or creating them, attaching and detaching.
//
// Owns the process-local pointers to the main and snapshot segments. Called from the
// daemon's single event context (vsk_open_internal / vsk_close_internal and the stand-alone
// counter reader); nothing here is locked.
//
// Invariants:
//  1. A segment is cleared only by the process that really created it (IPC_CREAT after a
//     failed lookup). A creator that finds an existing segment keeps its contents byte for
//     byte, so ids, pools and counters survive a daemon restart.
//  2. A pointer is null exactly while this process has no attachment through it.
//  3. The library never removes a segment.
//  4. Segments are made 0666, or 0660 for one group when the creator runs with
//     VSK_IPC_GROUP (platform/ipc_access.h); the creator also narrows segments it finds.
#include "libvsk/shared/regions.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstring>
#include <string>

#include "libvsk/base/fault.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/layout.h"
#include "platform/ipc_access.h"
#include "platform/paths.h"
#include "vsk/shared.h"

namespace vsk::shared {
namespace {

uint8_t* g_main = nullptr;
uint8_t* g_snapshot = nullptr;

key_t KeyOf(int project) {
  std::string key_file = platform::RootedPath(platform::kShmKeyFile);
  return ftok(key_file.c_str(), project);
}

// shmget and shmat through the fault seam.
int FindOrMake(key_t key, size_t size, int flags) {
  int err;
  if (fault::Inject(fault::Kind::kShmget, &err)) {
    errno = err;
    return -1;
  }
  return shmget(key, size, flags);
}

// The creator's access rule, or a trace and false when VSK_IPC_GROUP names no group.
bool CreatorAccess(bool create, platform::IpcAccess* access) {
  if (!create) return true;
  *access = platform::CreatorIpcAccess();
  if (access->error.empty()) return true;
  VSK_TRACE("%s", access->error.c_str());
  return false;
}

// Narrows a segment the creator made or found to the installation's group.
bool Restrict(int id, const platform::IpcAccess& access) {
  if (platform::ApplyShmAccess(id, access)) return true;
  VSK_TRACE("Failed to restrict shared memory to group %u: %s",
            static_cast<unsigned>(access.gid), strerror(errno));
  return false;
}

void* Attach(int id) {
  int err;
  if (fault::Inject(fault::Kind::kShmat, &err)) {
    errno = err;
    return nullptr;
  }
  void* base = shmat(id, nullptr, 0);
  return base == reinterpret_cast<void*>(-1) ? nullptr : base;
}

}  // namespace
}  // namespace vsk::shared

using namespace vsk::shared;

int vsk::shared::SharedMemoryInit(bool create) {
  key_t key = KeyOf(kMainProject);
  if (key == -1) return -1;
  vsk::platform::IpcAccess access;
  if (!CreatorAccess(create, &access)) return -1;
  bool created = false;
  int id = FindOrMake(key, kMainSize, 0666);
  if (id != -1) {
    VSK_TRACE("shared memory exist");
  } else {
    if (!create) {
      VSK_TRACE("Failed to get shared memory");
      return -1;
    }
    VSK_TRACE("shared memory does not exist");
    id = FindOrMake(key, kMainSize, IPC_CREAT | access.mode);
    if (id == -1) {
      VSK_TRACE("Failed to create shared memory");
      return -1;
    }
    created = true;
  }
  if (create && !Restrict(id, access)) return -1;
  // A second call attaches again and overwrites the pointer: the process does not keep
  // track of an earlier attachment.
  g_main = static_cast<uint8_t*>(Attach(id));
  if (g_main == nullptr) {
    VSK_TRACE("Failed to attach shared memory");
    return -1;
  }
  if (created) std::memset(g_main, 0, kMainSize);
  return 0;
}

extern "C" int vsk_shared_memory_init(bool create) { return vsk::shared::SharedMemoryInit(create); }

int vsk::shared::SnapSharedMemoryInit(bool create) {
  static const char kFn[] = "vsk_snap_shared_memory_init";
  key_t key = KeyOf(kSnapshotProject);
  if (key == -1) {
    VSK_TRACE("%s:Failed to get shared memory key", kFn);
    return -1;
  }
  vsk::platform::IpcAccess access;
  if (!CreatorAccess(create, &access)) return -1;
  bool created = false;
  int id = FindOrMake(key, kSnapshotSize, 0666);
  if (id != -1) {
    VSK_TRACE("%s: Snap shared memory exist", kFn);
  } else {
    if (!create) {
      VSK_TRACE("Failed to get snapshot shared memory");
      return -1;
    }
    id = FindOrMake(key, kSnapshotSize, IPC_CREAT | access.mode);
    if (id == -1) {
      VSK_TRACE("%s:Failed to get shared memory id %s", kFn, strerror(errno));
      return -1;
    }
    created = true;
  }
  if (create && !Restrict(id, access)) return -1;
  g_snapshot = static_cast<uint8_t*>(Attach(id));
  if (g_snapshot == nullptr) {
    VSK_TRACE("%s:Failed to attach shared memory", kFn);
    return -1;
  }
  if (created) std::memset(g_snapshot, 0, kSnapshotSize);
  return 0;
}

extern "C" int vsk_snap_shared_memory_init(bool create) {
  return vsk::shared::SnapSharedMemoryInit(create);
}

void* vsk::shared::ShmPtr(int32_t offset) {
  if (g_main == nullptr) return nullptr;
  return g_main + offset;
}

extern "C" void* vsk_get_shm_ptr(int32_t offset) { return vsk::shared::ShmPtr(offset); }

void* vsk::shared::SnapShmPtr() { return g_snapshot; }

extern "C" void* vsk_snap_get_shared_memory_ptr(void) { return vsk::shared::SnapShmPtr(); }

void vsk::shared::DetachShm() {
  if (g_main == nullptr) return;
  int rc = shmdt(g_main);
  if (rc != 0) VSK_TRACE("Failed to release shared memory %d", rc);
  g_main = nullptr;
}

extern "C" void vsk_detach_shm(void) { vsk::shared::DetachShm(); }

int vsk::shared::SnapDetachShm() {
  if (g_snapshot == nullptr) return 0;
  int rc = shmdt(g_snapshot);
  if (rc != 0) {
    VSK_TRACE("%s:Failed to release shared memory: %d\n", "vsk_snap_detach_shm", rc);
  }
  g_snapshot = nullptr;
  return 0;
}

extern "C" {

int vsk_snap_detach_shm(void) { return vsk::shared::SnapDetachShm(); }

}  // extern "C"
