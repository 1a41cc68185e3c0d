// The generic table engine: opening and closing tables, and the single-record operations
// put, get, del and exists.
//
// Who may call: every table of the library and daemons that keep tables of their own.
// The functions keep no state of their own; all DBTs are local. Handles are opened with
// DB_THREAD, so every DBT through which Berkeley DB returns data asks it to allocate.
//
// Ownership: a value decoder takes the buffer Berkeley DB allocated in every case; what
// it stored in its `out` is the caller's to release, also when the call fails.
#include "vsk/dyn_db.h"

#include <db.h>

#include <cstring>

#include "libvsk/base/fault.h"
#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/dyn_db_internal.h"

namespace vsk::store {
namespace {

constexpr const char kStoreFile[] = "vsk.db";
constexpr const char kClientSessionTable[] = "client-session-db";

// Table open flags by role: the master creates, the standby only reads.
constexpr uint32_t kMasterOpenFlags = DB_AUTO_COMMIT | DB_THREAD | DB_CREATE;
constexpr uint32_t kStandbyOpenFlags = DB_AUTO_COMMIT | DB_THREAD | DB_RDONLY;

// The table calls, through the fault seam.
int Del(DB* db, DB_TXN* txn, DBT* key, uint32_t flags) {
  int ret;
  if (fault::Inject(fault::Kind::kDbDel, &ret)) return ret;
  return db->del(db, txn, key, flags);
}

int Put(DB* db, DB_TXN* txn, DBT* key, DBT* value, uint32_t flags) {
  int ret;
  if (fault::Inject(fault::Kind::kDbPut, &ret)) return ret;
  return db->put(db, txn, key, value, flags);
}

int Get(DB* db, DB_TXN* txn, DBT* key, DBT* value, uint32_t flags) {
  int ret;
  if (fault::Inject(fault::Kind::kDbGet, &ret)) return ret;
  return db->get(db, txn, key, value, flags);
}

uint64_t SessionIdOfKey(const DBT* key) {
  uint32_t words[2] = {0, 0};
  std::memcpy(words, key->data, key->size < sizeof(words) ? key->size : sizeof(words));
  return (static_cast<uint64_t>(words[1]) << 32) | words[0];
}

}  // namespace

DynDbCounters DynDbProbe::counters_{};

DynDbCounters DynDbProbe::Read() { return counters_; }

void DynDbProbe::Reset() { counters_ = {}; }

int CompareSessionIdKeys(DB*, const DBT* a, const DBT* b) noexcept {
  uint64_t x = SessionIdOfKey(a);
  uint64_t y = SessionIdOfKey(b);
  if (x != y) return x < y ? -1 : 1;
  // Keys of the table are always 8 bytes; a foreign key of another length still gets a
  // total order.
  if (a->size != b->size) return a->size < b->size ? -1 : 1;
  return 0;
}

vsk_status_t BadArgument(const char* fn, const char* what) {
  VSK_TRACE("%s: bad argument %s", fn, what);
  return VSK_ERR_INVALID_PARAM;
}

}  // namespace vsk::store

using vsk::store::BadArgument;
using vsk::store::DecoderFailure;
using vsk::store::Encoded;
using vsk::store::kReadKeyLocalMax;
using vsk::store::kValueRoom;
using vsk::store::kWriteKeyRoom;

namespace {

// The key step of put, del and exists: 12 local bytes, larger keys on the heap.
bool EncodeWriteKey(Encoded<kWriteKeyRoom>& out, const void* key, vsk_encoder_t encoder) {
  return out.Encode([&](void* buf, uint32_t room) { return encoder(key, buf, room); },
                    kWriteKeyRoom, true);
}

DBT KeyDbt(void* data, uint32_t size) {
  DBT dbt{};
  dbt.data = data;
  dbt.size = size;
  // With DB_THREAD and a compare function Berkeley DB insists on a memory flag on the key
  // of a read even when it returns nothing through it.
  dbt.ulen = size;
  dbt.flags = DB_DBT_USERMEM;
  return dbt;
}

}  // namespace

int vsk::store::DynOpen(DB** out, DB_ENV* env, const char* name, uint32_t extra_flags,
                        bool master) {
  int ret = db_create(out, env, 0);
  if (ret != 0) {
    VSK_TRACE("Failed to create db %s: %s\n", name, db_strerror(ret));
    return ret;
  }
  DB* db = *out;
  if (extra_flags != 0) {
    ret = db->set_flags(db, extra_flags);
    if (ret != 0) return ret;  // the handle stays in *out for the caller
  }
  if (std::strcmp(name, vsk::store::kClientSessionTable) == 0) {
    ret = db->set_bt_compare(db, vsk::store::CompareSessionIdKeys);
    if (ret != 0) {
      VSK_TRACE("Failed to set compare for db %s: %s\n", name, db_strerror(ret));
      return ret;
    }
    VSK_TRACE("Set compare routine for %s", name);
  }
  ret = db->open(db, nullptr, vsk::store::kStoreFile, name, DB_BTREE,
                 master ? vsk::store::kMasterOpenFlags : vsk::store::kStandbyOpenFlags, 0);
  if (ret != 0) {
    VSK_TRACE("Failed to open db %s: %s\n", name, db_strerror(ret));
    int cret = db->close(db, 0);
    if (cret != 0) VSK_TRACE("Failed to close db %s: %s\n", name, db_strerror(cret));
    *out = nullptr;
  }
  return ret;
}

