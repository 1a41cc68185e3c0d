// The client record: version; section 1 (service ids) when there are services; section 7
// (config bits, length field fixed at 8) when there are bits; section 0 (attributes),
// always; section 6 (dynamic record key), always.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"

namespace vsk::store {

static_assert(sizeof(vsk_client_session_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(offsetof(vsk_client_session_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(offsetof(vsk_client_session_t, service_count) == 8);
static_assert(offsetof(vsk_client_session_t, dynamic_id) == 24);
static_assert(offsetof(vsk_client_session_t, free_attr_values) == 48);

bool ConfigBitsPass(const uint8_t* bits, uint16_t bits_len, const uint8_t* mask,
                    uint16_t mask_len) {
  if (mask == nullptr || bits_len == 0) return true;
  // Bounded by the mask too: a short mask must not be read past its end.
  const uint16_t n = bits_len < mask_len ? bits_len : mask_len;
  for (uint16_t i = 0; i < n; ++i) {
    if ((mask[i] & bits[i]) != 0) return true;
  }
  return false;
}

void WriteConfigBitsSection(RecordWriter& w, const uint8_t* bits, uint16_t bits_len) {
  if (bits_len == 0) return;
  if (uint8_t* p = w.Reserve(8u + 2u + bits_len)) {
    PutSectionHeader(p, VSK_SECTION_CONFIG_BITS, 8);  // fixed, whatever the true size
    PutAt<uint16_t>(p + 8, bits_len);
    if (bits != nullptr) {
      std::memcpy(p + 10, bits, bits_len);
    } else {
      std::memset(p + 10, 0, bits_len);
    }
  }
}

void WriteAttrsSection(RecordWriter& w, uint32_t tag, const vsk_attr_list_t* attrs) {
  const uint32_t size = vsk::attr::AttrEntriesSize(attrs);
  if (uint8_t* p = w.Reserve(8 + size)) {
    PutSectionHeader(p, tag, size);
    vsk::attr::WriteAttrEntries(attrs, p + 8);
  }
}

void WriteIdSection(RecordWriter& w, uint32_t tag, uint64_t id) {
  if (uint8_t* p = w.Reserve(16)) {
    PutSectionHeader(p, tag, 8);
    PutAt<uint64_t>(p + 8, id);
  }
}

uint32_t EncodeClientRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_client_session_t*>(object);
  RecordWriter w(buffer, room);
  if (uint8_t* p = w.Reserve(2)) PutAt<uint16_t>(p, VSK_RECORD_VERSION);
  if (rec->service_count != 0) {
    const uint32_t body = 2u + 8u * rec->service_count;
    if (uint8_t* p = w.Reserve(8 + body)) {
      PutSectionHeader(p, VSK_SECTION_SERVICE_IDS, body);
      PutAt<uint16_t>(p + 8, rec->service_count);
      if (rec->service_ids != nullptr) {
        std::memcpy(p + 10, rec->service_ids, 8u * rec->service_count);
      } else {
        std::memset(p + 10, 0, 8u * rec->service_count);
      }
    }
  }
  WriteConfigBitsSection(w, rec->config_bits, rec->config_bits_len);
  WriteAttrsSection(w, VSK_SECTION_CLIENT_ATTRS, rec->attrs);
  WriteIdSection(w, VSK_SECTION_DYNAMIC_ID, rec->dynamic_id);
  return w.total();
}

int DecodeClientRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                       uint16_t mask_len) {
  auto** slot = static_cast<vsk_client_session_t**>(out);
  auto* rec = StartDecoded<vsk_client_session_t>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (size < 2) return 2;
  if (GetAt<uint16_t>(bytes) != VSK_RECORD_VERSION) return -1;
  uint32_t pos = 2;
  while (pos < size) {
    if (size - pos < 8) return -1;
    const uint32_t start = pos;
    const uint32_t tag = GetAt<uint32_t>(bytes + pos);
    const uint32_t length = GetAt<uint32_t>(bytes + pos + 4);
    if (length > size - pos - 8) return -1;
    pos += 8;
    const uint32_t left = size - pos;
    switch (tag) {
      case VSK_SECTION_CLIENT_ATTRS: {
        int r = vsk::attr::DecodeAttrEntries(bytes + pos, length, &rec->attrs);
        if (r != 0) {
          vsk_db_release_client_session(rec, true);
          *slot = nullptr;
          return r;
        }
        pos += length;
        break;
      }
      case VSK_SECTION_SERVICE_IDS: {
        if (left < 3) return -1;
        const uint16_t count = GetAt<uint16_t>(bytes + pos);
        if (count != 0 && 8u * count > left - 2) {
          vsk_db_release_client_session(rec, true);
          *slot = nullptr;
          return -1;
        }
        // The ids lie at an odd offset in the record; they get an aligned copy so that
        // callers may index them as vsk_session_id_t.
        std::free(rec->free_service_ids ? rec->service_ids : nullptr);
        rec->service_ids = nullptr;
        rec->free_service_ids = 0;
        rec->service_count = count;
        if (count != 0) {
          auto* ids = static_cast<vsk_session_id_t*>(std::malloc(8u * count));
          if (ids == nullptr) return VSK_ERR_NOMEM;
          std::memcpy(ids, bytes + pos + 2, 8u * count);
          rec->service_ids = ids;
          rec->free_service_ids = 1;
        }
        pos += length;
        break;
      }
      case VSK_SECTION_DYNAMIC_ID:
        if (left < 8) return -1;
        rec->dynamic_id = GetAt<uint64_t>(bytes + pos);
        pos += length;
        break;
      case VSK_SECTION_CONFIG_BITS: {
        // The length field says 8 whatever the mask's size: step by the inner length.
        if (left < 5) break;
        const uint16_t n = GetAt<uint16_t>(bytes + pos);
        if (n > left - 2) return -1;
        auto* bits = static_cast<uint8_t*>(std::calloc(n + 1u, 1));
        if (bits == nullptr) return VSK_ERR_NOMEM;
        std::memcpy(bits, bytes + pos + 2, n);
        std::free(rec->config_bits);
        rec->config_bits = bits;
        rec->config_bits_len = n;
        if (!ConfigBitsPass(bits, n, mask, mask_len)) return VSK_ERR_SNAPSHOT_ONLY;
        pos += 2u + n;
        break;
      }
      default:
        return static_cast<int>(start);
    }
  }
  return static_cast<int>(pos);
}

}  // namespace vsk::store
