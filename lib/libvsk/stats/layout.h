// The byte layouts of the statistics records, pinned. Stored values are memory images in
// host order, so every offset below is also an offset on disk.
#pragma once

#include <cstddef>

#include "vsk/libstats.h"

namespace vsk::stats {

// iflstats: a 200-byte packed value behind an 8-byte index and the name.
static_assert(sizeof(libstats_iflstats_counters_t) == 196);
static_assert(sizeof(libstats_iflstats_value_t) == LIBSTATS_IFLSTATS_VALUE_SIZE);
static_assert(offsetof(libstats_iflstats_value_t, magic) == 0);
static_assert(offsetof(libstats_iflstats_value_t, version) == 1);
static_assert(offsetof(libstats_iflstats_value_t, stats) == 4);
static_assert(offsetof(libstats_iflstats_value_t, stats.counters) == 8);
static_assert(offsetof(libstats_iflstats_value_t, stats.ext_counters) == 104);
static_assert(offsetof(libstats_iflstats_t, name_len) == 8);
static_assert(offsetof(libstats_iflstats_t, name) == 10);
static_assert(offsetof(libstats_iflstats_t, value) == 10 + sizeof(char*));

// servstats: the key, then a 32-byte header, then the entries.
static_assert(sizeof(libstats_servstats_t) == 8 + LIBSTATS_SERVSTATS_HEADER_SIZE);
static_assert(offsetof(libstats_servstats_t, magic) == 8 + 0);
static_assert(offsetof(libstats_servstats_t, version) == 8 + 1);
static_assert(offsetof(libstats_servstats_t, entry_count) == 8 + 28);
static_assert(offsetof(libstats_servstats_t, entry_extra_len) == 8 + 30);
static_assert(LIBSTATS_SERVSTATS_ENTRY_SIZE(4) == 72 && LIBSTATS_SERVSTATS_ENTRY_SIZE(5) == 80);

// iflstats_full sections.
static_assert(sizeof(libstats_ifl_generic_t) == 112);
static_assert(offsetof(libstats_ifl_generic_t, reported_ifl) == 8);
static_assert(offsetof(libstats_ifl_generic_t, align) == 12);
static_assert(offsetof(libstats_ifl_generic_t, ipackets) == 16);
static_assert(offsetof(libstats_ifl_generic_t, ibytes) == 24);
static_assert(offsetof(libstats_ifl_generic_t, opackets) == 32);
static_assert(offsetof(libstats_ifl_generic_t, obytes) == 40);
static_assert(offsetof(libstats_ifl_generic_t, ipv6_ipackets) == 48);
static_assert(offsetof(libstats_ifl_generic_t, ipv6_obytes) == 72);
static_assert(offsetof(libstats_ifl_generic_t, ipps) == 80);
static_assert(offsetof(libstats_ifl_generic_t, opps) == 84);
static_assert(offsetof(libstats_ifl_generic_t, ibps) == 88);
static_assert(offsetof(libstats_ifl_generic_t, obps) == 96);
static_assert(offsetof(libstats_ifl_generic_t, reqid) == 104);
static_assert(offsetof(libstats_ifl_generic_t, pfe_listid) == 106);

static_assert(sizeof(libstats_ifl_mcast_t) == 104);
static_assert(offsetof(libstats_ifl_mcast_t, ipv4_ipackets) == 8);
static_assert(offsetof(libstats_ifl_mcast_t, ipv4_obytes) == 32);
static_assert(offsetof(libstats_ifl_mcast_t, ipv4_ipps) == 40);
static_assert(offsetof(libstats_ifl_mcast_t, ipv4_obps) == 52);
static_assert(offsetof(libstats_ifl_mcast_t, ipv6_ipackets) == 56);
static_assert(offsetof(libstats_ifl_mcast_t, ipv6_obytes) == 80);
static_assert(offsetof(libstats_ifl_mcast_t, ipv6_ipps) == 88);
static_assert(offsetof(libstats_ifl_mcast_t, ipv6_obps) == 100);

static_assert(sizeof(libstats_ifl_l2pol_t) == 264);
static_assert(offsetof(libstats_ifl_l2pol_t, ifl) == 8);
static_assert(offsetof(libstats_ifl_l2pol_t, in_frames) == 16);
static_assert(offsetof(libstats_ifl_l2pol_t, in_bytes) == 56);
static_assert(offsetof(libstats_ifl_l2pol_t, in_rate) == 96);
static_assert(offsetof(libstats_ifl_l2pol_t, out_frames) == 136);
static_assert(offsetof(libstats_ifl_l2pol_t, out_bytes) == 176);
static_assert(offsetof(libstats_ifl_l2pol_t, out_rate) == 216);
static_assert(offsetof(libstats_ifl_l2pol_t, reqid) == 256);
static_assert(offsetof(libstats_ifl_l2pol_t, pfe_listid) == 258);

static_assert(sizeof(libstats_ifl_agg_link_t) == 64);
static_assert(offsetof(libstats_ifl_agg_link_t, present) == 4);
static_assert(offsetof(libstats_ifl_agg_link_t, ipackets) == 8);
static_assert(offsetof(libstats_ifl_agg_link_t, ibps) == 24);
static_assert(offsetof(libstats_ifl_agg_link_t, opackets) == 32);
static_assert(offsetof(libstats_ifl_agg_link_t, obps) == 48);
static_assert(offsetof(libstats_ifl_agg_link_t, ipps) == 56);
static_assert(offsetof(libstats_ifl_agg_link_t, opps) == 60);
static_assert(sizeof(libstats_ifl_agg_t) == 2128);
static_assert(offsetof(libstats_ifl_agg_t, ifl) == 8);
static_assert(offsetof(libstats_ifl_agg_t, present) == 12);
static_assert(offsetof(libstats_ifl_agg_t, ipackets) == 16);
static_assert(offsetof(libstats_ifl_agg_t, ibps) == 32);
static_assert(offsetof(libstats_ifl_agg_t, opackets) == 40);
static_assert(offsetof(libstats_ifl_agg_t, obps) == 56);
static_assert(offsetof(libstats_ifl_agg_t, ipps) == 64);
static_assert(offsetof(libstats_ifl_agg_t, opps) == 68);
static_assert(offsetof(libstats_ifl_agg_t, link) == 72);
static_assert(offsetof(libstats_ifl_agg_t, reqid) == 2120);
static_assert(offsetof(libstats_ifl_agg_t, pfe_listid) == 2122);

static_assert(sizeof(libstats_ifl_ml_t) == 1304 && sizeof(libstats_ifl_es_t) == 36);
static_assert(sizeof(libstats_ifl_ce_t) == 76 && sizeof(libstats_ifl_atm_t) == 968);

static_assert(sizeof(libstats_ifl_qhdr_t) == 40);
static_assert(offsetof(libstats_ifl_qhdr_t, ifd_index) == 12);
static_assert(offsetof(libstats_ifl_qhdr_t, desc) == 16);
static_assert(offsetof(libstats_ifl_qhdr_t, reqid) == 20);
static_assert(offsetof(libstats_ifl_qhdr_t, listid) == 22);
static_assert(offsetof(libstats_ifl_qhdr_t, cifd_index) == 24);
static_assert(offsetof(libstats_ifl_qhdr_t, qstart) == 28);
static_assert(offsetof(libstats_ifl_qhdr_t, num_q) == 30);
static_assert(offsetof(libstats_ifl_qhdr_t, high_threshold) == 32);
static_assert(offsetof(libstats_ifl_qhdr_t, unused) == 36);

static_assert(sizeof(libstats_ifl_qcntr_t) == 216);
static_assert(offsetof(libstats_ifl_qcntr_t, offered_bps) == 8);
static_assert(offsetof(libstats_ifl_qcntr_t, output_bps) == 16);
static_assert(offsetof(libstats_ifl_qcntr_t, offered_pps) == 24);
static_assert(offsetof(libstats_ifl_qcntr_t, tail_drop_pps) == 32);
static_assert(offsetof(libstats_ifl_qcntr_t, bu_byte) == 52);
static_assert(offsetof(libstats_ifl_qcntr_t, red_drop_pps) == 56);
static_assert(offsetof(libstats_ifl_qcntr_t, red_drop_bps) == 72);
static_assert(offsetof(libstats_ifl_qcntr_t, offered_packets) == 88);
static_assert(offsetof(libstats_ifl_qcntr_t, rl_drop_packets) == 136);
static_assert(offsetof(libstats_ifl_qcntr_t, reserved) == 144);
static_assert(offsetof(libstats_ifl_qcntr_t, red_drop_packets) == 152);
static_assert(offsetof(libstats_ifl_qcntr_t, red_drop_bytes) == 184);

// The TLV header: tag and length, each 16-bit; the length counts the header.
inline constexpr uint32_t kTlvHeader = 4;
// Both generic TLVs, and the ts and gen_num TLVs of both sets: always present.
inline constexpr uint32_t kFixedTlvBytes = 2 * (kTlvHeader + 112) + 4 * (kTlvHeader + 4);
static_assert(kFixedTlvBytes == 264);

}  // namespace vsk::stats

namespace vsk::stats {

static_assert(sizeof(libstats_agg_link_rate_t) == 28);
static_assert(offsetof(libstats_agg_link_rate_t, ibps) == 8);
static_assert(offsetof(libstats_agg_link_rate_t, ifl) == 24);
static_assert(sizeof(libstats_agg_rates_t) == 920);
static_assert(offsetof(libstats_agg_rates_t, link) == 24);
// The child of bundle link table entry i is at byte 148 + 144 * i.
static_assert(offsetof(libstats_agg_link_table_t, link) == 148);
static_assert(sizeof(libstats_agg_link_table_t::link[0]) == 144);

}  // namespace vsk::stats
