// The service record: version; section 7 (config bits) when there are bits; section 2
// (attributes), always; section 3 (owning client id), always. Unlike the client record,
// the decoded config bits point into the record buffer.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"

namespace vsk::store {

static_assert(sizeof(vsk_service_session_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(offsetof(vsk_service_session_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));

uint32_t EncodeServiceRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_service_session_t*>(object);
  RecordWriter w(buffer, room);
  if (uint8_t* p = w.Reserve(2)) PutAt<uint16_t>(p, VSK_RECORD_VERSION);
  WriteConfigBitsSection(w, rec->config_bits, rec->config_bits_len);
  WriteAttrsSection(w, VSK_SECTION_SERVICE_ATTRS, rec->attrs);
  WriteIdSection(w, VSK_SECTION_CLIENT_ID, rec->client_id);
  return w.total();
}

int DecodeServiceRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                        uint16_t mask_len) {
  auto** slot = static_cast<vsk_service_session_t**>(out);
  auto* rec = StartDecoded<vsk_service_session_t>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  auto* bytes = static_cast<uint8_t*>(data);
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
      case VSK_SECTION_SERVICE_ATTRS: {
        int r = vsk::attr::DecodeAttrEntries(bytes + pos, length, &rec->attrs);
        if (r != 0) {
          // Cleared here too, so that no caller can release the object a second time.
          vsk_db_release_service_session(rec, true);
          *slot = nullptr;
          return r;
        }
        pos += length;
        break;
      }
      case VSK_SECTION_CLIENT_ID:
        if (left < 8) return -1;
        rec->client_id = GetAt<uint64_t>(bytes + pos);
        pos += length;
        break;
      case VSK_SECTION_CONFIG_BITS: {
        if (left < 5) break;
        const uint16_t n = GetAt<uint16_t>(bytes + pos);
        if (n > left - 2) return -1;
        rec->config_bits_len = n;
        rec->config_bits = bytes + pos + 2;
        if (!ConfigBitsPass(rec->config_bits, n, mask, mask_len)) return VSK_ERR_SNAPSHOT_ONLY;
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
