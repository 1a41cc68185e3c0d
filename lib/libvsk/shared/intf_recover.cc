// Mapping, rebuild and repair of the interface table.
//
// vsk_db_secondary_init runs in registration in every process: `orvd` makes the file anew
// and empty, a client maps what is there. vsk_db_secondary_recover runs in `orvd` on the
// master after the store opened, and from failcheck; it refills the table and the
// derived counters from the store and moves the status word 2 -> 3. vsk_failcheck is
// `orvd`'s repair after some process died holding the table.
#include "libvsk/shared/intf_recover.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <atomic>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/avl.h"
#include "libvsk/shared/intf_file.h"
#include "libvsk/shared/lock_hold.h"
#include "libvsk/shared/uid_table.h"
#include "platform/paths.h"
#include "vsk/intf.h"
#include "vsk/shared.h"
#include "vsk/store.h"

using namespace vsk::shared::intf;

namespace vsk::shared::intf {
namespace {

uint32_t* g_recovery_record = nullptr;
RecoveryJoin g_recovery_join{};

void* MapFile(int fd, int32_t size) {
  void* p = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return p == MAP_FAILED ? nullptr : p;
}

vsk_status_t InitClient() {
  Mapping& m = Map();
  m.mapped_size = InitialSize();
  std::string path = FilePath();
  if (m.fd >= 0) close(m.fd);
  m.fd = open(path.c_str(), O_RDWR);
  if (m.fd < 0) {
    VSK_TRACE("Failed to open file %s, %s", kFileName, strerror(errno));
    m.base = nullptr;
    return VSK_ERR_NOMEM;
  }
  // A file shorter than one step is being formatted by `orvd` (or is not ours): touching
  // the mapping past its end would kill the process.
  struct stat st {};
  void* p = nullptr;
  if (fstat(m.fd, &st) == 0 && st.st_size >= m.mapped_size) p = MapFile(m.fd, m.mapped_size);
  if (p == nullptr) {
    VSK_TRACE("Failed mmap");
    close(m.fd);
    m.fd = -1;
    m.base = nullptr;
    return VSK_ERR_NOMEM;
  }
  m.base = static_cast<char*>(p);
  vsk::shared::avl::InitBase(m.base);
  if (Header()->file_size != m.mapped_size && GrowOrFollow(Header()->file_size) != 0) {
    VSK_TRACE("VSK DB INIT failed, increase failed");
    return VSK_ERR_NOMEM;
  }
  vsk::shared::avl::InitBase(m.base);
  return VSK_OK;
}

vsk_status_t InitOrvd() {
  Mapping& m = Map();
  // The mapping may have grown since it was made: all of it goes.
  if (m.base != nullptr) {
    if (munmap(m.base, static_cast<size_t>(m.mapped_size)) != 0) {
      VSK_TRACE("Failed to unmap memory, %s", strerror(errno));
      return VSK_ERR_NOMEM;
    }
    m.base = nullptr;
  }
  m.mapped_size = InitialSize();
  if (m.fd >= 0) close(m.fd);
  std::string path = FilePath();
  platform::MakeDirs(platform::RootedPath(platform::kInterfaceDir));
  m.fd = open(path.c_str(), O_RDWR | O_CREAT, kFileMode);
  if (m.fd < 0) {
    VSK_TRACE("Failed to open file %s, %s", kFileName, strerror(errno));
    return VSK_ERR_NOMEM;
  }
  int32_t size = InitialSize();
  if (ftruncate(m.fd, size) != 0) {
    VSK_TRACE("Truncate failed");
    if (unlink(path.c_str()) != 0) VSK_TRACE("Unlink failed");
    return VSK_ERR_NOMEM;
  }
  void* p = MapFile(m.fd, size);
  if (p == nullptr) {
    VSK_TRACE("Failed mmap");
    unlink(path.c_str());
    return VSK_ERR_NOMEM;
  }
  m.base = static_cast<char*>(p);
  VSK_TRACE("INIT MEMORY");
  std::memset(m.base, 0, static_cast<size_t>(size));
  FileHeader* h = Header();
  h->initialized = 1;
  h->file_size = size;
  h->grow_size = static_cast<uint32_t>(size);
  ResetHeader();
  vsk::shared::avl::InitBase(m.base);
  return VSK_OK;
}

// Counters before the walk: an empty shared record is counted into directly; otherwise
// the walk counts into a private record and readers keep the old values until the end.
void PrepareCounters() {
  g_recovery_record = nullptr;
  if (vsk_summary_counter == nullptr) return;
  if (vsk_summary_counter[VSK_SUMMARY_COUNTER_TYPE_SUM] == 0) {
    std::memset(vsk_summary_counter, 0, VSK_SUMMARY_COUNTER_SIZE);
    return;
  }
  g_recovery_record = static_cast<uint32_t*>(std::calloc(VSK_SUMMARY_COUNTER_SLOTS, 4));
}

void PutCountersInPlace() {
  if (g_recovery_record == nullptr) return;
  if (vsk_summary_counter != nullptr) {
    std::memcpy(vsk_summary_counter, g_recovery_record, VSK_SUMMARY_COUNTER_SIZE);
  }
  std::free(g_recovery_record);
  g_recovery_record = nullptr;
}

}  // namespace

uint32_t* RecoveryCounterRecord() { return g_recovery_record; }

void RegisterRecoveryJoin(const RecoveryJoin& join) { g_recovery_join = join; }

}  // namespace vsk::shared::intf

