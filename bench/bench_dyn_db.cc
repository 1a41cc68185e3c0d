// The generic table layer's cost over bare Berkeley DB: dyn_db_put and dyn_db_get of small
// rows (8-byte id key, 64-byte value) in "client-session-db", beside the same DB->put and
// DB->get made directly with hand-built DBTs on the same handle, in one run.
//
// Both sides of a pair ask Berkeley DB for the same work: puts auto-commit (no transaction
// handle; the table is opened with DB_AUTO_COMMIT), gets run without a transaction and have
// Berkeley DB allocate the value (DB_DBT_MALLOC), which the caller frees. What the layer
// adds is its own: the two-pass encoding of key and value into local buffers, the status
// translation and, on a get, the decoder call.
//
// Noise: a round times one pass of each of the four operations over the same keys; the
// order of layer and raw alternates from round to round, and each figure printed is the
// median over the rounds (the ratio is the median of the per-round ratios, each taken
// between two passes run back to back).
//
// Runs as the creating daemon on its own throwaway VSK_ROOT and removes the System V
// objects and the root at the end, also after SIGINT or SIGTERM.
#include <db.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/shared/layout.h"
#include "libvsk/store/view.h"
#include "platform/lodex.h"
#include "platform/paths.h"
#include "support/bench_open.h"
#include "support/bench_root.h"
#include "support/bench_stats.h"
#include "vsk/dyn_db.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace {

using vsk::bench::Median;
using vsk::bench::Quantile;
using vsk::bench::ThrowawayRoot;

using Clock = std::chrono::steady_clock;

constexpr int kKeys = 10000;
constexpr int kPassRepeats = 5;  // a pass goes over the keys this often (about 0.1 s of puts)
constexpr int kRounds = 21;
constexpr uint32_t kValueSize = 64;
constexpr double kTargetRatio = 1.10;  // the layer may cost at most 10% over bare calls

orvd_ctx g_link{};

struct Value {
  uint8_t bytes[kValueSize];
};

uint32_t EncodeId(const void* object, void* buffer, uint32_t room) {
  if (room >= sizeof(uint64_t)) std::memcpy(buffer, object, sizeof(uint64_t));
  return sizeof(uint64_t);
}

uint32_t EncodeValue(const void* object, void* buffer, uint32_t room) {
  if (room >= kValueSize) std::memcpy(buffer, object, kValueSize);
  return kValueSize;
}

// Keeps the buffer Berkeley DB allocated, as a decoded record keeps its raw form.
struct Decoded {
  void* raw = nullptr;
  uint32_t size = 0;
};

int Decode(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
  auto* d = static_cast<Decoded*>(out);
  d->raw = data;
  d->size = size;
  return static_cast<int>(size);
}

// One pass of an operation over every key; false on the first failure (printed).
using Pass = bool (*)(DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>& values);

bool LayerPut(DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>& values) {
  for (size_t i = 0; i < ids.size(); ++i) {
    vsk_status_t st = dyn_db_put(db, nullptr, &ids[i], EncodeId, &values[i], EncodeValue, 0);
    if (st != VSK_OK) {
      std::fprintf(stderr, "dyn_db_put: %d (%s)\n", st, vsk_get_err_msg(st));
      return false;
    }
  }
  return true;
}

bool RawPut(DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>& values) {
  for (size_t i = 0; i < ids.size(); ++i) {
    DBT key{};
    key.data = const_cast<uint64_t*>(&ids[i]);
    key.size = sizeof(uint64_t);
    DBT data{};
    data.data = const_cast<uint8_t*>(values[i].bytes);
    data.size = kValueSize;
    int ret = db->put(db, nullptr, &key, &data, 0);
    if (ret != 0) {
      std::fprintf(stderr, "DB->put: %s\n", db_strerror(ret));
      return false;
    }
  }
  return true;
}

bool LayerGet(DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>&) {
  for (uint64_t id : ids) {
    Decoded out;
    vsk_status_t st = dyn_db_get(db, nullptr, &id, EncodeId, &out, Decode, 0, nullptr, 0);
    bool ok = st == VSK_OK && out.size == kValueSize;
    std::free(out.raw);
    if (!ok) {
      std::fprintf(stderr, "dyn_db_get: %d (%s), %u bytes\n", st, vsk_get_err_msg(st), out.size);
      return false;
    }
  }
  return true;
}

bool RawGet(DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>&) {
  for (uint64_t id : ids) {
    DBT key{};
    key.data = &id;
    key.size = key.ulen = sizeof(id);
    key.flags = DB_DBT_USERMEM;  // DB_THREAD with a compare function wants a memory flag
    DBT data{};
    data.flags = DB_DBT_MALLOC;
    int ret = db->get(db, nullptr, &key, &data, 0);
    bool ok = ret == 0 && data.size == kValueSize;
    std::free(data.data);
    if (!ok) {
      std::fprintf(stderr, "DB->get: %s, %u bytes\n", db_strerror(ret), data.size);
      return false;
    }
  }
  return true;
}

