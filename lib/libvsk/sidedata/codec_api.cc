// The exported codecs of the filter daemon's data: the record's tagged and positional
// forms, and the session index codecs (two unions and seven members, each three functions
// of the tagged form, made by one macro). Each checks its arguments and makes one call into
// the table codec.
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

// The codec calls of a member (a plain schema) and of a union, under one name.
struct MemberCodec {
  const Schema& schema;
  uint32_t Encode(const void* r, const uint8_t* m, uint8_t* b, uint32_t s) const {
    return EncodeTagged(schema, r, m, b, s);
  }
  int32_t Decode(void* r, uint8_t* m, const uint8_t* b, uint32_t s, vsk_codec_alloc_t a,
                 void* c) const {
    return DecodeTagged(schema, r, m, b, s, a, c);
  }
  void Free(void* r, vsk_codec_free_t f, void* c) const { Release(schema, r, f, c); }
};
struct UnionCodec {
  const UnionSchema& schema;
  uint32_t Encode(const void* r, const uint8_t* m, uint8_t* b, uint32_t s) const {
    return EncodeUnion(schema, r, m, b, s);
  }
  int32_t Decode(void* r, uint8_t* m, const uint8_t* b, uint32_t s, vsk_codec_alloc_t a,
                 void* c) const {
    return DecodeUnion(schema, r, m, b, s, a, c);
  }
  void Free(void* r, vsk_codec_free_t f, void* c) const { ReleaseUnion(schema, r, f, c); }
};

}  // namespace
}  // namespace vsk::sidedata

#define VSK_INDEX_CODEC(name, type, codec)                                                         \
  uint32_t tlv_encode_##name(const type* record, const uint8_t* mask, uint8_t* buffer,             \
                             uint32_t size) {                                                      \
    if (record == nullptr) {                                                                       \
      VSK_TRACE("%s: no record given", __func__);                                                  \
      return 0;                                                                                    \
    }                                                                                              \
    return codec.Encode(record, mask, buffer, size);                                               \
  }                                                                                                \
  int32_t tlv_decode_##name(type* record, uint8_t* mask, const uint8_t* buffer, uint32_t size,     \
                            vsk_codec_alloc_t alloc, void* context) {                              \
    if (!vsk::sidedata::ValidInput(record, buffer, size, __func__)) {                              \
      return vsk::sidedata::kMalformed;                                                            \
    }                                                                                              \
    return codec.Decode(record, mask, buffer, size, alloc, context);                               \
  }                                                                                                \
  void tlv_release_##name(type* record, const uint8_t*, vsk_codec_free_t free_fn, void* context) { \
    if (record != nullptr && free_fn != nullptr) codec.Free(record, free_fn, context);             \
  }

using vsk::sidedata::MemberCodec;
using vsk::sidedata::UnionCodec;

extern "C" {

VSK_INDEX_CODEC(vsk_indexes, vsk_indexes_t, UnionCodec{vsk::sidedata::kIndexesSchema})
VSK_INDEX_CODEC(vsk_dup_indexes, vsk_dup_indexes_t, UnionCodec{vsk::sidedata::kDupIndexesSchema})
VSK_INDEX_CODEC(ipv4_vr, vsk_ipv4_vr_t, MemberCodec{vsk::sidedata::kIpv4VrSchema})
VSK_INDEX_CODEC(ipv6_vr, vsk_ipv6_vr_t, MemberCodec{vsk::sidedata::kIpv6VrSchema})
VSK_INDEX_CODEC(acct_session_id, vsk_acct_session_id_t,
                MemberCodec{vsk::sidedata::kAcctSessionIdSchema})
VSK_INDEX_CODEC(unnum_intf_pref_ip, vsk_unnum_intf_pref_ip_t,
                MemberCodec{vsk::sidedata::kUnnumIntfPrefIpSchema})
VSK_INDEX_CODEC(underlying_interface, vsk_underlying_interface_t,
                MemberCodec{vsk::sidedata::kUnderlyingInterfaceSchema})
VSK_INDEX_CODEC(profile_name, vsk_profile_name_t, MemberCodec{vsk::sidedata::kProfileNameSchema})
VSK_INDEX_CODEC(underlying_interface_name, vsk_underlying_interface_name_t,
                MemberCodec{vsk::sidedata::kUnderlyingInterfaceNameSchema})

uint32_t tlv_encode_pfltd_vsk_data(const pfltd_vsk_data_t* record, const uint8_t* mask,
                                   uint8_t* buffer, uint32_t size) {
  if (record == nullptr) {
    VSK_TRACE("%s: no record given", __func__);
    return 0;
  }
  return vsk::sidedata::EncodeTagged(vsk::sidedata::kPfltdSchema, record, mask, buffer, size);
}

int32_t tlv_decode_pfltd_vsk_data(pfltd_vsk_data_t* record, uint8_t* mask, const uint8_t* buffer,
                                  uint32_t size, vsk_codec_alloc_t alloc, void* context) {
  if (!vsk::sidedata::ValidInput(record, buffer, size, __func__)) return vsk::sidedata::kMalformed;
  return vsk::sidedata::DecodeTagged(vsk::sidedata::kPfltdSchema, record, mask, buffer, size, alloc,
                                     context);
}

void tlv_release_pfltd_vsk_data(pfltd_vsk_data_t* record, const uint8_t*, vsk_codec_free_t free_fn,
                                void* context) {
  if (record == nullptr || free_fn == nullptr) return;
  vsk::sidedata::Release(vsk::sidedata::kPfltdSchema, record, free_fn, context);
}

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