extern "C" int dyn_db_open(DB** out, DB_ENV* env, const char* name, uint32_t extra_flags,
                           bool master) {
  if (out == nullptr || name == nullptr) {
    BadArgument("dyn_db_open", out == nullptr ? "handle slot" : "name");
    return EINVAL;
  }
  return vsk::store::DynOpen(out, env, name, extra_flags, master);
}

int vsk::store::DynSecOpen(DB** out, DB_ENV* env, const char* name, DB* primary,
                           vsk_sec_key_callback_t callback, uint32_t extra_flags) {
  // A secondary is always writable: its writes follow the primary's.
  int ret = vsk::store::DynOpen(out, env, name, extra_flags, true);
  if (ret != 0) return ret;
  return primary->associate(primary, nullptr, *out, callback, 0);
}

extern "C" int dyn_db_sec_open(DB** out, DB_ENV* env, const char* name, DB* primary,
                               vsk_sec_key_callback_t callback, uint32_t extra_flags) {
  return vsk::store::DynSecOpen(out, env, name, primary, callback, extra_flags);
}

int vsk::store::DynClose(DB* db) {
  if (db == nullptr) return 0;
  // Without flushing the table's pages: every table lives in a transactional environment,
  // whose log already holds each committed change and whose owner checkpoints. A flush
  // waits for every page of the file, and one held by a process that died inside the
  // library is never given back: the close would never return.
  return db->close(db, DB_NOSYNC);
}

extern "C" int dyn_db_close(DB* db) { return vsk::store::DynClose(db); }

vsk_status_t vsk::store::DynExists(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                   uint32_t flags) {
  Encoded<kWriteKeyRoom> k;
  if (!EncodeWriteKey(k, key, key_encoder)) return VSK_ERR_NOMEM;
  DBT kd = KeyDbt(k.data(), k.size());
  return vsk::base::TranslateError(db->exists(db, txn, &kd, flags));
}

extern "C" vsk_status_t dyn_db_exists(DB* db, DB_TXN* txn, const void* key,
                                      vsk_encoder_t key_encoder, uint32_t flags) {
  if (db == nullptr) return BadArgument("dyn_db_exists", "table");
  if (key_encoder == nullptr) return BadArgument("dyn_db_exists", "key encoder");
  return vsk::store::DynExists(db, txn, key, key_encoder, flags);
}

vsk_status_t vsk::store::DynDel(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                uint32_t flags) {
  Encoded<kWriteKeyRoom> k;
  if (!EncodeWriteKey(k, key, key_encoder)) return VSK_ERR_NOMEM;
  DBT kd = KeyDbt(k.data(), k.size());
  return vsk::base::TranslateError(vsk::store::Del(db, txn, &kd, flags));
}

extern "C" vsk_status_t dyn_db_del(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                   uint32_t flags) {
  if (db == nullptr) return BadArgument("dyn_db_del", "table");
  if (key_encoder == nullptr) return BadArgument("dyn_db_del", "key encoder");
  return vsk::store::DynDel(db, txn, key, key_encoder, flags);
}

vsk_status_t vsk::store::DynPut(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                const void* value, vsk_encoder_t value_encoder, uint32_t flags) {
  Encoded<kWriteKeyRoom> k;
  if (!EncodeWriteKey(k, key, key_encoder)) return VSK_ERR_NOMEM;
  Encoded<kValueRoom> v;
  if (!v.Encode([&](void* buf, uint32_t room) { return value_encoder(value, buf, room); },
                kValueRoom, false)) {
    return VSK_ERR_NOMEM;  // the key's buffer goes with `k`
  }
  DBT kd{};
  kd.data = k.data();
  kd.size = k.size();
  DBT vd{};
  vd.data = v.data();
  vd.size = v.size();
  return vsk::base::TranslateError(vsk::store::Put(db, txn, &kd, &vd, flags));
}

extern "C" vsk_status_t dyn_db_put(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                   const void* value, vsk_encoder_t value_encoder, uint32_t flags) {
  if (db == nullptr) return BadArgument("dyn_db_put", "table");
  if (key_encoder == nullptr || value_encoder == nullptr) {
    return BadArgument("dyn_db_put", "encoder");
  }
  return vsk::store::DynPut(db, txn, key, key_encoder, value, value_encoder, flags);
}

vsk_status_t vsk::store::DynGet(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                void* out, vsk_value_decoder_t decoder, uint32_t flags,
                                const uint8_t* mask, uint16_t mask_len) {
  // The room is that of a write, but anything above 8 bytes goes to the heap.
  Encoded<kWriteKeyRoom> k;
  if (!k.Encode([&](void* buf, uint32_t room) { return key_encoder(key, buf, room); },
                kReadKeyLocalMax, true)) {
    return VSK_ERR_NOMEM;
  }
  DBT kd = KeyDbt(k.data(), k.size());
  DBT vd{};
  vd.flags = DB_DBT_MALLOC;
  int ret = vsk::store::Get(db, txn, &kd, &vd, flags);
  if (ret != 0) return vsk::base::TranslateError(ret);
  int used = decoder(out, vd.data, vd.size, mask, mask_len);
  if (used >= 0 && static_cast<uint32_t>(used) == vd.size) return VSK_OK;
  return DecoderFailure(used);
}

extern "C" vsk_status_t dyn_db_get(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                                   void* out, vsk_value_decoder_t decoder, uint32_t flags,
                                   const uint8_t* mask, uint16_t mask_len) {
  if (db == nullptr) return BadArgument("dyn_db_get", "table");
  if (key_encoder == nullptr || decoder == nullptr) return BadArgument("dyn_db_get", "codec");
  return vsk::store::DynGet(db, txn, key, key_encoder, out, decoder, flags, mask, mask_len);
}
