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
  w.PutVersion();
  const uint32_t attrs = vsk::attr::AttrEntriesSize(rec->attrs);
  base::ByteWriter p;
  if (w.ReserveSection(VSK_SECTION_AUTH_ATTRS, attrs, attrs, &p)) {
    vsk::attr::WriteAttrEntries(rec->attrs, p);
  }
  return w.total();
}

uint32_t EncodeDynamicRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_dynamic_config_t*>(object);
  RecordWriter w(buffer, room);
  w.PutVersion();
  const uint32_t entries = vsk::attr::DynEntriesSize(rec->attrs);
  base::ByteWriter p;
  if (w.ReserveSection(VSK_SECTION_DYNAMIC, entries, entries, &p)) {
    vsk::attr::WriteDynEntries(rec->attrs, p);
  }
  return w.total();
}

namespace {

// The single-section framing shared by the auth and dynamic records. `decode` fills the
// object from one section's contents; `release` frees a half-built object.
template <typename Rec, typename DecodeFn, typename ReleaseFn>
int DecodeSingleSection(void* out, void* data, uint32_t size, uint32_t want_tag, bool check_version,
                        DecodeFn decode, ReleaseFn release) {
  auto** slot = static_cast<Rec**>(out);
  Rec* rec = StartDecoded<Rec>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  base::ByteReader r(data, size);
  if (auto early = ReadVersion(r, check_version)) return *early;
  return WalkSections(r,
                      [&](uint32_t tag, uint32_t length, base::ByteReader& body) -> SectionVerdict {
                        if (tag != want_tag) return SectionVerdict::StopBefore();
                        base::ByteReader contents;
                        body.Slice(length, &contents);  // fits: the walk checked the length
                        const int result = decode(rec, contents);
                        if (result == 0) return SectionVerdict::Next();
                        release(rec, true);
                        *slot = nullptr;
                        return SectionVerdict::Return(result);
                      });
}

}  // namespace

int DecodeAuthRecord(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  return DecodeSingleSection<vsk_auth_info_t>(
      out, data, size, VSK_SECTION_AUTH_ATTRS, true,
      [](vsk_auth_info_t* rec, base::ByteReader contents) {
        return vsk::attr::DecodeAttrEntries(contents, &rec->attrs);
      },
      vsk_db_release_auth_info);
}

int DecodeDynamicRecord(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  return DecodeSingleSection<vsk_dynamic_config_t>(
      out, data, size, VSK_SECTION_DYNAMIC, false,
      [](vsk_dynamic_config_t* rec, base::ByteReader contents) {
        return vsk::attr::DecodeDynEntries(contents, &rec->attrs);
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
    base::ByteWriter p(buffer, 12);
    p.Put<uint64_t>(k->id);
    p.Put<uint32_t>(k->app_id);
  }
  return 12;
}

int DecodeSessionKey(void* out, void* data, uint32_t size) {
  auto** slot = static_cast<vsk_session_key_t**>(out);
  // A key decoder takes its buffer only when it succeeds.
  base::ByteReader r(data, size);
  uint64_t id = 0;
  if (!r.Get(&id)) return -1;
  auto* key = static_cast<vsk_session_key_t*>(std::calloc(1, sizeof(vsk_session_key_t)));
  if (key == nullptr) return VSK_ERR_NOMEM;
  *slot = key;
  key->raw = data;
  key->id = id;
  return static_cast<int>(size);
}

}  // namespace vsk::store
