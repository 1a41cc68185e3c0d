// The rebuild of the derived state (interface table, session ids, interface-unit pool,
// summary counters) from the session tables, at 10k, 100k and 256k stored sessions.
//
// The tables are filled with raw puts of valid records (a client record with state, type,
// interface type, its own interface and an underlying one, and a dynamic record naming an
// interface unit from the pool), a thousand sessions per transaction. At each size the
// creating daemon's start is timed as `orvd` runs it on the master: shared regions,
// environment with recovery, tables, interface table made anew, then the rebuild walk
// (status word to ready). The rebuild alone is timed too. Figures are medians of five
// starts, with the spread (min-max), and the cost per session; the target is 100k sessions
// in under 2 s, printed beside the figure, not asserted.
//
// Runs as the creating daemon on its own throwaway VSK_ROOT and removes what it made.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "support/bench_open.h"
#include "support/bench_root.h"
#include "vsk/vsk.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSizes[] = {10000, 100000, 256000};
constexpr int kStarts = 5;
constexpr int kPerTxn = 1000;
constexpr double kTargetSeconds100k = 2.0;

std::string U32(uint32_t v) { return std::string(reinterpret_cast<char*>(&v), 4); }

struct Attr {
  uint16_t type;
  std::string value;
};

// Puts sessions [from, to) with ids from + 1 up.
bool Fill(int from, int to) {
  for (int base = from; base < to; base += kPerTxn) {
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != 0) return false;
    for (int i = base; i < std::min(to, base + kPerTxn); ++i) {
      uint64_t id = static_cast<uint64_t>(i) + 1;
      std::vector<Attr> attrs = {
          {VSK_INTERFACE_NAME, "ge-0/0/0." + std::to_string(i) + '\0'},
          {VSK_UNDERLYING_INTERFACE_NAME, "ae" + std::to_string(i % 64) + '\0'},
          {VSK_SESSION_STATE, U32(2)},
          {VSK_CLIENT_SESSION_TYPE, U32(2)},
          {VSK_SESSION_IFL_TYPE, U32(1)}};
      std::vector<vsk_attr_t> nodes(attrs.size());
      vsk_attr_list_t list{nullptr, &list.first};
      for (size_t k = 0; k < attrs.size(); ++k) {
        nodes[k] = {attrs[k].type, static_cast<uint16_t>(attrs[k].value.size()),
                    attrs[k].value.data(), nullptr};
        *list.last = &nodes[k];
        list.last = &nodes[k].next;
      }
      vsk_client_session_t rec{};
      rec.attrs = &list;
      rec.dynamic_id = id;
      std::string unit = std::to_string(0x40000000u + static_cast<uint32_t>(i)) + '\0';
      vsk_dyn_attr_t entry{nullptr, const_cast<char*>("kelvo-interface-unit"),
                           static_cast<uint32_t>(unit.size()), unit.data(), 0};
      vsk_dyn_attr_list_t dlist{&entry, &entry.next};
      vsk_dynamic_config_t dyn{};
      dyn.attrs = &dlist;
      if (vsk_db_put_client_session(&txn, &id, &rec) != 0 ||
          vsk_db_put_dynamic_config(&txn, &id, &dyn) != 0) {
        vsk_db_abort_txn(&txn, -1);
        return false;
      }
    }
    if (vsk_db_end_txn(&txn) != 0) return false;
  }
  return true;
}

struct Figures {
  double median, min, max;
};
Figures Summarize(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}

}  // namespace

int main() {
  vsk::bench::ThrowawayRoot root;
  if (!root.ok()) return 1;
  orvd_ctx link{};
  if (vsk::bench::OpenAsCreator(&link, true) != VSK_OK) {
    std::fprintf(stderr, "cannot open the store\n");
    return 1;
  }
  std::printf("%-10s %-24s %-24s %-12s %s\n", "sessions", "start to ready ms (min-max)",
              "rebuild walk ms (min-max)", "us/session", "target");
  int stored = 0;
  for (int size : kSizes) {
    if (!Fill(stored, size)) {
      std::fprintf(stderr, "fill failed at %d\n", stored);
      return 1;
    }
    stored = size;
    std::vector<double> start_ms, walk_ms;
    for (int run = 0; run < kStarts && !vsk::bench::ThrowawayRoot::Stopped(); ++run) {
      vsk_close_internal();
      auto t0 = Clock::now();
      if (vsk::bench::OpenAsCreator(&link, true) != VSK_OK) return 1;
      auto t1 = Clock::now();
      if (vsk_db_secondary_recover() != VSK_OK) return 1;
      auto t2 = Clock::now();
      start_ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
      walk_ms.push_back(std::chrono::duration<double, std::milli>(t2 - t1).count());
      uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
      if (vsk_get_summary_counters(counters) != 0 ||
          counters[VSK_SUMMARY_COUNTER_TOTAL] != static_cast<uint32_t>(size)) {
        std::fprintf(stderr, "rebuild counted %u of %d\n", counters[VSK_SUMMARY_COUNTER_TOTAL],
                     size);
        return 1;
      }
    }
    Figures s = Summarize(start_ms), w = Summarize(walk_ms);
    char a[64], b[64], target[64] = "";
    std::snprintf(a, sizeof a, "%.0f (%.0f-%.0f)", s.median, s.min, s.max);
    std::snprintf(b, sizeof b, "%.0f (%.0f-%.0f)", w.median, w.min, w.max);
    if (size == 100000) {
      std::snprintf(target, sizeof target, "< %.0f ms: %s", kTargetSeconds100k * 1000,
                    s.median < kTargetSeconds100k * 1000 ? "met" : "NOT met");
    }
    std::printf("%-10d %-24s %-24s %-12.2f %s\n", size, a, b, s.median * 1000.0 / size, target);
    std::fflush(stdout);
  }
  return 0;
}
