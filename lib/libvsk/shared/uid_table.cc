// The UID table: a name's small unique number (drawn from unit pool 1) with a reference
// count, kept in application-defined table 6 so that it survives restarts.
//
// Who may call: any registered daemon, from its own thread; vsk_uid_recover runs in `orvd`
// on the master while the pools are rebuilt (vsk_db_secondary_recover).
//
// Invariants:
//  1. A record is 8 bytes: `uid` (u32, a number of pool 1), `refcount` (u16, holders),
//     2 reserved bytes, written zero. The key is the name zero-padded to the table's
//     32-byte key length.
//  2. A number is held in pool 1 exactly while a record names it: the first add draws it,
//     the last delete gives it back, and a rebuild marks every stored number as in use.
//  3. The read-modify-write of a record is not one transaction: two processes adding the
//     same name at once can both write the same count. Only the pool is guarded, by
//     semaphore 1. The table has one writer in practice.
#include "libvsk/shared/uid_table.h"

#include <cstddef>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/byte_writer.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/app_data_internal.h"
#include "vsk/dyn_db.h"
#include "vsk/shared.h"
#include "vsk/uid.h"

extern "C" {
const char* uid_hash_table_name = "uid_hash_table";
// Exported for applications; the library itself does not use it.
const char* uid_hash_table_dump_name = "uid_hash_table_dump";
}

namespace vsk::shared {
namespace {

constexpr uint16_t kUidTable = 6;
constexpr size_t kKeyLength = 32;

struct UidRecord {
  uint32_t uid;
  uint16_t refcount;
  uint16_t reserved;
};
static_assert(sizeof(UidRecord) == 8);
static_assert(offsetof(UidRecord, uid) == 0);
static_assert(offsetof(UidRecord, refcount) == 4);
static_assert(offsetof(UidRecord, reserved) == 6);

// Process state: whether this process has opened table 6.
bool g_table_open = false;
bool g_skip_recovery = false;  // UidTestSeam

// The name as the table's key: zero-padded to 32 bytes. False for a null name or one
// longer than the key, which could not be told apart from its first 32 bytes.
bool MakeKey(const char* name, uint8_t (&key)[kKeyLength]) {
  std::memset(key, 0, sizeof key);
  if (name == nullptr) return false;
  const size_t length = strnlen(name, kKeyLength + 1);
  if (length > kKeyLength) return false;
  std::memcpy(key, name, length);
  return true;
}

// False, with a trace, for a missing record or one shorter than 8 bytes.
bool Decode(const vsk_app_data_t* data, UidRecord* out) {
  if (data != nullptr && data->data != nullptr) {
    base::ByteReader r(static_cast<const uint8_t*>(data->data), data->length);
    if (r.Get(&out->uid) && r.Get(&out->refcount) && r.Get(&out->reserved)) return true;
  }
  VSK_TRACE("UID Hash table record of %u bytes is too short", data != nullptr ? data->length : 0);
  return false;
}

vsk_status_t Write(const uint8_t (&key)[kKeyLength], const UidRecord& rec) {
  uint8_t bytes[sizeof(UidRecord)];
  base::ByteWriter w(bytes, sizeof bytes);
  w.Put(rec.uid);
  w.Put(rec.refcount);
  w.Put(uint16_t{0});
  vsk_app_data_t data{};
  data.length = sizeof bytes;
  data.data = bytes;
  return session::PutAppDefinedData(kUidTable, key, &data);
}

// Opens the table unless this process has; `fn` names the caller in the second trace.
vsk_status_t OpenFor(const char* fn) {
  vsk_status_t st = OpenTable();
  if (st != VSK_OK && fn != nullptr) VSK_TRACE("%s: Failed to create UID Hash table\n", fn);
  return st;
}

// The record of `key`: 0 with it in *rec, -7 when there is none, or the read's failure.
// A stored record shorter than 8 bytes is refused with -5 (never read past its end).
vsk_status_t Read(const uint8_t (&key)[kKeyLength], UidRecord* rec) {
  vsk_app_defined_handle h{};
  h.table_id = kUidTable;
  h.key = const_cast<uint8_t*>(key);
  vsk_status_t st = store::Check();
  if (st == VSK_OK) st = session::GetAppDefinedSnapshot(&h, VSK_SNAPSHOT_ACTION_GET, nullptr);
  if (st == VSK_OK && h.data == nullptr) st = VSK_ERR_NOT_FOUND;
  if (st == VSK_OK && !Decode(h.data, rec)) st = VSK_ERR_CORRUPT;
  session::FreeAppDefinedHandle(&h);
  return st;
}

int RecoverOne(vsk_app_defined_handle* h) noexcept {
  UidRecord rec{};
  if (!Decode(h->data, &rec)) return 0;
  // A record written while the pool was empty holds no number of the pool.
  if (rec.uid == kNoUid) return 0;
  int rc = vsk_unit_recover(rec.uid, VSK_UNIT_POOL_UID);
  if (rc != 0) {
    VSK_TRACE("Failed to recover UID unit number %d, ret=%d", static_cast<int>(rec.uid), rc);
  }
  return 0;
}

}  // namespace

vsk_status_t OpenTable() {
  if (g_table_open) return VSK_OK;
  vsk_status_t st = session::OpenAppDefinedTable(kUidTable, uid_hash_table_name);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to create UID Hash table\n", "vsk_uid_open_db");
    return st;
  }
  g_table_open = true;
  return VSK_OK;
}

