// Clear, delete and sum over the group of full records of one interface, found through
// the secondary index by interface (one record per forwarding location).
//
// Each operation is one transaction over one cursor on the secondary table. Clear and
// delete take write locks as they go, so that a group is cleared or deleted wholly or not
// at all; the sum reads committed data only and writes nothing.
#include <db.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "libvsk/base/trace.h"
#include "libvsk/stats/iflstats_full_codec.h"
#include "libvsk/stats/iflstats_full_db.h"
#include "libvsk/stats/sec_index.h"
#include "libvsk/store/txn.h"
#include "vsk/libstats.h"

namespace vsk::stats {
namespace {

using Set = libstats_iflstats_full_set_t;
using Record = libstats_iflstats_full_t;

Record* NewRecord() { return static_cast<Record*>(std::calloc(1, sizeof(Record))); }

// A copy of `n` bytes as a section, or null.
void* Duplicate(const void* src, size_t n) {
  void* p = std::malloc(n);
  if (p != nullptr) std::memcpy(p, src, n);
  return p;
}

// ---- clear ------------------------------------------------------------------------------

// LS_CLEARED becomes a copy of LS_CURRENT, section by section; its ts and gen_num stay.
// False when a copy cannot be allocated.
bool MoveBaseline(Record* r) {
  Set& current = r->stats[LS_CURRENT];
  Set& cleared = r->stats[LS_CLEARED];
  FreeSet(&cleared);
  cleared.generic = current.generic;
  bool ok = true;
  for (const PointerSection& s : kPointerSection) {
    if (const void* p = SlotOf(&current, s); p != nullptr) {
      ok = (SlotOf(&cleared, s) = Duplicate(p, s.size)) != nullptr && ok;
    }
  }
  for (int q = 0; q < LIBSTATS_MAX_QUEUES; ++q) {
    for (auto [from, to] :
         {std::pair{current.qcntr, cleared.qcntr}, std::pair{current.inqcntr, cleared.inqcntr}}) {
      if (from[q] == nullptr) continue;
      to[q] = static_cast<libstats_ifl_qcntr_t*>(Duplicate(from[q], sizeof(*from[q])));
      ok = to[q] != nullptr && ok;
    }
  }
  return ok;
}

vsk_status_t ClearUsingCursor(uint32_t index, DB_TXN* txn, DBC* cursor, uint32_t* count) {
  static constexpr const char kName[] = "libstats_iflstats_full_clear_using_cursor";
  Record* r = NewRecord();
  if (r == nullptr) {
    VSK_TRACE("%s %d:malloc failure for record\n", kName, __LINE__);
    return VSK_ERR_FATAL;
  }
  DBT skey = InDbt(&index, sizeof(index));
  DBT pkey{};
  DBT data{};
  vsk_status_t st = VSK_OK;
  for (uint32_t flags = DB_SET | DB_RMW;; flags = DB_NEXT_DUP | DB_RMW) {
    st = get_vsk_err(cursor->pget(cursor, &skey, &pkey, &data, flags));
    if (st != VSK_OK) break;
    if (pkey.size <= sizeof(uint32_t)) {
      // Published text: "initilaize" is part of it. A key without a location is not one
      // this module wrote: the group is left as it was.
      VSK_TRACE("failed to initilaize the key for the stats to be cleared");
      st = VSK_ERR_CORRUPT;
      break;
    }
    r->ifl = index;
    r->loc_id_len = static_cast<uint16_t>(pkey.size - sizeof(uint32_t));
    r->loc_id = static_cast<uint8_t*>(std::calloc(1, r->loc_id_len + 1u));
    if (r->loc_id == nullptr) {
      st = VSK_ERR_NOMEM;
      break;
    }
    std::memcpy(r->loc_id, static_cast<uint8_t*>(pkey.data) + sizeof(uint32_t), r->loc_id_len);
    VSK_TRACE("loc_id:%p, ifl:%d loc_id_len:%d", static_cast<void*>(r->loc_id), r->ifl,
              r->loc_id_len);
    int ret = DecodeIflstatsFull(static_cast<const uint8_t*>(data.data), data.size, r);
    if (ret != 0) {
      VSK_TRACE("copy from data to record failed:%d\n", ret);
      st = get_vsk_err(ret);
    } else if (!MoveBaseline(r)) {
      st = VSK_ERR_NOMEM;
    } else {
      st = PutFullRecord(txn, *r, "libstats_iflstats_full_clear_stats_in_db");
      if (st != VSK_OK) {
        VSK_TRACE("%s: iflstats full cleared failed ret:%d",
                  "libstats_iflstats_full_clear_stats_in_db", st);
      }
    }
    FreeSets(r);
    std::free(r->loc_id);
    *r = Record{};
    if (st != VSK_OK) break;
    ++*count;
  }
  std::free(r);
  return st;
}

// ---- get (sum) --------------------------------------------------------------------------

template <typename T, size_t N>
void AddArray(T (&to)[N], const T (&from)[N]) {
  for (size_t i = 0; i < N; ++i) to[i] += from[i];
}

void AddGeneric(libstats_ifl_generic_t* to, const libstats_ifl_generic_t& from) {
  to->ipackets += from.ipackets;
  to->ibytes += from.ibytes;
  to->opackets += from.opackets;
  to->obytes += from.obytes;
  to->ipv6_ipackets += from.ipv6_ipackets;
  to->ipv6_ibytes += from.ipv6_ibytes;
  to->ipv6_opackets += from.ipv6_opackets;
  to->ipv6_obytes += from.ipv6_obytes;
  to->ipps += from.ipps;
  to->opps += from.opps;
  to->ibps += from.ibps;
  to->obps += from.obps;
}

// The section of the sum where `from` is added: the existing one, or a new zeroed one.
// Null (traced under `name`) when it cannot be allocated; the section is then skipped.
template <typename T>
T* SumSection(T** slot, const char* name) {
  if (*slot == nullptr) {
    *slot = static_cast<T*>(std::calloc(1, sizeof(T)));
    if (*slot == nullptr) VSK_TRACE("%s %d: fail to calloc mem\n", name, __LINE__);
  }
  return *slot;
}

void AddMcast(libstats_ifl_mcast_t* to, const libstats_ifl_mcast_t& f) {
  to->ipv4_ipackets += f.ipv4_ipackets;
  to->ipv4_opackets += f.ipv4_opackets;
  to->ipv4_ibytes += f.ipv4_ibytes;
  to->ipv4_obytes += f.ipv4_obytes;
  to->ipv4_ipps += f.ipv4_ipps;
  to->ipv4_opps += f.ipv4_opps;
  to->ipv4_ibps += f.ipv4_ibps;
  to->ipv4_obps += f.ipv4_obps;
  to->ipv6_ipackets += f.ipv6_ipackets;
  to->ipv6_opackets += f.ipv6_opackets;
  to->ipv6_ibytes += f.ipv6_ibytes;
  to->ipv6_obytes += f.ipv6_obytes;
  to->ipv6_ipps += f.ipv6_ipps;
  to->ipv6_opps += f.ipv6_opps;
  to->ipv6_ibps += f.ipv6_ibps;
  to->ipv6_obps += f.ipv6_obps;
}

void AddPolicer(libstats_ifl_l2pol_t* to, const libstats_ifl_l2pol_t& f) {
  AddArray(to->in_frames, f.in_frames);
  AddArray(to->in_bytes, f.in_bytes);
  AddArray(to->in_rate, f.in_rate);
  AddArray(to->out_frames, f.out_frames);
  AddArray(to->out_bytes, f.out_bytes);
  AddArray(to->out_rate, f.out_rate);
}

void AddQueueCounters(libstats_ifl_qcntr_t* to, const libstats_ifl_qcntr_t& f) {
  to->offered_bps += f.offered_bps;
  to->output_bps += f.output_bps;
  to->offered_pps += f.offered_pps;
  to->output_pps += f.output_pps;
  to->tail_drop_pps += f.tail_drop_pps;
  to->rl_drop_bps += f.rl_drop_bps;
  to->rl_drop_pps += f.rl_drop_pps;
  to->mu_byte += f.mu_byte;
  to->mu_percent += f.mu_percent;
  to->bu_byte += f.bu_byte;
  AddArray(to->red_drop_pps, f.red_drop_pps);
  AddArray(to->red_drop_bps, f.red_drop_bps);
  to->offered_packets += f.offered_packets;
  to->offered_bytes += f.offered_bytes;
  to->output_packets += f.output_packets;
  to->output_bytes += f.output_bytes;
  to->tail_drop_packets += f.tail_drop_packets;
  to->tail_drop_bytes += f.tail_drop_bytes;
  to->rl_drop_packets += f.rl_drop_packets;
  AddArray(to->red_drop_packets, f.red_drop_packets);
  AddArray(to->red_drop_bytes, f.red_drop_bytes);
}

const libstats_ifl_agg_link_t* FindLink(const libstats_ifl_agg_t& a, uint32_t child) {
  for (const libstats_ifl_agg_link_t& l : a.link) {
    if (l.ifl == child) return &l;
  }
  return nullptr;
}

// Child links are summed in the order of the caller's link table; the bundle's rates are
// the sum of its links' rates, not of the records' bundle fields.
void AddAggregate(libstats_ifl_agg_t* to, const libstats_ifl_agg_t& from,
                  const libstats_agg_link_table_t& links) {
  to->present = from.present;
  to->ifl = from.ifl;
  to->ipackets += from.ipackets;
  to->ibytes += from.ibytes;
  to->opackets += from.opackets;
  to->obytes += from.obytes;
  for (int i = 0; i < LIBSTATS_AGG_LINKS; ++i) {
    const uint32_t child = links.link[i].ifl;
    const libstats_ifl_agg_link_t* k = FindLink(from, child);
    if (k == nullptr) continue;
    auto* j = const_cast<libstats_ifl_agg_link_t*>(FindLink(*to, child));
    if (j == nullptr) {
      to->link[i] = *k;
    } else {
      j->ipackets += k->ipackets;
      j->ibytes += k->ibytes;
      j->opackets += k->opackets;
      j->obytes += k->obytes;
      j->ibps += k->ibps;
      j->obps += k->obps;
      j->ipps += k->ipps;
      j->opps += k->opps;
      j->ifl = k->ifl;
      j->present = k->present;
    }
    to->ibps += k->ibps;
    to->ipps += k->ipps;
    to->obps += k->obps;
    to->opps += k->opps;
  }
}

void AddQueues(libstats_ifl_qhdr_t** to_q, const libstats_ifl_qhdr_t* from_q,
               libstats_ifl_qcntr_t** to_c, libstats_ifl_qcntr_t* const* from_c) {
  if (from_q != nullptr) {
    if (*to_q == nullptr) {
      *to_q = static_cast<libstats_ifl_qhdr_t*>(Duplicate(from_q, sizeof(*from_q)));
      if (*to_q == nullptr) {
        VSK_TRACE("%s %d: fail to calloc mem\n", "libstats_iflstats_full_add_q_stats", __LINE__);
      }
    } else {
      (*to_q)->num_q = from_q->num_q;
    }
  }
  for (int q = 0; q < LIBSTATS_MAX_QUEUES; ++q) {
    if (from_c[q] == nullptr) continue;
    if (auto* c = SumSection(&to_c[q], "libstats_iflstats_full_add_qcntrs_stats")) {
      AddQueueCounters(c, *from_c[q]);
    }
  }
}

// Adds one set into the sum's set. ml, es, ce, atm, ts and gen_num stay the first
// record's.
void AddSet(Set* to, const Set& from, const libstats_agg_link_table_t* links) {
  AddGeneric(&to->generic, from.generic);
  if (from.mcast != nullptr) {
    if (auto* m = SumSection(&to->mcast, "libstats_iflstats_full_add_mcast_stats")) {
      AddMcast(m, *from.mcast);
    }
  }
  if (from.pol != nullptr) {
    if (auto* p = SumSection(&to->pol, "libstats_iflstats_full_add_l2pol_stats")) {
      AddPolicer(p, *from.pol);
    }
  }
  if (to->aggr != nullptr && from.aggr != nullptr && links != nullptr) {
    AddAggregate(to->aggr, *from.aggr, *links);
  }
  AddQueues(&to->q, from.q, to->qcntr, from.qcntr);
  AddQueues(&to->inq, from.inq, to->inqcntr, from.inqcntr);
}

// Sums the group into a new record (null when none can be made); *count the records read.
Record* GetUsingCursor(DBC* cursor, uint32_t index, uint32_t* count,
                       const libstats_agg_link_table_t* links) {
  static constexpr const char kName[] = "libstats_iflstats_full_get_using_cursor";
  Record* sum = NewRecord();
  if (sum == nullptr) VSK_TRACE("%s %d:malloc failure for results\n", kName, __LINE__);
  Record* work = NewRecord();
  if (work == nullptr) VSK_TRACE("%s %d:malloc failure for record\n", kName, __LINE__);
  if (sum == nullptr || work == nullptr) {
    std::free(sum);
    std::free(work);
    return nullptr;
  }
  DBT skey = InDbt(&index, sizeof(index));
  DBT pkey{};
  DBT data{};
  for (uint32_t flags = DB_SET; cursor->pget(cursor, &skey, &pkey, &data, flags) == 0;
       flags = DB_NEXT_DUP) {
    const auto* value = static_cast<const uint8_t*>(data.data);
    int ret = DecodeIflstatsFull(value, data.size, work);
    if (ret == 0) ShowFullRecord(work);
    if (ret != 0) {
      FreeSets(work);
      FreeSets(sum);
      std::free(sum->loc_id);
      std::free(sum);
      sum = nullptr;
      VSK_TRACE("copy from data to record failed:%d\n", ret);
      break;
    }
    if (*count != 0) {
      for (int s = 0; s < LS_MAX; ++s) AddSet(&sum->stats[s], work->stats[s], links);
    } else {
      // The first record is the sum so far: its sections move over as decoded.
      std::memcpy(sum->stats, work->stats, sizeof(sum->stats));
      std::memset(work->stats, 0, sizeof(work->stats));
      const auto* key = static_cast<const uint8_t*>(pkey.data);
      std::memcpy(&sum->ifl, key, std::min<size_t>(pkey.size, sizeof(uint32_t)));
      const uint32_t loc_len = pkey.size > sizeof(uint32_t) ? pkey.size - sizeof(uint32_t) : 0;
      sum->loc_id = static_cast<uint8_t*>(std::calloc(1, loc_len + 1));
      if (sum->loc_id != nullptr) {
        std::memcpy(sum->loc_id, key + sizeof(uint32_t), loc_len);
        sum->loc_id_len = static_cast<uint16_t>(loc_len);
      }
    }
    FreeSets(work);
    std::memset(work->stats, 0, sizeof(work->stats));
    ++*count;
    VSK_TRACE("%s %d: ifl:%d loc_id:%s num of iflstats_full found:%d", kName, __LINE__, sum->ifl,
              sum->loc_id != nullptr ? reinterpret_cast<char*>(sum->loc_id) : "", *count);
  }
  std::free(work);
  ShowFullRecord(sum);
  return sum;
}

// ---- the group walk -----------------------------------------------------------------------

// Transactions and cursors of calls with an unknown operation code: they stay open, as
// the caller was promised nothing else, until the statistics tables close.
std::mutex g_left_open_mu;
std::vector<std::pair<DB_TXN*, DBC*>> g_left_open;

vsk_status_t DeleteGroup(DBC* cursor, const void* index, uint32_t size) {
  DBT key = InDbt(index, size);
  DBT data{};
  data.flags = DB_DBT_PARTIAL;  // the value is not needed, only the position
  // Each deletion in the secondary removes the primary record too; the next positioning
  // finds the next duplicate.
  while (cursor->get(cursor, &key, &data, DB_SET | DB_RMW) == 0) {
    if (cursor->del(cursor, 0) != 0) break;
  }
  return VSK_OK;
}

}  // namespace

vsk_status_t GroupWalk::Begin(const char* caller, DB* secondary, const char* cursor_failure) {
  if (!StoreUsable(caller)) return VSK_ERR_FATAL;
  vsk_db_txn_t block{};
  // Published result: the truth value of the failure, not its status.
  if (store::StartTxn(&block) != VSK_OK) return 1;
  txn_ = block.txn;
  vsk_status_t st = get_vsk_err(secondary->cursor(secondary, txn_, &cursor_, DB_READ_COMMITTED));
  if (st != VSK_OK) {
    cursor_ = nullptr;
    Abort();
    VSK_TRACE(cursor_failure, caller, st);
  }
  return st;
}

vsk_status_t GroupWalk::CloseCursor() {
  vsk_status_t st = cursor_ != nullptr ? get_vsk_err(cursor_->close(cursor_)) : VSK_OK;
  cursor_ = nullptr;
  return st;
}

vsk_status_t GroupWalk::Commit() {
  vsk_db_txn_t block{txn_, nullptr, nullptr};
  txn_ = nullptr;
  return store::EndTxn(&block);
}

vsk_status_t GroupWalk::Abort() {
  vsk_db_txn_t block{txn_, nullptr, nullptr};
  txn_ = nullptr;
  return store::AbortTxn(&block, VSK_OK);
}

void GroupWalk::LeaveOpen() {
  std::lock_guard<std::mutex> lock(g_left_open_mu);
  g_left_open.emplace_back(txn_, cursor_);
  txn_ = nullptr;
  cursor_ = nullptr;
}

GroupWalk::~GroupWalk() {
  CloseCursor();
  if (txn_ != nullptr) Abort();
}

void CloseLeftOpen() {
  std::lock_guard<std::mutex> lock(g_left_open_mu);
  for (auto [txn, cursor] : g_left_open) {
    if (vsk_in_panic) continue;
    cursor->close(cursor);
    txn->abort(txn);
  }
  g_left_open.clear();
}

vsk_status_t DeleteGroupRecords(GroupWalk* walk, const void* index, uint32_t size) {
  DeleteGroup(walk->cursor(), index, size);
  walk->CloseCursor();
  walk->Commit();
  return VSK_OK;
}

vsk_status_t FullOpUsingSecIndex(uint32_t index, int32_t op, uint32_t* count,
                                 libstats_iflstats_full_t** results,
                                 const libstats_agg_link_table_t* links,
                                 const libstats_agg_rates_t* rates) {
  static constexpr const char kName[] = "libstats_iflstats_full_op_using_sec_index";
  GroupWalk walk;
  vsk_status_t st = walk.Begin(kName, g_stats.iflstats_full_sec_db);
  if (st != VSK_OK) return st;
  switch (op) {
    case LIBSTATS_OP_CLEAR: {
      static constexpr const char kClear[] = "libstats_iflstats_full_clear_using_cursor";
      *count = 0;
      st = ClearUsingCursor(index, walk.txn(), walk.cursor(), count);
      VSK_TRACE("%s: closed cursor:%d", kClear, walk.CloseCursor());
      // The group is cleared wholly or not at all.
      vsk_status_t end = st == VSK_ERR_NOT_FOUND ? walk.Commit() : walk.Abort();
      if (end != VSK_OK) VSK_TRACE("%s: failed to end txn:%d", kClear, end);
      return st == VSK_ERR_NOT_FOUND && *count > 0 ? VSK_OK : st;
    }
    case LIBSTATS_OP_DELETE:
      return DeleteGroupRecords(&walk, &index, sizeof(index));
    case LIBSTATS_OP_GET: {
      static constexpr const char kGet[] = "libstats_iflstats_full_get_using_cursor";
      *count = 0;
      *results = nullptr;
      libstats_iflstats_full_t* sum = GetUsingCursor(walk.cursor(), index, count, links);
      VSK_TRACE("%s: closed cursor:%d\n", kGet, walk.CloseCursor());
      // A read-only walk: nothing to commit.
      vsk_status_t end = walk.Abort();
      if (end != VSK_OK) VSK_TRACE("%s: failed to abort txn:%d\n", kGet, end);
      CopyAggRates(sum, rates);
      VSK_TRACE("returning results:0x%p", static_cast<void*>(sum));
      *results = sum;
      VSK_TRACE("results:%p num of stats :%d", static_cast<void*>(sum), *count);
      return VSK_OK;
    }
    default:
      walk.LeaveOpen();
      return VSK_OK;
  }
}

}  // namespace vsk::stats

