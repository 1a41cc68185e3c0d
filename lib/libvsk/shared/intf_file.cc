// The interface file's mapping, lock, growth and heap (see intf_file.h for the
// invariants). Growth and following are one step: whoever finds the file larger than its
// mapping, because it needs room or because another process grew it, remaps the whole
// file at the new size. Nothing is ever given back to the heap.
#include "libvsk/shared/intf_file.h"

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/avl.h"
#include "libvsk/shared/lock_hold.h"
#include "libvsk/store/env.h"
#include "platform/paths.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vsk::shared::intf {
namespace {

Mapping g_map;
// The process that holds semaphore 2 for a rebuild, or 0. A pid rather than a flag, so
// that a process forked meanwhile does not take itself for the holder.
pid_t g_rebuilding_pid = 0;

bool Rebuilding() { return g_rebuilding_pid != 0 && g_rebuilding_pid == getpid(); }

int CompareInterface(const void* node, const void* key) {
  const char* rec = static_cast<const char*>(node) - offsetof(InterfaceRecord, node);
  return std::strncmp(reinterpret_cast<const InterfaceRecord*>(rec)->name,
                      static_cast<const char*>(key), kNameSize);
}

const void* InterfaceKey(const void* node) {
  return static_cast<const char*>(node) - offsetof(InterfaceRecord, node);
}

int CompareSession(const void* node, const void* key) {
  const char* rec = static_cast<const char*>(node) - offsetof(SessionNode, node);
  vsk_session_id_t a = IdOf(reinterpret_cast<const SessionNode*>(rec));
  vsk_session_id_t b;
  std::memcpy(&b, key, sizeof b);
  return a < b ? -1 : (a > b ? 1 : 0);
}

const void* SessionKey(const void* node) {
  return static_cast<const char*>(node) - offsetof(SessionNode, node);
}

}  // namespace

Mapping& Map() { return g_map; }

std::string FilePath() { return platform::RootedPath(platform::kInterfaceDir) + kFileName; }

int32_t InitialSize() { return getpagesize() * kInitialPages; }

void ResetHeader() {
  FileHeader* h = Header();
  std::memset(&h->interfaces, 0, sizeof h->interfaces);
  h->free_interfaces = 0;
  h->free_sessions = 0;
  h->lock_pid = 0;
  h->heap_top = kHeapStart;
}

int GrowOrFollow(int32_t new_size) {
  if (g_map.fd < 0) {
    VSK_TRACE("No shared mem to increase");
    return -1;
  }
  // A size below one step can only come from a file that is being formatted or was
  // damaged: mapping it would leave the header's own offsets out of reach.
  if (new_size < InitialSize()) {
    VSK_TRACE("Failed to increase memory size");
    return -1;
  }
  if (Header()->file_size < new_size) {
    VSK_TRACE("Truncating File");
    if (ftruncate(g_map.fd, new_size) != 0) {
      VSK_TRACE("Failed to increase memory size");
      return -1;
    }
  }
  if (munmap(g_map.base, static_cast<size_t>(g_map.mapped_size)) != 0) {
    VSK_TRACE("Failed to unmap memory, %s", strerror(errno));
    return -1;
  }
  g_map.base = nullptr;
  void* p =
      mmap(nullptr, static_cast<size_t>(new_size), PROT_READ | PROT_WRITE, MAP_SHARED, g_map.fd, 0);
  if (p == MAP_FAILED) {
    VSK_TRACE("Failed increasing memory map");
    return -1;
  }
  g_map.base = static_cast<char*>(p);
  vsk::shared::avl::InitBase(g_map.base);
  VSK_TRACE("OFFSET Changed");
  Header()->file_size = new_size;
  g_map.mapped_size = new_size;
  VSK_TRACE("Increase mem size to %d", new_size);
  return 0;
}

