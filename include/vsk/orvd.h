/* The daemon link: registration with `orvd`, the link's options, and ISSU states.
 *
 * A daemon calls orvd_init_handle, its option setters, then orvd_register; only then do
 * session operations work. At the end it calls orvd_unregister. */
#ifndef VSK_ORVD_H
#define VSK_ORVD_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

#include "vsk/evlib.h"
#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

typedef struct orvd_ctx orvd_ctx_t;

/* The daemon's ISSU state as it travels on the wire: 137 bytes, packed. */
#define VSK_ISSU_ERR_TEXT_LEN 128
typedef struct __attribute__((packed)) vsk_issu_info {
  uint32_t state;
  uint32_t wait;
  uint8_t err_len;
  char err_text[VSK_ISSU_ERR_TEXT_LEN];
} vsk_issu_info_t;

/* The daemon's own ISSU states (issu_info.state). */
enum {
  ISSU_DAEMON_IDLE = 0,             /* nothing going on */
  ISSU_DAEMON_PREPARE_WAIT = 1,     /* prepare under way, not ready yet */
  ISSU_DAEMON_PREPARE_READY = 2,    /* ready for switchover */
  ISSU_DAEMON_SWITCHOVER_WAIT = 3,  /* switchover under way, not ready yet */
  ISSU_DAEMON_SWITCHOVER_READY = 4, /* switchover done here */
  ISSU_DAEMON_ABORT_WAIT = 5        /* abort under way */
};

/* The chassis daemon's states as orvd relays them; 3 and 4 are not expected. */
enum {
  ISSU_PLATD_IDLE = 0,            /* no upgrade, or it ended */
  ISSU_PLATD_PREPARE = 1,         /* daemons are to prepare */
  ISSU_PLATD_PREPARE_DONE = 2,    /* the prepare phase has finished */
  ISSU_PLATD_SWITCHOVER = 5,      /* daemons are to switch over */
  ISSU_PLATD_SWITCHOVER_DONE = 6, /* finished; session operations are refused with -27 */
  ISSU_PLATD_ABORT = 7            /* the upgrade is called off */
};

/* The block an ISSU callback fills in: `wait` to ask for time (unit agreed with orvd),
 * `text` a reason. Both are cleared before each callback. */
typedef struct vsk_issu_cbk_block {
  uint32_t wait;
  char text[VSK_ISSU_ERR_TEXT_LEN];
} vsk_issu_cbk_block_t;

typedef void (*orvd_trace_fn_t)(void *cookie, int level, const char *format, va_list args);
typedef void (*orvd_db_env_change_cbk_t)(struct __db_env *env);
typedef void (*orvd_select_fn_t)(void *cookie, int fd);

typedef void (*orvd_issu_idle_cbk_t)(void *cookie);
typedef void (*orvd_issu_prepare_cbk_t)(void *cookie, bool *abort, bool *ready,
                                        vsk_issu_cbk_block_t *block);
typedef void (*orvd_issu_done_cbk_t)(void *cookie);
typedef void (*orvd_issu_switchover_cbk_t)(void *cookie, bool *ready,
                                           vsk_issu_cbk_block_t *block);
typedef void (*orvd_issu_abort_cbk_t)(void *cookie, vsk_issu_cbk_block_t *block);

/* ---- the handle and its options ----------------------------------------------------
 * Every setter returns 0, or VSK_ERR_ORVD_FATAL (-25) for a null handle, a handle that
 * has registered already, or a null required argument; nothing changes then. */

/* The process's handle, cleared; fd -1, connect timeout 1000 ms. Installs the trace
 * forwarder in vsk_trace_cbk. A second call before orvd_unregister breaks an insist and
 * returns the existing handle. Null when out of memory. */
VSK_EXPORT orvd_ctx_t *orvd_init_handle(void);

/* Select mode: the daemon's loop watches the socket (register_fn/deregister_fn hand it
 * over and take it back) and calls orvd_select_fd_read when it is readable. */
VSK_EXPORT int orvd_set_reg_type_select(orvd_ctx_t *ctx, void *cookie,
                                        orvd_select_fn_t register_fn,
                                        orvd_select_fn_t deregister_fn);
/* Event mode: the link and its 5-second re-registration timer ride on `event_ctx`'s
 * loop. The context must not be null or empty; it is copied. */
VSK_EXPORT int orvd_set_reg_type_event(orvd_ctx_t *ctx, const evContext *event_ctx);
/* Poll mode: vsk_db_check services the link. */
VSK_EXPORT int orvd_set_reg_type_poll(orvd_ctx_t *ctx);
/* How long orvd_register waits for orvd's answer, in milliseconds. */
VSK_EXPORT int orvd_set_connect_timeout(orvd_ctx_t *ctx, uint32_t ms);
/* The daemon's trace sink; until set, the library prints nothing anywhere. */
VSK_EXPORT int orvd_set_trace_callback(orvd_ctx_t *ctx, void *cookie, orvd_trace_fn_t fn);
/* Told of each new environment handle, and of null when the store goes down. */
VSK_EXPORT int orvd_set_db_env_change_callback(orvd_ctx_t *ctx, orvd_db_env_change_cbk_t fn);

