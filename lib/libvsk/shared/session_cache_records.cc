// From the cache to records: a slot, its dynamic block or an authentication block turned
// into the decoded-record objects of the session tables, and the flush of a whole slot to
// the tables in the caller's transaction.
//
// Records made here own heap copies of every value (and name), each with a NUL behind it,
// and have `free_attr_values` set; they are released with free_raw false. Readers are
// bounded by the slot or block whatever its stored offsets say.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/status.h"
#include "libvsk/shared/session_cache_internal.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "vsk/tables.h"

namespace vsk::cache {

using detail::kReadFn;
using detail::kReaderGaveUp;
using detail::Owns;
using detail::Ull;
using detail::WaitWhile;

namespace {

constexpr char kDynamicFn[] = "vsk_shm_to_dynamic_record";

// A heap copy of `length` bytes with a NUL behind them, or null.
void* CopyWithNul(const void* bytes, size_t length) {
  auto* copy = static_cast<uint8_t*>(std::malloc(length + 1));
  if (copy == nullptr) return nullptr;
  if (length != 0) std::memcpy(copy, bytes, length);
  copy[length] = 0;
  return copy;
}

template <typename List>
List* NewList() {
  auto* list = static_cast<List*>(std::calloc(1, sizeof(List)));
  if (list != nullptr) list->last = &list->first;
  return list;
}

// Appends a node for one attribute with a copy of its value. False when out of memory.
bool AppendAttr(vsk_attr_list_t* list, uint16_t type, const void* value, uint16_t length) {
  auto* node = static_cast<vsk_attr_t*>(std::calloc(1, sizeof(vsk_attr_t)));
  void* copy = CopyWithNul(value, length);
  if (node == nullptr || copy == nullptr) {
    std::free(node);
    std::free(copy);
    return false;
  }
  node->type = type;
  node->length = length;
  node->value = copy;
  vsk_attr_list_append(list, node);
  return true;
}

// A heap copy of the slot for a snapshot handle: `next_free` words copied into a block of
// a whole slot's size (the rest zero), so that reads through the copy stay in bounds.
vsk_status_t CopySlotToHandle(vsk_snapshot_handle* handle, Slot* slot) {
  void* copy = SlotCopy(slot, 2u * Load(slot->next_free));
  if (copy == nullptr) return VSK_ERR_NOMEM;
  DropSlotCopy(handle);
  handle->shm_session_copy = copy;
  return VSK_OK;
}

vsk_status_t CopyServiceIds(vsk_snapshot_handle* handle, Slot* slot, vsk_client_session_t* record) {
  const uint8_t* source =
      handle != nullptr ? static_cast<uint8_t*>(handle->shm_session_copy) : Bytes(slot);
  const uint8_t* ids = nullptr;
  const uint32_t count = detail::ServiceIds(slot, source, &ids);
  record->service_count = static_cast<uint16_t>(count);
  if (count == 0) return VSK_OK;
  record->service_ids = static_cast<vsk_session_id_t*>(std::malloc(8u * count));
  if (record->service_ids == nullptr) return VSK_ERR_NOMEM;
  std::memcpy(record->service_ids, ids, 8u * count);
  record->free_service_ids = 1;
  return handle != nullptr ? detail::GiveServiceIds(handle, ids, count) : VSK_OK;
}

// The attributes of the slot into the record, by ascending type with one value each, in
// one pass over the offset table. Each type is read as an attribute read without a handle
// reads it: it waits behind a writer of that type (and is skipped, traced, when the waits
// run out), and a slot given up or a block that leaves the value area skips the type. The
// reader bits are held across the pass instead of around each type, and dropped while
// waiting so that a writer is never held up by this reader's own wait.
vsk_status_t CopySlotAttrs(uint64_t id, Slot* slot, vsk_client_session_t* record) {
  FlagWord flags(slot->flags);
  const uint8_t* source = Bytes(slot);
  flags.Set(kSlotReaderBits);
  vsk_status_t status = VSK_OK;
  for (uint16_t type = VSK_TYPE_MIN; type < VSK_TYPE_MAX && status == VSK_OK; ++type) {
    if (flags.Any(kSlotWriterBits) && Load(slot->writer_type) == type) {
      flags.Clear(kSlotReaderBits);
      int waits = 0;
      const bool free_now = WaitWhile(
          [&] { return flags.Any(kSlotWriterBits) && Load(slot->writer_type) == type; }, &waits);
      if (!free_now) VSK_TRACE(kReaderGaveUp, kReadFn, Ull(id));
      flags.Set(kSlotReaderBits);
      if (!free_now) continue;
    }
    if (!Owns(slot, id)) continue;
    const uint32_t at = Load(slot->attr_offset[type]);
    uint16_t length = 0;
    const uint8_t* value = nullptr;
    if (at == 0 || !detail::ValueBlock(source, at, &length, &value)) continue;
    if (type == VSK_INFO_ATTR) {
      std::free(record->config_bits);
      record->config_bits = static_cast<uint8_t*>(CopyWithNul(value, length));
      if (record->config_bits == nullptr) {
        status = VSK_ERR_NOMEM;
      } else {
        record->config_bits_len = length;
      }
    } else if (!AppendAttr(record->attrs, type, value, length)) {
      status = VSK_ERR_NOMEM;
    }
  }
  flags.Clear(kSlotReaderBits);
  return status;
}

}  // namespace

int AttrFromTreeOrCache(patricia_root_t* tree, uint16_t type, void* buffer, void** allocated,
                        void* shm, uint64_t id, vsk_status_t* status) {
  vsk_status_t ignored = VSK_OK;
  if (status == nullptr) status = &ignored;
  const void* value = nullptr;
  uint32_t length = 0;
  if (tree != nullptr) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(patricia_get(tree, 2, &type));
    if (node == nullptr || node->values_first == nullptr) {
      *status = VSK_OK;
      return 0;
    }
    value = node->values_first->value;
    length = node->values_first->length;
  } else {
    uint16_t stored = 0;
    void* at = nullptr;
    vsk_status_t st = ReadAttr(nullptr, shm, id, type, &stored, &at);
    if (st != VSK_OK) {
      *status = st == VSK_ERR_NOT_FOUND ? VSK_OK : st;
      return 0;
    }
    value = at;
    length = stored;
  }
  if (allocated != nullptr) {
    *allocated = CopyWithNul(value, length);
    if (*allocated == nullptr) {
      *status = VSK_ERR_NOMEM;
      return 0;
    }
  } else if (buffer != nullptr && length != 0) {
    std::memcpy(buffer, value, length);
  }
  return 1;
}

