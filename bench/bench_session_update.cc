// Client session update and removal beside bare Berkeley DB.
//
// Cached update: vsk_update_client_session of one attribute (the user name, alternating
// between two values of equal length) on a cached session whose state stays: no
// transaction, only the slot. Target: at least 1 million per second on one core.
//
// Table update: the same call on a session in the tables (30 attributes), set beside bare
// Berkeley DB doing what any update must: txn_begin, DB->get with DB_RMW of the record, a
// DB->put of the same number of bytes, commit. Target: at most 1.3 times the bare cost.
//
// Removal: vsk_remove_client_session of a typical session (client record, dynamic record,
// auth request) beside bare Berkeley DB deleting the same three records in one transaction.
// Target: at most 1.3 times. Both sides build their rows untimed before each pass.
//
// Noise: each round times one pass of each side; the order alternates from round to round;
// figures are medians over the rounds (the ratio is the median of the per-round ratios,
// with the middle half as its spread). Runs as the creating daemon on a throwaway root.
#include <db.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/context.h"
#include "libvsk/store/records.h"
#include "platform/paths.h"
#include "support/bench_raw.h"
#include "support/bench_root.h"
#include "support/bench_stats.h"
#include "vsk/vsk.h"

extern "C" char* __progname;

namespace {

using Clock = std::chrono::steady_clock;
using vsk::bench::Encode;
using vsk::bench::Put;
using vsk::bench::Median;
using vsk::bench::Quantile;

constexpr int kRounds = 11;
constexpr int kCachedPerRound = 1000000;
constexpr int kTablePerPass = 2000;
constexpr int kRemovesPerPass = 1000;
constexpr double kTargetRatio = 1.30;
constexpr double kTargetCached = 1e6;

char g_creator_name[] = "orvd";
orvd_ctx g_link{};

// A typical client: 30 attributes, its own interface, 5 dynamic entries, an auth request.
struct Client {
  std::vector<std::string> values;
  std::vector<vsk_attr_t> attrs, auth;
  std::vector<vsk_dyn_attr_t> dynamic;
  vsk_attr_list_t attr_list, auth_list;
  vsk_dyn_attr_list_t dyn_list;
  char ifl[32] = "demux0.0";
  const char* names[5] = {"kelvo-interface-set", "kelvo-cos-policy", "kelvo-input-filter",
                          "kelvo-output-filter", "kelvo-upstream-rate"};

