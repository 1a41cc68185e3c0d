// The writers of a slot's dynamic block and of its authentication pair.
//
// Dynamic entry: tag (1 byte) | name with its NUL | length (1 byte) | value | two zero
// bytes. Auth entry: type (2 bytes) | length (1 byte) | value | two zero bytes. A writer
// clears the value and the three bytes behind it, which reaches the next entry's first
// byte: so the last entry written always ends the list for a reader, whatever stood there
// before. One length byte can say at most 255: a longer value is refused with -24 (as a
// block that is too small) rather than stored under a cut length that readers would walk
// wrongly.
//
// Flag words: the dynamic block's writer bits 0x03 (readers 0x0C), the auth blocks' writer
// bits 0x03. A writer that finds another writer waits up to three times.
#include <cstring>

#include "libvsk/shared/session_cache_internal.h"

namespace vsk::cache {

using detail::kWriterGaveUp;
using detail::Owns;
using detail::Ull;
using detail::WaitWhile;

namespace {

constexpr char kPutDynamicFn[] = "vsk_put_dynamic_data_in_shm";
constexpr char kAuthFn[] = "vsk_create_auth_req_resp_in_shm";

}  // namespace

vsk_status_t PutDynamic(void* shm, uint64_t id, const char* name, uint32_t length,
                        const void* value, uint16_t tag) {
  if (shm == nullptr) return VSK_OK;
  if (name == nullptr || (length != 0 && value == nullptr)) {
    VSK_TRACE("%s: dynamic entry without %s for %llu", kPutDynamicFn,
              name == nullptr ? "name" : "value", Ull(id));
    return VSK_ERR_INVALID_PARAM;
  }
  Slot* slot = SlotOf(shm, id);
  if (!Owns(slot, id)) return VSK_ERR_NOT_FOUND;
  DynamicBlock* block = &slot->dynamic;
  FlagWord flags(block->flags);
  int waits = 0;
  if (!WaitWhile([&] { return flags.Any(kBlockWriterBits); }, &waits)) {
    VSK_TRACE(kWriterGaveUp, kPutDynamicFn, Ull(id));
    return VSK_OK;  // the entry is dropped
  }
  flags.Set(kBlockWriterBits);
  const size_t end = Load(block->end);
  const size_t name_length = std::strlen(name);
  if (end < kDynamicFirstEntry || end > kDynamicEntriesEnd) {
    flags.Clear(kBlockWriterBits);
    return VSK_ERR_CORRUPT;
  }
  if (length > kMaxEntryValue || end + name_length + length + 5 > kDynamicEntriesEnd) {
    flags.Clear(kBlockWriterBits);
    return VSK_ERR_SHM_TOO_SMALL;
  }
  uint8_t* entry = reinterpret_cast<uint8_t*>(block) + end;
  entry[0] = static_cast<uint8_t>(tag);
  std::memcpy(entry + 1, name, name_length + 1);
  entry[name_length + 2] = static_cast<uint8_t>(length);
  uint8_t* bytes = entry + name_length + 3;
  std::memset(bytes, 0, length + 3);
  if (length != 0) std::memcpy(bytes, value, length);
  Store(block->end, static_cast<uint16_t>(end + name_length + length + 5));
  flags.Clear(kBlockWriterBits);
  return VSK_OK;
}

vsk_status_t WriteDynamicList(void* shm, uint64_t id, const vsk_dyn_attr_list_t* list, bool reset) {
  Slot* slot = SlotOf(shm, id);
  if (!Owns(slot, id)) return VSK_ERR_NOT_FOUND;
  DynamicBlock* block = &slot->dynamic;
  if (reset) Store(block->end, kDynamicFirstEntry);
  // Readers start behind what was there: without a reset the earlier entries stay in the
  // block but are no longer read.
  Store(block->start, Load(block->end));
  for (const vsk_dyn_attr_t* e = list != nullptr ? list->first : nullptr; e != nullptr;
       e = e->next) {
    vsk_status_t st = PutDynamic(shm, id, e->name, e->length, e->value, e->array_tag);
    if (st != VSK_OK) return st;
  }
  return VSK_OK;
}

vsk_status_t WriteAuthList(void* shm, uint64_t id, const vsk_attr_list_t* list, bool is_request) {
  if (!Owns(SlotOf(shm, id), id)) return VSK_ERR_NOT_FOUND;
  AuthBlock* block = AuthBlockOf(shm, id, is_request);
  uint8_t* base = reinterpret_cast<uint8_t*>(block);
  FlagWord flags(block->flags);
  uint32_t offset = kAuthFirstEntry;
  int waits = 0;
  const vsk_attr_t* a = list != nullptr ? list->first : nullptr;
  while (a != nullptr) {
    if (flags.Any(kBlockWriterBits)) {
      if (waits < kMaxWaits) {
        // Published behaviour: after a wait the walk starts again at the list's head but
        // keeps the offset reached, so entries written so far are written again behind
        // themselves.
        Wait();
        ++waits;
        a = list->first;
        continue;
      }
      VSK_TRACE(kWriterGaveUp, kAuthFn, Ull(id));
      a = a->next;
      continue;
    }
    flags.Set(kBlockWriterBits);
    const uint32_t length = a->length;
    if (length > kMaxEntryValue || offset + length + 7 > kAuthEntriesEnd) {
      flags.Clear(kBlockWriterBits);
      return VSK_ERR_SHM_TOO_SMALL;
    }
    if (length != 0 && a->value == nullptr) {
      flags.Clear(kBlockWriterBits);
      VSK_TRACE("%s: auth entry %u without value for %llu", kAuthFn, a->type, Ull(id));
      return VSK_ERR_INVALID_PARAM;
    }
    uint8_t* entry = base + offset;
    std::memcpy(entry, &a->type, sizeof a->type);
    entry[2] = static_cast<uint8_t>(length);
    std::memset(entry + 3, 0, length + 3);
    if (length != 0) std::memcpy(entry + 3, a->value, length);
    offset += length + 5;
    flags.Clear(kBlockWriterBits);
    a = a->next;
  }
  Store(block->end, static_cast<uint16_t>(offset));
  return VSK_OK;
}

}  // namespace vsk::cache