vsk_status_t ToSessionRecord(vsk_snapshot_handle* handle, void* shm, uint64_t id,
                             vsk_client_session_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (!IsCached(shm, id)) return VSK_ERR_NOT_FOUND;
  Slot* slot = SlotOf(shm, id);
  if (handle != nullptr) {
    vsk_status_t st = CopySlotToHandle(handle, slot);
    if (st != VSK_OK) return st;
  }
  record->attrs = NewList<vsk_attr_list_t>();
  if (record->attrs == nullptr) return VSK_ERR_NOMEM;
  vsk_status_t st = CopyServiceIds(handle, slot, record);
  if (st != VSK_OK) return st;
  record->dynamic_id = Load(slot->dynamic_id);
  record->free_attr_values = 1;
  return CopySlotAttrs(id, slot, record);
}

vsk_status_t ToDynamicRecord(vsk_snapshot_handle* handle, void* shm, uint64_t id,
                             vsk_dynamic_config_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (!IsCached(shm, id)) return VSK_ERR_NOT_FOUND;
  DynamicBlock* block = &SlotOf(shm, id)->dynamic;
  record->attrs = NewList<vsk_dyn_attr_list_t>();
  if (record->attrs == nullptr) return VSK_ERR_NOMEM;
  record->free_attr_values = 1;
  const uint32_t end = Load(block->end);
  if (handle != nullptr) {
    // Twice the used size, as the published copy takes, but never past the block.
    void* copy = DynamicCopy(block, 2u * end);
    if (copy == nullptr) return VSK_ERR_NOMEM;
    DropDynamicCopy(handle);
    handle->shm_dynamic_copy = copy;
  }
  FlagWord flags(block->flags);
  int waits = 0;
  if (!WaitWhile([&] { return flags.Any(kBlockWriterBits); }, &waits)) {
    VSK_TRACE(kReaderGaveUp, kDynamicFn, Ull(id));
    return VSK_OK;  // with the empty list
  }
  flags.Set(kBlockReaderBits);
  // Entries run from `start` until a name's first byte is 0; the walk also stops at `end`,
  // so the stale tail of an earlier, longer list is never read.
  base::ByteReader walk(block, end < sizeof(DynamicBlock) ? end : sizeof(DynamicBlock));
  const size_t start = Load(block->start);
  if (start < kDynamicFirstEntry || !walk.Skip(start)) walk = base::ByteReader();
  uint8_t tag = 0;
  const char* name = nullptr;
  size_t name_length = 0;
  uint8_t length = 0;
  const uint8_t* value = nullptr;
  while (walk.Get(&tag) && walk.CString(&name, &name_length) && name_length != 0 &&
         walk.Get(&length) && walk.Take(length, &value) && walk.Skip(2)) {
    auto* node = static_cast<vsk_dyn_attr_t*>(std::calloc(1, sizeof(vsk_dyn_attr_t)));
    char* name_copy = static_cast<char*>(CopyWithNul(name, name_length));
    void* value_copy = CopyWithNul(value, length);
    if (node == nullptr || name_copy == nullptr || value_copy == nullptr) {
      std::free(node);
      std::free(name_copy);
      std::free(value_copy);
      return VSK_ERR_NOMEM;  // published: the reader bits stay set
    }
    node->name = name_copy;
    node->length = length;
    node->value = value_copy;
    node->array_tag = tag;
    *record->attrs->last = node;
    record->attrs->last = &node->next;
  }
  flags.Clear(kBlockReaderBits);
  return VSK_OK;
}

