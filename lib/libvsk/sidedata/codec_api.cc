// The exported codecs of the filter daemon's data: the record's tagged and positional
// forms and the session index codecs (two unions, seven members). Every tagged codec is
// three functions of one form, made by one macro. Each checks its arguments and makes one
// call into the table codec.
#include "libvsk/base/trace.h"
#include "libvsk/sidedata/field_codec.h"
#include "vsk/pfltd.h"

namespace vsk::sidedata {
namespace {

bool ValidInput(const void* record, const uint8_t* buffer, uint32_t size, const char* fn) {
  if (record != nullptr && (buffer != nullptr || size == 0) && size <= INT32_MAX) return true;
  VSK_TRACE("%s: invalid record or buffer", fn);
  return false;
}

}  // namespace
}  // namespace vsk::sidedata

#define VSK_TAGGED_CODEC(name, type, schema)                                                       \
  uint32_t tlv_encode_##name(const type* record, const uint8_t* mask, uint8_t* buffer,             \
                             uint32_t size) {                                                      \
    if (record == nullptr) {                                                                       \
      VSK_TRACE("%s: no record given", __func__);                                                  \
      return 0;                                                                                    \
    }                                                                                              \
    return vsk::sidedata::EncodeTagged(schema, record, mask, buffer, size);                        \
  }                                                                                                \
  int32_t tlv_decode_##name(type* record, uint8_t* mask, const uint8_t* buffer, uint32_t size,     \
                            vsk_codec_alloc_t alloc, void* context) {                              \
    if (!vsk::sidedata::ValidInput(record, buffer, size, __func__)) {                              \
      return vsk::sidedata::kMalformed;                                                            \
    }                                                                                              \
    return vsk::sidedata::DecodeTagged(schema, record, mask, buffer, size, alloc, context);        \
  }                                                                                                \
  void tlv_release_##name(type* record, const uint8_t*, vsk_codec_free_t free_fn, void* context) { \
    if (record != nullptr && free_fn != nullptr)                                                   \
      vsk::sidedata::Release(schema, record, free_fn, context);                                    \
  }

extern "C" {

VSK_TAGGED_CODEC(vsk_indexes, vsk_indexes_t, vsk::sidedata::kIndexesSchema)
VSK_TAGGED_CODEC(vsk_dup_indexes, vsk_dup_indexes_t, vsk::sidedata::kDupIndexesSchema)
VSK_TAGGED_CODEC(ipv4_vr, vsk_ipv4_vr_t, vsk::sidedata::kIpv4VrSchema)
VSK_TAGGED_CODEC(ipv6_vr, vsk_ipv6_vr_t, vsk::sidedata::kIpv6VrSchema)
VSK_TAGGED_CODEC(acct_session_id, vsk_acct_session_id_t, vsk::sidedata::kAcctSessionIdSchema)
VSK_TAGGED_CODEC(unnum_intf_pref_ip, vsk_unnum_intf_pref_ip_t,
                 vsk::sidedata::kUnnumIntfPrefIpSchema)
VSK_TAGGED_CODEC(underlying_interface, vsk_underlying_interface_t,
                 vsk::sidedata::kUnderlyingInterfaceSchema)
VSK_TAGGED_CODEC(profile_name, vsk_profile_name_t, vsk::sidedata::kProfileNameSchema)
VSK_TAGGED_CODEC(underlying_interface_name, vsk_underlying_interface_name_t,
                 vsk::sidedata::kUnderlyingInterfaceNameSchema)

VSK_TAGGED_CODEC(pfltd_vsk_data, pfltd_vsk_data_t, vsk::sidedata::kPfltdSchema)

uint32_t idr_encode_pfltd_vsk_data_0(const pfltd_vsk_data_t* record, uint8_t* buffer,
                                     uint32_t size) {
  if (record == nullptr) {
    VSK_TRACE("%s: no record given", __func__);
    return 0;
  }
  return vsk::sidedata::EncodePositional(vsk::sidedata::kPfltdSchema, record, buffer, size);
}

int32_t idr_decode_pfltd_vsk_data_0(pfltd_vsk_data_t* record, const uint8_t* buffer, uint32_t size,
                                    vsk_codec_alloc_t alloc, void* context) {
  if (!vsk::sidedata::ValidInput(record, buffer, size, __func__)) return vsk::sidedata::kMalformed;
  return vsk::sidedata::DecodePositional(vsk::sidedata::kPfltdSchema, record, buffer, size, alloc,
                                         context);
}

void idr_release_pfltd_vsk_data_0(pfltd_vsk_data_t* record, vsk_codec_free_t free_fn,
                                  void* context) {
  if (record == nullptr || free_fn == nullptr) return;
  vsk::sidedata::Release(vsk::sidedata::kPfltdSchema, record, free_fn, context);
}

}  // extern "C"
