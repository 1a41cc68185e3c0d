// Bundled-session helpers: creates on top of an underlying session or a shared underlying
// interface, and the dynamic table's rows as stored bytes.
#pragma once

#include <db.h>

#include <cstdlib>
#include <string>

#include "libvsk/store/context.h"
#include "libvsk/store/records.h"
#include "session_rows.h"

namespace vsk::test {

inline const vsk_create_options_t kUseCache{0, 1, {0, 0}};

// A create on top of `underlying` (0: none); 0 for the id when it failed, with *st set.
inline uint64_t CreateOn(uint64_t underlying, AttrList& attrs, DynList* dyn,
                         AttrList* inherit = nullptr, bool cache = false,
                         vsk_status_t* st = nullptr) {
  vsk_session_ids_t ids{};
  ids.dynamic_session_id = underlying;
  vsk_status_t rc = vsk_create_extended_client_session(
      2, attrs.get(), nullptr, dyn != nullptr ? dyn->get() : nullptr, &ids,
      cache ? &kUseCache : nullptr, inherit != nullptr ? inherit->get() : nullptr);
  if (st != nullptr) *st = rc;
  return rc == 0 ? ids.session_id : 0;
}

// A client of VSK_AGGREGATED 2 on the underlying interface `uifl`.
inline AttrList& SharedOn(AttrList& attrs, const std::string& uifl) {
  return attrs.Add(VSK_AGGREGATED, U32(2)).Add(VSK_UNDERLYING_INTERFACE_NAME, Text(uifl));
}

// An underlying session: user name "ulysses", MAC address "00:11:22", and a dynamic
// record of kelvo-a=1. 0 when the create failed.
inline uint64_t CreateUnderlying(bool cache = false) {
  AttrList under{{VSK_USER_NAME, "ulysses"}, {VSK_USER_MAC_ADDRESS, "00:11:22"}};
  DynList dyn{{"kelvo-a", "1"}};
  return CreateOn(0, under, &dyn, nullptr, cache);
}

// The dynamic table's row under `id` as Berkeley DB holds it; "st<n>" when absent.
inline std::string RawDynamicRow(uint64_t id) {
  uint8_t key_bytes[16];
  uint32_t key_size = store::EncodeSessionKey(&id, key_bytes, sizeof key_bytes);
  DBT key{}, data{};
  key.data = key_bytes, key.size = key_size;
  data.flags = DB_DBT_MALLOC;
  DB* db = store::Context()->dynamic_config_db;
  int rc = db->get(db, nullptr, &key, &data, 0);
  if (rc != 0) return "st" + std::to_string(rc);
  std::string out(static_cast<char*>(data.data), data.size);
  std::free(data.data);
  return out;
}

// The bytes the store writes for a dynamic record holding `list`.
inline std::string EncodedDynamic(DynList& list) {
  vsk_dynamic_config_t rec{};
  rec.attrs = list.get();
  uint32_t need = store::EncodeDynamicRecord(&rec, nullptr, 0);
  std::string out(need, '\0');
  store::EncodeDynamicRecord(&rec, out.data(), need);
  return out;
}

// The client record's dynamic id; ~0 when the record cannot be read.
inline uint64_t DynamicIdOf(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  uint64_t out = vsk_db_get_client_session(&txn, &id, &rec, false) == 0 ? rec->dynamic_id : ~0ull;
  vsk_db_release_client_session(rec, true);
  return out;
}

}  // namespace vsk::test
