// The session slot: filling it at create, applying updates to it, its service list, and
// reading one attribute out of it. The flag-word protocol is told in
// session_cache_layout.h; this file follows it for the slot's flag word (writer 0x30,
// reader 0xC0).
//
// Callable from any process and thread; nothing here allocates except the service ids
// handed to a snapshot handle and the config-bit masks of an info_attrs update, and
// nothing makes a system call except the protocol's one-microsecond waits.
#include <time.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/shared/regions.h"
#include "libvsk/shared/session_cache_internal.h"

namespace vsk::cache {

using detail::BlockInArea;
using detail::kReadFn;
using detail::kReaderGaveUp;
using detail::kWriterGaveUp;
using detail::Owns;
using detail::TypeInRange;
using detail::Ull;
using detail::WaitWhile;

namespace {

constexpr char kCreateFn[] = "vsk_create_session_data_in_shm";
constexpr char kUpdateFn[] = "vsk_update_session_data_in_shm";
constexpr char kHeaderFn[] = "vsk_update_session_header_in_shm";

// Writes a value block at word `at`: the length, the bytes, and a zero last word so that
// at least one zero byte follows the value whatever the block held before.
void WriteBlock(Slot* slot, uint32_t at, uint32_t length, const void* value) {
  uint16_t* words = Words(slot);
  Store(words[at], static_cast<uint16_t>(length));
  Store(words[at + ((length + 2) >> 1)], uint16_t{0});
  if (length != 0) std::memcpy(Bytes(slot) + 2 * (at + 1), value, length);
}

// The value of a VSK_SESSION_STATE entry as an unsigned 32-bit number; a shorter value is
// zero-extended.
uint32_t StateOf(const void* value, uint32_t length) {
  uint32_t state = 0;
  if (value != nullptr) std::memcpy(&state, value, length < 4 ? length : 4);
  return state;
}

}  // namespace

void* Segment() { return shared::SnapShmPtr(); }

uint16_t CachePosition(uint64_t id) {
  // The factor 1500 (not the slot size 3000) and the unchecked cut to 16 bits are what the
  // readers of shm_offset expect; the cache finds its slots by SlotOf, not by this value.
  return static_cast<uint16_t>(static_cast<uint64_t>(SlotIndex(id)) * 1500u);
}

bool IsCached(const void* shm, uint64_t id) {
  if (shm == nullptr || id == 0) return false;
  return Owns(SlotOf(const_cast<void*>(shm), id), id);
}

void Clear(void* shm, uint64_t id) {
  if (shm == nullptr || id == 0) return;
  // Only this session's own id is given up: a colliding id never frees another's slot.
  uint64_t expected = id;
  std::atomic_ref<uint64_t>(SlotOf(shm, id)->session_id)
      .compare_exchange_strong(expected, 0, std::memory_order_relaxed);
}

void Wait() {
  struct timespec pause {
    0, 1000
  };
  nanosleep(&pause, nullptr);
}

vsk_status_t CreateSession(void* shm, uint64_t id, uint64_t dynamic_id,
                           const vsk_attr_list_t* attrs) {
  Slot* slot = SlotOf(shm, id);
  // The slot is claimed with one compare-and-swap, so that of two creators of colliding
  // ids exactly one fills it. A slot that already holds this same id is taken too.
  uint64_t expected = 0;
  if (id == 0 || !std::atomic_ref<uint64_t>(slot->session_id)
                      .compare_exchange_strong(expected, id, std::memory_order_relaxed)) {
    VSK_TRACE("%s busy %llu", kCreateFn, Ull(id));
    return VSK_ERR_SHM_IN_USE;
  }
  std::memset(Bytes(slot) + sizeof slot->session_id, 0, kSlotSize - sizeof slot->session_id);
  // The authentication pair belongs to the slot: a new session must not read the entries
  // of the slot's previous session.
  std::memset(AuthBlockOf(shm, id, true), 0, kAuthPairSize);
  Store(slot->dynamic_id, dynamic_id);
  FlagWord flags(slot->flags);
  flags.Set(kSlotWriterBits);

  uint32_t free = kFirstFreeWord;
  int waits = 0;
  for (const vsk_attr_t* a = attrs != nullptr ? attrs->first : nullptr; a != nullptr; a = a->next) {
    const uint16_t type = a->type;
    if (!TypeInRange(kCreateFn, type) || (a->length != 0 && a->value == nullptr)) {
      flags.Clear(kSlotWriterBits);
      return VSK_ERR_INVALID_PARAM;
    }
    // Busy: a reader of this type, or this call's own previous type, so the second of two
    // neighbouring values of one type is skipped once the waits are spent.
    auto busy = [&] {
      return (flags.Any(kSlotReaderBits) && Load(slot->reader_type) == type) ||
             Load(slot->writer_type) == type;
    };
    if (!WaitWhile(busy, &waits)) {
      VSK_TRACE(kWriterGaveUp, kCreateFn, Ull(id));
      continue;
    }
    const uint32_t length = a->length;
    if (free + ((length + 2) >> 1) + 2 > kValueAreaEndWord) {
      flags.Clear(kSlotWriterBits);
      return VSK_ERR_SHM_TOO_SMALL;  // next_free is not stored: the caller gives the slot up
    }
    Store(slot->writer_type, type);
    Store(slot->attr_offset[type], static_cast<uint16_t>(free));
    Store(Words(slot)[free], static_cast<uint16_t>(length));
    if (length != 0) std::memcpy(Bytes(slot) + 2 * (free + 1), a->value, length);
    // Published behaviour: the terminating zero goes twice the length behind the value's
    // start, not at its end. The slot was cleared above, so the value is terminated all
    // the same, and the size test keeps the byte inside the slot.
    const uint32_t zero_at = 2 * (free + 1 + length);
    if (zero_at < kSlotSize) Bytes(slot)[zero_at] = 0;
    free += BlockWords(length);
  }
  Store(slot->next_free, static_cast<uint16_t>(free));
  flags.Clear(kSlotWriterBits);
  return VSK_OK;
}

vsk_status_t UpdateSession(void* shm, uint64_t id, const vsk_attr_update_list_t* updates,
                           uint32_t* new_shared_state) {
  if (shm == nullptr || updates == nullptr) return VSK_OK;
  Slot* slot = SlotOf(shm, id);
  if (!Owns(slot, id)) return VSK_ERR_NOT_FOUND;
  FlagWord flags(slot->flags);
  if (flags.Any(kSlotWriterBits)) {
    // Published behaviour: another writer is active, so nothing is applied; the bits that
    // are cleared are that writer's, and the caller takes the 0 for success.
    flags.Clear(kSlotWriterBits);
    return VSK_OK;
  }
  flags.Set(kSlotWriterBits);
  uint32_t free = Load(slot->next_free);
  if (free < kFirstFreeWord || free > kValueAreaEndWord) {
    flags.Clear(kSlotWriterBits);
    return VSK_ERR_CORRUPT;
  }
  // next_free is stored on every way out, so that blocks appended before a refused entry
  // are never handed out twice.
  auto finish = [&](vsk_status_t status) {
    Store(slot->next_free, static_cast<uint16_t>(free));
    flags.Clear(kSlotWriterBits);
    return status;
  };
  auto append = [&](uint16_t type, uint32_t length, const void* value) {
    if (free + BlockWords(length) > kValueAreaEndWord) return false;
    WriteBlock(slot, free, length, value);
    Store(slot->attr_offset[type], static_cast<uint16_t>(free));
    free += BlockWords(length);
    return true;
  };

  const void* state_value = nullptr;  // the remembered state candidate
  uint32_t state_length = 0;
  int waits = 0;
  for (const vsk_attr_update_t* e = updates->first; e != nullptr; e = e->next) {
    const uint16_t type = e->type;
    if (!TypeInRange(kUpdateFn, type)) return finish(VSK_ERR_INVALID_PARAM);
    Store(slot->writer_type, type);
    const bool append_action = e->action == VSK_ATTR_ACTION_ADD_OR_APPEND;
    if (type == VSK_SESSION_STATE) {
      state_value = append_action ? e->value : e->new_value;
      state_length = append_action ? e->length : e->new_length;
    }
    if (append_action || e->action == VSK_ATTR_ACTION_ADD_OR_REPLACE) {
      // A cached attribute holds one value: an append replaces it too.
      const uint32_t length = append_action ? e->length : e->new_length;
      const void* value = append_action ? e->value : e->new_value;
      if (length != 0 && value == nullptr) return finish(VSK_ERR_INVALID_PARAM);
      auto busy = [&] { return flags.Any(kSlotReaderBits) && Load(slot->reader_type) == type; };
      if (!WaitWhile(busy, &waits)) {
        VSK_TRACE(kWriterGaveUp, kUpdateFn, Ull(id));
        continue;
      }
      const uint32_t at = Load(slot->attr_offset[type]);
      const uint32_t old_length = at != 0 ? Load(Words(slot)[at]) : 0;
      if (at != 0 && old_length >= length && BlockInArea(at, old_length)) {
        if (old_length == length &&
            (length == 0 || std::memcmp(Bytes(slot) + 2 * (at + 1), value, length) == 0)) {
          state_value = nullptr;
          continue;
        }
        WriteBlock(slot, at, length, value);
      } else if (!append(type, length, value)) {
        // The value area is full. Running on into the dynamic block and the next slot is
        // refused: the caller flushes or fails; nothing of another session is touched.
        return finish(VSK_ERR_SHM_TOO_SMALL);
      }
      if (state_value != nullptr) {
        if (new_shared_state != nullptr) *new_shared_state = StateOf(state_value, state_length);
        state_value = nullptr;
      }
    } else if (e->action == VSK_ATTR_ACTION_DELETE) {
      // A cached attribute cannot be deleted: the delete is lost and the value comes back
      // at the flush.
      if (e->length != 0 && e->value == nullptr) {
        VSK_TRACE("%s at %d: Deleting attribute without providing old value\n", kUpdateFn,
                  __LINE__);
        return finish(VSK_ERR_INVALID_PARAM);
      }
    } else {
      // The config-bit actions: the whole list builds a fresh mask, which fills the type's
      // block only when it has none yet.
      uint16_t mask_length = 0;
      uint8_t* mask = nullptr;
      if (vsk_update_info_section(updates, &mask_length, &mask) != VSK_OK) {
        std::free(mask);
        // Published text: two blanks before "action".
        VSK_TRACE("%s at %d: Update client session with unknown  action type %d\n", kUpdateFn,
                  __LINE__, static_cast<int>(e->action));
        return finish(VSK_ERR_INVALID_PARAM);
      }
      bool fitted = true;
      if (Load(slot->attr_offset[type]) == 0 && mask_length != 0) {
        fitted = append(type, mask_length, mask);
      }
      std::free(mask);
      if (!fitted) return finish(VSK_ERR_SHM_TOO_SMALL);
    }
  }
  return finish(VSK_OK);
}

vsk_status_t UpdateHeader(void* shm, uint64_t id, uint16_t count, const uint64_t* service_ids) {
  if (count > kMaxServices) {
    VSK_TRACE("%s Max num of services exceed %llu", kHeaderFn, Ull(id));
    return VSK_ERR_INVALID_PARAM;
  }
  if (count != 0 && service_ids == nullptr) {
    VSK_TRACE("%s: no service ids for %llu", kHeaderFn, Ull(id));
    return VSK_ERR_INVALID_PARAM;
  }
  if (shm == nullptr) return VSK_OK;
  Slot* slot = SlotOf(shm, id);
  if (!Owns(slot, id)) return VSK_ERR_NOT_FOUND;
  FlagWord flags(slot->flags);
  flags.Set(kSlotWriterBits);
  if (count > 0) {
    uint32_t at = Load(slot->service_offset);
    if (at == 0 || at < kFirstFreeWord || at + kServiceArrayWords > kValueAreaEndWord) {
      const uint32_t free = Load(slot->next_free);
      if (free < kFirstFreeWord || free + kServiceArrayWords > kValueAreaEndWord) {
        flags.Clear(kSlotWriterBits);
        return VSK_ERR_SHM_TOO_SMALL;
      }
      at = free;
      Store(slot->service_offset, static_cast<uint16_t>(at));
      Store(slot->next_free, static_cast<uint16_t>(at + kServiceArrayWords));
    }
    std::memcpy(Bytes(slot) + 2 * at, service_ids, 8u * count);
  }
  // The count goes in once its array is in place, so a reader never finds a count without
  // ids.
  Store(slot->service_count, count);
  flags.Clear(kSlotWriterBits);
  return VSK_OK;
}

namespace detail {

uint32_t ServiceIds(const Slot* slot, const uint8_t* source, const uint8_t** ids) {
  const uint32_t count = Load(slot->service_count) & kServiceCountMask;
  const uint32_t at = Load(slot->service_offset);
  if (count == 0 || at < kFirstFreeWord || at + kServiceArrayWords > kValueAreaEndWord) return 0;
  *ids = source + 2 * at;
  return count < kMaxServices ? count : kMaxServices;
}

bool ValueBlock(const uint8_t* source, uint32_t at, uint16_t* length, const uint8_t** bytes) {
  base::ByteReader block(source, kSlotSize);
  return block.Skip(2u * at) && block.Get(length) && block.Take(*length, bytes) &&
         BlockInArea(at, *length);
}

vsk_status_t GiveServiceIds(vsk_snapshot_handle* handle, const uint8_t* ids, uint32_t count) {
  if (count == 0) return VSK_OK;
  auto* own = static_cast<vsk_session_id_t*>(std::malloc(8u * count));
  if (own == nullptr) return VSK_ERR_NOMEM;
  std::memcpy(own, ids, 8u * count);
  if (handle->service_ids_owned != 0) std::free(handle->service_ids);
  handle->service_ids = own;
  handle->service_ids_owned = 1;
  handle->service_count = static_cast<uint16_t>(count);
  return VSK_OK;
}

}  // namespace detail

vsk_status_t ReadAttr(vsk_snapshot_handle* handle, void* shm, uint64_t id, uint16_t type,
                      uint16_t* length, void** value) {
  if (shm == nullptr) {
    VSK_TRACE("%s shm_offset is NULL %llu flag \n", kReadFn, Ull(id));
    return VSK_ERR_FATAL;
  }
  if (type >= VSK_TYPE_MAX) {
    TypeInRange(kReadFn, type);
    return VSK_ERR_INVALID_PARAM;
  }
  Slot* slot = SlotOf(shm, id);
  if (!Owns(slot, id)) return VSK_ERR_NOT_FOUND;
  // Values come from the handle's private copy when it has one (it is a whole slot's
  // size); flags and offsets always come from the slot.
  uint8_t* source = handle != nullptr && handle->shm_session_copy != nullptr
                        ? static_cast<uint8_t*>(handle->shm_session_copy)
                        : Bytes(slot);
  FlagWord flags(slot->flags);
  int waits = 0;
  auto busy = [&] { return flags.Any(kSlotWriterBits) && Load(slot->writer_type) == type; };
  if (!WaitWhile(busy, &waits)) {
    VSK_TRACE(kReaderGaveUp, kReadFn, Ull(id));
    return VSK_ERR_FATAL;
  }
  flags.Set(kSlotReaderBits);
  if (handle != nullptr) {
    Store(slot->reader_type, type);
    handle->session_id = Load(slot->session_id);
    const uint8_t* ids = nullptr;
    const uint32_t count = detail::ServiceIds(slot, source, &ids);
    if (detail::GiveServiceIds(handle, ids, count) != VSK_OK) {
      flags.Clear(kSlotReaderBits);
      return VSK_ERR_NOMEM;
    }
  }
  if (length == nullptr) {
    // Published behaviour: the reader bits stay set until the next read clears them.
    VSK_TRACE("%s len is NULL %llu flag \n", kReadFn, Ull(id));
    return VSK_ERR_FATAL;
  }
  const uint32_t at = Load(slot->attr_offset[type]);
  if (at == 0) {
    flags.Clear(kSlotReaderBits);
    return VSK_ERR_NOT_FOUND;
  }
  uint16_t stored = 0;
  const uint8_t* bytes = nullptr;
  if (!detail::ValueBlock(source, at, &stored, &bytes)) {
    flags.Clear(kSlotReaderBits);
    return VSK_ERR_CORRUPT;
  }
  *length = stored;
  if (value != nullptr) *value = const_cast<uint8_t*>(bytes);
  flags.Clear(kSlotReaderBits);
  return VSK_OK;
}

vsk_status_t ReadConfigBits(void* shm, uint64_t id, uint8_t* bits, uint16_t* length) {
  constexpr uint16_t kMaxBits = 8;
  uint16_t stored = 0;
  void* value = nullptr;
  vsk_status_t st = ReadAttr(nullptr, shm, id, VSK_INFO_ATTR, &stored, &value);
  if (st != VSK_OK) {
    if (length != nullptr) *length = 0;
    return st;
  }
  const uint16_t n = stored < kMaxBits ? stored : kMaxBits;
  if (bits != nullptr) std::memcpy(bits, value, n);
  if (length != nullptr) *length = n;
  return VSK_OK;
}

}  // namespace vsk::cache
