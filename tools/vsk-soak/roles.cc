// See roles.h.
#include "roles.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "vsk/vsk.h"

namespace vsk::soak {
namespace {

constexpr int16_t kRowsTable = 1;  // keys of 12 bytes
constexpr char kRowsTableName[] = "soak-rows";
constexpr uint32_t kRowSize = 200;

void DebugTrace(void*, int, const char* format, va_list args) {
  std::fprintf(stderr, "trace[%d]: ", getpid());
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
}

vsk_status_t Join(orvd_ctx_t** out) {
  orvd_ctx_t* ctx = orvd_init_handle();
  if (getenv("SOAK_TRACE")) orvd_set_trace_callback(ctx, nullptr, DebugTrace);
  orvd_set_reg_type_poll(ctx);
  vsk_status_t rc = orvd_register(ctx);
  if (rc == VSK_OK) rc = vsk_db_app_define(kRowsTable, kRowsTableName);
  *out = ctx;
  return rc;
}

struct RowKey {
  uint8_t bytes[12] = {};
  explicit RowKey(uint64_t id) {
    std::memcpy(bytes, &id, sizeof id);
    std::memcpy(bytes + 8, "soak", 4);
  }
};

std::string Value(uint64_t id) {
  std::string v(kRowSize, static_cast<char>('A' + id % 26));
  std::memcpy(v.data(), &id, sizeof id);
  return v;
}

vsk_status_t Put(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st != VSK_OK) return st;
  RowKey key(id);
  std::string value = Value(id);
  vsk_app_def_key_t k{static_cast<uint16_t>(kRowsTable), key.bytes};
  vsk_app_data_t data{};
  data.length = kRowSize;
  data.data = value.data();
  st = vsk_db_put_app_def_data(&txn, &k, &data);
  if (st != VSK_OK) {
    vsk_db_abort_txn(&txn, st);
    return st;
  }
  return vsk_db_end_txn(&txn);
}

// 0 when the row holds its value, else a status (-7 missing, -16 wrong).
vsk_status_t Check(uint64_t id) {
  vsk_status_t st = vsk_db_check();
  if (st != VSK_OK) return st;
  RowKey key(id);
  vsk_app_def_key_t k{static_cast<uint16_t>(kRowsTable), key.bytes};
  vsk_app_data_t* data = nullptr;
  vsk_db_txn_t none{};
  st = vsk_db_get_app_def_data(&none, &k, &data, false);
  if (st != VSK_OK) return st;
  bool same = data->length == kRowSize && std::memcmp(data->data, Value(id).data(), kRowSize) == 0;
  vsk_db_release_app_pri_data(data, true);
  return same ? VSK_OK : VSK_ERR_CORRUPT;
}

bool Retryable(vsk_status_t st) {
  return st == VSK_ERR_RETRY || st == VSK_ERR_RECOVERING || st == VSK_ERR_NOT_STARTED ||
         st == VSK_ERR_ORVD_FATAL || st == VSK_ERR_FATAL || st == VSK_ERR_SECONDARY_RECOVERY;
}

}  // namespace

// Exit codes of the short lives: 0, or the stage that failed (1 joining, 2 the check or the
// write, 3 the read, 4 leaving) times 40 plus the status's distance from 0 (up to 39).
int Failed(int stage, vsk_status_t st) { return stage * 40 + std::min(-st, 39); }

int ChurnLife() {
  orvd_ctx_t* ctx = nullptr;
  vsk_status_t rc = Join(&ctx);
  if (rc != VSK_OK) return Failed(1, rc);
  rc = vsk_db_check();
  if (rc != VSK_OK) return Failed(2, rc);
  rc = orvd_unregister(&ctx);
  return rc == VSK_OK ? 0 : Failed(4, rc);
}

int ProbeLife(uint64_t row) {
  orvd_ctx_t* ctx = nullptr;
  vsk_status_t rc = Join(&ctx);
  if (rc != VSK_OK) return Failed(1, rc);
  rc = Put(row);
  if (rc != VSK_OK) return Failed(2, rc);
  rc = Check(row);
  if (rc != VSK_OK) return Failed(3, rc);
  orvd_unregister(&ctx);
  return 0;
}

int WriterLife(uint64_t first, int report_fd) {
  orvd_ctx_t* ctx = nullptr;
  while (Join(&ctx) != VSK_OK) {
    orvd_unregister(&ctx);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (uint64_t id = first;; ++id) {
    vsk_status_t st;
    while ((st = Put(id)) != VSK_OK) {
      if (!Retryable(st)) return 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    (void)!write(report_fd, &id, sizeof id);
  }
}

int InterfaceUserLife(uint64_t seed) {
  orvd_ctx_t* ctx = nullptr;
  while (Join(&ctx) != VSK_OK) {
    orvd_unregister(&ctx);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (uint64_t n = 0;; ++n) {
    const std::string name = "ge-0/0/" + std::to_string((seed + n) % 8) + ".0";
    const uint64_t session = seed * 1000000 + n;
    // -21 while a dead holder's table waits for orvd's rebuild: keep going.
    if (vsk_db_interface_add(name.c_str(), 3, session, false, 0) == VSK_OK) {
      vsk_db_interface_remove(name.c_str(), 3, session);
    }
    if (n % 64 == 0) vsk_db_check();  // services the link, follows a recovery
  }
}

long CountLostRows(const uint64_t* ids, long count) {
  orvd_ctx_t* ctx = nullptr;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (Join(&ctx) != VSK_OK) {
    orvd_unregister(&ctx);
    if (std::chrono::steady_clock::now() > end) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  long lost = 0;
  for (long i = 0; i < count; ++i) {
    vsk_status_t st = Check(ids[i]);
    for (int attempt = 0; attempt < 2000 && Retryable(st); ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      st = Check(ids[i]);
    }
    lost += st != VSK_OK;
  }
  orvd_unregister(&ctx);
  return lost;
}

}  // namespace vsk::soak
