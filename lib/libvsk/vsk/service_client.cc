#include "libvsk/vsk/service_client.h"

#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"

namespace vsk::session {

OwningClient::OwningClient() : shm_(cache::Segment()) {}

vsk_status_t OwningClient::Read(vsk_db_txn_t* txn, uint64_t client_id) {
  Release();
  client_id_ = client_id;
  cached_ = cache::IsCached(shm_, client_id);
  if (!cached_) return store::GetClientSession(txn, &client_id_, &record_, true);
  vsk_status_t st = store::ClientSessionEmpty(&record_);
  if (st != VSK_OK) return st;
  return cache::ToSessionRecord(nullptr, shm_, client_id, record_);
}

void OwningClient::SetServices(uint64_t* ids, uint16_t count) {
  ids_.reset(ids);
  if (record_->free_service_ids != 0) {
    std::free(record_->service_ids);
    record_->free_service_ids = 0;
  }
  record_->service_ids = ids;
  record_->service_count = count;
}

vsk_status_t OwningClient::Store(vsk_db_txn_t* txn) const {
  if (cached_) return VSK_OK;
  return store::PutClientSession(txn, &client_id_, record_);
}

vsk_status_t OwningClient::AfterCommit() const {
  if (!cached_) return VSK_OK;
  return cache::UpdateHeader(shm_, client_id_, record_->service_count, record_->service_ids);
}

void OwningClient::Release() {
  if (record_ != nullptr) {
    // A record built from the slot has no raw buffer; its values are its own copies.
    store::ReleaseClientSession(record_, !cached_);
    record_ = nullptr;
  }
  ids_.reset();
}

}  // namespace vsk::session
