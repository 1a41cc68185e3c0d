// The interface table's operations for C++ callers; the exported vsk_db_interface_*,
// vsk_db_get_*_uifl and vsk_db_get_session_list are shims over these, with the same
// results. Each holds semaphore 2 for its own duration only.
#pragma once

#include <cstdint>

#include "vsk/intf.h"
#include "vsk/shared.h"

namespace vsk::shared {

vsk_status_t InterfaceAdd(const char* name, uint32_t kind, vsk_session_id_t session_id,
                                  uint8_t set_state, uint32_t state);
vsk_status_t InterfaceRemove(const char* name, uint32_t kind, vsk_session_id_t session_id);
vsk_status_t InterfaceGetState(const char* name, uint32_t* state_out);
vsk_status_t InterfaceSetState(const char* name, uint32_t state);
vsk_status_t NumClientsOnUifl(const char* name, uint32_t* count_out);
vsk_status_t FirstClientOnUifl(const char* name, vsk_session_id_t* id_out);
vsk_status_t ClientsByUifl(const char* name, uint32_t* count_out,
                                        vsk_session_id_t** ids_out);
vsk_status_t SessionList(uint32_t* count_out, vsk_session_id_t** ids_out);

}  // namespace vsk::shared
