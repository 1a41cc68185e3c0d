// The recovery walk: every client session of the store as a loaded snapshot, one at a
// time, for daemons that rebuild their own memory and for `orvd`'s rebuild of the shared
// state (vsk_db_secondary_recover), whose per-session step and debug log live here too.
//
//   vsk_recover_sessions:          Start ─ walk step ─ callback ─ free ─ ... ─ -7: Finish
//   vsk_get_next_recover_sessions: the same walk cut into portions kept in the caller's
//                                  handle (walk block allocated by the first call, freed
//                                  by the call with `done`)
//
// Invariants:
//  1. A walk step never reads the session cache (action VSK_SNAPSHOT_ACTION_WALK): a
//     rebuild counts what the tables hold.
//  2. The per-session step never stops the rebuild: every failure is traced and the next
//     part of the step follows.
//  3. The step counts into the record that the rebuild prepared (RecoveryCounterRecord):
//     readers of the shared counters keep the old values until the walk is complete.
#include "vsk/recover.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "libvsk/base/role.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/shared/intf_recover.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "platform/format.h"
#include "platform/paths.h"
#include "vsk/shared.h"

namespace vsk::session {
namespace {

using snapshot::Ull;

constexpr char kUnitName[] = "kelvo-interface-unit";
// Units below the pool's first number were not drawn from it and are left alone.
constexpr int32_t kLastNonPoolUnit = 0x3fffffff;

FILE* g_debug_log = nullptr;

// The first value of `type` of the loaded client, or null.
const vsk_attr_value_t* FirstValue(vsk_snapshot_handle* h, uint16_t type) {
  vsk_attr_value_t* list = nullptr;
  if (snapshot::ClientAttr(h, type, &list) != VSK_OK || list == nullptr) return nullptr;
  return list->next;
}

// A value's leading 4 bytes as a number; a shorter value fills the low bytes.
uint32_t U32(const vsk_attr_value_t* v) {
  uint32_t out = 0;
  if (v != nullptr && v->value != nullptr)
    std::memcpy(&out, v->value, v->length < 4 ? v->length : 4);
  return out;
}

const vsk_client_session_t* ClientRecord(const vsk_snapshot_handle* h) {
  return h->data != nullptr && h->data->client != nullptr ? h->data->client->record : nullptr;
}

// Refuses what would make a walk go on for ever: a walk needs a filter that walks a table.
bool WalkableFilter(const vsk_snapshot_filter* filter) {
  return filter != nullptr &&
         (filter->flags & (VSK_FILTER_CLIENT_SESSIONS | VSK_FILTER_SERVICE_SESSIONS)) != 0;
}

void RecoverInterfaces(vsk_snapshot_handle* h, uint64_t id, int32_t state) {
  vsk_attr_value_t* list = nullptr;
  if (snapshot::ClientAttr(h, VSK_INTERFACE_NAME, &list) == VSK_OK && list->next != nullptr) {
    const vsk_attr_value_t* v = list->next;
    std::string name(static_cast<const char*>(v->value), v->length);
    name = name.c_str();  // the stored text may carry its NUL
    const vsk_attr_value_t* type = FirstValue(h, VSK_CLIENT_SESSION_TYPE);
    // A session of another type (or of none) always counts as state 2 on its interface.
    uint32_t ifl_state = 2;
    if (type == nullptr) {
      VSK_TRACE("VSK DB recover, could not find VSK_CLIENT_SESSION_TYPE");
    } else if (U32(type) == 2) {
      ifl_state = static_cast<uint32_t>(state);
    }
    shared::InterfaceAdd(name.c_str(), VSK_INTF_KIND_IFL, id, 1, ifl_state);
  } else {
    VSK_TRACE("VSK DB recover, no VSK_INTERFACE_NAME");
  }
  if (snapshot::ClientAttr(h, VSK_UNDERLYING_INTERFACE_NAME, &list) == VSK_OK &&
      list->next != nullptr) {
    const vsk_attr_value_t* v = list->next;
    std::string name(static_cast<const char*>(v->value), v->length);
    shared::InterfaceAdd(name.c_str(), VSK_INTF_KIND_UIFL, id, 0, 0);
  } else {
    VSK_TRACE("VSK DB recover, no VSK_UNDERLYING_INTERFACE_NAME");
  }
}

void RecoverIds(const vsk_snapshot_handle* h, uint64_t id) {
  int rc = shared::IdRecover(id);
  if (rc != 0) VSK_TRACE("Failed to recover the session id %llu, ret %d", Ull(id), rc);
  if (h->service_count == 0 || h->service_ids == nullptr) return;
  for (uint16_t i = 0; i < h->service_count; ++i) {
    rc = shared::IdRecover(h->service_ids[i]);
    if (rc != 0) {
      VSK_TRACE("Failed to recover service session id %llu, ret %d", Ull(h->service_ids[i]), rc);
    }
  }
}

// The interface unit named in the session's dynamic record goes back out of the pool.
void RecoverUnit(vsk_snapshot_handle* h) {
  vsk_dyn_attr_list_t* list = nullptr;
  if (AllDynamicAttrs(h, 0, &list) != VSK_OK) return;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->name == nullptr || std::strcmp(a->name, kUnitName) != 0) continue;
    vsk_attr_value_t* values = nullptr;
    if (snapshot::DynamicAttr(h, 0, kUnitName, &values) != VSK_OK || values->next == nullptr) {
      return;
    }
    const vsk_attr_value_t* v = values->next;
    char text[16] = {};
    if (v->value != nullptr) {
      std::memcpy(text, v->value, v->length < sizeof text - 1 ? v->length : sizeof text - 1);
    }
    int32_t unit = vsk_unit_parse(v->value != nullptr ? text : nullptr);
    if (unit == -1) {
      VSK_TRACE("Failed to recover unit number %d", unit);
    } else if (unit > kLastNonPoolUnit) {
      int rc = vsk_unit_recover(static_cast<uint32_t>(unit), VSK_UNIT_POOL_IFL);
      if (rc != 0) VSK_TRACE("Failed to recover unit number %d, ret=%d", unit, rc);
    }
    return;
  }
}

