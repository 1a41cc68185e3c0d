// Snapshot reads beside bare Berkeley DB, the cached read, and the walk's cost per session.
//
// Get: vsk_get_snapshot (and the free) of a table-resident client of 30 attributes and 5
// dynamic entries, set beside bare Berkeley DB reading the same two records in one
// transaction (txn_begin, two DB->get into malloc'ed buffers, free, commit). What the
// library adds is its own: the gate, the decoding of both records, the attribute and
// dynamic trees, the handle's bookkeeping and the free of it all.
//
// Cached: the same session held in the cache. The two table reads become slot copies; the
// transaction and the tree loads stay, so the cached figure is bounded below by those.
//
// Walk: vsk_get_next_snapshot over every client with a client filter, at 1k, 10k and 100k
// sessions of the same shape; each step opens its own transaction and cursor, so the cost
// per session should stay flat as the table grows.
//
// Noise: each round times one pass of each side, the order alternating from round to round;
// figures are medians over the rounds (the ratio is the median of per-round ratios).
#include <db.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/context.h"
#include "libvsk/store/records.h"
#include "support/bench_open.h"
#include "support/bench_raw.h"
#include "support/bench_root.h"
#include "support/bench_stats.h"
#include "vsk/vsk.h"

namespace {

using Clock = std::chrono::steady_clock;
using vsk::bench::Encode;
using vsk::bench::Put;
using vsk::bench::Median;
using vsk::bench::Quantile;

constexpr int kGetsPerPass = 2000;
constexpr int kRounds = 11;
constexpr double kTargetRatio = 1.30;
constexpr uint64_t kWalkBase = uint64_t{1} << 40;  // ids the generator does not reach here

orvd_ctx g_link{};

// The typical client: 30 attributes and 5 dynamic entries.
struct Client {
  std::vector<std::string> values, names;
  std::vector<vsk_attr_t> attrs;
  std::vector<vsk_dyn_attr_t> dynamic;
  vsk_attr_list_t attr_list;
  vsk_dyn_attr_list_t dyn_list;

