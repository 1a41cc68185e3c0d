/* Service sessions: one per service that a subscriber has activated, hanging from its
 * client session.
 *
 * A service session has its own id (from the same generator as client sessions), its own
 * attributes, which always hold VSK_SERVICE_NAME (written by the library, with its
 * terminating NUL), its own config bits and, optionally, a dynamic configuration record
 * under its own id. Its record names its client; the client's record lists at most 10
 * service ids. Each operation keeps both sides right in one transaction. A client still in
 * the shared-memory cache keeps its list in its slot only; its table row is not touched.
 *
 * VSK_SESSION_STATE 2 means active; a create does not set it (put it in `attrs`, or call
 * vsk_activate_service_sessions). Service sessions are not counted by state or type; their
 * config bits join the config-bit counters when an update sets them and leave them at
 * removal. Reads go through snapshots (vsk/snapshot.h, vsk/attr_read.h). A client session
 * must lose its services before it is removed.
 *
 * Lists and private data are borrowed for the call. Results: 0 or a status of
 * vsk/status.h; -6 with a trace for missing arguments or a list entry with a length and no
 * value. */
#ifndef VSK_SERVICE_H
#define VSK_SERVICE_H

#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/session.h"
#include "vsk/status.h"
#include "vsk/store.h"
#include "vsk/tables.h"

VSK_BEGIN_DECLS

/* Creates a service session of `client_id` named `service_name` (NUL-terminated) with
 * `attrs` and `dynamic` (both may be null); *service_id receives the new id. The name's
 * node sits on the head of `attrs` during the call only. Up to four passes on -4 and -11.
 * -6 when the client has 10 services already (nothing of the new one stays), -7 when the
 * client does not exist. No summary counter changes. */
VSK_EXPORT vsk_status_t vsk_create_service_session_by_client_id(vsk_session_id_t client_id,
                                                                const char *service_name,
                                                                vsk_attr_list_t *attrs,
                                                                vsk_dyn_attr_list_t *dynamic,
                                                                vsk_session_id_t *service_id);

/* Removes a service session: its private data (traced when found) and record, and its id
 * from its client's list, in one transaction (up to 250 retries on -4 and -11); then its
 * config bits leave the counters. Its dynamic record stays. -7 unknown service or client,
 * -5 the client does not list it. */
VSK_EXPORT vsk_status_t vsk_remove_service_session(vsk_session_id_t service_id);

/* Updates a service session's attributes (`updates`), config bits (`info_attrs`, entries
 * of VSK_INFO_ATTR) and an application's private data; any may be null. The record is
 * read for update, edited and written back sorted by type; up to four passes on -4 and -11.
 * When the bits changed, the old ones leave the counters and the new ones join them.
 * -7 unknown service; -6 or -9 a bad list (the record is unchanged). */
VSK_EXPORT vsk_status_t vsk_update_service_session(vsk_session_id_t service_id,
                                                   const vsk_attr_update_list_t *updates);
VSK_EXPORT vsk_status_t vsk_update_service_session_and_info(
    vsk_session_id_t service_id, const vsk_attr_update_list_t *updates,
    const vsk_attr_update_list_t *info_attrs);
VSK_EXPORT vsk_status_t vsk_update_service_session_private(vsk_session_id_t service_id,
                                                           const vsk_attr_update_list_t *updates,
                                                           uint32_t app_id,
                                                           const vsk_app_data_t *private_data);
/* The form behind the three above, for library code: with `parent_txn` (may be null) the
 * update's transaction is a child of it and commits into it. No gate check. */
VSK_EXPORT vsk_status_t vsk_update_service_session_internal(
    vsk_session_id_t service_id, const vsk_attr_update_list_t *updates,
    const vsk_attr_update_list_t *info_attrs, uint32_t app_id, const vsk_app_data_t *private_data,
    vsk_db_txn_t *parent_txn);

/* Sets VSK_SESSION_STATE to 2 on the `count` services of `ids`, whatever their state was,
 * in one transaction: all change or none. After a failure (traced) the result is what the
 * abort of that transaction returned, kept as published: 0 when the abort worked or no
 * transaction could be begun, -11 during recovery. A caller that must know whether the
 * services changed reads them back. */
VSK_EXPORT vsk_status_t vsk_activate_service_sessions(const vsk_session_id_t *ids, uint32_t count);

VSK_END_DECLS

#endif /* VSK_SERVICE_H */
