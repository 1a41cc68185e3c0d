// The table operations: counting sessions on interfaces, interface states and the reads
// of clients on an underlying interface.
//
// Who may call: any process that has run vsk_db_secondary_init. Each operation runs
// between Begin() and Finish() with semaphore 2 held, and keeps only offsets across an
// allocation, since an allocation may grow and remap the file.
#include "libvsk/shared/intf_ops.h"

#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/avl.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_file.h"
#include "vsk/intf.h"
#include "vsk/shared.h"

using namespace vsk::shared::intf;

namespace {

using ull = unsigned long long;

InterfaceRecord* FindRecord(const char* name) {
  return At<InterfaceRecord>(vsk::shared::avl::FindData(&Header()->interfaces, name));
}

// A record for `name`: found, or taken from the free list or the heap and put in the
// tree. The record's offset, or 0 when there is no memory.
uint32_t FindOrMakeRecord(const char* name) {
  if (InterfaceRecord* rec = FindRecord(name)) {
    VSK_TRACE("if %s add, mem %p found", name, static_cast<void*>(rec));
    return OffsetOf(rec);
  }
  FileHeader* h = Header();
  uint32_t offset = h->free_interfaces;
  if (offset != 0) {
    h->free_interfaces = At<InterfaceRecord>(offset)->free_next;
  } else {
    offset = Allocate(sizeof(InterfaceRecord));
    if (offset == 0) return 0;
  }
  InterfaceRecord* rec = At<InterfaceRecord>(offset);
  std::memset(rec, 0, sizeof *rec);
  vsk::shared::avl::Init(&rec->node, offset);
  std::strncpy(rec->name, name, kNameSize - 1);
  if (vsk::shared::avl::Add(&Header()->interfaces, &rec->node) == 0) {
    // An over-long name, cut, equals a stored one that the uncut key did not find: use
    // that one rather than lose this record outside both tree and free list.
    rec->free_next = Header()->free_interfaces;
    Header()->free_interfaces = offset;
    InterfaceRecord* existing = FindRecord(rec->name);
    VSK_TRACE("if %s add, mem %p found", name, static_cast<void*>(existing));
    return OffsetOf(existing);
  }
  VSK_TRACE("if %s add, mem %p", name, static_cast<void*>(rec));
  return offset;
}

vsk_status_t AddSession(uint32_t rec_offset, const char* name, vsk_session_id_t id) {
  FileHeader* h = Header();
  uint32_t offset = h->free_sessions;
  if (offset != 0) {
    h->free_sessions = At<SessionNode>(offset)->free_next;
  } else {
    offset = Allocate(sizeof(SessionNode));
    if (offset == 0) {
      VSK_TRACE("if %s session id %llu add failed, no mem", name, static_cast<ull>(id));
      return VSK_ERR_NOMEM;
    }
  }
  InterfaceRecord* rec = At<InterfaceRecord>(rec_offset);  // the file may have moved
  SessionNode* node = At<SessionNode>(offset);
  std::memset(node, 0, sizeof *node);
  vsk::shared::avl::Init(&node->node, offset);
  SetId(node, id);
  SHGenAVLTree tree = SessionTree(rec->sessions_root);
  if (vsk::shared::avl::Add(&tree, &node->node) == 0) {
    // A duplicate id is not reported (the count stands); its node goes back.
    node->free_next = Header()->free_sessions;
    Header()->free_sessions = offset;
    return VSK_OK;
  }
  rec->sessions_root = tree.root;
  VSK_TRACE("if %s session id %llu add, mem %p", name, static_cast<ull>(id),
            static_cast<void*>(node));
  return VSK_OK;
}

// The record of `name` with a non-zero uifl_count, or null.
InterfaceRecord* FindUifl(const char* name) {
  InterfaceRecord* rec = FindRecord(name);
  return rec != nullptr && rec->uifl_count != 0 ? rec : nullptr;
}

vsk_status_t BadArgument(const char* function) {
  VSK_TRACE("%s: invalid argument", function);
  return VSK_ERR_INVALID_PARAM;
}

}  // namespace

vsk_status_t vsk::shared::InterfaceAdd(const char* name, uint32_t kind, vsk_session_id_t session_id,
                                       uint8_t set_state, uint32_t state) {
  if (name == nullptr) return BadArgument("vsk_db_interface_add");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  uint32_t rec_offset = FindOrMakeRecord(name);
  if (rec_offset == 0) {
    VSK_TRACE("if %s add failed, no mem", name);
    return Finish(VSK_ERR_NOMEM);
  }
  InterfaceRecord* rec = At<InterfaceRecord>(rec_offset);
  if (kind & VSK_INTF_KIND_IFL) rec->ifl_count += 1;
  if (kind & VSK_INTF_KIND_UIFL) rec->uifl_count += 1;
  if (set_state != 0) {
    rec->state = state;
    VSK_TRACE("if %s add cnt %d uifl cnt %d, state %d", name, rec->ifl_count, rec->uifl_count,
              static_cast<int>(state));
  } else {
    VSK_TRACE("if %s add cnt %d uifl cnt %d", name, rec->ifl_count, rec->uifl_count);
  }
  if ((kind & VSK_INTF_KIND_UIFL) == 0) return Finish(VSK_OK);
  return Finish(AddSession(rec_offset, name, session_id));
}