// Seconds taken by one pass (kPassRepeats times over the keys); negative on failure.
double Time(Pass pass, DB* db, const std::vector<uint64_t>& ids, const std::vector<Value>& values) {
  auto start = Clock::now();
  for (int r = 0; r < kPassRepeats; ++r) {
    if (!pass(db, ids, values)) return -1;
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Pair {
  const char* name;
  Pass layer;
  Pass raw;
  std::vector<double> layer_rate, raw_rate, ratio;  // per round
  double layer_commits = 0, raw_commits = 0;        // transactions committed per op
};

// Transactions committed in the environment so far; 0 if the statistics are unavailable.
uint64_t Commits(DB_ENV* env) {
  DB_TXN_STAT* stat = nullptr;
  if (env->txn_stat(env, &stat, 0) != 0 || stat == nullptr) return 0;
  uint64_t n = stat->st_ncommits;
  std::free(stat);
  return n;
}

bool Measure(DB_ENV* env, DB* db, std::vector<Pair>& pairs) {
  std::mt19937_64 rng(20240611);
  std::vector<uint64_t> ids(kKeys);
  for (int i = 0; i < kKeys; ++i) ids[i] = 1 + static_cast<uint64_t>(i) * 7919;
  std::shuffle(ids.begin(), ids.end(), rng);
  std::vector<Value> values(kKeys);
  for (auto& v : values) {
    for (auto& b : v.bytes) b = static_cast<uint8_t>(rng());
  }
  // Every key exists before the first timed pass, so both sides overwrite and find.
  if (!RawPut(db, ids, values)) return false;
  // Round 0 warms the cache and the log and is not timed; it counts the transactions that
  // each side commits, to show that both follow the same pattern.
  constexpr double kOps = static_cast<double>(kKeys) * kPassRepeats;
  for (int round = 0; round <= kRounds && !ThrowawayRoot::Stopped(); ++round) {
    for (Pair& p : pairs) {
      bool layer_first = round % 2 == 0;
      uint64_t c0 = Commits(env);
      double first = Time(layer_first ? p.layer : p.raw, db, ids, values);
      uint64_t c1 = Commits(env);
      double second = Time(layer_first ? p.raw : p.layer, db, ids, values);
      uint64_t c2 = Commits(env);
      if (first < 0 || second < 0) return false;
      if (round == 0) {
        p.layer_commits = static_cast<double>(layer_first ? c1 - c0 : c2 - c1) / kOps;
        p.raw_commits = static_cast<double>(layer_first ? c2 - c1 : c1 - c0) / kOps;
        continue;
      }
      double layer = layer_first ? first : second;
      double raw = layer_first ? second : first;
      p.layer_rate.push_back(kOps / layer);
      p.raw_rate.push_back(kOps / raw);
      p.ratio.push_back(layer / raw);
    }
  }
  return !ThrowawayRoot::Stopped();
}

void Print(const std::vector<Pair>& pairs) {
  std::printf("generic table layer vs bare Berkeley DB calls on \"client-session-db\"\n");
  std::printf(
      "%d keys of 8 bytes, values of %u bytes; puts auto-commit, gets without a "
      "transaction (DB_DBT_MALLOC, freed)\n",
      kKeys, kValueSize);
  std::printf(
      "medians of %d rounds of %d ops per pass, layer and raw passes alternating in "
      "order; ratio spread: middle half of the rounds\n\n",
      kRounds, kKeys * kPassRepeats);
  std::printf(
      "| operation | layer ops/s | raw ops/s | cost ratio layer/raw | overhead | "
      "target | met |\n|---|---|---|---|---|---|---|\n");
  for (const Pair& p : pairs) {
    double ratio = Median(p.ratio);
    std::printf("| %s | %.0f | %.0f | %.3f (%.3f..%.3f) | %+.1f%% | <= %.0f%% | %s |\n", p.name,
                Median(p.layer_rate), Median(p.raw_rate), ratio, Quantile(p.ratio, 0.25),
                Quantile(p.ratio, 0.75), (ratio - 1) * 100, (kTargetRatio - 1) * 100,
                ratio <= kTargetRatio ? "yes" : "NO");
  }
  std::printf("\ntransactions committed per operation (layer / raw):");
  for (const Pair& p : pairs) {
    std::printf(" %s %.2f / %.2f;", p.name, p.layer_commits, p.raw_commits);
  }
  std::printf("\n");
}

}  // namespace

int main() {
  const ThrowawayRoot root;
  if (!root.ok()) return 1;

  int code = 0;
  vsk_status_t st = vsk::bench::OpenAsCreator(&g_link, false);
  if (st != VSK_OK) {
    std::fprintf(stderr, "cannot open the store: %d (%s)\n", st, vsk_get_err_msg(st));
    code = 1;
  } else {
    std::vector<Pair> pairs = {{"put", LayerPut, RawPut, {}, {}, {}},
                               {"get", LayerGet, RawGet, {}, {}, {}}};
    const vsk::store::View store;
    if (Measure(store.env(), store.client_session_db(), pairs)) {
      Print(pairs);
    } else {
      std::fprintf(stderr, ThrowawayRoot::Stopped() ? "interrupted\n" : "a pass failed\n");
      code = 1;
    }
  }
  return code;
}