void RecoverCounters(vsk_snapshot_handle* h, uint64_t id, int32_t state) {
  uint32_t* block = shared::intf::RecoveryCounterRecord();
  if (shared::CounterIncrementState(state, block) != 0) {
    VSK_TRACE("VSK DB recover, session state summary counter increment failed, session %llu",
              Ull(id));
  }
  if (const vsk_attr_value_t* type = FirstValue(h, VSK_CLIENT_SESSION_TYPE)) {
    if (shared::CounterIncrementType(U32(type), block) != 0) {
      VSK_TRACE("VSK DB recover, session type summary counter increment failed, session %llu",
                Ull(id));
    }
  } else {
    VSK_TRACE("VSK DB recover, no VSK_CLIENT_SESSION_TYPE");
  }
  if (const vsk_attr_value_t* ifl = FirstValue(h, VSK_SESSION_IFL_TYPE)) {
    if (shared::CounterIncrementIflType(static_cast<int32_t>(U32(ifl)), block) != 0) {
      VSK_TRACE("VSK DB recover, ifl type summary counter increment failed, session %llu", Ull(id));
    }
  } else {
    VSK_TRACE("VSK DB recover, no VSK_SESSION_IFL_TYPE");
  }
  const vsk_client_session_t* rec = ClientRecord(h);
  if (rec != nullptr && rec->config_bits_len != 0 &&
      shared::CounterIncrementConfigBits(rec->config_bits, rec->config_bits_len, block) != 0) {
    VSK_TRACE("VSK DB recover, config bits summary counter increment failed, session %llu",
              Ull(id));
  }
  if (shared::CounterIncrementTotal(block) != 0) {
    VSK_TRACE("VSK DB recover, session total summary counter increment failed, session %llu",
              Ull(id));
  }
}

// Configuration bits of each service; a service's session type is not counted.
void RecoverServiceCounters(vsk_snapshot_handle* h) {
  if (h->service_ids == nullptr) {
    VSK_TRACE("VSK DB recover, no service session ids");
    return;
  }
  uint32_t* block = shared::intf::RecoveryCounterRecord();
  for (uint16_t i = 0; i < h->service_count; ++i) {
    const uint64_t sid = h->service_ids[i];
    vsk_snapshot_service_node* node = snapshot::FindService(h, sid);
    if (node == nullptr || node->record == nullptr) {
      VSK_TRACE("VSK DB recover, failed to get config bits for service session %llu", Ull(sid));
      continue;
    }
    const vsk_service_session_t* rec = node->record;
    if (rec->config_bits_len != 0 &&
        shared::CounterIncrementConfigBits(rec->config_bits, rec->config_bits_len, block) != 0) {
      VSK_TRACE(
          "VSK DB recover, config bits summary counter increment failed, service session "
          "%llu",
          Ull(sid));
    }
  }
}

