// The two shared segments for C++ callers; the exported vsk_shared_memory_init,
// vsk_snap_shared_memory_init, vsk_get_shm_ptr, vsk_snap_get_shared_memory_ptr,
// vsk_detach_shm and vsk_snap_detach_shm are shims over these.
#pragma once

#include <cstdint>

namespace vsk::shared {

int SharedMemoryInit(bool create);
int SnapSharedMemoryInit(bool create);
void* ShmPtr(int32_t offset);
void* SnapShmPtr();
void DetachShm();
int SnapDetachShm();

}  // namespace vsk::shared
