// Client session update and removal, inside the library.
//
// Callers: the exported update and removal shims (update_api.cc), the service session
// update (config-bit helpers), and the bundled-session code, which runs an update inside
// its own transaction.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/session.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace vsk::session {

// What one update call was given. Lists and private data stay the caller's.
struct UpdateRequest {
  uint64_t id = 0;
  void* shm = nullptr;  // the attached snapshot segment, or null: no cached path
  const vsk_attr_update_list_t* updates = nullptr;
  const vsk_attr_update_list_t* info_attrs = nullptr;  // VSK_INFO_ATTR entries only
  uint32_t app_id = 0;
  const vsk_app_data_t* private_data = nullptr;  // null: no private data
  vsk_db_txn_t* txn = nullptr;        // the caller's transaction: neither committed nor aborted
  uint32_t* client_type_out = nullptr;
  char* interface_name_out = nullptr;  // REQUIRES: at least kInterfaceNameSize bytes
};

// The interface name an update works with: 60 characters and the terminator.
constexpr size_t kInterfaceNameSize = 61;

// What the session looked like before and after the data change; the interface table and
// the summary counters follow the difference.
struct SessionDelta {
  uint64_t id = 0;
  bool first_state_found = false, last_state_found = false;
  uint32_t first_state = 0, last_state = 0;
  bool first_ifl_type_found = false, last_ifl_type_found = false;
  uint32_t first_ifl_type = 0, last_ifl_type = 0;
  bool first_interface_name = false, last_interface_name = false;
  char interface_name[kInterfaceNameSize] = {};
  uint32_t client_type = 0;
  // The first 8 bytes, at most, of the config bits; the counters look at no more.
  uint8_t old_bits[8] = {}, new_bits[8] = {};
  uint16_t old_bits_len = 0, new_bits_len = 0;
};

// The whole update: the tables or the cache, up to ten passes. 0 or the failing status.
vsk_status_t UpdateClientSession(const UpdateRequest& request);

// After a good update: a first interface name gets its entry, a changed state of a
// client of type 2 goes to the interface (`result` only names the update's result in the
// trace), then the summary counters. Every failure is traced and ignored.
void FollowInterfaceTable(const SessionDelta& delta, vsk_status_t result);
void UpdateSummaryCounters(const SessionDelta& delta);

// The first 8 bytes, at most, of config bits (null or length 0: none) into `out`, the rest
// zeroed, and their length into *out_len.
void KeepBits(const uint8_t* bits, uint16_t length, uint8_t (&out)[8], uint16_t* out_len);
// When old and new bits (as KeepBits keeps them) differ in length or bytes: the old ones
// leave the config-bit counters and the new ones join them. Failures are traced, naming
// `fn`, in the words of a client update (a service update uses them too, as published).
void MoveConfigBitCounters(const uint8_t* old_bits, uint16_t old_len, const uint8_t* new_bits,
                           uint16_t new_len, const char* fn);

// The whole removal. 0, -7 for a removed session that named no interface (published
// behaviour), or the status that stopped the transaction.
vsk_status_t RemoveClientSession(uint64_t id, bool remove_dynamic);

}  // namespace vsk::session