int OneSessionCallback(vsk_snapshot_handle* h) { return RecoverOneSession(h); }

// The rebuild's walk: clients with their services.
vsk_status_t WalkForRebuild() {
  vsk_snapshot_filter filter{};
  filter.flags = VSK_FILTER_CLIENT_SESSIONS | VSK_FILTER_SERVICE_SESSIONS;
  return RecoverSessions(OneSessionCallback, &filter);
}

void DebugInitJoin() { RecoverDebugInit(); }
void DebugEndJoin() { RecoverDebugEnd(); }

[[maybe_unused]] const shared::intf::RecoveryJoinRegistrar kRecoveryJoin{
    {DebugInitJoin, WalkForRebuild, DebugEndJoin}};

}  // namespace

vsk_status_t RecoveryWalkGate() {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  if (!base::IsMaster()) {
    VSK_TRACE("Application tried to recover data on standby RE");
    return VSK_ERR_FATAL;
  }
  return VSK_OK;
}

vsk_status_t RecoverSessions(vsk_snapshot_callback_t callback, const vsk_snapshot_filter* filter) {
  vsk_status_t st = RecoveryWalkGate();
  if (st != VSK_OK) return st;
  if (!WalkableFilter(filter)) return VSK_ERR_INVALID_PARAM;
  VSK_TRACE("Recover Start");
  vsk_snapshot_handle handle{};
  vsk_db_txn_t walk{};
  int count = 0;
  for (;;) {
    handle.app_id = filter->app_id;
    st = snapshot::GetSnapshot(&handle, VSK_SNAPSHOT_ACTION_WALK, filter, true, &walk);
    if (st == VSK_OK) {
      if (callback != nullptr) callback(&handle);
      snapshot::FreeSnapshot(&handle);
      ++count;
    } else if (st != VSK_ERR_FILTERED && st != VSK_ERR_SNAPSHOT_ONLY) {
      break;
    }
  }
  // A failed last step may leave an owned id array behind.
  if (handle.service_ids_owned != 0) std::free(handle.service_ids);
  if (st != VSK_ERR_NOT_FOUND) return st;
  VSK_TRACE("Recover Finish, recovered %d entries", count);
  return VSK_OK;
}

vsk_status_t GetNextRecoverSessions(vsk_snapshot_callback_t callback,
                                    const vsk_snapshot_filter* filter, vsk_snapshot_handle* h,
                                    int32_t max_count, bool done) {
  vsk_status_t st = RecoveryWalkGate();
  if (st != VSK_OK) return st;
  if (h == nullptr) return VSK_ERR_INVALID_PARAM;
  if (h->walk == nullptr) {
    if (!WalkableFilter(filter)) return VSK_ERR_INVALID_PARAM;
    h->walk = static_cast<vsk_db_txn_t*>(std::calloc(1, sizeof(vsk_db_txn_t)));
    if (h->walk == nullptr) return VSK_ERR_NOMEM;
    VSK_TRACE("Recover Start");
  } else if (done) {
    std::free(h->walk);
    h->walk = nullptr;
    snapshot::FreeSnapshot(h);
    VSK_TRACE("Recover Finish");
    return VSK_OK;
  }
  if (!WalkableFilter(filter)) return VSK_ERR_INVALID_PARAM;
  for (int32_t n = 0; max_count == 0 || n < max_count;) {
    h->start_key = 0;
    st = snapshot::GetSnapshot(h, VSK_SNAPSHOT_ACTION_WALK, filter, true, h->walk);
    if (st == VSK_OK) {
      if (callback != nullptr) callback(h);
      snapshot::FreeSnapshot(h);
      ++n;
    } else if (st != VSK_ERR_FILTERED) {
      return st;
    }
  }
  return st;
}

