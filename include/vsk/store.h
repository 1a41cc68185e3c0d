/* The store environment: its lifecycle, health gate and transaction helpers.
 *
 * One Berkeley DB environment under "/mfs/var/vsk/" holds every session table. The
 * infrastructure daemon `orvd` creates and recovers it; every other daemon joins it.
 * A daemon never calls vsk_db_init itself: the daemon link does (vsk/orvd.h). */
#ifndef VSK_STORE_H
#define VSK_STORE_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Environment states. Only VSK_ENV_READY lets vsk_db_check pass. */
typedef enum vsk_env_state {
  VSK_ENV_INIT = 0,
  VSK_ENV_OPENED = 1,
  VSK_ENV_REPLICATING = 2,
  VSK_ENV_NOT_REPLICATED = 3,
  VSK_ENV_TABLES_OPEN = 4,
  VSK_ENV_CLOSING = 5,
  VSK_ENV_CLOSED = 6,
  VSK_ENV_READY = 7,
  VSK_ENV_PANIC = 8,
  VSK_ENV_DOWN = 9,
  VSK_ENV_NEEDS_RECOVERY = 10
} vsk_env_state_t;

/* The caller's transaction block, cleared before use and passed first to every table
 * operation. */
typedef struct vsk_db_txn {
  struct __db_txn *txn;       /* null when none */
  struct __dbc *cursor;       /* null when none */
  struct vsk_db_txn *parent;  /* outer transaction block, or null */
} vsk_db_txn_t;

VSK_EXPORT vsk_status_t vsk_db_init(struct orvd_ctx *orvd_handle, bool is_orvd);
VSK_EXPORT int vsk_db_close(void);
VSK_EXPORT vsk_status_t vsk_db_check(void);

/* Transactions. A null block gives -6. A block may be ended only through the address
 * that began it: ending or aborting a copy of a block, a block whose transaction has
 * already ended (through another copy, or with its parent), or one left over from an
 * environment that has since closed, gives -6 with a trace and clears its `txn`.
 * Not detected, and undefined: a block whose memory was freed and then reused at the same
 * address while it still holds its old handle, and a block shared between threads. */
VSK_EXPORT vsk_status_t vsk_db_start_txn(vsk_db_txn_t *ctx);
VSK_EXPORT vsk_status_t vsk_db_end_txn(vsk_db_txn_t *ctx);
VSK_EXPORT vsk_status_t vsk_db_abort_txn(vsk_db_txn_t *ctx, vsk_status_t status);

VSK_EXPORT void vsk_db_event_down(struct orvd_ctx *orvd_ctx);
VSK_EXPORT void vsk_db_event_recover(void);

/* Writes the environment handle (null when closed); -1 if no context exists yet. */
VSK_EXPORT int vsk_db_get_dbenv(struct __db_env **out);
/* The daemon-link handle, or null while no store context exists. */
VSK_EXPORT struct orvd_ctx *vsk_db_get_orvd_handle(void);
VSK_EXPORT void vsk_db_reset_orvd_handle(void);

/* The master flag lives outside the store context and survives every close. */
VSK_EXPORT void vsk_db_set_master(bool flag);
VSK_EXPORT bool vsk_db_rep_is_master(void);
VSK_EXPORT bool vsk_is_master(void);

/* Platform capability, from the platform's model id. */
VSK_EXPORT bool vsk_db_supported(void);
VSK_EXPORT bool vsk_db_rep_supported(void);
VSK_EXPORT bool vsk_db_support_scaling(void);

VSK_EXPORT vsk_status_t vsk_failcheck(void);
VSK_EXPORT vsk_status_t vsk_recover_catastrophic(void);
VSK_EXPORT vsk_status_t vsk_trigger_sync(void);

VSK_END_DECLS

#endif /* VSK_STORE_H */