extern "C" {

vsk_status_t libstats_iflstats_full_op_using_sec_index(uint32_t index, int32_t op, uint32_t* count,
                                                       libstats_iflstats_full_t** results,
                                                       const libstats_agg_link_table_t* links,
                                                       const libstats_agg_rates_t* rates) {
  if ((op == LIBSTATS_OP_CLEAR || op == LIBSTATS_OP_GET) && count == nullptr) {
    return VSK_ERR_INVALID_PARAM;
  }
  if (op == LIBSTATS_OP_GET && results == nullptr) return VSK_ERR_INVALID_PARAM;
  return vsk::stats::FullOpUsingSecIndex(index, op, count, results, links, rates);
}

vsk_status_t libstats_iflstats_full_clear_by_index(uint32_t index) {
  uint32_t count = 0;
  vsk_status_t st =
      vsk::stats::FullOpUsingSecIndex(index, LIBSTATS_OP_CLEAR, &count, nullptr, nullptr, nullptr);
  VSK_TRACE("num of ifl stats:%d cleared\n", count);
  return st;
}

vsk_status_t libstats_iflstats_full_del_by_index(uint32_t index) {
  uint32_t count = 0;  // a delete does not count
  vsk_status_t st =
      vsk::stats::FullOpUsingSecIndex(index, LIBSTATS_OP_DELETE, &count, nullptr, nullptr, nullptr);
  VSK_TRACE("num of ifl stats:%d deleted\n", count);
  return st;
}

}  // extern "C"
