/* The shared-memory session cache: sessions in set-up kept in fixed slots of the snapshot
 * segment, where any process reads and changes them with plain memory operations.
 *
 * A session asks for the cache at create (vsk/session.h). While it is cached, its table
 * record stands still and only the slot is current: every reader of a client session tests
 * vsk_is_session_in_shm first. The slot goes to the tables when the session changes state
 * and is given up when the state reaches 2 or 3, when a block overflows, or when the
 * session is removed. The cache survives the death of any process; a slot whose create
 * failed stays taken until its id is cleared.
 *
 * `shm` is the snapshot segment's base from vsk_snap_get_shared_memory_ptr(), null when not
 * attached. No semaphore guards the cache: each slot and block has a flag word with writer
 * and reader bits and a wait of at most three sleeps of one microsecond. A lost race costs
 * one attribute update (skipped, traced) or one read (-1).
 *
 * Statuses: -1 no segment for a read or a reader could not get past a writer; -6 a bad
 * argument or attribute type (traced); -7 the attribute (or the session) is not in the
 * cache; -23 the slot is taken; -24 a value area, dynamic block or authentication block is
 * full, or an entry's value is longer than one length byte can say (255 bytes). */
#ifndef VSK_SESSION_CACHE_H
#define VSK_SESSION_CACHE_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/session.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/store.h"
#include "vsk/tables.h"

VSK_BEGIN_DECLS

/* True when `shm` is attached, `id` is not 0 and the slot of `id` holds `id`. */
VSK_EXPORT bool vsk_is_session_in_shm(vsk_session_id_t id, void *shm);
/* Frees the slot of `id` by zeroing its session id and nothing else, when it holds `id`. */
VSK_EXPORT void vsk_clear_session_in_shm(vsk_session_id_t id, void *shm);
/* Sleeps 1000 nanoseconds: one wait of the flag-word protocol. */
VSK_EXPORT void vsk_shm_wait(void);

/* Fills the free slot of ids->session_id from `attrs` (one value per type; a later value of
 * a type wins). -23 when the slot is taken (also by this same id), -24 when the values do
 * not fit (the slot keeps its id: the caller clears it), -6 for an attribute type out of
 * range. */
VSK_EXPORT vsk_status_t vsk_create_session_data_in_shm(const vsk_session_ids_t *ids,
                                                       vsk_session_id_t dynamic_id,
                                                       const vsk_attr_list_t *attrs, void *shm);
/* Writes `record`'s list (may be empty) to the slot's dynamic block. With `reset` the block
 * starts over; without it the earlier entries stay behind and are no longer read. Stops at
 * the first failing entry and returns its status. */
VSK_EXPORT vsk_status_t vsk_create_dynamic_data_in_shm(const vsk_dynamic_config_t *record,
                                                       void *shm, vsk_session_id_t id, bool reset);
/* Appends one dynamic entry to the slot of `id` in the attached segment. 0 also when no
 * segment is attached or another writer kept the block (the entry is dropped, traced). */
VSK_EXPORT vsk_status_t vsk_put_dynamic_data_in_shm(const char *name, uint32_t length,
                                                    const void *value, uint16_t tag,
                                                    vsk_session_id_t id);
/* Writes `list` to the request (is_request) or response block of `id`'s slot. */
VSK_EXPORT vsk_status_t vsk_create_auth_req_resp_in_shm(const vsk_attr_list_t *list, void *shm,
                                                        vsk_session_id_t id, bool is_request);
/* Applies an update list, or an "info_attrs" list, to the slot of `id`: no transaction, no
 * allocation (but for config bits). A changed VSK_SESSION_STATE is stored in
 * *new_shared_state (may be null). A delete is not applied. 0 with no segment or a null
 * list, and 0 when another writer held the slot (nothing applied). */
VSK_EXPORT vsk_status_t vsk_update_session_data_in_shm(vsk_session_id_t id,
                                                       const vsk_attr_update_list_t *updates,
                                                       uint32_t *new_shared_state);
/* Stores the service session ids of a cached client; at most 10. */
VSK_EXPORT vsk_status_t vsk_update_session_header_in_shm(vsk_session_id_t id,
                                                         uint16_t service_count,
                                                         const vsk_session_id_t *service_ids);
/* Finds one attribute: *length and *value, which points into the slot (or into the
 * handle's copy of it); no copy is made. With a handle, also its session id and service
 * ids. -7 when absent. */
VSK_EXPORT vsk_status_t vsk_get_session_data_from_shm(vsk_snapshot_handle *handle, void *shm,
                                                      uint16_t type, uint16_t *length, void **value,
                                                      vsk_session_id_t id);
/* Copies at most 8 bytes of the config bits to `bits`; *length is 0 on failure. */
VSK_EXPORT vsk_status_t vsk_get_config_bits_from_shm(void *shm, vsk_session_id_t id, uint8_t *bits,
                                                     uint16_t *length);
/* The first value of `type` from `tree`, or from the cache when `tree` is null. Found: 1,
 * with a copy in `buffer` (which must hold it) or in a new heap block of length + 1 bytes
 * (NUL-terminated) stored in *allocated when `allocated` is given. Not found: 0, *status 0.
 * Otherwise 0 with the failure in *status (-2 when the copy could not be allocated). */
VSK_EXPORT int vsk_get_attr_from_tree_or_shm(patricia_root_t *tree, uint16_t type, void *buffer,
                                             void **allocated, void *shm, vsk_session_id_t id,
                                             vsk_status_t *status);
/* Fills an empty record (from vsk_db_client_session_empty) from the slot: one value per
 * type, sorted by type, each a heap copy; release with free_raw false. With a handle, the
 * handle keeps a private copy of the slot (shm_session_copy) and the service ids. */
VSK_EXPORT vsk_status_t vsk_shm_to_session_record(vsk_snapshot_handle *handle, void *shm,
                                                  vsk_client_session_t *record,
                                                  vsk_session_id_t id);
/* Fills an empty dynamic record from the slot's dynamic block (heap copies). */
VSK_EXPORT vsk_status_t vsk_shm_to_dynamic_record(vsk_dynamic_config_t *record, void *shm,
                                                  vsk_session_id_t id, vsk_snapshot_handle *handle);
/* Fills an empty auth record from the request or response block (heap copies). */
VSK_EXPORT vsk_status_t vsk_shm_to_auth_record(vsk_auth_info_t *record, void *shm,
                                               vsk_session_id_t id, bool is_request);
/* Inside the caller's transaction, puts all that the slot holds: the dynamic record (or
 * `dynamic_record` when given) under `dynamic_id`, the client record under `id`, the auth
 * request and response. The first failure is returned; the caller clears the slot. */
VSK_EXPORT vsk_status_t vsk_write_shm_session_to_db(vsk_session_id_t id,
                                                    vsk_session_id_t dynamic_id,
                                                    const vsk_dynamic_config_t *dynamic_record,
                                                    void *shm, vsk_db_txn_t *txn);

VSK_END_DECLS

#endif /* VSK_SESSION_CACHE_H */
