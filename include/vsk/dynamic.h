/* Dynamic configuration: the name and value pairs a session carries for the configuration
 * templates instantiated for it, and the predefined "kelvo-" variables answered from the
 * session's own attributes.
 *
 * Reads run against a loaded snapshot (vsk/snapshot.h) and, but for one name, never touch
 * the store: vsk_get_dynamic_config_attr (vsk/attr_read.h) answers a stored name, else a
 * predefined variable computed into the snapshot. Reading "kelvo-interface-unit" of a
 * session that has none draws a unit from the interface-unit pool and writes it into the
 * session (tables or cache) in a transaction of its own; -10 when the pool is empty. A
 * service inherits every name it does not define from its client.
 *
 * Writes run in their own transaction with up to four attempts on -4 and -11. A session in
 * the shared-memory cache is changed in its slot; when its dynamic block is full the
 * session moves to the tables in the same transaction and its slot is given up.
 * Lists are borrowed for the call. */
#ifndef VSK_DYNAMIC_H
#define VSK_DYNAMIC_H

#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/store.h"

VSK_BEGIN_DECLS

/* The values of `name` as NUL-terminated strings (kept in the snapshot); same fallback as
 * vsk_get_dynamic_config_attr. -16 for an identifying array name. */
VSK_EXPORT vsk_status_t vsk_get_dynamic_config_attr_str(vsk_snapshot_handle *handle,
                                                        vsk_session_id_t id, const char *name,
                                                        vsk_attr_value_t **out);
/* *out := the dynamic record's list of the client (`id` 0) or of service `id`. -6 no
 * snapshot, -7 nothing stored. */
VSK_EXPORT vsk_status_t vsk_get_all_dynamic_config_attrs(vsk_snapshot_handle *handle,
                                                         vsk_session_id_t id,
                                                         vsk_dyn_attr_list_t **out);

/* Merges `updates` (null: none, the record is rewritten in name order) into the client's
 * dynamic record. -7 unknown session. */
VSK_EXPORT vsk_status_t vsk_update_client_dynamic(vsk_session_id_t client_id,
                                                  const vsk_dyn_update_list_t *updates);
/* One attempt of the above inside the caller's transaction `txn` (required; never
 * committed or aborted here); `shm` is vsk_snap_get_shared_memory_ptr() or null. */
VSK_EXPORT vsk_status_t vsk_update_client_dynamic_internal(vsk_session_id_t client_id, void *shm,
                                                           const vsk_dyn_update_list_t *updates,
                                                           vsk_db_txn_t *txn);
/* The same for a service session (its record keyed by the service id; never cached). */
VSK_EXPORT vsk_status_t vsk_update_service_dynamic(vsk_session_id_t service_id,
                                                   const vsk_dyn_update_list_t *updates);
/* Replaces the client's stored dynamic record with `list` (null: empty), in the tables
 * only. */
VSK_EXPORT vsk_status_t vsk_set_client_dynamic_configuration(vsk_session_id_t client_id,
                                                             const vsk_dyn_attr_list_t *list);

VSK_END_DECLS

#endif /* VSK_DYNAMIC_H */