extern "C" vsk_status_t vsk_db_interface_add(const char* name, uint32_t kind,
                                             vsk_session_id_t session_id, uint8_t set_state,
                                             uint32_t state) {
  return vsk::shared::InterfaceAdd(name, kind, session_id, set_state, state);
}

vsk_status_t vsk::shared::InterfaceRemove(const char* name, uint32_t kind,
                                          vsk_session_id_t session_id) {
  if (name == nullptr) return BadArgument("vsk_db_interface_remove");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindRecord(name);
  if (rec == nullptr) {
    VSK_TRACE("if %s not found", name);
    return Finish(VSK_OK);
  }
  if (kind & VSK_INTF_KIND_IFL) rec->ifl_count -= 1;
  if (kind & VSK_INTF_KIND_UIFL) {
    rec->uifl_count -= 1;
    SHGenAVLTree tree = SessionTree(rec->sessions_root);
    uint32_t node = vsk::shared::avl::Delete(&tree, &session_id);
    rec->sessions_root = tree.root;
    if (node == 0) {
      VSK_TRACE("if %s session id %llu not found", name, static_cast<ull>(session_id));
    } else {
      At<SessionNode>(node)->free_next = Header()->free_sessions;
      Header()->free_sessions = node;
      VSK_TRACE("if %s session id %llu del", name, static_cast<ull>(session_id));
    }
  }
  VSK_TRACE("if %s del cnt %d uifl cnt %d", name, rec->ifl_count, rec->uifl_count);
  if (rec->ifl_count == 0 && rec->uifl_count == 0) {
    // Session nodes still in the record's tree (an id that was never removed) are lost
    // until the next rebuild.
    VSK_TRACE("if %s del empty", name);
    vsk::shared::avl::Delete(&Header()->interfaces, rec->name);
    rec->free_next = Header()->free_interfaces;
    Header()->free_interfaces = OffsetOf(rec);
  }
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_interface_remove(const char* name, uint32_t kind,
                                                vsk_session_id_t session_id) {
  return vsk::shared::InterfaceRemove(name, kind, session_id);
}

vsk_status_t vsk::shared::InterfaceGetState(const char* name, uint32_t* state_out) {
  if (name == nullptr || state_out == nullptr) return BadArgument("vsk_db_interface_get_state");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindRecord(name);
  if (rec == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  VSK_TRACE("*** Found ifl %s, state %d ***", name, static_cast<int>(rec->state));
  *state_out = rec->state;
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_interface_get_state(const char* name, uint32_t* state_out) {
  return vsk::shared::InterfaceGetState(name, state_out);
}

vsk_status_t vsk::shared::InterfaceSetState(const char* name, uint32_t state) {
  if (name == nullptr) return BadArgument("vsk_db_interface_set_state");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindRecord(name);
  if (rec == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  VSK_TRACE("*** Found ifl %s, current state %d, new state %d ***", name,
            static_cast<int>(rec->state), static_cast<int>(state));
  rec->state = state;
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_interface_set_state(const char* name, uint32_t state) {
  return vsk::shared::InterfaceSetState(name, state);
}

vsk_status_t vsk::shared::NumClientsOnUifl(const char* name, uint32_t* count_out) {
  if (count_out == nullptr) return BadArgument("vsk_db_get_num_clients_on_uifl");
  *count_out = 0;
  if (name == nullptr) return BadArgument("vsk_db_get_num_clients_on_uifl");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindUifl(name);
  if (rec == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  *count_out = static_cast<uint32_t>(rec->uifl_count);
  VSK_TRACE("*** Found %d clients on ifl %s ***", rec->uifl_count, name);
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_get_num_clients_on_uifl(const char* name, uint32_t* count_out) {
  return vsk::shared::NumClientsOnUifl(name, count_out);
}

vsk_status_t vsk::shared::FirstClientOnUifl(const char* name, vsk_session_id_t* id_out) {
  if (name == nullptr || id_out == nullptr) return BadArgument("vsk_db_get_first_client_on_uifl");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindUifl(name);
  if (rec == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  SHGenAVLTree tree = SessionTree(rec->sessions_root);
  SessionNode* first = At<SessionNode>(vsk::shared::avl::FirstData(&tree));
  if (first == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  *id_out = IdOf(first);
  VSK_TRACE("*** Found session %llu on ifl %s ***", static_cast<ull>(*id_out), name);
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_get_first_client_on_uifl(const char* name,
                                                        vsk_session_id_t* id_out) {
  return vsk::shared::FirstClientOnUifl(name, id_out);
}

vsk_status_t vsk::shared::ClientsByUifl(const char* name, uint32_t* count_out,
                                        vsk_session_id_t** ids_out) {
  if (count_out == nullptr || ids_out == nullptr) return VSK_ERR_INVALID_PARAM;
  *count_out = 0;
  if (name == nullptr) return BadArgument("vsk_db_get_clients_by_uifl");
  vsk_status_t rc = Begin();
  if (rc != VSK_OK) return rc;
  InterfaceRecord* rec = FindUifl(name);
  if (rec == nullptr) return Finish(VSK_ERR_NOT_FOUND);
  uint32_t count = static_cast<uint32_t>(rec->uifl_count);
  *count_out = count;
  auto* ids = static_cast<vsk_session_id_t*>(std::malloc(sizeof(vsk_session_id_t) * count));
  if (ids == nullptr) {
    VSK_TRACE("%s can't allocate space for session_id", "vsk_db_get_clients_by_uifl");
    return Finish(VSK_ERR_NOMEM);
  }
  // Counts and tree disagree only after a lost node; fill what the tree has, up to the
  // count, and leave the rest as allocated.
  SHGenAVLTree tree = SessionTree(rec->sessions_root);
  uint32_t n = 0;
  for (SessionNode* s = At<SessionNode>(vsk::shared::avl::FirstData(&tree));
       s != nullptr && n < count;
       s = At<SessionNode>(vsk::shared::avl::NextData(&tree, s->session_id))) {
    ids[n++] = IdOf(s);
  }
  *ids_out = ids;
  VSK_TRACE("*** Found %d clients on ifl %s ***", static_cast<int>(count), name);
  return Finish(VSK_OK);
}

extern "C" vsk_status_t vsk_db_get_clients_by_uifl(const char* name, uint32_t* count_out,
                                                   vsk_session_id_t** ids_out) {
  return vsk::shared::ClientsByUifl(name, count_out, ids_out);
}

vsk_status_t vsk::shared::SessionList(uint32_t* count_out, vsk_session_id_t** ids_out) {
  if (count_out == nullptr || ids_out == nullptr) return BadArgument("vsk_db_get_session_list");
  uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS];
  int rc = vsk::shared::GetSummaryCounters(counters);
  if (rc != 0) return rc;
  uint32_t bound = counters[VSK_SUMMARY_COUNTER_TOTAL];
  *count_out = 0;
  if (bound == 0) return VSK_OK;
  rc = Begin();
  if (rc != VSK_OK) return rc;
  auto* ids = static_cast<vsk_session_id_t*>(std::malloc(sizeof(vsk_session_id_t) * bound));
  if (ids == nullptr) return Finish(VSK_ERR_NOMEM);
  *ids_out = ids;
  SHGenAVLTree* interfaces = &Header()->interfaces;
  for (InterfaceRecord* rec = At<InterfaceRecord>(vsk::shared::avl::FirstData(interfaces));
       rec != nullptr;
       rec = At<InterfaceRecord>(vsk::shared::avl::NextData(interfaces, rec->name))) {
    SHGenAVLTree tree = SessionTree(rec->sessions_root);
    for (SessionNode* s = At<SessionNode>(vsk::shared::avl::FirstData(&tree)); s != nullptr;
         s = At<SessionNode>(vsk::shared::avl::NextData(&tree, s->session_id))) {
      if (*count_out == bound) {
        VSK_TRACE_AT(VSK_TRACE_LEVEL_ERROR, "*** num_sessions %d exceeded total count %d ***",
                     static_cast<int>(*count_out) + 1, static_cast<int>(bound));
        return Finish(VSK_ERR_FATAL);
      }
      ids[(*count_out)++] = IdOf(s);
    }
  }
  return Finish(VSK_OK);
}

extern "C" {

vsk_status_t vsk_db_get_session_list(uint32_t* count_out, vsk_session_id_t** ids_out) {
  return vsk::shared::SessionList(count_out, ids_out);
}

vsk_status_t vsk_get_session_list(uint32_t* count_out, vsk_session_id_t** ids_out) {
  if (count_out == nullptr || ids_out == nullptr) return VSK_ERR_INVALID_PARAM;
  return vsk::shared::SessionList(count_out, ids_out);
}

}  // extern "C"
