// Client session creation beside bare Berkeley DB, and the cached attribute update.
//
// Create: a typical client (30 attributes with its own interface and an underlying one, 5
// dynamic entries, an auth request of 5 attributes) created through
// vsk_create_extended_client_session, cached and uncached, set beside bare Berkeley DB
// doing the same puts in one transaction (txn_begin, DB->put of the same encoded bytes
// under new keys, commit). What the library adds is its own: the gate, the shared id, the
// login time, the encoding, the cache slot, the interface table and the counters.
//
// Update: vsk_update_session_data_in_shm of one attribute on a cached session, the value
// alternating between two of equal length so that every call rewrites it in place.
//
// Noise: each round times one pass of each side; the order alternates from round to round
// and the figures are medians over the rounds (the ratio is the median of the per-round
// ratios). Runs as the creating daemon on a throwaway root (support/bench_root.h).
#include <db.h>

#include <chrono>
#include <cstdio>
#include <cstring>
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

extern "C" char* __progname;  // the library tells the creating daemon by this name

namespace {

using Clock = std::chrono::steady_clock;
using vsk::bench::Encode;
using vsk::bench::Put;
using vsk::bench::Median;
using vsk::bench::Quantile;

constexpr int kCreatesPerPass = 1000;  // below the 1500 slots: a cached pass never collides
constexpr int kRounds = 11;
constexpr int kUpdatesPerRound = 2000000;
constexpr double kTargetRatio = 1.30;
constexpr double kTargetUpdates = 5e6;

char g_creator_name[] = "orvd";
orvd_ctx g_link{};

// The typical client's lists, built once; the interface name changes per create.
struct Client {
  std::vector<std::string> values;
  std::vector<vsk_attr_t> attrs, auth;
  std::vector<vsk_dyn_attr_t> dynamic;
  std::vector<std::string> names;
  vsk_attr_list_t attr_list, auth_list;
  vsk_dyn_attr_list_t dyn_list;
  char ifl[32] = "demux0.0";

  Client() {
    values.reserve(64);
    auto add = [&](std::vector<vsk_attr_t>& to, uint16_t type, std::string v) {
      values.push_back(std::move(v));
      to.push_back(
          {type, static_cast<uint16_t>(values.back().size()), values.back().data(), nullptr});
    };
    uint32_t state = 1, ifl_type = 1;
    add(attrs, VSK_SESSION_STATE, std::string(reinterpret_cast<char*>(&state), 4));
    add(attrs, VSK_SESSION_IFL_TYPE, std::string(reinterpret_cast<char*>(&ifl_type), 4));
    add(attrs, VSK_UNDERLYING_INTERFACE_NAME, std::string("ae0.100\0", 8));
    add(attrs, VSK_USER_NAME, "subscriber-000001@isp.example");
    add(attrs, VSK_ROUTING_INSTANCE, std::string("default\0", 8));
    add(attrs, VSK_USER_MAC_ADDRESS, "\x00\x11\x22\x33\x44\x55");
    add(attrs, VSK_RADIUS_ACCT_SESSION_ID, "acct-000000000001");
    add(attrs, VSK_AGENT_CIRCUIT_ID, "olt-7 eth 1/1/12:100");
    add(attrs, VSK_AGENT_REMOTE_ID, "remote-000000000001");
    for (uint16_t type = 90; attrs.size() < 29; ++type)
      add(attrs, type, std::string(8 + type % 9, 'a'));
    attrs.push_back({VSK_INTERFACE_NAME, 0, ifl, nullptr});
    for (int i = 0; i < 5; ++i) add(auth, static_cast<uint16_t>(1 + i), std::string(12, 'q'));
    names = {"kelvo-interface-set", "kelvo-cos-policy", "kelvo-input-filter", "kelvo-output-filter",
             "kelvo-upstream-rate"};
    for (std::string& n : names) {
      values.push_back(std::string(10, 'd'));
      dynamic.push_back({nullptr, n.data(), 10, values.back().data(), 0});
    }
  }

