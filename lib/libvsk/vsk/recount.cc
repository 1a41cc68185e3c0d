#include "libvsk/vsk/recount.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "libvsk/shared/intf_file.h"
#include "libvsk/shared/intf_layout.h"
#include "libvsk/shared/layout.h"
#include "libvsk/shared/session_cache_layout.h"

namespace vsk::recount {
namespace {

constexpr uint32_t kUnitBase = 0x40000000u;

uint32_t U32(const vsk_attr_t* a) {
  uint32_t v = 0;
  if (a != nullptr && a->value != nullptr) std::memcpy(&v, a->value, a->length < 4 ? a->length : 4);
  return v;
}

std::string Name(const vsk_attr_t* a) {
  if (a == nullptr || a->value == nullptr) return {};
  std::string s(static_cast<const char*>(a->value), a->length);
  return s.substr(0, s.find('\0'));
}

void CountUnit(uint64_t dynamic_id, SessionCounts* out) {
  vsk_db_txn_t txn{};
  vsk_dynamic_config_t* dyn = nullptr;
  if (vsk_db_get_dynamic_config(&txn, &dynamic_id, &dyn, false) != VSK_OK) return;
  for (vsk_dyn_attr_t* a = dyn->attrs != nullptr ? dyn->attrs->first : nullptr; a != nullptr;
       a = a->next) {
    if (std::strcmp(a->name, "kelvo-interface-unit") != 0) continue;
    std::string text(static_cast<const char*>(a->value), a->length);
    int32_t unit = vsk_unit_parse(text.c_str());
    if (unit != -1 && static_cast<uint32_t>(unit) - kUnitBase < 0x3FFFFu) ++out->units_in_use;
    break;
  }
  vsk_db_release_dynamic_config(dyn, true);
}

// Only the first 8 bytes of a bitmap are counted bits.
void CountConfigBits(const uint8_t* bits, uint16_t length, SessionCounts* out) {
  if (length == 0) return;
  vsk_summary_counter_increment_config_bits(bits, length < 8 ? length : 8, out->counters);
}

// The config bits of the client's services (first 8 bytes), as the recovery walk counts
// them; a listed service without a record counts nothing.
void CountServices(const vsk_client_session_t* rec, SessionCounts* out) {
  for (uint16_t i = 0; rec->service_ids != nullptr && i < rec->service_count; ++i) {
    vsk_db_txn_t txn{};
    vsk_service_session_t* service = nullptr;
    uint64_t id = rec->service_ids[i];
    if (vsk_db_get_service_session(&txn, &id, &service, false, nullptr, 0) == VSK_OK) {
      ++out->services;
      CountConfigBits(service->config_bits, service->config_bits_len, out);
    }
    vsk_db_release_service_session(service, true);
  }
}

void CountSession(uint64_t id, const vsk_client_session_t* rec, SessionCounts* out) {
  const vsk_attr_list_t* attrs = rec->attrs;
  out->sessions.insert(id);
  if (const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_SESSION_STATE))
    vsk_summary_counter_increment_state(static_cast<int32_t>(U32(a)), out->counters);
  if (const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_SESSION_IFL_TYPE))
    vsk_summary_counter_increment_ifl_type(static_cast<int32_t>(U32(a)), out->counters);
  vsk_summary_counter_increment_type(
      U32(vsk_get_attribute_from_list(attrs, VSK_CLIENT_SESSION_TYPE)), out->counters);
  vsk_summary_counter_increment_total(out->counters);
  CountConfigBits(rec->config_bits, rec->config_bits_len, out);
  const vsk_attr_t* uifl = vsk_get_attribute_from_list(attrs, VSK_UNDERLYING_INTERFACE_NAME);
  const vsk_attr_t* own = vsk_get_attribute_from_list(attrs, VSK_PROFILE_NAME) == nullptr
                              ? vsk_get_attribute_from_list(attrs, VSK_INTERFACE_NAME)
                              : nullptr;
  if (own != nullptr) ++out->interfaces[Name(own)].first;
  if (uifl != nullptr) ++out->interfaces[Name(uifl)].second;
  CountUnit(rec->dynamic_id, out);
  CountServices(rec, out);
}

}  // namespace

SessionCounts RecountFromTables() {
  SessionCounts out;
  void* shm = vsk_snap_get_shared_memory_ptr();
  vsk_db_txn_t walk{};
  uint64_t current = 0, next = 0;
  for (;;) {
    vsk_session_key_t *key = nullptr, *ahead = nullptr;
    vsk_client_session_t* rec = nullptr;
    out.status = vsk_db_iterate_client_session(&walk, current, next, 0, false, &key, &ahead, &rec,
                                               nullptr, 0);
    if (out.status != VSK_OK) break;
    current = key->id, next = ahead != nullptr ? ahead->id : 0;
    vsk_db_release_key_session_id(key, true), vsk_db_release_key_session_id(ahead, true);
    // Counted from the table row, as create, the flush of a state change, removal and the
    // recovery walk count: a slot differs from its row in a counted attribute only when its
    // writer died between the slot's update and the flush's commit, and that change was
    // never counted.
    CountSession(current, rec, &out);
    if (shm != nullptr && vsk_is_session_in_shm(current, shm)) ++out.slots_in_use;
    vsk_db_release_client_session(rec, true);
  }
  if (out.status == VSK_ERR_NOT_FOUND) out.status = VSK_OK;
  return out;
}

