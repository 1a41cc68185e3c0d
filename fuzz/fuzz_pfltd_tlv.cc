// Feeds arbitrary bytes to every tagged decoder of the filter daemon's data. The first
// input byte picks the codec (the record, the two index unions, the seven members) and
// whether a mask is given; the rest is the encoding. A decode must end in a result within
// the input and leave nothing unreleased; a record decoded without a mask must encode and
// decode again to the same record.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pfltd_records.h"
#include "vsk/pfltd.h"

namespace {

void* Alloc(size_t size, void*) { return std::malloc(size); }
void Free(void* p, void*) { std::free(p); }

template <typename T, typename Decode, typename Release>
void Run(const uint8_t* data, uint32_t n, uint8_t* mask, Decode decode, Release release) {
  T record{};
  const int32_t used = decode(&record, mask, data, n, Alloc, nullptr);
  if (used > static_cast<int32_t>(n) || used < -4) std::abort();
  release(&record, mask, Free, nullptr);
}

// The record again through its encoder and decoder.
void RoundTrip(const pfltd_vsk_data_t& first) {
  const uint32_t size = tlv_encode_pfltd_vsk_data(&first, nullptr, nullptr, 0);
  if (size > 60000) return;  // longer lists than the 16-bit length holds do not round trip
  std::vector<uint8_t> buf(size);
  tlv_encode_pfltd_vsk_data(&first, nullptr, buf.data(), size);
  pfltd_vsk_data_t second{};
  if (tlv_decode_pfltd_vsk_data(&second, nullptr, buf.data(), size, Alloc, nullptr) !=
      static_cast<int32_t>(size)) {
    std::abort();
  }
  if (!vsk::test::Diff(first, second).empty()) std::abort();
  tlv_release_pfltd_vsk_data(&second, nullptr, Free, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t pick = data[0];
  const auto n = static_cast<uint32_t>(size - 1);
  // An exact-size heap copy, so that any read past the end is caught.
  auto* in = static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n));
  if (n != 0) std::memcpy(in, data + 1, n);
  uint8_t mask_bytes[8];
  uint8_t* mask = (pick & 0x80) != 0 ? mask_bytes : nullptr;
  switch (pick % 10) {
    case 0: {
      pfltd_vsk_data_t record{};
      const int32_t used = tlv_decode_pfltd_vsk_data(&record, mask, in, n, Alloc, nullptr);
      if (used > static_cast<int32_t>(n) || used < -2) std::abort();
      if (used >= 0 && mask == nullptr) RoundTrip(record);
      tlv_release_pfltd_vsk_data(&record, mask, Free, nullptr);
      break;
    }
    case 1:
      Run<vsk_indexes_t>(in, n, mask, tlv_decode_vsk_indexes, tlv_release_vsk_indexes);
      break;
    case 2:
      Run<vsk_dup_indexes_t>(in, n, mask, tlv_decode_vsk_dup_indexes, tlv_release_vsk_dup_indexes);
      break;
    case 3:
      Run<vsk_ipv4_vr_t>(in, n, mask, tlv_decode_ipv4_vr, tlv_release_ipv4_vr);
      break;
    case 4:
      Run<vsk_ipv6_vr_t>(in, n, mask, tlv_decode_ipv6_vr, tlv_release_ipv6_vr);
      break;
    case 5:
      Run<vsk_acct_session_id_t>(in, n, mask, tlv_decode_acct_session_id,
                                 tlv_release_acct_session_id);
      break;
    case 6:
      Run<vsk_unnum_intf_pref_ip_t>(in, n, mask, tlv_decode_unnum_intf_pref_ip,
                                    tlv_release_unnum_intf_pref_ip);
      break;
    case 7:
      Run<vsk_underlying_interface_t>(in, n, mask, tlv_decode_underlying_interface,
                                      tlv_release_underlying_interface);
      break;
    case 8:
      Run<vsk_profile_name_t>(in, n, mask, tlv_decode_profile_name, tlv_release_profile_name);
      break;
    default:
      Run<vsk_underlying_interface_name_t>(in, n, mask, tlv_decode_underlying_interface_name,
                                           tlv_release_underlying_interface_name);
      break;
  }
  std::free(in);
  return 0;
}
