// The private copies a snapshot handle keeps of a slot and of a dynamic block.
//
// Both are larger than the allocator's small-block range, and a snapshot frees many small
// blocks just before the next one asks for its copies: a fresh large request then makes
// the allocator merge every small block freed so far, which cost more than the rest of a
// cached read. So each thread keeps the last copy block of each size it gave back and
// hands it out again. The blocks are plain heap blocks either way: one freed with free()
// instead of coming back here is no fault.
#include <cstdlib>
#include <cstring>

#include "libvsk/shared/session_cache.h"
#include "libvsk/shared/session_cache_layout.h"

namespace vsk::cache {

namespace {

struct Spares {
  void* slot = nullptr;
  void* dynamic = nullptr;
  Spares() = default;
  Spares(const Spares&) = delete;
  Spares& operator=(const Spares&) = delete;
  ~Spares() {
    std::free(slot);
    std::free(dynamic);
  }
};

thread_local Spares spares;

// A block of `size` bytes whose first `used` bytes are copied from `from` and the rest
// zero, taking the thread's spare when there is one.
void* CopyInto(void*& spare, size_t size, const void* from, size_t used) {
  void* block = spare;
  spare = nullptr;
  if (block == nullptr) block = std::malloc(size);
  if (block == nullptr) return nullptr;
  if (used > size) used = size;
  std::memcpy(block, from, used);
  std::memset(static_cast<uint8_t*>(block) + used, 0, size - used);
  return block;
}

void GiveBack(void*& spare, void*& block) {
  if (block == nullptr) return;
  if (spare == nullptr) {
    spare = block;
  } else {
    std::free(block);
  }
  block = nullptr;
}

}  // namespace

void* SlotCopy(const void* slot, size_t used) {
  return CopyInto(spares.slot, kSlotSize, slot, used);
}

void* DynamicCopy(const void* block, size_t used) {
  return CopyInto(spares.dynamic, sizeof(DynamicBlock), block, used);
}

void DropSlotCopy(vsk_snapshot_handle* handle) { GiveBack(spares.slot, handle->shm_session_copy); }

void DropDynamicCopy(vsk_snapshot_handle* handle) {
  GiveBack(spares.dynamic, handle->shm_dynamic_copy);
}

}  // namespace vsk::cache
