/* The interface table ("secondary tables"): per interface name, how many sessions ride on
 * it and which client sessions sit on it as their underlying interface.
 *
 * Derived data, held in the memory-mapped file "/mfs/var/vsk/shmem/vsk_intf.db" that all
 * processes share: `orvd` creates it empty at each start and refills it from the session
 * store (vsk_db_secondary_recover); every other process maps it in registration. Each
 * operation takes semaphore 2 for its whole length and holds nothing across calls. A
 * process that dies holding it leaves its pid in the file: the next caller, in any
 * process, gets VSK_ERR_SECONDARY_RECOVERY (-21) and its store moves to "needs recovery";
 * `orvd` repairs with vsk_failcheck().
 *
 * Statuses: -1 not initialised or the semaphore failed, -2 out of memory or the file
 * can't be mapped, -6 bad argument, -7 unknown name on reads, -21 a dead lock holder. */
#ifndef VSK_INTF_H
#define VSK_INTF_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/session.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Kind bits of vsk_db_interface_add and vsk_db_interface_remove. */
#define VSK_INTF_KIND_IFL 1u  /* the session's own interface: counts in ifl_count */
#define VSK_INTF_KIND_UIFL 2u /* an underlying interface: counts in uifl_count, keeps the id */

/* Names are NUL-terminated and cut to 59 characters when stored. */
#define VSK_INTF_NAME_SIZE 60

/* Maps the table. A client maps what `orvd` made (0 at once if mapped already); `orvd`
 * (is_orvd) creates the file anew, empty, at the initial size. 0 or -2. */
VSK_EXPORT vsk_status_t vsk_db_secondary_init(bool is_orvd);
/* Rebuilds the table and the derived counters from the store; `orvd` on the master only.
 * Moves the status word to 2 and, on success, to 3. */
VSK_EXPORT vsk_status_t vsk_db_secondary_recover(void);
/* Looks for a dead holder of the table's lock; if one is found, recreates and rebuilds
 * the table. vsk_failcheck() forwards here. */
VSK_EXPORT vsk_status_t vsk_db_secondary_failcheck(void);

/* Counts a session on `name`: `kind` bit 0 raises ifl_count, bit 1 raises uifl_count and
 * records `session_id` in the name's tree. With `set_state` non-zero the interface's state
 * becomes `state`. 0, -1, -2 (no memory: a count raised before stands), -21. */
VSK_EXPORT vsk_status_t vsk_db_interface_add(const char *name, uint32_t kind,
                                             vsk_session_id_t session_id, uint8_t set_state,
                                             uint32_t state);
/* The reverse of an add; the record goes (with its state) when both counts reach 0.
 * An unknown name is 0. */
VSK_EXPORT vsk_status_t vsk_db_interface_remove(const char *name, uint32_t kind,
                                                vsk_session_id_t session_id);
VSK_EXPORT vsk_status_t vsk_db_interface_get_state(const char *name, uint32_t *state_out);
VSK_EXPORT vsk_status_t vsk_db_interface_set_state(const char *name, uint32_t state);

/* `count_out` is 0 before anything else; -7 when the name has no underlying clients. */
VSK_EXPORT vsk_status_t vsk_db_get_num_clients_on_uifl(const char *name, uint32_t *count_out);
/* The smallest session id on `name` as underlying interface; -7 if none. */
VSK_EXPORT vsk_status_t vsk_db_get_first_client_on_uifl(const char *name,
                                                        vsk_session_id_t *id_out);
/* The ids on `name`, ascending, in a malloc'ed array of *count_out ids that the caller
 * frees. -6 for a null output, -7 when none, -2 when the array can't be allocated. */
VSK_EXPORT vsk_status_t vsk_db_get_clients_by_uifl(const char *name, uint32_t *count_out,
                                                   vsk_session_id_t **ids_out);
/* Every client with an underlying interface, by interface name and then by id, in a
 * malloc'ed array bounded by the summary counter of all client sessions. -1 when there are
 * more: the array and the count so far are still handed out, and the caller frees. */
VSK_EXPORT vsk_status_t vsk_db_get_session_list(uint32_t *count_out, vsk_session_id_t **ids_out);
/* vsk_db_get_session_list with -6 for a null argument. */
VSK_EXPORT vsk_status_t vsk_get_session_list(uint32_t *count_out, vsk_session_id_t **ids_out);

VSK_END_DECLS

#endif /* VSK_INTF_H */
