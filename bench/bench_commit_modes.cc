// What it costs that a commit on the master writes its log records to the file before it
// returns (DB_TXN_WRITE_NOSYNC, which the store uses so that a recovery after a process
// died inside the library loses no commit that returned) over leaving them in the shared
// log buffer (DB_TXN_NOSYNC). Neither syncs.
//
// One transaction per put of a 300-byte value under an 8-byte key through the table layer,
// on the store opened as the creating daemon; the two modes alternate from pass to pass on
// the same handle, and each figure is the median over the rounds (the ratio is the median
// of the per-round ratios of two passes run back to back). Runs on its own throwaway
// VSK_ROOT and removes what it made.
#include <db.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/context.h"
#include "support/bench_open.h"
#include "support/bench_root.h"
#include "support/bench_stats.h"
#include "vsk/dyn_db.h"

namespace {

using Clock = std::chrono::steady_clock;
using vsk::bench::Quantile;

constexpr int kKeys = 20000;
constexpr int kRounds = 15;
constexpr uint32_t kValueSize = 300;
constexpr double kTargetRatio = 1.5;  // writing through may cost at most half again

orvd_ctx g_link{};

uint32_t EncodeId(const void* object, void* buffer, uint32_t room) {
  if (room >= sizeof(uint64_t)) std::memcpy(buffer, object, sizeof(uint64_t));
  return sizeof(uint64_t);
}

uint32_t EncodeValue(const void* object, void* buffer, uint32_t room) {
  if (room >= kValueSize) std::memcpy(buffer, object, kValueSize);
  return kValueSize;
}

// Puts per second of one pass over the keys in `mode`; negative on a failure.
double Pass(DB_ENV* env, DB* db, uint32_t mode) {
  env->set_flags(env, DB_TXN_NOSYNC | DB_TXN_WRITE_NOSYNC, 0);
  env->set_flags(env, mode, 1);
  uint8_t value[kValueSize];
  std::memset(value, 'v', sizeof value);
  auto start = Clock::now();
  for (uint64_t id = 1; id <= kKeys; ++id) {
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != VSK_OK) return -1;
    value[0] = static_cast<uint8_t>(id);
    if (dyn_db_put(db, txn.txn, &id, EncodeId, value, EncodeValue, 0) != VSK_OK ||
        vsk_db_end_txn(&txn) != VSK_OK) {
      return -1;
    }
  }
  return kKeys / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main() {
  const vsk::bench::ThrowawayRoot root;
  if (!root.ok()) return 1;
  int code = 1;
  if (vsk::bench::OpenAsCreator(&g_link, false) == VSK_OK) {
    const vsk::store::StoreContext* ctx = vsk::store::Context();
    std::vector<double> no_write, write, ratio;
    bool ok = Pass(ctx->dbenv, ctx->client_session_db, DB_TXN_NOSYNC) > 0;  // warm-up
    for (int r = 0; ok && r < kRounds; ++r) {
      const bool write_first = r % 2 == 1;
      double a = Pass(ctx->dbenv, ctx->client_session_db,
                      write_first ? DB_TXN_WRITE_NOSYNC : DB_TXN_NOSYNC);
      double b = Pass(ctx->dbenv, ctx->client_session_db,
                      write_first ? DB_TXN_NOSYNC : DB_TXN_WRITE_NOSYNC);
      ok = a > 0 && b > 0 && !vsk::bench::ThrowawayRoot::Stopped();  // SIGINT ends the run
      double w = write_first ? a : b, n = write_first ? b : a;
      write.push_back(w);
      no_write.push_back(n);
      ratio.push_back(n / w);
    }
    if (ok) {
      const double median = Quantile(ratio, 0.5);
      std::printf("commit modes: one put of %u bytes per transaction, %d keys, medians of %d rounds\n\n",
                  kValueSize, kKeys, kRounds);
      std::printf("| mode | commits/s |\n|---|---|\n| DB_TXN_NOSYNC (log left in the buffer) | %.0f |\n"
                  "| DB_TXN_WRITE_NOSYNC (the store's: written, not synced) | %.0f |\n\n",
                  Quantile(no_write, 0.5), Quantile(write, 0.5));
      std::printf("cost ratio write/no-write %.3f (%.3f..%.3f), target <= %.2f: %s\n", median,
                  Quantile(ratio, 0.25), Quantile(ratio, 0.75), kTargetRatio,
                  median <= kTargetRatio ? "met" : "NOT met");
      code = 0;
    }
  }
  return code;
}
