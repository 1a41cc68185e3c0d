// Sessions written straight to the tables, each in one transaction, for the read tests:
// exact records (no login time, no splicing), services hung under their client, and the
// reads of a loaded snapshot as plain strings.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "support/attr_lists.h"
#include "support/txn.h"
#include "vsk/vsk.h"

namespace vsk::test {

struct ServiceRow {
  uint64_t id;
  AttrList* attrs;
  DynList* dynamic = nullptr;  // stored under the service id
  std::vector<uint8_t> bits = {};
  uint64_t client_id = 0;  // 0: the owning row's id
};

struct SessionRow {
  uint64_t id;
  AttrList* attrs;
  DynList* dynamic = nullptr;  // stored under the client id
  std::vector<uint8_t> bits = {};
  std::vector<ServiceRow> services = {};
};

// Puts the client record, its dynamic record and its services in one transaction.
inline vsk_status_t PutSession(const SessionRow& s) {
  return InTxn([&](vsk_db_txn_t* txn) {
    std::vector<uint64_t> ids;
    for (const ServiceRow& sv : s.services) ids.push_back(sv.id);
    std::vector<uint8_t> bits = s.bits;
    vsk_client_session_t rec{};
    rec.attrs = s.attrs->get();
    rec.service_count = static_cast<uint16_t>(ids.size());
    rec.service_ids = ids.data();
    rec.dynamic_id = s.id;
    rec.config_bits_len = static_cast<uint16_t>(bits.size());
    rec.config_bits = bits.empty() ? nullptr : bits.data();
    uint64_t key = s.id;
    vsk_status_t st = vsk_db_put_client_session(txn, &key, &rec);
    if (st == 0 && s.dynamic != nullptr) {
      vsk_dynamic_config_t dyn{};
      dyn.attrs = s.dynamic->get();
      st = vsk_db_put_dynamic_config(txn, &key, &dyn);
    }
    for (const ServiceRow& sv : s.services) {
      std::vector<uint8_t> sbits = sv.bits;
      vsk_service_session_t srec{};
      srec.attrs = sv.attrs->get();
      srec.client_id = sv.client_id != 0 ? sv.client_id : s.id;
      srec.config_bits_len = static_cast<uint16_t>(sbits.size());
      srec.config_bits = sbits.empty() ? nullptr : sbits.data();
      uint64_t skey = sv.id;
      if (st == 0) st = vsk_db_put_service_session(txn, &skey, &srec);
      if (st == 0 && sv.dynamic != nullptr) {
        vsk_dynamic_config_t dyn{};
        dyn.attrs = sv.dynamic->get();
        st = vsk_db_put_dynamic_config(txn, &skey, &dyn);
      }
    }
    return st;
  });
}

// Deletes a client record and its dynamic record in one transaction.
inline vsk_status_t DeleteSession(uint64_t id) {
  return InTxn([&](vsk_db_txn_t* txn) {
    vsk_status_t st = vsk_db_del_client_session(txn, &id);
    if (st == 0) vsk_db_del_dynamic_config(txn, &id);
    return st;
  });
}

// The first value of a read's result (the list head's first word is the first value).
inline std::string First(vsk_status_t st, const vsk_attr_value_t* list) {
  if (st != 0) return "st" + std::to_string(st);
  const vsk_attr_value_t* v = list->next;
  return v == nullptr ? "<empty>" : std::string(static_cast<const char*>(v->value), v->length);
}
inline std::string ClientValue(vsk_snapshot_handle* h, uint16_t type) {
  vsk_attr_value_t* out = nullptr;
  vsk_status_t st = vsk_get_client_session_attr(h, type, &out);
  return First(st, out);
}
inline std::string ServiceValue(vsk_snapshot_handle* h, uint64_t id, uint16_t type) {
  vsk_attr_value_t* out = nullptr;
  vsk_status_t st = vsk_get_service_session_attr(h, id, type, &out);
  return First(st, out);
}
inline std::string DynamicValue(vsk_snapshot_handle* h, uint64_t id, const char* name) {
  vsk_attr_value_t* out = nullptr;
  vsk_status_t st = vsk_get_dynamic_config_attr(h, id, name, &out);
  return First(st, out);
}

}  // namespace vsk::test