  // Fresh list heads for one call (the create splices into them).
  void Link(uint64_t n) {
    std::snprintf(ifl, sizeof ifl, "demux0.%llu", static_cast<unsigned long long>(n));
    attrs.back().length = static_cast<uint16_t>(std::strlen(ifl) + 1);
    Chain(attrs, &attr_list);
    Chain(auth, &auth_list);
    dyn_list.first = nullptr, dyn_list.last = &dyn_list.first;
    for (vsk_dyn_attr_t& d : dynamic) {
      d.next = nullptr;
      *dyn_list.last = &d;
      dyn_list.last = &d.next;
    }
  }
  static void Chain(std::vector<vsk_attr_t>& nodes, vsk_attr_list_t* list) {
    vsk_attr_list_init(list);
    for (vsk_attr_t& a : nodes) vsk_attr_list_append(list, &a);
  }
};

// The same records as bytes, for the bare side: what the library writes for this client.
struct RawRecords {
  std::string client, dynamic, auth;
};

RawRecords EncodeLike(Client& c) {
  c.Link(1);
  vsk_client_session_t rec{};
  rec.attrs = &c.attr_list;  // without the two spliced nodes: 30 bytes less than the layer
  vsk_dynamic_config_t dyn{};
  dyn.attrs = &c.dyn_list;
  vsk_auth_info_t auth{};
  auth.attrs = &c.auth_list;
  return {Encode(vsk::store::EncodeClientRecord, &rec),
          Encode(vsk::store::EncodeDynamicRecord, &dyn),
          Encode(vsk::store::EncodeAuthRecord, &auth)};
}

bool LayerPass(Client& c, bool cached, uint64_t* first_id) {
  const vsk_create_options_t cache{0, 1, {0, 0}};
  static uint64_t interface_unit = 0;  // every subscriber gets an interface of its own
  for (int i = 0; i < kCreatesPerPass; ++i) {
    c.Link(++interface_unit);
    vsk_session_ids_t ids{};
    vsk_status_t st = vsk_create_extended_client_session(2, &c.attr_list, &c.auth_list, &c.dyn_list,
                                                         &ids, cached ? &cache : nullptr, nullptr);
    if (st != VSK_OK) {
      std::fprintf(stderr, "create: %d (%s)\n", st, vsk_get_err_msg(st));
      return false;
    }
    if (i == 0) *first_id = ids.session_id;
  }
  return true;
}

bool RawPass(const RawRecords& raw, bool cached, uint64_t* next_key) {
  const vsk::store::StoreContext* ctx = vsk::store::Context();
  DB_ENV* env = ctx->dbenv;
  for (int i = 0; i < kCreatesPerPass; ++i) {
    uint64_t key = (*next_key)++;
    DB_TXN* txn = nullptr;
    int ret = env->txn_begin(env, nullptr, &txn, 0);
    if (ret == 0) ret = Put(ctx->client_session_db, txn, key, raw.client);
    if (ret == 0) ret = Put(ctx->dynamic_config_db, txn, key, raw.dynamic);
    if (ret == 0 && !cached) ret = Put(ctx->auth_request_db, txn, key, raw.auth);
    if (ret != 0) {
      if (txn != nullptr) txn->abort(txn);
      std::fprintf(stderr, "bare puts: %s\n", db_strerror(ret));
      return false;
    }
    if ((ret = txn->commit(txn, 0)) != 0) {
      std::fprintf(stderr, "commit: %s\n", db_strerror(ret));
      return false;
    }
  }
  return true;
}

struct Figures {
  const char* name;
  bool cached;
  std::vector<double> layer_rate, raw_rate, ratio;
};

bool MeasureCreates(Client& c, const RawRecords& raw, Figures& f) {
  void* shm = vsk_snap_get_shared_memory_ptr();
  static uint64_t raw_key = uint64_t{1} << 40;  // ids the generator does not reach here
  for (int round = 0; round <= kRounds && !vsk::bench::ThrowawayRoot::Stopped(); ++round) {
    double t[2];
    uint64_t first = 0;
    for (int k = 0; k < 2; ++k) {
      bool layer = (k == 0) == (round % 2 == 0);
      auto start = Clock::now();
      bool ok = layer ? LayerPass(c, f.cached, &first) : RawPass(raw, f.cached, &raw_key);
      t[layer ? 0 : 1] = std::chrono::duration<double>(Clock::now() - start).count();
      if (!ok) return false;
    }
    // The slots go back (untimed) so that the next pass finds them free.
    for (int i = 0; i < kCreatesPerPass; ++i) vsk_clear_session_in_shm(first + i, shm);
    if (round == 0) continue;  // warms the cache, the log and the interface file
    f.layer_rate.push_back(kCreatesPerPass / t[0]);
    f.raw_rate.push_back(kCreatesPerPass / t[1]);
    f.ratio.push_back(t[0] / t[1]);
  }
  return !vsk::bench::ThrowawayRoot::Stopped();
}

bool MeasureUpdates(Client& c, std::vector<double>* rates) {
  const vsk_create_options_t cache{0, 1, {0, 0}};
  c.Link(999999);
  vsk_session_ids_t ids{};
  if (vsk_create_extended_client_session(2, &c.attr_list, nullptr, nullptr, &ids, &cache,
                                         nullptr) != 0 ||
      !vsk_is_session_in_shm(ids.session_id, vsk_snap_get_shared_memory_ptr())) {
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
    for (int i = 0; i < kUpdatesPerRound; ++i) {
      e.new_value = (i & 1) ? b : a;
      if (vsk_update_session_data_in_shm(ids.session_id, &list, nullptr) != 0) return false;
    }
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    if (round > 0) rates->push_back(kUpdatesPerRound / secs);
  }
  return !vsk::bench::ThrowawayRoot::Stopped();
}

// The create's steps outside Berkeley DB that hold a semaphore or touch the counters, timed
// alone: the id (semaphore 0), the two interface-table adds (semaphore 2 each) and the
// four counters. Microseconds per create.
double SharedStepsMicros() {
  constexpr int kN = 20000;
  char name[32];
  vsk_session_id_t id = 0;
  auto start = Clock::now();
  for (int i = 0; i < kN; ++i) {
    vsk_id_generate(&id);
    std::snprintf(name, sizeof name, "probe0.%d", i);
    vsk_db_interface_add(name, VSK_INTF_KIND_IFL, id, 1, 2);
    vsk_db_interface_add("ae0.100", VSK_INTF_KIND_UIFL, id, 0, 0);
    vsk_summary_counter_increment_state(1, nullptr);
    vsk_summary_counter_increment_ifl_type(1, nullptr);
    vsk_summary_counter_increment_type(2, nullptr);
    vsk_summary_counter_increment_total(nullptr);
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kN;
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

void Print(const std::vector<Figures>& creates, const std::vector<double>& updates,
           double shared_us) {
  std::printf("client session create vs bare Berkeley DB puts in one transaction\n");
  std::printf(
      "30 attributes, 5 dynamic entries, auth request of 5; %d creates per pass, medians of "
      "%d rounds, layer and bare passes alternating; ratio spread: middle half\n\n",
      kCreatesPerPass, kRounds);
  std::printf("| create | layer creates/s | bare txn/s | cost ratio | target | met |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const Figures& f : creates) {
    double ratio = Median(f.ratio);
    std::printf("| %s | %.0f | %.0f | %.3f (%.3f..%.3f) | <= %.2f | %s |\n", f.name,
                Median(f.layer_rate), Median(f.raw_rate), ratio, Quantile(f.ratio, 0.25),
                Quantile(f.ratio, 0.75), kTargetRatio, ratio <= kTargetRatio ? "yes" : "NO");
  }
  std::printf(
      "\nof a create's cost, the steps outside Berkeley DB that take a semaphore (id, two "
      "interface-table adds) or a counter: %.2f us per create\n",
      shared_us);
  double rate = Median(updates);
  std::printf(
      "\ncached update of one attribute (vsk_update_session_data_in_shm): %.2f M/s "
      "(%.2f..%.2f), target >= %.0f M/s: %s\n",
      rate / 1e6, Quantile(updates, 0.25) / 1e6, Quantile(updates, 0.75) / 1e6,
      kTargetUpdates / 1e6, rate >= kTargetUpdates ? "yes" : "NO");
}

}  // namespace

int main() {
  vsk::bench::ThrowawayRoot root;
  if (!root.ok()) return 1;
  vsk_status_t st = OpenAll();
  if (st != VSK_OK) {
    std::fprintf(stderr, "cannot open the store: %d (%s)\n", st, vsk_get_err_msg(st));
    return 1;
  }
  Client client;
  RawRecords raw = EncodeLike(client);
  std::vector<Figures> creates = {{"uncached", false, {}, {}, {}}, {"cached", true, {}, {}, {}}};
  std::vector<double> updates;
  bool ok = true;
  for (Figures& f : creates) ok = ok && MeasureCreates(client, raw, f);
  ok = ok && MeasureUpdates(client, &updates);
  if (!ok) {
    std::fprintf(stderr,
                 vsk::bench::ThrowawayRoot::Stopped() ? "interrupted\n" : "a pass failed\n");
    return 1;
  }
  Print(creates, updates, SharedStepsMicros());
  return 0;
}
