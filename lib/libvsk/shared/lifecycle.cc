// Bring-up and take-down of everything one process attaches; the list itself is in
// attachments.h.
//
// vsk_open_internal runs inside registration, before the store is opened; vsk_close_internal
// runs when a daemon unregisters or re-registers. Both run in the daemon's event context.
// A failed bring-up does not undo the earlier rows: the caller runs vsk_close_internal,
// which copes with any subset.
#include <errno.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "libvsk/base/trace.h"
#include "libvsk/shared/attachments.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_file.h"
#include "libvsk/shared/layout.h"
#include "libvsk/shared/regions.h"
#include "libvsk/store/env.h"
#include "platform/lodex.h"
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

// Only the creator makes the key files; everyone else derives keys from what exists.
int AttachKeyFiles(bool create) {
  if (!create) return 0;
  return TouchKeyFile(platform::kShmKeyFile) && TouchKeyFile(platform::kLodexKeyFile) ? 0 : -1;
}

int AttachCounters(bool) {
  vsk::shared::CounterAttach();
  return 0;
}

// The status word: the creator marks the shared state as opened, not yet rebuilt.
int AttachStatusWord(bool create) {
  vsk_db_status = static_cast<uint32_t*>(vsk::shared::ShmPtr(VSK_SHM_DB_STATUS_OFFSET));
  if (create && vsk_db_status != nullptr) *vsk_db_status = VSK_DB_STATUS_OPENED;
  return vsk_db_status != nullptr ? 0 : -1;
}

void DetachUnitPools() {
  vsk_unit_allocator_detach(VSK_UNIT_POOL_IFL);
  vsk_unit_allocator_detach(VSK_UNIT_POOL_UID);
}

const Attachment kAttachments[] = {
    {"key files", AttachKeyFiles, nullptr, nullptr, nullptr, nullptr},
    {"main segment", SharedMemoryInit, DetachShm, [] { return vsk::shared::ShmPtr(0) != nullptr; },
     "Failed to init shared memory %d", nullptr},
    {"snapshot segment", SnapSharedMemoryInit, [] { SnapDetachShm(); },
     [] { return vsk::shared::SnapShmPtr() != nullptr; },
     "Failed to init snapshot shared memory %d\n", nullptr},
    // The id generator obtains the semaphore set (kept across a close).
    {"semaphore set and id generator", IdGeneratorAttach, IdGeneratorDetach, IdGeneratorAttached,
     "Failed to init id generator %d", nullptr},
    {"summary counters", AttachCounters, CounterDetach,
     [] { return vsk_summary_counter != nullptr; }, nullptr, nullptr},
    {"status word", AttachStatusWord, [] { vsk_db_status = nullptr; },
     [] { return vsk_db_status != nullptr; }, nullptr, nullptr},
    {"replication queue", nullptr, nullptr,
     [] {
       lodex_stats_t stats;
       return lodex_get_stats(&stats) == 0;
     },
     nullptr, "the store, while opening the environment; its close releases it"},
    {"unit pools", nullptr, DetachUnitPools,
     [] { return UnitPoolAttached(VSK_UNIT_POOL_IFL) && UnitPoolAttached(VSK_UNIT_POOL_UID); },
     nullptr, "the store's unit-pool join, once the environment is open"},
    {"interface file", nullptr, nullptr, [] { return intf::Map().base != nullptr; }, nullptr,
     "vsk_db_secondary_init, after the store; it stays mapped"},
};

}  // namespace

std::span<const Attachment> Attachments() { return kAttachments; }

int AttachAll(bool create) {
  for (const Attachment& row : kAttachments) {
    if (row.attach == nullptr) continue;
    const int rc = row.attach(create);
    if (rc == 0) continue;
    if (row.attach_failed != nullptr) VSK_TRACE(row.attach_failed, rc);
    return -1;
  }
  return 0;
}

void DetachAll() {
  for (auto row = std::rbegin(kAttachments); row != std::rend(kAttachments); ++row) {
    if (row->detach != nullptr) row->detach();
  }
}

}  // namespace vsk::shared

extern "C" {

int vsk_open_internal(bool create) { return vsk::shared::AttachAll(create); }

int vsk_close_internal(void) {
  const int result = vsk::store::Close();
  vsk::shared::DetachAll();
  return result;
}

}  // extern "C"
