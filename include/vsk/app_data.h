/* Application data: opaque bytes that daemons hang on the store, never looked into here.
 *
 * Private data is one blob per (session id, application id) in "app-private-db". Session
 * removal deletes it only for application ids 0 to 9; data under a higher id stays until
 * vsk_remove_app_private_data.
 *
 * Application-defined data lives in up to seven tables of the applications' own (ids 0 to
 * 6, key length by id from vsk_app_defined_len_table), opened by name with
 * vsk_open_app_defined_table. Reads and walks go through a vsk_app_defined_handle that the
 * caller zeroes before its first use and keeps whole.
 *
 * Statuses: 0; -6 a bad argument (traced); -7 nothing found; -1 a table id out of range
 * or not open, or a walk on the standby; -2 out of memory; or the store's status after
 * the retries on -4/-11. Who may call: a registered daemon, from its own thread. */
#ifndef VSK_APP_DATA_H
#define VSK_APP_DATA_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/store.h"
#include "vsk/tables.h"

VSK_BEGIN_DECLS

/* ---- Private data --------------------------------------------------------------------- */

/* Stores `data` under (`session_id`, `app_id`). */
VSK_EXPORT vsk_status_t vsk_put_app_private_data(uint32_t app_id, vsk_session_id_t session_id,
                                                 const vsk_app_data_t *data);
/* Deletes it; a missing record counts as success. */
VSK_EXPORT vsk_status_t vsk_remove_app_private_data(uint32_t app_id, vsk_session_id_t session_id);
/* Reads it outside any snapshot (note the order of the arguments): the record, or null for
 * every failure, missing record included. No trace. Release the result with
 * vsk_db_release_app_pri_data(data, true). */
VSK_EXPORT vsk_app_data_t *vsk_get_app_pri_data(vsk_session_id_t session_id, uint32_t app_id);
/* From a snapshot taken with `handle->app_id` set: the private data of the client
 * (`session_id` 0) or of its service `session_id`, pointing into the snapshot. -6 for a
 * null or unloaded handle or `app_id` 0; -7 when the snapshot holds none. A snapshot holds
 * the data of one application: `app_id` is not compared with it. */
VSK_EXPORT vsk_status_t vsk_get_app_private_data(const vsk_snapshot_handle *handle,
                                                 vsk_session_id_t session_id, uint32_t app_id,
                                                 vsk_app_data_t **out);

/* ---- Application-defined tables ------------------------------------------------------- */

/* Caller storage of application-defined reads and walks; zero it before the first use.
 * The library uses `table_id` (low 16 bits), `key`, `walk`, `current_key`, `next_key` and
 * `data`; `reserved` is room the caller keeps whole. After a single read `key` is the
 * caller's; in a walk `key`, `current_key` and `next_key` are key buffers of the library,
 * given back when the walk ends. `data` is the result, freed with
 * vsk_free_app_defined_handle. */
typedef struct vsk_app_defined_handle {
  uint32_t table_id;
  uint32_t reserved0;
  void *key;
  uint8_t reserved[80];
  vsk_db_txn_t *walk;
  void *current_key;
  void *next_key;
  vsk_app_data_t *data;
} vsk_app_defined_handle;

/* Called for every record of a walk with the loaded handle; its result is ignored. */
typedef int (*vsk_app_defined_callback_t)(vsk_app_defined_handle *handle);

/* Opens (creating on the master) table `table_id` under `name`; see vsk_db_app_define. The
 * id is taken as a signed 16-bit number. */
VSK_EXPORT vsk_status_t vsk_open_app_defined_table(uint32_t table_id, const char *name);
/* Stores `data` under the key bytes `*key` (the table's key length of them). */
VSK_EXPORT vsk_status_t vsk_put_app_defined_data(uint32_t table_id, void **key,
                                                 const vsk_app_data_t *data);
/* Deletes the record under `*key`; a missing record counts as success. */
VSK_EXPORT vsk_status_t vsk_remove_app_defined_data(uint32_t table_id, void **key);
/* Reads the record of (`handle->table_id`, `handle->key`) into `handle->data`: 0, or -7
 * with `data` null. Table 0 is never read this way (0 with `data` null). */
VSK_EXPORT vsk_status_t vsk_get_app_defined_snapshot(vsk_app_defined_handle *handle);
/* The body of reads (action 0) and walk steps (action 2, with `walk`); `filter` is not
 * used. A walk step loads the next record and returns -7 at the table's end. */
VSK_EXPORT vsk_status_t vsk_get_app_defined_snapshot_internal(vsk_app_defined_handle *handle,
                                                              int action, const void *filter,
                                                              vsk_db_txn_t *walk);
/* Releases `handle->data` (null handle or data: nothing). `data` is not cleared. */
VSK_EXPORT void vsk_free_app_defined_handle(vsk_app_defined_handle *handle);
/* Calls `callback` for every record of table `table_id`. Returns the status that ended the
 * walk: -7 at its normal end. Master only. `filter` has no effect. */
VSK_EXPORT vsk_status_t vsk_recover_app_defined_table(vsk_app_defined_callback_t callback,
                                                      uint32_t table_id, const void *filter);
/* The same walk in portions kept in `handle` (zeroed, with `table_id` set): at most
 * `max_count` records per call (0: no limit; negative: none, 0 returned); the status of
 * the last step, -7 at the end. A call with `done` true on a running walk ends it,
 * releases what it holds and returns 0. */
VSK_EXPORT vsk_status_t vsk_get_next_recover_app_defined_table(
    vsk_app_defined_callback_t callback, const void *filter, vsk_app_defined_handle *handle,
    int32_t max_count, uint8_t done);

VSK_END_DECLS

#endif /* VSK_APP_DATA_H */
