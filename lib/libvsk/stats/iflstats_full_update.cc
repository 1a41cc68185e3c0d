// Taking a statistics reply of the forwarding engine into the full record of its
// interface and location, and the rate sums of aggregate bundles.
//
// Counters should only grow. A reply whose counter is below the stored one is either a
// glitch of the forwarding engine (a drop of at most 64 Ki, or zero) and the stored value
// stands, or a real reset (a larger drop) and the reply stands; the second kind is
// reported to the system log, a bounded number of times per process. The global counters
// here are per process and unlocked, like the daemon's own state.
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/stats/iflstats_full_codec.h"
#include "libvsk/stats/iflstats_full_db.h"
#include "platform/logging.h"
#include "vsk/libstats.h"

extern "C" {
uint32_t g_inflated_ifl_ipackets = 0;
uint32_t g_inflated_ifl_opackets = 0;
uint32_t g_inflated_ifl_ibytes = 0;
uint32_t g_inflated_ifl_obytes = 0;
uint32_t g_inflated_ifl_ipv6_ipackets = 0;
uint32_t g_inflated_ifl_ipv6_opackets = 0;
uint32_t g_inflated_ifl_ipv6_ibytes = 0;
uint32_t g_inflated_ifl_ipv6_obytes = 0;
uint32_t g_libstats_iflfull_stats_syslog_entries = 0;
char location_id_str[256] = {};
}

