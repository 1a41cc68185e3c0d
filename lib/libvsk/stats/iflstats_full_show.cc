// The operator's view of a full interface statistics record, written line by line to the
// trace hook. The texts are read by people and by scripts that scrape them, so each line
// keeps its published wording, slips included (marked where they stand).
#include <cstdint>

#include "libvsk/base/trace.h"
#include "libvsk/stats/iflstats_full_db.h"
#include "vsk/libstats.h"

namespace vsk::stats {
namespace {

using ull = unsigned long long;

void ShowGeneric(const libstats_ifl_generic_t& g) {
  VSK_TRACE("generic stats for ifl:%d align:%d", g.ifl, g.align);
  VSK_TRACE("input packets:%llu bytes:%llu", ull{g.ipackets}, ull{g.ibytes});
  VSK_TRACE("output packets:%llu bytes:%llu", ull{g.opackets}, ull{g.obytes});
  VSK_TRACE("input ipv6 packets:%llu bytes:%llu", ull{g.ipv6_ipackets}, ull{g.ipv6_ibytes});
  VSK_TRACE("output ipv6 packets:%llu bytes:%llu", ull{g.ipv6_opackets}, ull{g.ipv6_obytes});
  VSK_TRACE("input pps:%u bps:%llu", g.ipps, ull{g.ibps});
  VSK_TRACE("output pps:%u bps:%llu", g.opps, ull{g.obps});
  VSK_TRACE("reqid:%d pfe-listid:%d\n", g.reqid, g.pfe_listid);
}

void ShowAggregate(const libstats_ifl_agg_t& a) {
  VSK_TRACE("ae stats for ifl:%d present:%d", a.ifl, a.present);
  VSK_TRACE("input pkts:%llu bytes:%llu", ull{a.ipackets}, ull{a.ibytes});
  VSK_TRACE("input bps:%llu input pps:%u", ull{a.ibps}, a.ipps);
  VSK_TRACE("output pkts:%llu bytes:%llu", ull{a.opackets}, ull{a.obytes});
  // Published text: no colon after "output bps".
  VSK_TRACE("output bps%llu output pps:%u", ull{a.obps}, a.opps);
  for (int i = 0; i < LIBSTATS_AGG_LINKS; ++i) {
    const libstats_ifl_agg_link_t& l = a.link[i];
    VSK_TRACE("stats for ae link:%d ifl:%d present:%d", i, l.ifl, l.present);
    VSK_TRACE("link:%d input pkts:%llu bytes:%llu", i, ull{l.ipackets}, ull{l.ibytes});
    VSK_TRACE("link:%d input bps:%llu pps:%u", i, ull{l.ibps}, l.ipps);
    VSK_TRACE("link:%d output pkts:%llu bytes:%llu", i, ull{l.opackets}, ull{l.obytes});
    VSK_TRACE("link:%d output bps:%llu pps:%u", i, ull{l.obps}, l.opps);
  }
  VSK_TRACE("reqid:%d pfe-listid:%d\n", a.reqid, a.pfe_listid);
}

void ShowQueueCounters(const libstats_ifl_qcntr_t& c) {
  VSK_TRACE("q counter stats offered-load bps:%llu output bps:%llu", ull{c.offered_bps},
            ull{c.output_bps});
  VSK_TRACE("offered load pps:%u output pps:%u", c.offered_pps, c.output_pps);
  VSK_TRACE("tail drop pps:%u rate limit drop bps:%u pps:%u", c.tail_drop_pps, c.rl_drop_bps,
            c.rl_drop_pps);
  VSK_TRACE("buf usage mu_byte:%u mu_percent:%u bu_byte:%u", c.mu_byte, c.mu_percent, c.bu_byte);
  for (int i = 0; i < 4; ++i) {
    VSK_TRACE("red drop pps[%d]:%u bps[%d]:%u", i, c.red_drop_pps[i], i, c.red_drop_bps[i]);
    VSK_TRACE("red drop pkts[%d]:%llu byte[%d]:%llu", i, ull{c.red_drop_packets[i]}, i,
              ull{c.red_drop_bytes[i]});
  }
  VSK_TRACE("offered load pkts:%llu bytes:%llu", ull{c.offered_packets}, ull{c.offered_bytes});
  VSK_TRACE("output_pkts:%llu bytes:%llu", ull{c.output_packets}, ull{c.output_bytes});
  VSK_TRACE("tail drop pkts:%llu bytes:%llu", ull{c.tail_drop_packets}, ull{c.tail_drop_bytes});
  VSK_TRACE("rate limit drop pkts:%llu\n", ull{c.rl_drop_packets});
}

void ShowQueues(const libstats_ifl_qhdr_t& h, libstats_ifl_qcntr_t* const (&counters)[8]) {
  VSK_TRACE("q hdr for ifd_index:%d desc:%d reqid:%d listid:%d", h.ifd_index, h.desc, h.reqid,
            h.listid);
  VSK_TRACE("cifd_index:%d qstart:%d num of q:%d", h.cifd_index, h.qstart, h.num_q);
  VSK_TRACE("high_threshold:%d unused:%d", h.high_threshold, h.unused);
  for (const libstats_ifl_qcntr_t* c : counters) {
    if (c != nullptr) ShowQueueCounters(*c);
  }
}

void ShowMulticast(const libstats_ifl_mcast_t& m) {
  VSK_TRACE("ipv4 mcast input: %llupackets %llubytes", ull{m.ipv4_ipackets}, ull{m.ipv4_ibytes});
  VSK_TRACE("ipv4 mcast input rate: %d pps %d bps", m.ipv4_ipps, m.ipv4_ibps);
  VSK_TRACE("ipv4 mcast output: %llupackets %llubytes", ull{m.ipv4_opackets}, ull{m.ipv4_obytes});
  VSK_TRACE("ipv4 mcast output rate: %d pps %d bps", m.ipv4_opps, m.ipv4_obps);
  VSK_TRACE("ipv6 mcast input: %llupackets %llubytes", ull{m.ipv6_ipackets}, ull{m.ipv6_ibytes});
  VSK_TRACE("ipv6 mcast input rate: %d pps %d bps", m.ipv6_ipps, m.ipv6_ibps);
  VSK_TRACE("ipv6 mcast output: %llupackets %llubytes", ull{m.ipv6_opackets}, ull{m.ipv6_obytes});
  VSK_TRACE("ipv6 mcast output rate: %d pps %d bps", m.ipv6_opps, m.ipv6_obps);
}

// Two lines per group of five classes: low, med-low and high-low, then high and drop.
void ShowPolicerGroup(const char* dir, const uint64_t (&v)[LIBSTATS_POL_CLASSES],
                      const char* what) {
  VSK_TRACE("%s: low:%llu med-low:%llu high-low:%llu %s", dir, ull{v[LIBSTATS_POL_LOW]},
            ull{v[LIBSTATS_POL_MED_LOW]}, ull{v[LIBSTATS_POL_HIGH_LOW]}, what);
  VSK_TRACE("%s: high:%llu drop:%llu %s", dir, ull{v[LIBSTATS_POL_HIGH]}, ull{v[LIBSTATS_POL_DROP]},
            what);
}

void ShowPolicer(const libstats_ifl_l2pol_t& p) {
  VSK_TRACE("l2policer stats ifl:%d align:%d", p.ifl, p.align);
  ShowPolicerGroup("input", p.in_frames, "frame count");
  ShowPolicerGroup("input", p.in_bytes, "byte count");
  ShowPolicerGroup("input", p.in_rate, "rate");
  ShowPolicerGroup("output", p.out_frames, "frame count");
  ShowPolicerGroup("output", p.out_bytes, "byte count");
  ShowPolicerGroup("output", p.out_rate, "rate");
  VSK_TRACE("l2policer reqid:%d pfe-listid:%d", p.reqid, p.pfe_listid);
}

}  // namespace

void ShowFullRecord(const libstats_iflstats_full_t* record) {
  // Every line goes to the trace hook: without one there is nothing to do (the group
  // read shows each record it sums).
  if (vsk_trace_cbk == nullptr) return;
  if (record == nullptr) {
    // Published text: "dispalyed" is part of it.
    VSK_TRACE("record for ifl full stats is NULL cannot be dispalyed");
    return;
  }
  for (int i = 0; i < LS_MAX; ++i) {
    const libstats_iflstats_full_set_t& set = record->stats[i];
    VSK_TRACE("%s", i == LS_CURRENT ? "Displaying LS_CURRENT ifl full stats"
                                    : "Displaying LS_CLEARED ifl full stats");
    VSK_TRACE("gen_num:%d version:%d", set.gen_num, set.ts);
    ShowGeneric(set.generic);
    if (set.aggr != nullptr) ShowAggregate(*set.aggr);
    if (set.q != nullptr) ShowQueues(*set.q, set.qcntr);
    if (set.inq != nullptr) ShowQueues(*set.inq, set.inqcntr);
    if (set.mcast != nullptr) ShowMulticast(*set.mcast);
    if (set.pol != nullptr) ShowPolicer(*set.pol);
  }
}

}  // namespace vsk::stats

extern "C" void libstats_iflstats_full_show_records(const libstats_iflstats_full_t* record) {
  vsk::stats::ShowFullRecord(record);
}