int RecoverOneSession(vsk_snapshot_handle* h) {
  const uint64_t id = h->client_session_id;
  if (id == 0) {
    VSK_TRACE("VSK DB recover, no session id");
    return 0;
  }
  int32_t state = 0;
  if (const vsk_attr_value_t* v = FirstValue(h, VSK_SESSION_STATE)) {
    state = static_cast<int32_t>(U32(v));
  } else {
    VSK_TRACE("VSK DB recover, no VSK_SESSION_STATE");
  }
  RecoverInterfaces(h, id, state);
  RecoverIds(h, id);
  RecoverUnit(h);
  RecoverCounters(h, id, state);
  if (vsk_debug) RecoverDebugOutput(h);
  RecoverServiceCounters(h);
  return 0;
}

void RecoverDebugInit() {
  if (!vsk_debug) return;
  if (g_debug_log == nullptr) {
    const std::string path = platform::RootedPath(platform::kRecoverLog);
    g_debug_log = std::fopen(path.c_str(), "a");
    if (g_debug_log == nullptr) {
      VSK_TRACE("Failed to open debug file %s", std::strerror(errno));
      return;
    }
  }
  VSK_TRACE("VSK debug enabled, creating log");
  std::fprintf(g_debug_log, "--== Recover start at %s ==--\n", time_isostr(std::time(nullptr)));
  std::fprintf(g_debug_log, "Id\tservice\tstate\tIP\n");
  std::fprintf(g_debug_log, "--\t-------\t-----\t--\n");
}

void RecoverDebugOutput(vsk_snapshot_handle* h) {
  if (g_debug_log == nullptr || h == nullptr) return;
  const vsk_attr_value_t* sv = FirstValue(h, VSK_SESSION_STATE);
  const int32_t state = sv != nullptr ? static_cast<int32_t>(U32(sv)) : -1;
  // The stored address is the reverse of network order.
  uint32_t ip = __builtin_bswap32(U32(FirstValue(h, VSK_USER_IPV4_ADDRESS)));
  char ip_text[64] = {};
  addr2ascii(2, &ip, 4, ip_text);
  std::fprintf(g_debug_log, "%llu\t%d\t%d\t%s\n", Ull(h->client_session_id), h->service_count,
               state, ip_text);
  for (uint16_t i = 0; h->service_ids != nullptr && i < h->service_count; ++i) {
    const uint64_t sid = h->service_ids[i];
    vsk_snapshot_handle one{};
    one.session_id = sid;
    if (snapshot::GetSnapshot(&one, VSK_SNAPSHOT_ACTION_GET, nullptr, false, nullptr) != VSK_OK) {
      std::fprintf(g_debug_log, "\tService id %llu, Failed to get service session snapshot\n",
                   Ull(sid));
      continue;
    }
    vsk_attr_value_t* list = nullptr;
    int32_t sstate = -1;
    if (snapshot::ServiceAttr(&one, sid, VSK_SESSION_STATE, &list) == VSK_OK &&
        list->next != nullptr) {
      sstate = static_cast<int32_t>(U32(list->next));
    }
    std::fprintf(g_debug_log, "\tService id %llu, State %d\n", Ull(sid), sstate);
    snapshot::FreeSnapshot(&one);
  }
}

void RecoverDebugEnd() {
  if (g_debug_log == nullptr) return;
  std::fprintf(g_debug_log, "--== Recover completed at %s ==--\n", time_isostr(std::time(nullptr)));
  std::fclose(g_debug_log);
  g_debug_log = nullptr;
}

}  // namespace vsk::session

using namespace vsk::session;

extern "C" {

vsk_status_t vsk_recover_sessions(vsk_snapshot_callback_t callback,
                                  const vsk_snapshot_filter* filter) {
  return RecoverSessions(callback, filter);
}

vsk_status_t vsk_get_next_recover_sessions(vsk_snapshot_callback_t callback,
                                           const vsk_snapshot_filter* filter,
                                           vsk_snapshot_handle* handle, int32_t max_count,
                                           uint8_t done) {
  return GetNextRecoverSessions(callback, filter, handle, max_count, done != 0);
}

int vsk_recover_one_session(vsk_snapshot_handle* handle) {
  if (handle == nullptr) return 0;
  return RecoverOneSession(handle);
}

void vsk_recover_debug_init(void) { RecoverDebugInit(); }
void vsk_recover_debug_output(vsk_snapshot_handle* handle) { RecoverDebugOutput(handle); }
void vsk_recover_debug_end(void) { RecoverDebugEnd(); }

}  // extern "C"
