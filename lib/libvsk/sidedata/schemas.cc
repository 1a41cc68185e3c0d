// The field tables of the filter daemon's data: its record, the seven session index
// members, and the two unions that choose a member by discriminator.
#include <cstddef>

#include "libvsk/sidedata/field_codec.h"
#include "vsk/pfltd.h"

namespace vsk::sidedata {
namespace {

#define VSK_FIELD(record, kind, tag, type) \
  FieldDesc { tag, static_cast<uint16_t>(offsetof(record, t##tag)), FieldKind::kind, sizeof(type) }
#define S(tag) VSK_FIELD(pfltd_vsk_data_t, kString, tag, char*)
#define U(tag) VSK_FIELD(pfltd_vsk_data_t, kU32, tag, uint32_t)
#define A(tag) VSK_FIELD(pfltd_vsk_data_t, kArray, tag, pfltd_vsk_array_t)

// In structure order, which is the order of both encodings and of the mask bits.
constexpr std::array<FieldDesc, PFLTD_VSK_DATA_FIELDS> kPfltdFields = {
    S(1),  U(2),  U(37), A(3),  S(4),  U(5),  U(38), A(6),  S(7),  U(8),
    S(9),  U(10), S(11), U(12), U(39), A(13), S(14), U(15), U(40), A(16),
    S(17), U(18), A(19), S(20), U(21), A(22), S(23), U(24), A(25), S(26),
    U(27), A(28), S(29), U(30), S(31), U(32), S(33), U(34), S(35), U(36)};
constexpr auto kPfltdByTag = TagIndex<40>(kPfltdFields);

#undef S
#undef U
#undef A

template <size_t N>
constexpr bool InStructureOrder(const std::array<FieldDesc, N>& fields, size_t record_size) {
  for (size_t i = 1; i < N; ++i) {
    if (fields[i].offset < fields[i - 1].offset + fields[i - 1].size) return false;
  }
  return fields[N - 1].offset + fields[N - 1].size <= record_size;
}
static_assert(InStructureOrder(kPfltdFields, sizeof(pfltd_vsk_data_t)));
static_assert(sizeof(pfltd_vsk_data_t) == 352, "LP64 layout of the filter daemon's record");
static_assert(sizeof(pfltd_vsk_array_t) == 16 && offsetof(pfltd_vsk_array_t, count) == 8);

// Index members: blobs of tags 1 to N, in tag order.
#define B(record, tag) VSK_FIELD(record, kBlob, tag, vsk_tlv_blob_t)
constexpr std::array<FieldDesc, 3> kIpv4VrFields = {B(vsk_ipv4_vr_t, 1), B(vsk_ipv4_vr_t, 2),
                                                    B(vsk_ipv4_vr_t, 3)};
constexpr std::array<FieldDesc, 3> kIpv6VrFields = {B(vsk_ipv6_vr_t, 1), B(vsk_ipv6_vr_t, 2),
                                                    B(vsk_ipv6_vr_t, 3)};
constexpr std::array<FieldDesc, 1> kAcctSessionIdFields = {B(vsk_acct_session_id_t, 1)};
constexpr std::array<FieldDesc, 2> kUnnumIntfPrefIpFields = {B(vsk_unnum_intf_pref_ip_t, 1),
                                                             B(vsk_unnum_intf_pref_ip_t, 2)};
constexpr std::array<FieldDesc, 1> kUnderlyingInterfaceFields = {B(vsk_underlying_interface_t, 1)};
constexpr std::array<FieldDesc, 1> kProfileNameFields = {B(vsk_profile_name_t, 1)};
constexpr std::array<FieldDesc, 1> kUnderlyingInterfaceNameFields = {
    B(vsk_underlying_interface_name_t, 1)};
#undef B
#undef VSK_FIELD

constexpr auto kIpv4VrByTag = TagIndex<3>(kIpv4VrFields);
constexpr auto kIpv6VrByTag = TagIndex<3>(kIpv6VrFields);
constexpr auto kOneBlobByTag = TagIndex<1>(kAcctSessionIdFields);
constexpr auto kTwoBlobsByTag = TagIndex<2>(kUnnumIntfPrefIpFields);

template <size_t N, size_t M>
constexpr Schema MemberSchema(const std::array<FieldDesc, N>& fields,
                              const std::array<int8_t, M>& by_tag, uint32_t record_size) {
  return Schema{
      fields, by_tag, record_size, 4, VSK_INDEX_MEMBER_MASK_BYTES, RepeatRule::kAlwaysMalformed};
}

constexpr const Schema* kIndexesMembers[] = {&kIpv4VrSchema, &kIpv6VrSchema, &kAcctSessionIdSchema};
constexpr const Schema* kDupIndexesMembers[] = {&kUnnumIntfPrefIpSchema,
                                                &kUnderlyingInterfaceSchema, &kProfileNameSchema,
                                                &kUnderlyingInterfaceNameSchema};

static_assert(offsetof(vsk_indexes_t, u) == 8 && offsetof(vsk_dup_indexes_t, u) == 8);

}  // namespace

const Schema kPfltdSchema{kPfltdFields,
                          kPfltdByTag,
                          sizeof(pfltd_vsk_data_t),
                          2,
                          PFLTD_VSK_DATA_MASK_BYTES,
                          RepeatRule::kMaskKeepsFirst};

const Schema kIpv4VrSchema = MemberSchema(kIpv4VrFields, kIpv4VrByTag, sizeof(vsk_ipv4_vr_t));
const Schema kIpv6VrSchema = MemberSchema(kIpv6VrFields, kIpv6VrByTag, sizeof(vsk_ipv6_vr_t));
const Schema kAcctSessionIdSchema =
    MemberSchema(kAcctSessionIdFields, kOneBlobByTag, sizeof(vsk_acct_session_id_t));
const Schema kUnnumIntfPrefIpSchema =
    MemberSchema(kUnnumIntfPrefIpFields, kTwoBlobsByTag, sizeof(vsk_unnum_intf_pref_ip_t));
const Schema kUnderlyingInterfaceSchema =
    MemberSchema(kUnderlyingInterfaceFields, kOneBlobByTag, sizeof(vsk_underlying_interface_t));
const Schema kProfileNameSchema =
    MemberSchema(kProfileNameFields, kOneBlobByTag, sizeof(vsk_profile_name_t));
const Schema kUnderlyingInterfaceNameSchema = MemberSchema(
    kUnderlyingInterfaceNameFields, kOneBlobByTag, sizeof(vsk_underlying_interface_name_t));

const UnionSchema kIndexesSchema{kIndexesMembers, offsetof(vsk_indexes_t, u)};
const UnionSchema kDupIndexesSchema{kDupIndexesMembers, offsetof(vsk_dup_indexes_t, u)};

}  // namespace vsk::sidedata