  Client() {
    values.reserve(64);
    auto add = [&](std::vector<vsk_attr_t>& to, uint16_t type, std::string v) {
      values.push_back(std::move(v));
      to.push_back(
          {type, static_cast<uint16_t>(values.back().size()), values.back().data(), nullptr});
    };
    uint32_t one = 1;
    add(attrs, VSK_SESSION_STATE, std::string(reinterpret_cast<char*>(&one), 4));
    add(attrs, VSK_SESSION_IFL_TYPE, std::string(reinterpret_cast<char*>(&one), 4));
    add(attrs, VSK_USER_NAME, "subscriber-000001@isp.example");
    for (uint16_t type = 90; attrs.size() < 27; ++type)
      add(attrs, type, std::string(8 + type % 9, 'a'));
    attrs.push_back({VSK_INTERFACE_NAME, 0, ifl, nullptr});
    for (int i = 0; i < 5; ++i) add(auth, static_cast<uint16_t>(1 + i), std::string(12, 'q'));
    for (const char* n : names) {
      values.push_back(std::string(10, 'd'));
      dynamic.push_back({nullptr, const_cast<char*>(n), 10, values.back().data(), 0});
    }
  }
  void Link(uint64_t n) {
    std::snprintf(ifl, sizeof ifl, "demux0.%llu", static_cast<unsigned long long>(n));
    attrs.back().length = static_cast<uint16_t>(std::strlen(ifl) + 1);
    vsk_attr_list_init(&attr_list);
    for (vsk_attr_t& a : attrs) vsk_attr_list_append(&attr_list, &a);
    vsk_attr_list_init(&auth_list);
    for (vsk_attr_t& a : auth) vsk_attr_list_append(&auth_list, &a);
    dyn_list.first = nullptr, dyn_list.last = &dyn_list.first;
    for (vsk_dyn_attr_t& d : dynamic) {
      d.next = nullptr;
      *dyn_list.last = &d;
      dyn_list.last = &d.next;
    }
  }
  uint64_t Create(uint64_t n, bool cached) {
    const vsk_create_options_t cache{0, 1, {0, 0}};
    Link(n);
    vsk_session_ids_t ids{};
    vsk_status_t st = vsk_create_extended_client_session(
        2, &attr_list, &auth_list, &dyn_list, &ids, cached ? &cache : nullptr, nullptr);
    return st == VSK_OK ? ids.session_id : 0;
  }
};

int Del(DB* db, DB_TXN* txn, uint64_t key) {
  DBT k{};
  k.data = &key;
  k.size = sizeof key;
  int ret = db->del(db, txn, &k, 0);
  return ret == DB_NOTFOUND ? 0 : ret;
}

// Runs `body` in one transaction of its own; false (with a message) on any failure.
bool InTxn(const std::function<int(DB_TXN*)>& body) {
  DB_ENV* env = vsk::store::Context()->dbenv;
  DB_TXN* txn = nullptr;
  int ret = env->txn_begin(env, nullptr, &txn, 0);
  if (ret == 0) ret = body(txn);
  if (ret != 0) {
    if (txn != nullptr) txn->abort(txn);
    std::fprintf(stderr, "bare side: %s\n", db_strerror(ret));
    return false;
  }
  ret = txn->commit(txn, 0);
  if (ret != 0) std::fprintf(stderr, "commit: %s\n", db_strerror(ret));
  return ret == 0;
}

struct Figures {
  const char* name;
  std::vector<double> layer_rate, raw_rate, ratio;
};

// Rounds of (layer pass, bare pass) in alternating order; `prepare` runs untimed first.
bool Alternate(Figures& f, int per_pass, const std::function<bool()>& prepare,
               const std::function<bool()>& layer, const std::function<bool()>& raw) {
  for (int round = 0; round <= kRounds && !vsk::bench::ThrowawayRoot::Stopped(); ++round) {
    if (!prepare()) return false;
    double t[2];
    for (int k = 0; k < 2; ++k) {
      const bool is_layer = (k == 0) == (round % 2 == 0);
      auto start = Clock::now();
      if (!(is_layer ? layer() : raw())) return false;
      t[is_layer ? 0 : 1] = std::chrono::duration<double>(Clock::now() - start).count();
    }
    if (round == 0) continue;  // warms the cache, the log and the interface file
    f.layer_rate.push_back(per_pass / t[0]);
    f.raw_rate.push_back(per_pass / t[1]);
    f.ratio.push_back(t[0] / t[1]);
  }
  return !vsk::bench::ThrowawayRoot::Stopped();
}

bool MeasureCached(Client& c, std::vector<double>* rates) {
  const uint64_t id = c.Create(1, true);
  if (id == 0 || !vsk_is_session_in_shm(id, vsk_snap_get_shared_memory_ptr())) {
    std::fprintf(stderr, "no cached session to update\n");
    return false;
  }
  char a[] = "subscriber-000001@isp.example", b[] = "subscriber-000002@isp.example";
  vsk_attr_update_t e{};
  e.type = VSK_USER_NAME;
  e.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
  e.new_length = sizeof a - 1;
  vsk_attr_update_list_t list{&e, &e.next};
  for (int round = 0; round <= kRounds && !vsk::bench::ThrowawayRoot::Stopped(); ++round) {
    auto start = Clock::now();
    for (int i = 0; i < kCachedPerRound; ++i) {
      e.new_value = (i & 1) ? b : a;
      if (vsk_update_client_session(id, &list) != 0) return false;
    }
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    if (round > 0) rates->push_back(kCachedPerRound / secs);
  }
  vsk_remove_client_session(id);
  return !vsk::bench::ThrowawayRoot::Stopped();
}

bool MeasureTableUpdates(Client& c, Figures& f) {
  const uint64_t id = c.Create(2, false);
  if (id == 0) return false;
  // The bare side's row: the library's own bytes for this record, under a key of its own.
  vsk_client_session_t rec{};
  c.Link(2);
  rec.attrs = &c.attr_list;
  const std::string bytes = Encode(vsk::store::EncodeClientRecord, &rec);
  const uint64_t raw_key = uint64_t{1} << 40;
  DB* db = vsk::store::Context()->client_session_db;
  if (!InTxn([&](DB_TXN* txn) { return Put(db, txn, raw_key, bytes); })) return false;

  char a[] = "subscriber-000001@isp.example", b[] = "subscriber-000002@isp.example";
  vsk_attr_update_t e{};
  e.type = VSK_USER_NAME;
  e.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
  e.new_length = sizeof a - 1;
  vsk_attr_update_list_t list{&e, &e.next};
  auto layer = [&] {
    for (int i = 0; i < kTablePerPass; ++i) {
      e.new_value = (i & 1) ? b : a;
      if (vsk_update_client_session(id, &list) != 0) return false;
    }
    return true;
  };
  std::string next = bytes;
  auto raw = [&] {
    for (int i = 0; i < kTablePerPass; ++i) {
      bool ok = InTxn([&](DB_TXN* txn) {
        uint64_t key = raw_key;
        DBT k{}, d{};
        k.data = &key;
        k.size = k.ulen = sizeof key;
        k.flags = DB_DBT_USERMEM;  // DB_THREAD with a compare function wants a memory flag
        d.flags = DB_DBT_MALLOC;
        int ret = db->get(db, txn, &k, &d, DB_RMW);
        if (ret != 0) return ret;
        next.assign(static_cast<char*>(d.data), d.size);
        std::free(d.data);
        next[next.size() - 1 - (i & 7)] ^= 1;  // a changed byte, the same size
        return Put(db, txn, raw_key, next);
      });
      if (!ok) return false;
    }
    return true;
  };
  return Alternate(f, kTablePerPass, [] { return true; }, layer, raw);
}

bool MeasureRemovals(Client& c, Figures& f) {
  vsk::store::StoreContext* ctx = vsk::store::Context();
  c.Link(3);
  vsk_client_session_t rec{};
  rec.attrs = &c.attr_list;
  vsk_dynamic_config_t dyn{};
  dyn.attrs = &c.dyn_list;
  vsk_auth_info_t auth{};
  auth.attrs = &c.auth_list;
  const std::string client = Encode(vsk::store::EncodeClientRecord, &rec);
  const std::string dynamic = Encode(vsk::store::EncodeDynamicRecord, &dyn);
  const std::string request = Encode(vsk::store::EncodeAuthRecord, &auth);
  static uint64_t raw_key = uint64_t{1} << 41, unit = 100;
  std::vector<uint64_t> ids, keys;
  auto prepare = [&] {
    ids.clear(), keys.clear();
    for (int i = 0; i < kRemovesPerPass; ++i) {
      uint64_t id = c.Create(++unit, false);
      if (id == 0) return false;
      ids.push_back(id);
      uint64_t key = raw_key++;
      keys.push_back(key);
      if (!InTxn([&](DB_TXN* txn) {
            int ret = Put(ctx->client_session_db, txn, key, client);
            if (ret == 0) ret = Put(ctx->dynamic_config_db, txn, key, dynamic);
            if (ret == 0) ret = Put(ctx->auth_request_db, txn, key, request);
            return ret;
          }))
        return false;
    }
    return true;
  };
  auto layer = [&] {
    for (uint64_t id : ids) {
      if (vsk_remove_client_session(id) != 0) return false;
    }
    return true;
  };
  auto raw = [&] {
    for (uint64_t key : keys) {
      if (!InTxn([&](DB_TXN* txn) {
            int ret = Del(ctx->client_session_db, txn, key);
            if (ret == 0) ret = Del(ctx->dynamic_config_db, txn, key);
            if (ret == 0) ret = Del(ctx->auth_request_db, txn, key);
            return ret;
          }))
        return false;
    }
    return true;
  };
  return Alternate(f, kRemovesPerPass, prepare, layer, raw);
}

vsk_status_t OpenAll() {
  if (!vsk::platform::MakeSystemDirs()) return VSK_ERR_FATAL;
  __progname = g_creator_name;
  if (vsk_open_internal(true) != 0) return VSK_ERR_FATAL;
  g_link.fd = -1;
  g_link.is_orvd = true;
  vsk_db_set_master(true);
  vsk_status_t st = vsk_db_init(&g_link, true);
  if (st == VSK_OK) st = vsk_db_secondary_init(true);
  if (st == VSK_OK) st = vsk_db_secondary_recover();
  return st;
}

void PrintRow(const Figures& f) {
  double ratio = Median(f.ratio);
  std::printf("| %s | %.0f | %.0f | %.3f (%.3f..%.3f) | <= %.2f | %s |\n", f.name,
              Median(f.layer_rate), Median(f.raw_rate), ratio, Quantile(f.ratio, 0.25),
              Quantile(f.ratio, 0.75), kTargetRatio, ratio <= kTargetRatio ? "yes" : "NO");
}

}  // namespace