extern "C" {

vsk_status_t vsk_db_secondary_init(bool is_orvd) {
  Mapping& m = Map();
  if (m.base != nullptr && !is_orvd) return VSK_OK;
  m.pid = getpid();
  return is_orvd ? InitOrvd() : InitClient();
}

vsk_status_t vsk_db_secondary_recover(void) {
  if (Map().base == nullptr) {
    VSK_TRACE("Please init API before calling");
    return VSK_ERR_FATAL;
  }
  if (vsk_db_status != nullptr) *vsk_db_status = VSK_DB_STATUS_RECOVERING;
  VSK_TRACE("Recover Secondary Table");
  ResetHeader();
  const RecoveryJoin& join = g_recovery_join;
  if (vsk_debug && join.debug_init != nullptr) join.debug_init();
  PrepareCounters();

  // The session walk refills the table and counts into RecoveryCounterRecord(). A failed
  // walk is only traced: the store opens with what was rebuilt.
  vsk_status_t walk = join.walk_sessions != nullptr ? join.walk_sessions() : VSK_OK;

  PutCountersInPlace();
  if (walk != VSK_OK) {
    VSK_TRACE("Failed to recover VSK secondary tables : %s", vsk::base::ErrorText(walk));
  } else {
    vsk_unit_recovered(VSK_UNIT_POOL_IFL);
  }

  // The UID numbers stored in their table go back out of pool 1 before its free list is
  // rebuilt.
  vsk_status_t uid = vsk::shared::RecoverTable();
  if (uid != VSK_OK) {
    VSK_TRACE("Failed to recover UID tables : %s", vsk::base::ErrorText(uid));
  } else {
    vsk_unit_recovered(VSK_UNIT_POOL_UID);
  }
  if (vsk_debug && join.debug_end != nullptr) join.debug_end();

  if (uid != VSK_OK) return uid;
  if (vsk_db_status != nullptr) *vsk_db_status = VSK_DB_STATUS_READY;
  return VSK_OK;
}

}  // extern "C"

namespace vsk::shared::intf {

bool DeadHolderSuspected() {
  if (Map().base == nullptr) return false;
  // A plain read outside the lock: only a hint, confirmed under the semaphore below.
  if (std::atomic_ref<int32_t>(Header()->lock_pid).load(std::memory_order_relaxed) == 0) {
    return false;
  }
  if (TryAcquireLock(VSK_LOCK_HEAP) != 1) return false;
  const bool dead = std::atomic_ref<int32_t>(Header()->lock_pid).load() != 0;
  ReleaseLock(VSK_LOCK_HEAP);
  return dead;
}

}  // namespace vsk::shared::intf

extern "C" {

vsk_status_t vsk_db_secondary_failcheck(void) {
  if (Map().base == nullptr) {
    VSK_TRACE("Please init API before calling");
    return VSK_ERR_FATAL;
  }
  RebuildHold hold;
  if (!hold.Acquire()) return VSK_ERR_FATAL;
  int32_t holder = Header()->lock_pid;
  if (holder == 0) return hold.Release();
  VSK_TRACE("*** LOCK was still open by pid %d, recover", holder);
  // Safe deviation: semaphore 2 stays held from the dead-holder check to the end of the
  // rebuild, rather than being given back before it. The rebuild shrinks the file and
  // resets its heap; a client let in meanwhile could die of SIGBUS past the new end of the
  // file, or write into a heap that the reset then throws away. Holding it is safe: no
  // process waits for semaphore 2 while it holds another semaphore or a Berkeley DB lock
  // (the table is only touched after a commit), so the rebuild's own walk of the store
  // cannot deadlock with a waiter; the walk's table operations see the hold and leave the
  // semaphore alone.
  hold.Mark();
  vsk_db_secondary_init(true);
  hold.Mark();  // the format cleared the mark: a death from here on is found again
  vsk_status_t rc = vsk_db_secondary_recover();
  return hold.Release() == VSK_OK ? rc : VSK_ERR_FATAL;
}

vsk_status_t vsk_failcheck(void) { return vsk_db_secondary_failcheck(); }

}  // extern "C"