namespace vsk::stats {
namespace {

using ull = unsigned long long;
using Set = libstats_iflstats_full_set_t;

// Below a drop of this much (or to zero) a counter keeps its stored value.
constexpr uint64_t kSmallDrop = 65536;
// System log lines per process until the next clear.
constexpr uint32_t kSyslogLimit = 2000;
// Text room of location_id_str: the last byte's two digits and the NUL must fit.
constexpr uint32_t kMaxTextBytes = sizeof(location_id_str) - 2;

// The eight compared counters, in the order they are compared.
struct Counter {
  const char* name;
  uint64_t libstats_ifl_generic_t::*field;
  uint32_t* inflated;
  bool reported;  // a spike goes to the system log (the IPv4 ones)
};
const Counter kCounters[] = {
    {"ipackets", &libstats_ifl_generic_t::ipackets, &g_inflated_ifl_ipackets, true},
    {"opackets", &libstats_ifl_generic_t::opackets, &g_inflated_ifl_opackets, true},
    {"ibytes", &libstats_ifl_generic_t::ibytes, &g_inflated_ifl_ibytes, true},
    {"obytes", &libstats_ifl_generic_t::obytes, &g_inflated_ifl_obytes, true},
    {"ipv6_ipackets", &libstats_ifl_generic_t::ipv6_ipackets, &g_inflated_ifl_ipv6_ipackets, false},
    {"ipv6_opackets", &libstats_ifl_generic_t::ipv6_opackets, &g_inflated_ifl_ipv6_opackets, false},
    {"ipv6_ibytes", &libstats_ifl_generic_t::ipv6_ibytes, &g_inflated_ifl_ipv6_ibytes, false},
    {"ipv6_obytes", &libstats_ifl_generic_t::ipv6_obytes, &g_inflated_ifl_ipv6_obytes, false},
};

void Compare(const Counter& c, uint64_t stored, uint64_t* reply, uint32_t ifl,
             const char* loc_text) {
  const uint64_t got = *reply;
  if (got >= stored) return;
  if (stored - got <= kSmallDrop || got == 0) {
    *reply = stored;
    ++*c.inflated;
    VSK_TRACE("record not updated %s_record:%llu %s_reply:%llu for ifl:%d", c.name, ull{stored},
              c.name, ull{got}, ifl);
    return;
  }
  if (c.reported && g_libstats_iflfull_stats_syslog_entries < kSyslogLimit) {
    // Published text: "recived" and "pfe" are part of the message.
    platform::SystemLog(LOG_ERR,
                        "downward spike recived from pfe for %s_reply:%llu %s_record:%llu for "
                        "ifl:%d loc_id:%s",
                        c.name, ull{got}, c.name, ull{stored}, ifl, loc_text);
    ++g_libstats_iflfull_stats_syslog_entries;
  }
}

// Gives LS_CLEARED of a new record a zeroed section for each section LS_CURRENT has. A
// section that cannot be allocated is left out, and the record is written without it.
void ZeroClearedSet(const Set& current, Set* cleared, uint32_t ifl, const void* loc_id) {
  // Names in the allocation trace, by pointer section (mcast, pol, aggr, ml, es, ce, atm,
  // q, inq). Published text: the policer is "ce l2policers".
  static constexpr const char* kNames[kPointerSections] = {
      "mcast", "ce l2policers", "aggr", "ml", "es", "ce", "atm", "q", "in_q"};
  *cleared = Set{};
  for (int i = 0; i < kPointerSections; ++i) {
    const PointerSection& s = kPointerSection[i];
    if (SlotOf(&current, s) == nullptr) continue;
    void* p = std::calloc(1, s.size);
    if (p == nullptr) {
      VSK_TRACE("mem alloc failed for iflstats_full %s stats ifl:%d loc_id:%p", kNames[i], ifl,
                loc_id);
    }
    SlotOf(cleared, s) = p;
  }
  struct Counters {
    libstats_ifl_qcntr_t* const* from;
    libstats_ifl_qcntr_t** to;
    const char* name;
  };
  for (Counters c : {Counters{current.qcntr, cleared->qcntr, "q_c"},
                     Counters{current.inqcntr, cleared->inqcntr, "in_q_c"}}) {
    for (int q = 0; q < LIBSTATS_MAX_QUEUES; ++q) {
      if (c.from[q] == nullptr) continue;
      c.to[q] = static_cast<libstats_ifl_qcntr_t*>(std::calloc(1, sizeof(libstats_ifl_qcntr_t)));
      if (c.to[q] == nullptr) {
        VSK_TRACE("mem alloc failed for iflstats_full %s stats ifl:%d loc_id:%p", c.name, ifl,
                  loc_id);
      }
    }
  }
  cleared->ts = current.ts;
  cleared->gen_num = current.gen_num;
}

// The reply's sections become LS_CURRENT's; they stay the caller's.
void TakeReply(Set* current, const Set& reply, uint32_t ifl) {
  *current = reply;
  current->generic.ifl = ifl;
}

vsk_status_t Update(uint32_t ifl, Set* reply, const uint8_t* loc_id, uint16_t loc_id_len,
                    int show) {
  auto* record =
      static_cast<libstats_iflstats_full_t*>(std::calloc(1, sizeof(libstats_iflstats_full_t)));
  if (record == nullptr) {
    VSK_TRACE("mem allocation failed for record");
    return VSK_ERR_FATAL;
  }
  auto* loc = static_cast<uint8_t*>(std::calloc(1, loc_id_len + 1u));
  if (loc == nullptr) {
    std::free(record);
    return VSK_ERR_FATAL;
  }
  if (loc_id_len != 0) std::memcpy(loc, loc_id, loc_id_len);
  record->ifl = ifl;
  record->loc_id_len = loc_id_len;
  record->loc_id = loc;
  const char* loc_text = LocationText(loc_id_len, loc);
  VSK_TRACE("updating record in stats db for ifl:%d loc_id:%s", ifl, loc_text);

  vsk_status_t st = GetFullRecord(record);
  const bool found = st == VSK_OK;
  if (found) {
    FreeSet(&record->stats[LS_CURRENT]);  // its generic values stay, for the comparison
  } else if (st == VSK_ERR_NOT_FOUND) {
    VSK_TRACE("iflstats_full for ifl:%d loc_id:%s err:%d not found in db", ifl, loc_text, st);
    std::memset(record->stats, 0, sizeof(record->stats));
  } else {
    VSK_TRACE("iflstats_full for ifl:%d loc_id:%s err:%d db retrieval error", ifl, loc_text, st);
  }
  if (found || st == VSK_ERR_NOT_FOUND) {
    Set& current = record->stats[LS_CURRENT];
    for (const Counter& c : kCounters) {
      Compare(c, current.generic.*c.field, &(reply->generic.*c.field), ifl, loc_text);
    }
    TakeReply(&current, *reply, ifl);
    if (!found) ZeroClearedSet(current, &record->stats[LS_CLEARED], ifl, loc);
    st = WriteFullRecord(record);
    if (st != VSK_OK) {
      VSK_TRACE("iflstats_full for ifl:%d loc_id:%p err:%d db write failed", ifl, loc, st);
    }
  }
  if (show == 1) ShowFullRecord(record);
  record->stats[LS_CURRENT] = Set{};  // the reply's sections go back to the caller
  FreeSet(&record->stats[LS_CLEARED]);
  std::free(record->loc_id);
  std::free(record);
  return st;
}

}  // namespace

char* LocationText(uint32_t length, const uint8_t* bytes) {
  std::memset(location_id_str, 0, sizeof(location_id_str));
  if (bytes == nullptr) return location_id_str;
  const uint32_t n = length < kMaxTextBytes ? length : kMaxTextBytes;
  // Each byte is printed one position behind the last, over the previous one's second
  // digit: every byte but the last leaves its first hexadecimal digit only.
  for (uint32_t i = 0; i < n; ++i) {
    std::snprintf(location_id_str + i, sizeof(location_id_str) - i, "%X", bytes[i]);
  }
  return location_id_str;
}

void CopyAggRates(libstats_iflstats_full_t* results, const libstats_agg_rates_t* rates) {
  static constexpr const char kName[] = "libstats_iflstats_full_copy_agg_bps_pps";
  if (results == nullptr || rates == nullptr) {
    VSK_TRACE("%s %d failed to update the agg bps and pps", kName, __LINE__);
    return;
  }
  libstats_ifl_agg_t* aggr = results->stats[LS_CURRENT].aggr;
  if (aggr == nullptr) {
    VSK_TRACE("%s %d not an agg IFL", kName, __LINE__);
    return;
  }
  aggr->ibps = rates->ibps;
  aggr->obps = rates->obps;
  aggr->ipps = rates->ipps;
  aggr->opps = rates->opps;
  // Positions are compared one to one: link i takes rate record i if the children match.
  for (int i = 0; i < LIBSTATS_AGG_LINKS; ++i) {
    libstats_ifl_agg_link_t& l = aggr->link[i];
    const libstats_agg_link_rate_t& r = rates->link[i];
    if (l.ifl != r.ifl) continue;
    l.ibps = r.ibps;
    l.ipps = r.ipps;
    l.obps = r.obps;
    l.opps = r.opps;
    VSK_TRACE("input bps:%llu pps:%d output bps:%llu pps:%d for child ifl:%d", ull{l.ibps}, l.ipps,
              ull{l.obps}, l.opps, l.ifl);
  }
}

}  // namespace vsk::stats