uint32_t Allocate(uint32_t size) {
  if (g_map.base == nullptr) return 0;
  FileHeader* h = Header();
  if (static_cast<int64_t>(h->heap_top) + size > h->file_size) {
    VSK_TRACE("Asking for more mem, curr %d, avail %d", static_cast<int>(h->heap_top),
              h->file_size);
    if (GrowOrFollow(h->file_size + static_cast<int32_t>(h->grow_size)) != 0) return 0;
    h = Header();
  }
  uint32_t offset = h->heap_top;
  // Published text: "AQUIRE" is spelt so on purpose; tools match it.
  VSK_TRACE("MEM AQUIRE %d, offset %d", static_cast<int>(size), static_cast<int>(offset));
  h->heap_top += size;
  return offset;
}

vsk_status_t Lock() {
  if (g_map.base == nullptr) return VSK_ERR_FATAL;
  if (Rebuilding()) {
    Header()->lock_pid = g_map.pid;
    return VSK_OK;
  }
  if (AcquireLock(VSK_LOCK_HEAP) != 0) return VSK_ERR_FATAL;
  int32_t holder = Header()->lock_pid;
  if (holder != 0) {
    // The semaphore came back through SEM_UNDO, but its holder died inside the table and
    // may have left it half-changed: nobody may use it until it is rebuilt.
    VSK_TRACE("*** BAD *** LOCK was still open by pid %d", holder);
    if (ReleaseLock(VSK_LOCK_HEAP) != 0) VSK_TRACE("Failed to unlock with failed pid");
    vsk::store::EventRecover();
    return VSK_ERR_SECONDARY_RECOVERY;
  }
  Header()->lock_pid = g_map.pid;
  return VSK_OK;
}

vsk_status_t Unlock() {
  if (Rebuilding()) return VSK_OK;  // the rebuild gives the semaphore back at its end
  if (g_map.base != nullptr) Header()->lock_pid = 0;
  return ReleaseLock(VSK_LOCK_HEAP) == 0 ? VSK_OK : VSK_ERR_FATAL;
}

bool RebuildHold::Acquire() {
  if (AcquireLock(VSK_LOCK_HEAP) != 0) return false;
  held_ = true;
  g_rebuilding_pid = getpid();
  return true;
}

void RebuildHold::Mark() {
  if (held_ && g_map.base != nullptr) Header()->lock_pid = g_map.pid;
}

vsk_status_t RebuildHold::Release() {
  if (!held_) return VSK_OK;
  held_ = false;
  g_rebuilding_pid = 0;
  return Unlock();
}

RebuildHold::~RebuildHold() { Release(); }

vsk_status_t Begin() {
  if (g_map.base == nullptr) {
    VSK_TRACE("Please init API before calling");
    return VSK_ERR_FATAL;
  }
  vsk_status_t rc = Lock();
  if (rc != VSK_OK) return rc;
  if (Header()->file_size != g_map.mapped_size) {
    if (GrowOrFollow(Header()->file_size) != 0) {
      if (Unlock() != VSK_OK) VSK_TRACE("Failed to unlock");
      return VSK_ERR_FATAL;
    }
  }
  StoreInterfaceFunctions();
  return VSK_OK;
}

vsk_status_t Finish(vsk_status_t status) { return Unlock() == VSK_OK ? status : VSK_ERR_FATAL; }

void StoreInterfaceFunctions() {
  vsk::shared::avl::SetFunctions(&Header()->interfaces, CompareInterface, InterfaceKey, nullptr,
                                 nullptr);
}

SHGenAVLTree SessionTree(uint32_t root) {
  SHGenAVLTree tree{};
  vsk::shared::avl::SetFunctions(&tree, CompareSession, SessionKey, nullptr, nullptr);
  tree.root = root;
  return tree;
}

void TestSeam::Forget() {
  if (g_map.base != nullptr) munmap(g_map.base, static_cast<size_t>(g_map.mapped_size));
  if (g_map.fd >= 0) close(g_map.fd);
  g_map = Mapping{};
}

}  // namespace vsk::shared::intf