vsk_status_t AddEntry(const char* name, uint32_t* result) {
  static const char kFn[] = "vsk_uid_add_db_entry";
  uint8_t key[kKeyLength];
  if (result == nullptr || !MakeKey(name, key)) {
    VSK_TRACE("%s: UID name missing or longer than %zu bytes, or no result", kFn, kKeyLength);
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_status_t st = OpenFor(kFn);
  if (st != VSK_OK) return st;
  UidRecord rec{};
  bool drawn = false;
  st = Read(key, &rec);
  if (st == VSK_OK) {
    if (rec.refcount == UINT16_MAX) {
      VSK_TRACE("%s: UID %u of %s has all the references it can count", kFn, rec.uid, name);
      return VSK_ERR_FATAL;
    }
    ++rec.refcount;
  } else if (st == VSK_ERR_NOT_FOUND) {
    // The pool's status is not examined. When pool 1 has no number left (or cannot be
    // reached) the record is written with kNoUid, 0: never a number of the pool, so it
    // cannot alias another name's number, and neither a delete nor a rebuild touches the
    // pool for it. The caller sees uid 0.
    rec.uid = kNoUid;
    uint32_t drawn_uid = 0;
    int rc = vsk_unit_allocate(&drawn_uid, VSK_UNIT_POOL_UID);
    if (rc == 0) {
      rec.uid = drawn_uid;
      drawn = true;
    } else {
      VSK_TRACE("%s: No UID number for %s, ret=%d; stored as %u", kFn, name, rc, kNoUid);
    }
    rec.refcount = 1;
  } else {
    VSK_TRACE("%s: Failed to Add UID table, unexpected error %d\n", kFn, st);
    return st;
  }
  *result = rec.uid;
  st = Write(key, rec);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to Add UID Hash table\n", kFn);
    // A number drawn for a record that was never stored goes back at once.
    if (drawn) vsk_unit_release(rec.uid, VSK_UNIT_POOL_UID);
  }
  return st;
}

vsk_status_t DeleteEntry(const char* name) {
  static const char kFn[] = "vsk_uid_delete_db_entry";
  uint8_t key[kKeyLength];
  if (!MakeKey(name, key)) {
    VSK_TRACE("%s: UID name missing or longer than %zu bytes", kFn, kKeyLength);
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_status_t st = OpenFor(kFn);
  if (st != VSK_OK) return st;
  UidRecord rec{};
  st = Read(key, &rec);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to get UID Hash table\n", kFn);
    return st;
  }
  // A stored count of 0 (never written by this table) is taken as the last reference.
  rec.refcount = rec.refcount > 0 ? static_cast<uint16_t>(rec.refcount - 1) : 0;
  if (rec.refcount == 0) {
    VSK_TRACE_AT(VSK_TRACE_LEVEL_UID, "%s: Removing UID Hash table %s\n", kFn, name);
    st = session::RemoveAppDefinedData(kUidTable, key);
    // The pool's own status is the result (its private numbers, as published).
    if (st == VSK_OK && rec.uid != kNoUid) st = vsk_unit_release(rec.uid, VSK_UNIT_POOL_UID);
  } else {
    st = Write(key, rec);
  }
  if (st != VSK_OK) VSK_TRACE("%s: Failed to Delete UID Hash table\n", kFn);
  return st;
}

vsk_status_t RecoverTable() {
  if (g_skip_recovery) return VSK_OK;
  vsk_status_t st = OpenFor("vsk_uid_recover");
  if (st != VSK_OK) return st;
  vsk_app_defined_handle h{};
  h.table_id = kUidTable;
  do {
    st = session::GetNextRecoverAppDefinedTable(RecoverOne, &h, 0, false);
  } while (st == VSK_OK);
  // Ends the walk and gives back what it holds; its own status is not the result.
  session::GetNextRecoverAppDefinedTable(nullptr, &h, 0, true);
  return st == VSK_ERR_NOT_FOUND ? VSK_OK : st;
}

void UidTestSeam::SkipRecovery(bool skip) { g_skip_recovery = skip; }

}  // namespace vsk::shared

extern "C" {

vsk_status_t vsk_uid_open_db(void) { return vsk::shared::OpenTable(); }

vsk_status_t vsk_uid_add_db_entry(const char* name, uint32_t* uid) {
  return vsk::shared::AddEntry(name, uid);
}

vsk_status_t vsk_uid_delete_db_entry(const char* name) { return vsk::shared::DeleteEntry(name); }

vsk_status_t vsk_uid_recover(void) { return vsk::shared::RecoverTable(); }

}  // extern "C"
