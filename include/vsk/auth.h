/* Authentication records: the request that went out to the authentication daemon and the
 * response that came back, two attribute lists beside a client session's attributes.
 *
 * Each is kept in "auth-request-db" or "auth-response-db" under the session id or, while
 * the session lives in the shared-memory cache, in the request or response block of its
 * slot. For a cached session the blocks are the truth, with one exception kept on purpose:
 * vsk_update_auth_response always reads and writes the table. A list that overflows a
 * cache block sends the whole session to the tables and gives up its slot; the entries
 * that did not fit into the block are dropped and the call still reports 0.
 *
 * Lists passed in stay the caller's. The lists handed out by vsk_get_auth_request and
 * vsk_get_auth_response are deep copies on the heap: free them with vsk_free_auth_info.
 *
 * Statuses: 0; -6 a bad argument; -7 no record (reads only: an update starts from an
 * empty list); -2 out of memory; or the store's status after four attempts on -4/-11. */
#ifndef VSK_AUTH_H
#define VSK_AUTH_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/status.h"
#include "vsk/store.h"

VSK_BEGIN_DECLS

/* Replaces the request (response) of session `id` with `list` (null: an empty list). */
VSK_EXPORT vsk_status_t vsk_set_auth_request(vsk_session_id_t id, const vsk_attr_list_t *list);
VSK_EXPORT vsk_status_t vsk_set_auth_response(vsk_session_id_t id, const vsk_attr_list_t *list);
/* The body of both: `is_request` picks the list. */
VSK_EXPORT vsk_status_t vsk_set_auth_info(vsk_session_id_t id, const vsk_attr_list_t *list,
                                          bool is_request);

/* Applies attribute changes to the request (response); a missing record starts empty.
 * A null `updates` is -6 before anything else. */
VSK_EXPORT vsk_status_t vsk_update_auth_request(vsk_session_id_t id,
                                                const vsk_attr_update_list_t *updates);
VSK_EXPORT vsk_status_t vsk_update_auth_response(vsk_session_id_t id,
                                                 const vsk_attr_update_list_t *updates);

/* A deep copy of the request (response) in *out, null on failure. With `take` the table
 * record is deleted in the same transaction; `take` does nothing for a cached session. */
VSK_EXPORT vsk_status_t vsk_get_auth_request(vsk_session_id_t id, bool take,
                                             vsk_attr_list_t **out);
VSK_EXPORT vsk_status_t vsk_get_auth_response(vsk_session_id_t id, bool take,
                                              vsk_attr_list_t **out);
/* The body of both. A null `out` is a broken caller: reported as an insist, then -6. */
VSK_EXPORT vsk_status_t vsk_get_auth_info(vsk_session_id_t id, bool take,
                                          vsk_attr_list_t **out, bool is_request);

/* Frees a list from vsk_get_auth_*: every entry with its value, then the head. Null is
 * allowed. */
VSK_EXPORT void vsk_free_auth_info(vsk_attr_list_t *list);

VSK_END_DECLS

#endif /* VSK_AUTH_H */