extern "C" {

char* fwdd_convert_location_id_str(uint32_t length, const uint8_t* bytes) {
  return vsk::stats::LocationText(length, bytes);
}

vsk_status_t libstats_iflstats_full_update_record_in_db(uint32_t ifl,
                                                        libstats_iflstats_full_set_t* reply,
                                                        const uint8_t* loc_id, uint16_t loc_id_len,
                                                        int show) {
  if (reply == nullptr || (loc_id == nullptr && loc_id_len != 0)) return VSK_ERR_INVALID_PARAM;
  return vsk::stats::Update(ifl, reply, loc_id, loc_id_len, show);
}

void libstats_iflstats_full_clear_syslog_entries_counter(void) {
  g_libstats_iflfull_stats_syslog_entries = 0;
}

void libstats_iflstats_full_agg_bps_pps(uint32_t ifl, uint8_t trace, libstats_agg_rates_t* rates,
                                        const libstats_iflstats_full_set_t* set) {
  using ull = unsigned long long;
  if (set == nullptr || set->aggr == nullptr || rates == nullptr) {
    if (trace) VSK_TRACE("failed to update bps/pps for ifl:%d", ifl);
    return;
  }
  for (int i = 0; i < LIBSTATS_AGG_LINKS; ++i) {
    const libstats_ifl_agg_link_t& l = set->aggr->link[i];
    if (l.present == 0) continue;
    rates->ibps += l.ibps;
    rates->ipps += l.ipps;
    rates->obps += l.obps;
    rates->opps += l.opps;
    libstats_agg_link_rate_t& r = rates->link[i];
    r.ibps += l.ibps;
    r.ipps += l.ipps;
    r.obps += l.obps;
    r.opps += l.opps;
    r.ifl = l.ifl;
    if (trace) {
      VSK_TRACE("input bps:%llu pps:%d output bps:%llu pps:%d for child ifl:%d", ull{l.ibps},
                l.ipps, ull{l.obps}, l.opps, l.ifl);
    }
  }
  if (trace) {
    // Published text: the line starts with a blank.
    VSK_TRACE(" bundle input bps:%llu pps:%d output bps:%llu pps:%d for ifl:%d", ull{rates->ibps},
              rates->ipps, ull{rates->obps}, rates->opps, ifl);
  }
}

void libstats_iflstats_full_copy_agg_bps_pps(libstats_iflstats_full_t* results,
                                             const libstats_agg_rates_t* rates) {
  vsk::stats::CopyAggRates(results, rates);
}

}  // extern "C"
