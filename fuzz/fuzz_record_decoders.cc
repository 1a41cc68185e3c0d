// Feeds arbitrary bytes to every record decoder, with and without a config-bit mask. The
// first input byte picks the decoder and the mask; the rest is the record. A decoder must
// end in a status and leave nothing behind.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libvsk/store/records.h"
#include "vsk/tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t pick = data[0];
  const uint32_t n = static_cast<uint32_t>(size - 1);
  // An exact-size heap copy, as Berkeley DB hands a record over, so overreads are caught.
  void* raw = std::malloc(n == 0 ? 1 : n);
  if (n != 0) std::memcpy(raw, data + 1, n);
  const uint8_t mask[2] = {pick, static_cast<uint8_t>(pick >> 1)};
  const uint8_t* m = (pick & 0x80) ? mask : nullptr;
  switch (pick % 4) {
    case 0: {
      vsk_client_session_t* rec = nullptr;
      vsk::store::DecodeClientRecord(&rec, raw, n, m, 2);
      if (rec != nullptr) vsk_db_release_client_session(rec, true);
      break;
    }
    case 1: {
      vsk_service_session_t* rec = nullptr;
      vsk::store::DecodeServiceRecord(&rec, raw, n, m, 2);
      if (rec != nullptr) vsk_db_release_service_session(rec, true);
      break;
    }
    case 2: {
      vsk_auth_info_t* rec = nullptr;
      vsk::store::DecodeAuthRecord(&rec, raw, n, m, 2);
      if (rec != nullptr) vsk_db_release_auth_info(rec, true);
      break;
    }
    default: {
      vsk_dynamic_config_t* rec = nullptr;
      vsk::store::DecodeDynamicRecord(&rec, raw, n, m, 2);
      if (rec != nullptr) vsk_db_release_dynamic_config(rec, true);
      break;
    }
  }
  return 0;
}