SessionCounts ReadSharedCounts() {
  using namespace vsk::shared::intf;
  SessionCounts out;
  out.status = vsk_get_summary_counters(out.counters);
  if (out.status != VSK_OK) return out;
  out.status = Begin();
  if (out.status != VSK_OK) return out;
  for (uint32_t at = SHGenAVLTreeFirstData(&Header()->interfaces); at != 0;) {
    const auto* rec = At<InterfaceRecord>(at);
    if (rec->ifl_count != 0 || rec->uifl_count != 0)
      out.interfaces[rec->name] = {rec->ifl_count, rec->uifl_count};
    at = SHGenAVLTreeNextData(&Header()->interfaces, rec->name);
  }
  Finish(VSK_OK);
  const auto* pool = static_cast<const vsk::shared::UnitPoolHeader*>(vsk_get_shm_ptr(16));
  if (pool == nullptr) {
    out.status = VSK_ERR_FATAL;
    return out;
  }
  const auto* entries = reinterpret_cast<const int32_t*>(pool + 1);
  uint32_t free = 0;
  for (int32_t i = pool->head; i >= 0 && free <= pool->max; i = entries[i]) ++free;
  out.units_in_use = pool->max - free;
  // A slot is in use while it names a session; writers store the id last, readers of
  // other processes see it through a relaxed load.
  if (auto* seg = static_cast<vsk::cache::SnapshotSegment*>(vsk_snap_get_shared_memory_ptr())) {
    for (auto& slot : seg->slots) {
      const uint64_t id = std::atomic_ref<uint64_t>(slot.session_id).load(std::memory_order_relaxed);
      if (id == 0) continue;
      ++out.slots_in_use;
      out.slot_sessions.insert(id);
    }
  }
  return out;
}

std::string CountDifferences(const SessionCounts& expected, const SessionCounts& shared) {
  std::string out;
  if (expected.status != VSK_OK) out += "recount walk: " + std::to_string(expected.status) + "\n";
  if (shared.status != VSK_OK) out += "shared read: " + std::to_string(shared.status) + "\n";
  for (int i = 0; i < VSK_SUMMARY_COUNTER_SLOTS; ++i) {
    if (expected.counters[i] != shared.counters[i]) {
      out += "counter " + std::to_string(i) + ": tables " + std::to_string(expected.counters[i]) +
             ", shared " + std::to_string(shared.counters[i]) + "\n";
    }
  }
  auto names = expected.interfaces;
  names.insert(shared.interfaces.begin(), shared.interfaces.end());
  for (const auto& [name, unused] : names) {
    auto e = expected.interfaces.count(name) ? expected.interfaces.at(name) : std::pair{0, 0};
    auto s = shared.interfaces.count(name) ? shared.interfaces.at(name) : std::pair{0, 0};
    if (e != s) {
      out += "interface " + name + ": tables " + std::to_string(e.first) + "/" +
             std::to_string(e.second) + ", shared " + std::to_string(s.first) + "/" +
             std::to_string(s.second) + "\n";
    }
  }
  if (expected.slots_in_use != shared.slots_in_use) {
    out += "cache slots: tables " + std::to_string(expected.slots_in_use) + ", segment " +
           std::to_string(shared.slots_in_use) + "\n";
  }
  if (expected.units_in_use != shared.units_in_use) {
    out += "units: tables " + std::to_string(expected.units_in_use) + ", pool " +
           std::to_string(shared.units_in_use) + "\n";
  }
  return out;
}

std::string LeftBehind(uint64_t id, uint64_t dynamic_id) {
  std::string out;
  vsk_db_txn_t txn{};
  auto row = [&](const char* what, vsk_status_t st) {
    if (st != VSK_ERR_NOT_FOUND) out += std::string(what) + " " + std::to_string(st) + "; ";
  };
  row("client", vsk_db_client_session_record_exists(&txn, &id, false));
  if (dynamic_id != 0)
    row("dynamic", vsk_db_dynamic_config_record_exists(&txn, &dynamic_id, false));
  row("auth request", vsk_db_auth_request_record_exists(&txn, &id, false));
  row("auth response", vsk_db_auth_response_record_exists(&txn, &id, false));
  for (uint32_t app = 0; app < 10; ++app) {
    vsk_app_pri_key_t key{id, app};
    vsk_app_data_t* data = nullptr;
    vsk_status_t st = vsk_db_get_app_pri_data(&txn, &key, &data, false);
    if (st == VSK_OK) vsk_db_release_app_pri_data(data, true);
    row("private data", st);
  }
  if (vsk_is_session_in_shm(id, vsk_snap_get_shared_memory_ptr())) out += "slot; ";
  return out;
}

}  // namespace vsk::recount
