// The client side of a service create or removal: the owning client's record, read from
// its cache slot when the client is cached there and from the table (write-locked, so two
// services of one client are added one after the other) otherwise, with the service list
// that the operation gives it.
//
// Ownership: the guard owns the record and the new id array; the record never frees the
// array (free_service_ids is cleared when the array is set). A record read from the table
// is released with its raw buffer, one built from the slot without (it has none).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "vsk/store.h"
#include "vsk/tables.h"

namespace vsk::session {

class OwningClient {
 public:
  OwningClient();
  OwningClient(const OwningClient&) = delete;
  OwningClient& operator=(const OwningClient&) = delete;
  ~OwningClient() { Release(); }

  // Reads `client_id` from the slot or, for update, from the table in `txn`. 0, -7, or the
  // failing status; traces nothing (the operations word their own traces).
  vsk_status_t Read(vsk_db_txn_t* txn, uint64_t client_id);
  bool cached() const { return cached_; }
  vsk_client_session_t* record() const { return record_; }

  // Sets the record's list to `ids` (taken over; null with `count` 0 for an empty list).
  // An array the record owned is freed first.
  void SetServices(uint64_t* ids, uint16_t count);

  // The record back to the table; nothing for a cached client, whose table row stays as it
  // was. 0 or the put's status.
  vsk_status_t Store(vsk_db_txn_t* txn) const;
  // After a good commit: the cached client's slot gets the new list. 0 for a client in the
  // table, else the slot header's status.
  vsk_status_t AfterCommit() const;

  // Frees the record and the new array; the guard may then Read again.
  void Release();

 private:
  struct Free {
    void operator()(uint64_t* p) const { std::free(p); }
  };
  void* shm_;
  uint64_t client_id_ = 0;
  bool cached_ = false;
  vsk_client_session_t* record_ = nullptr;
  std::unique_ptr<uint64_t, Free> ids_;
};

}  // namespace vsk::session
