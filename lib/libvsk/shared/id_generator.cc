// The session id generator: one 64-bit word at offset 0 of the main segment, shared by all
// processes, holding the last id handed out.
//
// Ids run from 1 to 0x7FFFFFFFFFFFFFFF and then start again at 1; 0 is never handed out and
// the top bit is never set. After a wrap, uniqueness rests on the size of the id space.
// Ids are not persisted: after the segment is re-created, recovery raises the word to the
// largest id found in the store (vsk_id_recover).
//
// Invariants:
//  1. vsk_id_generate and vsk_id_recover change the word only while holding semaphore 0.
//  2. vsk_id_get_last and vsk_id_update are for other programs and take no lock.
//  3. The word is only ever raised by recovery, never lowered.
#include <atomic>
#include <cstdint>

#include "libvsk/base/trace.h"
#include "libvsk/shared/attachments.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/layout.h"
#include "libvsk/shared/lock_hold.h"
#include "libvsk/shared/regions.h"
#include "vsk/shared.h"

namespace vsk::shared {
namespace {

uint64_t* g_last_id = nullptr;

std::atomic_ref<uint64_t> LastId() { return std::atomic_ref<uint64_t>(*g_last_id); }

}  // namespace

bool IdGeneratorAttached() { return g_last_id != nullptr; }

}  // namespace vsk::shared

using namespace vsk::shared;

int vsk::shared::IdGeneratorAttach(bool create) {
  if (LockInit(create) != 0) return -1;
  g_last_id = static_cast<uint64_t*>(vsk::shared::ShmPtr(VSK_SHM_LAST_SESSION_ID_OFFSET));
  return 0;
}

extern "C" int vsk_id_generator_attach(bool create) {
  return vsk::shared::IdGeneratorAttach(create);
}

void vsk::shared::IdGeneratorDetach() { g_last_id = nullptr; }

extern "C" {

void vsk_id_generator_detach(void) { vsk::shared::IdGeneratorDetach(); }

// REQUIRES: the generator is attached. A detached process gets -1 and a trace rather than
// a fault.
}  // extern "C"

int vsk::shared::IdGenerate(vsk_session_id_t* id) {
  if (g_last_id == nullptr || id == nullptr) {
    VSK_TRACE("%s: id generator not attached or no result", "vsk_id_generate");
    return -1;
  }
  LockHold hold(VSK_LOCK_ID);
  if (hold.Begin() != VSK_OK) return -1;
  // The 64-bit add keeps the carry between the 32-bit halves.
  uint64_t next = (LastId().load(std::memory_order_relaxed) + 1) & VSK_SESSION_ID_MAX;
  if (next == 0) next = 1;
  LastId().store(next, std::memory_order_relaxed);
  *id = next;
  // The id is written before the release: if the release fails it is used up anyway.
  return hold.Finish(0, -1);
}

extern "C" int vsk_id_generate(vsk_session_id_t* id) { return vsk::shared::IdGenerate(id); }

int vsk::shared::IdRecover(vsk_session_id_t id) {
  if (g_last_id == nullptr) {
    VSK_TRACE("%s: id generator not attached", "vsk_id_recover");
    return -1;
  }
  LockHold hold(VSK_LOCK_ID);
  if (hold.Begin() != VSK_OK) return -1;
  if (id > LastId().load(std::memory_order_relaxed)) {
    LastId().store(id, std::memory_order_relaxed);
  }
  return hold.Finish(0, -1);
}

extern "C" int vsk_id_recover(vsk_session_id_t id) { return vsk::shared::IdRecover(id); }

vsk_session_id_t vsk::shared::IdGetLast() {
  if (g_last_id == nullptr) return 0;
  return LastId().load(std::memory_order_relaxed);
}

extern "C" vsk_session_id_t vsk_id_get_last(void) { return vsk::shared::IdGetLast(); }

int vsk::shared::IdUpdate(vsk_session_id_t id) {
  if (g_last_id == nullptr) return -1;
  LastId().store(id, std::memory_order_relaxed);
  return 0;
}

extern "C" int vsk_id_update(vsk_session_id_t id) { return vsk::shared::IdUpdate(id); }
