#include "libvsk/sidedata/app_private_read.h"

#include "vsk/store.h"

namespace vsk::sidedata {
namespace {

constexpr int kAttempts = 3;

}  // namespace

vsk_app_data_t* ReadAppPrivateData(vsk_session_id_t session_id, uint32_t app_id) {
  if (vsk_db_check() != VSK_OK) return nullptr;
  const vsk_app_pri_key_t key{session_id, app_id};
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    vsk_db_txn_t txn{};
    vsk_app_data_t* data = nullptr;
    vsk_status_t st = vsk_db_start_txn(&txn);
    if (st == VSK_OK) st = vsk_db_get_app_pri_data(&txn, &key, &data, false);
    // A missing record commits like a found one; only the read's result counts.
    if (st == VSK_OK || st == VSK_ERR_NOT_FOUND) {
      vsk_db_end_txn(&txn);
      return data;
    }
    vsk_db_abort_txn(&txn, st);
    if (st != VSK_ERR_RETRY && st != VSK_ERR_RECOVERING) break;
  }
  return nullptr;
}

}  // namespace vsk::sidedata