// With an argument ("cached", "table" or "removal") only that measurement runs, for
// profiling.
int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  auto runs = [&](const char* name) { return only.empty() || only == name; };
  vsk::bench::ThrowawayRoot root;
  if (!root.ok()) return 1;
  vsk_status_t st = OpenAll();
  if (st != VSK_OK) {
    std::fprintf(stderr, "cannot open the store: %d (%s)\n", st, vsk_get_err_msg(st));
    return 1;
  }
  Client client;
  std::vector<double> cached;
  Figures table{"table-resident update of one attribute", {}, {}, {}};
  Figures removal{"removal of a typical session", {}, {}, {}};
  if ((runs("cached") && !MeasureCached(client, &cached)) ||
      (runs("table") && !MeasureTableUpdates(client, table)) ||
      (runs("removal") && !MeasureRemovals(client, removal))) {
    std::fprintf(stderr,
                 vsk::bench::ThrowawayRoot::Stopped() ? "interrupted\n" : "a pass failed\n");
    return 1;
  }
  const double rate = runs("cached") ? Median(cached) : 0;
  if (runs("cached")) std::printf(
      "cached state-preserving update (vsk_update_client_session, one attribute): %.2f M/s "
      "(%.2f..%.2f), target >= %.0f M/s: %s\n\n",
      rate / 1e6, Quantile(cached, 0.25) / 1e6, Quantile(cached, 0.75) / 1e6, kTargetCached / 1e6,
      rate >= kTargetCached ? "yes" : "NO");
  std::printf("library beside bare Berkeley DB; medians of %d rounds, passes alternating\n\n",
              kRounds);
  std::printf("| operation | library ops/s | bare txn/s | cost ratio | target | met |\n");
  std::printf("|---|---|---|---|---|---|\n");
  if (runs("table")) PrintRow(table);
  if (runs("removal")) PrintRow(removal);
  return 0;
}