  Client() {
    values.reserve(64);
    auto add = [&](uint16_t type, std::string v) {
      values.push_back(std::move(v));
      attrs.push_back(
          {type, static_cast<uint16_t>(values.back().size()), values.back().data(), nullptr});
    };
    uint32_t state = 1;
    add(VSK_SESSION_STATE, std::string(reinterpret_cast<char*>(&state), 4));
    add(VSK_USER_NAME, "subscriber-000001@isp.example");
    add(VSK_ROUTING_INSTANCE, std::string("default\0", 8));
    add(VSK_AGENT_CIRCUIT_ID, "olt-7 eth 1/1/12:100");
    for (uint16_t type = 90; attrs.size() < 30; ++type) add(type, std::string(8 + type % 9, 'a'));
    names = {"kelvo-interface-set", "kelvo-cos-policy", "kelvo-input-filter", "kelvo-output-filter",
             "kelvo-upstream-rate"};
    for (std::string& n : names) {
      values.push_back(std::string(10, 'd'));
      dynamic.push_back({nullptr, n.data(), 10, values.back().data(), 0});
    }
    vsk_attr_list_init(&attr_list);
    for (vsk_attr_t& a : attrs) vsk_attr_list_append(&attr_list, &a);
    dyn_list.first = nullptr, dyn_list.last = &dyn_list.first;
    for (vsk_dyn_attr_t& d : dynamic) {
      *dyn_list.last = &d;
      dyn_list.last = &d.next;
    }
  }
};

// Writes clients [from, to) under kWalkBase, each with its own dynamic record, 1000 to a
// transaction.
bool PutWalkSessions(Client& c, uint64_t from, uint64_t to) {
  const vsk::store::StoreContext* ctx = vsk::store::Context();
  DB_ENV* env = ctx->dbenv;
  vsk_dynamic_config_t dyn{};
  dyn.attrs = &c.dyn_list;
  const std::string dyn_bytes = Encode(vsk::store::EncodeDynamicRecord, &dyn);
  for (uint64_t at = from; at < to;) {
    DB_TXN* txn = nullptr;
    int ret = env->txn_begin(env, nullptr, &txn, 0);
    for (int i = 0; ret == 0 && i < 1000 && at < to; ++i, ++at) {
      vsk_client_session_t rec{};
      rec.attrs = &c.attr_list;
      rec.dynamic_id = kWalkBase + at;
      ret = Put(ctx->client_session_db, txn, kWalkBase + at,
                Encode(vsk::store::EncodeClientRecord, &rec));
      if (ret == 0) ret = Put(ctx->dynamic_config_db, txn, kWalkBase + at, dyn_bytes);
    }
    if (ret == 0) ret = txn->commit(txn, 0);
    if (ret != 0) {
      std::fprintf(stderr, "walk puts: %s\n", db_strerror(ret));
      return false;
    }
  }
  return true;
}

bool LayerGets(uint64_t id) {
  for (int i = 0; i < kGetsPerPass; ++i) {
    vsk_snapshot_handle h{};
    h.client_session_id = id;
    vsk_status_t st = vsk_get_snapshot(&h);
    vsk_free_snapshot_handle(&h);
    if (st != VSK_OK) {
      std::fprintf(stderr, "snapshot: %d (%s)\n", st, vsk_get_err_msg(st));
      return false;
    }
  }
  return true;
}

bool RawGets(uint64_t id, uint64_t dynamic_id) {
  const vsk::store::StoreContext* ctx = vsk::store::Context();
  DB_ENV* env = ctx->dbenv;
  auto get = [](DB* db, DB_TXN* txn, uint64_t key) {
    DBT k{}, d{};
    k.data = &key;
    k.size = sizeof key;
    k.ulen = sizeof key;
    k.flags = DB_DBT_USERMEM;  // with DB_THREAD and a compare function, a read's key needs it
    d.flags = DB_DBT_MALLOC;
    int ret = db->get(db, txn, &k, &d, 0);
    std::free(d.data);
    return ret;
  };
  for (int i = 0; i < kGetsPerPass; ++i) {
    DB_TXN* txn = nullptr;
    int ret = env->txn_begin(env, nullptr, &txn, 0);
    if (ret == 0) ret = get(ctx->client_session_db, txn, id);
    if (ret == 0) ret = get(ctx->dynamic_config_db, txn, dynamic_id);
    if (ret == 0) ret = txn->commit(txn, 0);
    if (ret != 0) {
      std::fprintf(stderr, "bare gets: %s\n", db_strerror(ret));
      return false;
    }
  }
  return true;
}

struct GetFigures {
  std::vector<double> table_rate, cached_rate, raw_rate, ratio;
};

bool MeasureGets(uint64_t table_id, uint64_t dynamic_id, uint64_t cached_id, GetFigures& f) {
  for (int round = 0; round <= kRounds && !vsk::bench::ThrowawayRoot::Stopped(); ++round) {
    double t[3];
    for (int k = 0; k < 3; ++k) {
      int which = (k + round) % 3;
      auto start = Clock::now();
      bool ok = which == 0   ? LayerGets(table_id)
                : which == 1 ? RawGets(table_id, dynamic_id)
                             : LayerGets(cached_id);
      t[which] = std::chrono::duration<double>(Clock::now() - start).count();
      if (!ok) return false;
    }
    if (round == 0) continue;  // warms the cache and the log
    f.table_rate.push_back(kGetsPerPass / t[0]);
    f.raw_rate.push_back(kGetsPerPass / t[1]);
    f.cached_rate.push_back(kGetsPerPass / t[2]);
    f.ratio.push_back(t[0] / t[1]);
  }
  return !vsk::bench::ThrowawayRoot::Stopped();
}

// Sessions per second of one full walk; -1 on failure.
double WalkRate(uint64_t expected) {
  vsk_snapshot_filter f{};
  f.flags = VSK_FILTER_CLIENT_SESSIONS;
  vsk_snapshot_handle h{};
  uint64_t n = 0;
  auto start = Clock::now();
  vsk_status_t st;
  while ((st = vsk_get_next_snapshot(&h, &f, 0)) == VSK_OK) ++n;
  double secs = std::chrono::duration<double>(Clock::now() - start).count();
  vsk_get_next_snapshot(&h, &f, 1);
  vsk_free_snapshot_handle(&h);
  if (st != VSK_ERR_NOT_FOUND || n < expected) {
    std::fprintf(stderr, "walk: %d after %llu sessions\n", st, static_cast<unsigned long long>(n));
    return -1;
  }
  return static_cast<double>(n) / secs;
}

}  // namespace

