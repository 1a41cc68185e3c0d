// The generic table engine's reads through secondary tables and cursors: dyn_vsk_get,
// dyn_db_set_cursor and dyn_db_get_cursor.
//
// Keys handed in are encoded into 256 local bytes (larger ones on the heap) with the
// four-argument encoder (key, 0, buffer, room). Everything Berkeley DB returns is
// allocated by it (DB_DBT_MALLOC), as DB_THREAD requires.
//
// Ownership of returned buffers:
//  - a value decoder takes its buffer in every case (the record keeps it as its raw form);
//  - a key decoder takes its buffer only when it succeeds; on failure the engine frees it;
//  - a secondary decoder is given its buffer and an allocator, and takes it;
//  - a buffer with no decoder is freed here.
#include <db.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/status.h"
#include "libvsk/store/dyn_db_internal.h"
#include "vsk/dyn_db.h"

using vsk::store::DecoderFailure;
using vsk::store::Encoded;
using vsk::store::kLookupKeyRoom;

namespace {

bool EncodeLookupKey(Encoded<kLookupKeyRoom>& out, const void* key, vsk_key_encoder4_t encoder) {
  return out.Encode([&](void* buf, uint32_t room) { return encoder(key, 0, buf, room); },
                    kLookupKeyRoom, true);
}

// Berkeley DB may leave a key DBT that carried input as it was. From here on each
// returned buffer must be the engine's to give away, so such a key is copied.
void* TakeReturned(const DBT& dbt, const void* input) {
  if (dbt.data != input || dbt.data == nullptr) return dbt.data;
  void* copy = std::malloc(dbt.size > 0 ? dbt.size : 1);
  if (copy != nullptr) std::memcpy(copy, dbt.data, dbt.size);
  return copy;
}

bool Consumed(int result, uint32_t size) {
  return result >= 0 && static_cast<uint32_t>(result) == size;
}

}  // namespace

vsk_status_t vsk::store::DynVskGet(DB* db, DB_TXN* txn, const void* key,
                                   vsk_key_encoder4_t key_encoder, void* key_out,
                                   vsk_key_decoder_t key_decoder, void* out,
                                   vsk_value_decoder_t decoder, uint32_t flags) {
  Encoded<kLookupKeyRoom> k;
  if (!EncodeLookupKey(k, key, key_encoder)) return VSK_ERR_NOMEM;
  DBT skey{};
  skey.data = k.data();
  skey.size = k.size();
  skey.ulen = k.size();
  skey.flags = DB_DBT_USERMEM;
  DBT pkey{};
  pkey.flags = DB_DBT_MALLOC;
  DBT data{};
  data.flags = DB_DBT_MALLOC;
  int ret = db->pget(db, txn, &skey, &pkey, &data, flags);
  if (ret != 0) return vsk::base::TranslateError(ret);

  if (key_decoder != nullptr) {
    int used = key_decoder(key_out, pkey.data, pkey.size);
    if (!Consumed(used, pkey.size)) {
      std::free(pkey.data);
      std::free(data.data);
      return used == VSK_ERR_NOMEM ? VSK_ERR_NOMEM : VSK_ERR_CORRUPT;
    }
  } else {
    std::free(pkey.data);
  }
  if (decoder != nullptr) {
    int used = decoder(out, data.data, data.size, nullptr, 0);
    if (!Consumed(used, data.size)) {
      return used == VSK_ERR_NOMEM ? VSK_ERR_NOMEM : VSK_ERR_CORRUPT;
    }
  } else {
    std::free(data.data);
  }
  return VSK_OK;
}

extern "C" vsk_status_t dyn_vsk_get(DB* db, DB_TXN* txn, const void* key,
                                    vsk_key_encoder4_t key_encoder, void* key_out,
                                    vsk_key_decoder_t key_decoder, void* out,
                                    vsk_value_decoder_t decoder, uint32_t flags) {
  if (db == nullptr) return vsk::store::BadArgument("dyn_vsk_get", "table");
  if (key_encoder == nullptr) return vsk::store::BadArgument("dyn_vsk_get", "key encoder");
  return vsk::store::DynVskGet(db, txn, key, key_encoder, key_out, key_decoder, out, decoder,
                               flags);
}

