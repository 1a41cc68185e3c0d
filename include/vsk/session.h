/* Session ids and client session creation.
 *
 * Client and service sessions share one id space, 1 to 0x7FFFFFFFFFFFFFFF; 0 means "no
 * session". Ids are never handed out twice until the space wraps (vsk/shared.h); an id
 * taken by a create that failed is simply skipped.
 *
 * A create writes the client record, the dynamic configuration record and the
 * authentication request in one transaction (up to four passes on -4, -11 and -21), and,
 * when the caller asks for it, a copy of the session in its shared-memory cache slot
 * (vsk/session_cache.h). After the commit it counts the session in the interface table
 * and the summary counters; failures there are traced and do not change the result.
 *
 * Lists are borrowed for the call. The library splices nodes of its own (client type,
 * login time and, for inheritance, the underlying session id) at the head of `attrs` and
 * takes exactly two off again: when three went on, the client-type node stays at the head
 * of the caller's list, so a caller must not walk or reuse its list after such a call. */
#ifndef VSK_SESSION_H
#define VSK_SESSION_H

#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/status.h"
#include "vsk/store.h"
#include "vsk/tables.h"

VSK_BEGIN_DECLS

typedef uint64_t vsk_session_id_t;

/* The highest id; the generator goes from here back to 1. */
#define VSK_SESSION_ID_MAX UINT64_C(0x7FFFFFFFFFFFFFFF)

/* The id block that the extended create call reads and writes, in this field order. */
typedef struct vsk_session_ids {
  uint64_t session_id;         /* out: the new session's id */
  uint64_t dynamic_session_id; /* in: underlying session whose dynamic configuration this
                                  session uses; 0 when it has its own */
  uint16_t shm_offset;         /* out: cache slot position in 16-bit words, cut to 16 bits;
                                  written only when the cache is asked for */
} vsk_session_ids_t;

/* The caller-owned options of the extended create call. */
typedef struct vsk_create_options {
  uint8_t reserved;  /* first byte: set to 0 */
  uint8_t use_shm;   /* 1: cache the new session in shared memory; anything else: not */
  uint8_t reserved2[2];
} vsk_create_options_t;

/* Creates a client session of `client_type` (a single bit: it picks the summary counter).
 * `attrs`, `auth_request` and `dynamic` may be null. On success *session_id gets the new
 * id. 0 or a status; -6 for null `session_id` or an attribute without a value. */
VSK_EXPORT vsk_status_t vsk_create_client_session(uint32_t client_type, vsk_attr_list_t *attrs,
                                                  vsk_attr_list_t *auth_request,
                                                  vsk_dyn_attr_list_t *dynamic,
                                                  vsk_session_id_t *session_id);
/* The same on top of the session `dynamic_session_id` (0: none), whose dynamic
 * configuration the new session shares; only the types of `inherit_types` count. */
VSK_EXPORT vsk_status_t vsk_create_bundled_client_session(
    uint32_t client_type, vsk_attr_list_t *attrs, vsk_attr_list_t *auth_request,
    vsk_dyn_attr_list_t *dynamic, vsk_session_id_t *session_id,
    vsk_session_id_t dynamic_session_id, const vsk_attr_list_t *inherit_types);
/* The full form: `ids` gives dynamic_session_id and receives session_id (and shm_offset
 * when the cache is asked for); `options` may be null (no cache). */
VSK_EXPORT vsk_status_t vsk_create_extended_client_session(
    uint32_t client_type, vsk_attr_list_t *attrs, vsk_attr_list_t *auth_request,
    vsk_dyn_attr_list_t *dynamic, vsk_session_ids_t *ids, const vsk_create_options_t *options,
    const vsk_attr_list_t *inherit_types);

/* The local time of day in seconds (may be null), and the process-wide login-time text
 * "YYYY-MM-DD hh:mm:ss ZONE" that a create stores as VSK_LOGIN_TIME (may be null). The
 * text is rebuilt only when the wall-clock second has changed. */
VSK_EXPORT void vsk_get_login_time(uint32_t *seconds, const char **text);

/* ---- Update and removal ------------------------------------------------------------------
 * An update changes a client session through a list of attribute changes, a list of
 * config-bit changes (VSK_INFO_ATTR entries) and an application's private data. A session
 * in the shared-memory cache is changed in its slot only, without a transaction, until its
 * VSK_SESSION_STATE changes: then the slot is written to the tables in one transaction, the
 * authentication response too when the new state is 1, and the slot is given up when the
 * new state is 2 or 3. A session in the tables is read for update, edited and written back
 * sorted by type. Up to ten passes on -4 and -11. Afterwards the interface table and the
 * summary counters follow the difference; failures there are traced only.
 * Results: 0; -7 unknown session; -6 or -9 a bad update list (the record is unchanged);
 * -6 a config-bit list of the wrong type or length; -4 after ten passes lost to locks.
 * A cached session does not check old values, and drops private data given without
 * updates. */
VSK_EXPORT vsk_status_t vsk_update_client_session(vsk_session_id_t session_id,
                                                  const vsk_attr_update_list_t *updates);
VSK_EXPORT vsk_status_t vsk_update_client_session_and_info(
    vsk_session_id_t session_id, const vsk_attr_update_list_t *updates,
    const vsk_attr_update_list_t *info_attrs);
/* Also stores `private_data` (may be null) under the application number `app_id`. */
VSK_EXPORT vsk_status_t vsk_update_client_session_private(vsk_session_id_t session_id,
                                                          const vsk_attr_update_list_t *updates,
                                                          uint32_t app_id,
                                                          const vsk_app_data_t *private_data);
/* The form behind the three above, for library code that runs an update inside its own
 * transaction `txn` (null: the update runs its own; given: never committed or aborted
 * here). Only ids.session_id counts; `shm` is vsk_snap_get_shared_memory_ptr() or null.
 * `client_type_out` and `interface_name_out` (61 bytes) may be null. No gate check. */
VSK_EXPORT vsk_status_t vsk_update_client_session_internal(
    vsk_session_ids_t ids, void *shm, const vsk_attr_update_list_t *updates,
    const vsk_attr_update_list_t *info_attrs, uint32_t app_id,
    const vsk_app_data_t *private_data, vsk_db_txn_t *txn, uint32_t *client_type_out,
    char *interface_name_out);

/* Removes a client session: its private data, record, dynamic record (with
 * `remove_dynamic` non-zero, and only by the last client of a shared underlying interface),
 * auth request and response in one transaction (up to 250 retries on -4, -11, -21); then
 * its interface entries, summary counts, cache slot and interface unit. A session already
 * gone counts as removed (0, and the total count still goes down). A removed session that
 * named neither its interface nor an underlying one returns -7 (kept as published). */
VSK_EXPORT vsk_status_t vsk_remove_bundled_client_session(vsk_session_id_t session_id,
                                                          uint8_t remove_dynamic);
/* The same with remove_dynamic 1. */
VSK_EXPORT vsk_status_t vsk_remove_client_session(vsk_session_id_t session_id);

VSK_END_DECLS

#endif /* VSK_SESSION_H */