int main(int argc, char** argv) {
  // "gets" alone skips the walks (for profiling the single read).
  const bool gets_only = argc > 1 && std::strcmp(argv[1], "gets") == 0;
  vsk::bench::ThrowawayRoot root;
  if (!root.ok()) return 1;
  vsk_status_t st = vsk::bench::OpenAsCreator(&g_link, true);
  if (st != VSK_OK) {
    std::fprintf(stderr, "cannot open the store: %d (%s)\n", st, vsk_get_err_msg(st));
    return 1;
  }
  // The create adds the client type and the login time: 32 attributes in the record.
  Client c;
  const vsk_create_options_t cache{0, 1, {0, 0}};
  vsk_session_ids_t table{}, cached{};
  if (vsk_create_extended_client_session(2, &c.attr_list, nullptr, &c.dyn_list, &table, nullptr,
                                         nullptr) != VSK_OK ||
      vsk_create_extended_client_session(2, &c.attr_list, nullptr, &c.dyn_list, &cached, &cache,
                                         nullptr) != VSK_OK ||
      !vsk_is_session_in_shm(cached.session_id, vsk_snap_get_shared_memory_ptr())) {
    std::fprintf(stderr, "cannot create the sessions to read\n");
    return 1;
  }
  GetFigures g;
  if (!MeasureGets(table.session_id, table.session_id, cached.session_id, g)) return 1;
  std::vector<std::pair<uint64_t, double>> walks;
  uint64_t have = 0;
  for (uint64_t n : {1000, 10000, 100000}) {
    if (gets_only) break;
    if (!PutWalkSessions(c, have, n)) return 1;
    have = n;
    std::vector<double> rates;
    for (int i = 0; i < 3; ++i) rates.push_back(WalkRate(n));
    if (Median(rates) < 0) return 1;
    walks.push_back({n, Median(rates)});
  }

  std::printf(
      "vsk_get_snapshot of one client (30 attributes, 5 dynamic entries) vs bare "
      "Berkeley DB reading its two records in one transaction\n");
  std::printf("%d gets per pass, medians of %d rounds, passes alternating; spread: middle half\n\n",
              kGetsPerPass, kRounds);
  const double ratio = Median(g.ratio);
  std::printf("| read | gets/s | cost vs bare | target | met |\n|---|---|---|---|---|\n");
  std::printf("| bare Berkeley DB, two gets | %.0f | 1 | | |\n", Median(g.raw_rate));
  std::printf("| snapshot, table-resident | %.0f | %.3f (%.3f..%.3f) | <= %.2f | %s |\n",
              Median(g.table_rate), ratio, Quantile(g.ratio, 0.25), Quantile(g.ratio, 0.75),
              kTargetRatio, ratio <= kTargetRatio ? "yes" : "NO");
  const double cached_rate = Median(g.cached_rate);
  std::printf("| snapshot, cached | %.0f | %.3f | faster than table-resident | %s |\n", cached_rate,
              Median(g.raw_rate) / cached_rate, cached_rate > Median(g.table_rate) ? "yes" : "NO");
  std::printf("\nwalk of every client with vsk_get_next_snapshot (median of 3 walks)\n\n");
  std::printf("| sessions in the table | sessions/s | us per session |\n|---|---|---|\n");
  for (const auto& [n, rate] : walks) {
    std::printf("| %llu | %.0f | %.2f |\n", static_cast<unsigned long long>(n + 2), rate,
                1e6 / rate);
  }
  return 0;
}