vsk_status_t ToAuthRecord(void* shm, uint64_t id, bool is_request, vsk_auth_info_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (!IsCached(shm, id)) return VSK_ERR_NOT_FOUND;
  record->attrs = NewList<vsk_attr_list_t>();
  if (record->attrs == nullptr) return VSK_ERR_NOMEM;
  record->free_attr_values = 1;
  // No flag is looked at: the entries end at a type whose low byte is 0.
  base::ByteReader walk(AuthBlockOf(shm, id, is_request), kAuthBlockSize);
  walk.Skip(kAuthFirstEntry);
  uint16_t type = 0;
  uint8_t length = 0;
  const uint8_t* value = nullptr;
  while (!walk.empty() && *walk.here() != 0 && walk.Get(&type) && walk.Get(&length) &&
         walk.Take(length, &value)) {
    if (!AppendAttr(record->attrs, type, value, length)) return VSK_ERR_NOMEM;
    if (!walk.Skip(2)) break;
  }
  return VSK_OK;
}

vsk_status_t WriteSessionToTables(void* shm, uint64_t id, uint64_t dynamic_id,
                                  const vsk_dynamic_config_t* dynamic_record, vsk_db_txn_t* txn) {
  // A slot given up in the meantime has nothing to say: the tables keep what they hold.
  if (!IsCached(shm, id)) return VSK_ERR_NOT_FOUND;
  vsk_status_t st = VSK_OK;
  if (dynamic_record == nullptr) {
    vsk_dynamic_config_t* built = nullptr;
    st = store::DynamicConfigEmpty(&built);
    if (st == VSK_OK) st = ToDynamicRecord(nullptr, shm, id, built);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE(
          "Failed to locate dynamic configuration record for snapshot by dynamic session id "
          "%llu, err=%s",
          Ull(dynamic_id), base::ErrorText(st));
      store::ReleaseDynamicConfig(built, false);
      return st;
    }
    st = store::PutDynamicConfig(txn, &dynamic_id, built);
    store::ReleaseDynamicConfig(built, false);
  } else {
    st = store::PutDynamicConfig(txn, &dynamic_id, dynamic_record);
  }
  if (st != VSK_OK) return st;

  vsk_client_session_t* client = nullptr;
  st = store::ClientSessionEmpty(&client);
  if (st == VSK_OK) st = ToSessionRecord(nullptr, shm, id, client);
  if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
    VSK_TRACE(
        "Failed to locate client configuration record for snapshot by client session id %llu, "
        "err=%s",
        Ull(id), base::ErrorText(st));
    store::ReleaseClientSession(client, false);
    return st;
  }
  st = store::PutClientSession(txn, &id, client);
  store::ReleaseClientSession(client, false);
  if (st != VSK_OK) return st;

  for (bool is_request : {true, false}) {
    vsk_auth_info_t* auth = nullptr;
    st = store::AuthInfoEmpty(&auth);
    if (st == VSK_OK) st = ToAuthRecord(shm, id, is_request, auth);
    if (st == VSK_OK) {
      st = is_request ? store::PutAuthRequest(txn, &id, auth)
                      : store::PutAuthResponse(txn, &id, auth);
    }
    store::ReleaseAuthInfo(auth, false);
    if (st != VSK_OK) return st;
  }
  return VSK_OK;
}

}  // namespace vsk::cache