vsk_status_t vsk::store::DynSetCursor(DBC* cursor, const void* key, uint32_t length) {
  DBT kd{};
  kd.data = const_cast<void*>(key);
  kd.size = length;
  kd.ulen = length;
  kd.flags = DB_DBT_USERMEM;
  // Nothing is taken back: a partial read of zero bytes positions the cursor only.
  DBT vd{};
  vd.flags = DB_DBT_PARTIAL | DB_DBT_USERMEM;
  return vsk::base::TranslateError(cursor->get(cursor, &kd, &vd, DB_SET));
}

extern "C" vsk_status_t dyn_db_set_cursor(DBC* cursor, const void* key, uint32_t length) {
  if (cursor == nullptr) return vsk::store::BadArgument("dyn_db_set_cursor", "cursor");
  return vsk::store::DynSetCursor(cursor, key, length);
}

vsk_status_t vsk::store::DynGetCursor(DBC* cursor, const void* key, vsk_key_encoder4_t key_encoder,
                                      void* key_out, vsk_key_decoder_t key_decoder, void* out,
                                      vsk_value_decoder_t decoder, void* secondary_out,
                                      vsk_secondary_decoder_t secondary_decoder, uint32_t operation,
                                      const uint8_t* mask, uint16_t mask_len) {
  Encoded<kLookupKeyRoom> k;
  DBT kd{};
  kd.flags = DB_DBT_MALLOC;
  if (key != nullptr) {
    if (!EncodeLookupKey(k, key, key_encoder)) return VSK_ERR_NOMEM;
    kd.data = k.data();
    kd.size = k.size();
  }
  DBT vd{};
  vd.flags = DB_DBT_MALLOC;
  DBT pkd{};  // the primary key, when walking a secondary table
  pkd.flags = DB_DBT_MALLOC;
  const bool through_secondary = secondary_decoder != nullptr;
  int ret = through_secondary ? cursor->pget(cursor, &kd, &pkd, &vd, operation)
                              : cursor->get(cursor, &kd, &vd, operation);
  if (ret != 0) return vsk::base::TranslateError(ret);

  // Through a secondary the record's key is the primary key and `kd` the secondary's.
  void* input = key != nullptr ? k.data() : nullptr;
  void* key_buf = through_secondary ? pkd.data : TakeReturned(kd, input);
  uint32_t key_size = through_secondary ? pkd.size : kd.size;
  void* secondary_buf = through_secondary ? TakeReturned(kd, input) : nullptr;
  uint32_t secondary_size = through_secondary ? kd.size : 0;

  if (key_decoder != nullptr) {
    int used = key_decoder(key_out, key_buf, key_size);
    if (!Consumed(used, key_size)) {
      std::free(key_buf);
      std::free(vd.data);
      std::free(secondary_buf);
      return DecoderFailure(used);
    }
  } else {
    std::free(key_buf);
  }
  if (decoder != nullptr) {
    int used = decoder(out, vd.data, vd.size, mask, mask_len);
    if (!Consumed(used, vd.size)) {
      std::free(secondary_buf);
      return DecoderFailure(used);
    }
  } else {
    std::free(vd.data);
  }
  if (secondary_decoder != nullptr && secondary_out != nullptr) {
    if (secondary_decoder(secondary_out, 0, secondary_buf, secondary_size, std::malloc, 0) < 0) {
      return VSK_ERR_CORRUPT;
    }
  } else {
    std::free(secondary_buf);
  }
  return VSK_OK;
}

extern "C" vsk_status_t dyn_db_get_cursor(DBC* cursor, const void* key,
                                          vsk_key_encoder4_t key_encoder, void* key_out,
                                          vsk_key_decoder_t key_decoder, void* out,
                                          vsk_value_decoder_t decoder, void* secondary_out,
                                          vsk_secondary_decoder_t secondary_decoder,
                                          uint32_t operation, const uint8_t* mask,
                                          uint16_t mask_len) {
  if (cursor == nullptr) return vsk::store::BadArgument("dyn_db_get_cursor", "cursor");
  if (key != nullptr && key_encoder == nullptr) {
    return vsk::store::BadArgument("dyn_db_get_cursor", "key encoder");
  }
  return vsk::store::DynGetCursor(cursor, key, key_encoder, key_out, key_decoder, out, decoder,
                                  secondary_out, secondary_decoder, operation, mask, mask_len);
}
