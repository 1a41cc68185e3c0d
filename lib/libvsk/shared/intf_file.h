// The interface file seen from one process: its mapping, the table lock, growth, heap
// allocation and the tree functions. Used by the table operations (intf_ops.cc) and by
// init, rebuild and failcheck (intf_recover.cc); nothing else in the library touches the
// file.
//
// Process-local state: the mapping's address (null before init), the mapped size, the
// descriptor (-1 before init) and the pid cached at init as the lock's owner mark.
// Invariants:
//  1. While mapped, the AVL base of this process is the mapping's address.
//  2. The mapping only changes in init or with semaphore 2 held (growth, following).
//  3. FileHeader::lock_pid is this process's pid exactly while it is inside an operation;
//     a non-zero value seen right after taking the semaphore belongs to a dead holder.
//  4. Offsets kept across an allocation stay valid; addresses do not (growth remaps).
//  5. While this process rebuilds the table under a RebuildHold, it holds semaphore 2 for
//     the whole rebuild: the table operations it runs meanwhile neither take nor give
//     back the semaphore, and lock_pid keeps its mark.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "libvsk/shared/intf_layout.h"
#include "vsk/status.h"

namespace vsk::shared::intf {

struct Mapping {
  char* base = nullptr;
  int32_t mapped_size = 0;
  int fd = -1;
  pid_t pid = 0;
};
Mapping& Map();

inline FileHeader* Header() { return reinterpret_cast<FileHeader*>(Map().base); }
template <typename T>
T* At(uint32_t offset) {
  return offset == 0 ? nullptr : reinterpret_cast<T*>(Map().base + offset);
}
inline uint32_t OffsetOf(const void* p) {
  return static_cast<uint32_t>(static_cast<const char*>(p) - Map().base);
}

// The file's full path under the root in force.
std::string FilePath();
// getpagesize() times 10: the initial size and the growth step.
int32_t InitialSize();

// Clears the tree handle, the free lists and lock_pid and restarts the heap at 48.
// `initialized`, `grow_size` and `file_size` stay. REQUIRES: mapped.
void ResetHeader();

// Grows the file to `new_size` if it is smaller, then remaps it at that size. 0 or -1;
// after a failed mmap the table is unmapped. REQUIRES: semaphore 2 held, or init.
int GrowOrFollow(int32_t new_size);

// `size` bytes from the heap, growing the file by one step if needed. The offset, or 0.
uint32_t Allocate(uint32_t size);

// Semaphore 2 plus the dead-holder check: 0, -1 (no mapping or semaphore), -21.
vsk_status_t Lock();
// Clears lock_pid (when mapped) and gives semaphore 2 back. 0 or -1.
vsk_status_t Unlock();

// Semaphore 2 held by this process across a whole rebuild (see invariant 5): taken by
// Acquire, given back by the destructor, which clears lock_pid. Not copyable.
class RebuildHold {
 public:
  RebuildHold() = default;
  ~RebuildHold();
  RebuildHold(const RebuildHold&) = delete;
  RebuildHold& operator=(const RebuildHold&) = delete;
  // Takes semaphore 2. False when it cannot be taken (nothing is held then).
  bool Acquire();
  // Marks the table as held by this process (after a format cleared the mark).
  void Mark();
  // Gives the semaphore back now. 0, or -1 when the semaphore fails.
  vsk_status_t Release();

 private:
  bool held_ = false;
};

// The common opening of every table operation: mapped, locked, at the file's current
// size, with this process's functions stored in the interface tree's handle. 0 or the
// status to return (nothing is held then).
vsk_status_t Begin();
// The common close: unlocks; a failed unlock turns `status` into -1.
vsk_status_t Finish(vsk_status_t status);

// Tree functions and handles. The interface tree is keyed by name (strncmp over 60), a
// session tree by the unsigned 64-bit id; each key function gives the record's address,
// which starts with the key.
void StoreInterfaceFunctions();
SHGenAVLTree SessionTree(uint32_t root);

// The owner's cheap watch for a dead holder, safe to run often: true when lock_pid is
// set while nobody holds semaphore 2 (a live holder keeps it for the whole operation), so
// the repair (vsk_failcheck) is due. Takes the semaphore only for an instant and never
// waits for it; false when unmapped, when the table is free, or when a live process is
// inside it.
bool DeadHolderSuspected();

// Test seams. Lock/Unlock: a table operation's lock and unlock with nothing in between,
// so that a test process can die holding the table. Forget: drops this process's mapping
// and descriptor as if it had never run init (a forked child then maps like a client).
struct TestSeam {
  static vsk_status_t Lock() { return intf::Lock(); }
  static vsk_status_t Unlock() { return intf::Unlock(); }
  static void Forget();
};

}  // namespace vsk::shared::intf
