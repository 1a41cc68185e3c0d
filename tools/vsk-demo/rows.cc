// The demo's rows: raw rows through the generic table layer, and the client session
// through the session tables, written by act 1 and read back by both acts.
//
// REQUIRES of every function here: the store is open in this process (state 7); the raw
// rows also need DefineRawTable() to have succeeded.
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "demo.h"
#include "libvsk/store/view.h"
#include "transcript.h"
#include "vsk/attr.h"
#include "vsk/dyn_db.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace vsk::demo {
namespace {

// Two-pass encoders of the raw rows: the size needed, the bytes only if they fit. The key
// is the table's 12 bytes: the id, then a tag.
constexpr char kKeyTag[4] = {'d', 'e', 'm', 'o'};
constexpr uint32_t kKeySize = sizeof(uint64_t) + sizeof(kKeyTag);

uint32_t EncodeId(const void* object, void* buffer, uint32_t room) {
  if (room >= kKeySize) {
    std::memcpy(buffer, object, sizeof(uint64_t));
    std::memcpy(static_cast<char*>(buffer) + sizeof(uint64_t), kKeyTag, sizeof(kKeyTag));
  }
  return kKeySize;
}

uint32_t EncodeText(const void* object, void* buffer, uint32_t room) {
  const char* text = static_cast<const char*>(object);
  uint32_t size = static_cast<uint32_t>(std::strlen(text));
  if (size <= room) std::memcpy(buffer, text, size);
  return size;
}

// The decoded form of a raw value: it owns the buffer Berkeley DB allocated.
struct RawValue {
  void* raw = nullptr;
  uint32_t size = 0;
  ~RawValue() { std::free(raw); }
};

int DecodeRaw(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  auto* value = static_cast<RawValue*>(out);
  std::free(value->raw);
  value->raw = data;
  value->size = size;
  return static_cast<int>(size);
}

DB* RawTable() { return store::View().app_defined_db(kRawTableId); }

std::string AttrText(const vsk_attr_list_t* attrs, uint16_t type) {
  vsk_attr_t* attr = vsk_get_attribute_from_list(attrs, type);
  if (attr == nullptr) return "<missing>";
  return std::string(static_cast<const char*>(attr->value), attr->length);
}

bool AttrWord(const vsk_attr_list_t* attrs, uint16_t type, uint32_t* word) {
  vsk_attr_t* attr = vsk_get_attribute_from_list(attrs, type);
  if (attr == nullptr || attr->length != sizeof(*word)) return false;
  std::memcpy(word, attr->value, sizeof(*word));
  return true;
}

}  // namespace

vsk_status_t DefineRawTable() {
  vsk_status_t st = vsk_db_app_define(kRawTableId, kRawTableName);
  Check("vsk_db_app_define(" + std::to_string(kRawTableId) + ", \"" + kRawTableName + "\")",
        st);
  if (st == VSK_OK && vsk_app_defined[kRawTableId].key_len != kKeySize) {
    Fail("table id %d has keys of %u bytes, the rows need %u", kRawTableId,
         vsk_app_defined[kRawTableId].key_len, kKeySize);
    return VSK_ERR_INVALID_PARAM;
  }
  return st;
}

vsk_status_t PutRawRows(const RawRow* rows, int count) {
  DB* db = RawTable();
  if (db == nullptr) return VSK_ERR_NOT_STARTED;
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (!Check("vsk_db_start_txn", st)) return st;
  for (int i = 0; i < count; ++i) {
    st = dyn_db_put(db, txn.txn, &rows[i].id, EncodeId, rows[i].value, EncodeText, 0);
    if (!Check("dyn_db_put id " + std::to_string(rows[i].id), st)) {
      vsk_db_abort_txn(&txn, st);
      return st;
    }
  }
  st = vsk_db_end_txn(&txn);
  Check("vsk_db_end_txn (commit)", st);
  return st;
}

vsk_status_t GetRawRow(uint64_t id, std::string* value) {
  DB* db = RawTable();
  if (db == nullptr) return VSK_ERR_NOT_STARTED;
  RawValue out;
  vsk_status_t st = dyn_db_get(db, nullptr, &id, EncodeId, &out, DecodeRaw, 0, nullptr, 0);
  if (st == VSK_OK) value->assign(static_cast<const char*>(out.raw), out.size);
  return st;
}

bool ReadBackRawRows() {
  for (const RawRow& row : kRawRows) {
    std::string value;
    vsk_status_t st = GetRawRow(row.id, &value);
    if (!Check("dyn_db_get id " + std::to_string(row.id), st)) return false;
    if (value != row.value) {
      return Fail("id %llu holds \"%s\", expected \"%s\"", static_cast<unsigned long long>(row.id),
                  value.c_str(), row.value);
    }
    Say("  = \"%s\"", value.c_str());
  }
  std::string none;
  return Check("dyn_db_get id " + std::to_string(kMissingId) + " (never written)",
               GetRawRow(kMissingId, &none), VSK_ERR_NOT_FOUND);
}

bool ReadBackSession(vsk_session_id_t id) {
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (!Check("vsk_db_start_txn", st)) return false;
  vsk_client_session_t* rec = nullptr;
  st = vsk_db_get_client_session(&txn, &id, &rec, false);
  bool ok = Check("vsk_db_get_client_session id " + std::to_string(id), st);
  if (ok) {
    std::string user = AttrText(rec->attrs, VSK_USER_NAME);
    std::string ifname = AttrText(rec->attrs, VSK_INTERFACE_NAME);
    uint32_t type = 0;
    bool has_type = AttrWord(rec->attrs, VSK_CLIENT_SESSION_TYPE, &type);
    Say("  = user \"%s\", interface \"%s\", client type %s, dynamic id %llu", user.c_str(),
        ifname.c_str(), has_type ? std::to_string(type).c_str() : "<missing>",
        static_cast<unsigned long long>(rec->dynamic_id));
    if (user != kUserName || ifname != kInterfaceName || !has_type || type != kClientType ||
        rec->dynamic_id != id) {
      ok = Fail("the session read back differs from the one stored");
    }
  }
  vsk_db_release_client_session(rec, true);
  if (st != VSK_OK) {
    vsk_db_abort_txn(&txn, st);
    return false;
  }
  // A read-only transaction ends with a commit all the same: it releases the read locks.
  return Check("vsk_db_end_txn", vsk_db_end_txn(&txn)) && ok;
}

}  // namespace vsk::demo
