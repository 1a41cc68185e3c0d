// The auth record (version, section 4) and the dynamic record (version, section 5), and the
// unframed application data. The dynamic decoder alone lets any version through.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"

namespace vsk::store {

static_assert(sizeof(vsk_auth_info_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(sizeof(vsk_dynamic_config_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(sizeof(vsk_app_data_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(sizeof(vsk_session_key_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(offsetof(vsk_auth_info_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(offsetof(vsk_dynamic_config_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(offsetof(vsk_app_data_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(offsetof(vsk_session_key_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(sizeof(vsk_app_pri_key_t) == 16 && offsetof(vsk_app_pri_key_t, app_id) == 8);

uint32_t EncodeAuthRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_auth_info_t*>(object);
  RecordWriter w(buffer, room);
  if (uint8_t* p = w.Reserve(2)) PutAt<uint16_t>(p, VSK_RECORD_VERSION);
  const uint32_t attrs = vsk::attr::AttrEntriesSize(rec->attrs);
  if (uint8_t* p = w.Reserve(8 + attrs)) {
    PutSectionHeader(p, VSK_SECTION_AUTH_ATTRS, attrs);
    vsk::attr::WriteAttrEntries(rec->attrs, p + 8);
  }
  return w.total();
}

uint32_t EncodeDynamicRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_dynamic_config_t*>(object);
  RecordWriter w(buffer, room);
  if (uint8_t* p = w.Reserve(2)) PutAt<uint16_t>(p, VSK_RECORD_VERSION);
  const uint32_t entries = vsk::attr::DynEntriesSize(rec->attrs);
  if (uint8_t* p = w.Reserve(8 + entries)) {
    PutSectionHeader(p, VSK_SECTION_DYNAMIC, entries);
    vsk::attr::WriteDynEntries(rec->attrs, p + 8);
  }
  return w.total();
}

namespace {

// The single-section framing shared by the auth and dynamic records. `decode` fills the
// object from one section's contents; `release` frees a half-built object.
template <typename Rec, typename DecodeFn, typename ReleaseFn>
int DecodeSingleSection(void* out, void* data, uint32_t size, uint32_t want_tag,
                        bool check_version, DecodeFn decode, ReleaseFn release) {
  auto** slot = static_cast<Rec**>(out);
  Rec* rec = StartDecoded<Rec>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (size < 2) return 2;
  if (check_version && GetAt<uint16_t>(bytes) != VSK_RECORD_VERSION) return -1;
  uint32_t pos = 2;
  while (pos < size) {
    if (size - pos < 8) return -1;
    const uint32_t tag = GetAt<uint32_t>(bytes + pos);
    const uint32_t length = GetAt<uint32_t>(bytes + pos + 4);
    if (length > size - pos - 8) return -1;
    if (tag != want_tag) return static_cast<int>(pos);
    int r = decode(rec, bytes + pos + 8, length);
    if (r != 0) {
      release(rec, true);
      *slot = nullptr;
      return r;
    }
    pos += 8 + length;
  }
  return static_cast<int>(pos);
}

}  // namespace

int DecodeAuthRecord(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  return DecodeSingleSection<vsk_auth_info_t>(
      out, data, size, VSK_SECTION_AUTH_ATTRS, true,
      [](vsk_auth_info_t* rec, const uint8_t* p, uint32_t n) {
        return vsk::attr::DecodeAttrEntries(p, n, &rec->attrs);
      },
      vsk_db_release_auth_info);
}

int DecodeDynamicRecord(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  return DecodeSingleSection<vsk_dynamic_config_t>(
      out, data, size, VSK_SECTION_DYNAMIC, false,
      [](vsk_dynamic_config_t* rec, const uint8_t* p, uint32_t n) {
        return vsk::attr::DecodeDynEntries(p, n, &rec->attrs);
      },
      vsk_db_release_dynamic_config);
}

int DecodeAppData(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  auto** slot = static_cast<vsk_app_data_t**>(out);
  auto* rec = static_cast<vsk_app_data_t*>(std::calloc(1, sizeof(vsk_app_data_t)));
  if (rec == nullptr) {
    std::free(data);  // the decoder owns the buffer in every case
    return VSK_ERR_NOMEM;
  }
  *slot = rec;
  rec->raw = data;
  rec->data = data;
  rec->length = size;
  return static_cast<int>(size);
}

uint32_t EncodeAppData(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_app_data_t*>(object);
  if (rec->length <= room && rec->length != 0 && rec->data != nullptr) {
    std::memcpy(buffer, rec->data, rec->length);
  }
  return rec->length;
}

uint32_t EncodeSessionKey(const void* key, void* buffer, uint32_t room) {
  if (room >= 8) std::memcpy(buffer, key, 8);
  return 8;
}

uint32_t EncodeAppPriKey(const void* key, void* buffer, uint32_t room) {
  const auto* k = static_cast<const vsk_app_pri_key_t*>(key);
  if (room >= 12) {
    auto* p = static_cast<uint8_t*>(buffer);
    PutAt<uint64_t>(p, k->id);
    PutAt<uint32_t>(p + 8, k->app_id);
  }
  return 12;
}

int DecodeSessionKey(void* out, void* data, uint32_t size) {
  auto** slot = static_cast<vsk_session_key_t**>(out);
  // A key decoder takes its buffer only when it succeeds.
  if (size < 8) return -1;
  auto* key = static_cast<vsk_session_key_t*>(std::calloc(1, sizeof(vsk_session_key_t)));
  if (key == nullptr) return VSK_ERR_NOMEM;
  *slot = key;
  key->raw = data;
  key->id = GetAt<uint64_t>(static_cast<const uint8_t*>(data));
  return static_cast<int>(size);
}

}  // namespace vsk::store