/* ISSU options; each also marks the daemon as taking part in upgrades, which makes the
 * prepare callback required at orvd_register. */
VSK_EXPORT int orvd_set_issu_idle_cbk(orvd_ctx_t *ctx, orvd_issu_idle_cbk_t fn);
VSK_EXPORT int orvd_set_issu_prepare_cbk(orvd_ctx_t *ctx, orvd_issu_prepare_cbk_t fn,
                                         orvd_issu_done_cbk_t done_fn);
VSK_EXPORT int orvd_set_issu_switchover_cbk(orvd_ctx_t *ctx, orvd_issu_switchover_cbk_t fn,
                                            orvd_issu_done_cbk_t done_fn);
VSK_EXPORT int orvd_set_issu_abort_cbk(orvd_ctx_t *ctx, orvd_issu_abort_cbk_t fn);
VSK_EXPORT int orvd_set_issu_cookie(orvd_ctx_t *ctx, void *cookie);

/* ---- registration -------------------------------------------------------------------- */

/* Opens the library for this process: shared regions, (in a client) the link to orvd,
 * the store and the interface table. Statuses: 0; -25 (bad handle, ISSU without a prepare
 * callback, link failure, refused); -17 (platform without the store); -19 (client on the
 * master before orvd finished its recovery); -26 (nobody listens on orvd's socket); or
 * the status with which the store failed to open. */
VSK_EXPORT vsk_status_t orvd_register(orvd_ctx_t *ctx);
/* A client's way back after a loss; keeps the role of the first registration. */
VSK_EXPORT vsk_status_t orvd_reregister(orvd_ctx_t *ctx);
/* Ends everything, frees the handle and clears *ctx_slot. Returns the close's status. */
VSK_EXPORT vsk_status_t orvd_unregister(orvd_ctx_t **ctx_slot);
/* True when a handle exists and orvd_register has finished on it. */
VSK_EXPORT bool orvd_is_registered(void);

/* Closes the link; with take_down also takes the store down in this process; with
 * start_timer (event mode) arms the re-registration timer. */
VSK_EXPORT void orvd_reg_cleanup(orvd_ctx_t *ctx, bool take_down, bool start_timer);

/* Select mode: the socket is readable. Does nothing for a null handle or closed link. */
VSK_EXPORT void orvd_select_fd_read(orvd_ctx_t *ctx);
/* Poll mode: takes in whatever orvd has sent, without waiting. */
VSK_EXPORT void orvd_poll_check(orvd_ctx_t *ctx);

/* Tells orvd once per handle that the daemon's own recovery has finished. */
VSK_EXPORT vsk_status_t orvd_send_recovery_complete(orvd_ctx_t *ctx);
/* Asks orvd to push replication. REQUIRES: ctx not null. */
VSK_EXPORT vsk_status_t orvd_send_replication_request(orvd_ctx_t *ctx);

/* ---- ISSU answers ----------------------------------------------------------------
 * The callbacks run in the message reader's context and may call these directly, though
 * the usual way is to fill in the block and return. Each returns 0, the status of the
 * send, or VSK_ERR_ORVD_FATAL (-25) for a null handle or a state that does not allow it;
 * a refused call traces why and sends nothing. */

/* The daemon has finished what it asked time for: prepare wait becomes prepare ready,
 * switchover wait becomes switchover ready, abort wait becomes idle. */
VSK_EXPORT vsk_status_t orvd_send_issu_state_ready(orvd_ctx_t *ctx);
/* Asks for more time in a wait state in which it asked for time before (wait not 0).
 * A null or empty `text` keeps the previous reason; longer texts are cut to 127. */
VSK_EXPORT vsk_status_t orvd_send_issu_wait_extend(orvd_ctx_t *ctx, uint32_t wait,
                                                   const char *text);
/* Calls the upgrade off; only while preparing and not ready (prepare wait). */
VSK_EXPORT vsk_status_t orvd_send_issu_abort(orvd_ctx_t *ctx, uint32_t wait, const char *text);

/* The daemon's ISSU state and the chassis daemon's, as last known. No null check. */
VSK_EXPORT uint32_t orvd_get_daemon_issu_state(orvd_ctx_t *ctx);
VSK_EXPORT uint32_t orvd_get_platd_issu_state(orvd_ctx_t *ctx);

VSK_END_DECLS

#endif /* VSK_ORVD_H */
