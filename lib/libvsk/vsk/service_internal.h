// Service sessions inside the library: create, update, activation and removal.
//
// A service session hangs from a client session. Its record names the client
// (`client_id`); the client's record lists at most 10 service ids (`service_count`,
// `service_ids`). Every operation here keeps both sides in one transaction. A client that
// is still in the shared-memory cache is read from its slot, its table row is left alone,
// and after the commit only the slot's service list changes (there is no lock on a slot:
// of two creators on one cached client the later header write wins).
//
// Callers: the exported shims (service_api.cc). Lists and private data stay the caller's.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/session.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace vsk::session {

// The most service sessions one client session carries.
constexpr uint16_t kMaxServicesPerClient = 10;

// Creates a service session of `client_id` named `service_name`, with `attrs` and an
// optional dynamic record under its own id. The new id goes to *service_id at once and is
// kept across passes (a failed create uses it up). The name node goes on the head of
// `attrs` for the call and is off again on every return. Up to four passes on -4 and -11,
// no sleep. 0; -6 an eleventh service; -7 no such client; or the failing status.
// No summary counter changes.
// REQUIRES: the store gate passed; `service_name` and `service_id` non-null.
vsk_status_t CreateServiceSession(uint64_t client_id, const char* service_name,
                                  vsk_attr_list_t* attrs, vsk_dyn_attr_list_t* dynamic,
                                  vsk_session_id_t* service_id);

// What one service update was given.
struct ServiceUpdate {
  uint64_t id = 0;
  const vsk_attr_update_list_t* updates = nullptr;
  const vsk_attr_update_list_t* info_attrs = nullptr;  // VSK_INFO_ATTR entries only
  uint32_t app_id = 0;
  const vsk_app_data_t* private_data = nullptr;
  vsk_db_txn_t* parent = nullptr;  // the outer transaction, or null
};

// Reads the service record for update, edits its attributes as a tree and its config bits,
// writes it back sorted by type, stores the private data, commits (into `parent` when
// given), then moves the config-bit counters when the bits changed. Up to four passes on
// -4 and -11, no sleep. 0, -7 unknown service, -6/-9 a bad list, or the failing status.
vsk_status_t UpdateServiceSession(const ServiceUpdate& update);

// Sets VSK_SESSION_STATE to 2 on every service of `ids` in one outer transaction: all
// change or none. The commit's status, or, after a failure, what the abort returned (0
// when it worked or no transaction was open, -11 during recovery).
// REQUIRES: the store gate passed; `ids` non-null when `count` is not 0.
vsk_status_t ActivateServiceSessions(const vsk_session_id_t* ids, uint32_t count);

// Deletes the service's private data and record and takes it off its client's list, in one
// transaction; then its config bits leave the counters. Its dynamic record stays. Up to 250
// retries on -4 and -11, 5 ms of sleep after every third. 0; -7 unknown service or client;
// -5 the client does not list it; or the failing status.
// REQUIRES: the store gate passed.
vsk_status_t RemoveServiceSession(uint64_t service_id);

}  // namespace vsk::session
