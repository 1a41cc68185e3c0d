/* The recovery walk: every client session of the store, one loaded snapshot at a time, for
 * a daemon that rebuilds its own memory after a restart or a change of mastership; the
 * per-session step with which `orvd` rebuilds the shared state; and the rebuild's optional
 * debug log.
 *
 * A recovery walk is a snapshot walk that reads the tables alone, never the shared-memory
 * cache, and it runs on the master only (-1 with "Application tried to recover data on
 * standby RE" elsewhere). Each step has its own transaction; nothing is held between steps,
 * so sessions created or removed meanwhile are seen or missed by their id.
 *
 * Who may call: any registered daemon on the master, from its own thread. */
#ifndef VSK_RECOVER_H
#define VSK_RECOVER_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Calls `callback` with a loaded handle for every session that passes `filter` (required:
 * flags with bit 0 or bit 1), freeing the handle after each call; the callback's result is
 * ignored. `filter->app_id` is copied into the handle so that the application's private
 * data comes along. 0 at the end ("Recover Finish, recovered %d entries"), else the status
 * that stopped the walk. */
VSK_EXPORT vsk_status_t vsk_recover_sessions(vsk_snapshot_callback_t callback,
                                             const vsk_snapshot_filter *filter);

/* The same walk in portions kept in the caller's `handle` (zeroed before the first call;
 * the caller sets `handle->app_id` itself). Each call makes at most `max_count` callbacks
 * (0: no limit) and returns 0 after a full portion; -7 when the walk is at its end. A call
 * with `done` true on a running walk ends it and returns 0; a walk stopped without that
 * call keeps its block allocated. */
VSK_EXPORT vsk_status_t vsk_get_next_recover_sessions(vsk_snapshot_callback_t callback,
                                                      const vsk_snapshot_filter *filter,
                                                      vsk_snapshot_handle *handle,
                                                      int32_t max_count, uint8_t done);

/* The rebuild's step for one loaded client session (with its services): interface table
 * entries, session ids, the stored interface unit, the summary counters. Failures are
 * traced and passed over. Always 0. */
VSK_EXPORT int vsk_recover_one_session(vsk_snapshot_handle *handle);

/* The debug log "/var/log/vsk.recover", kept only while vsk_debug is set: opened (for
 * appending) with a header, one line per session and per service, a closing line. */
VSK_EXPORT void vsk_recover_debug_init(void);
VSK_EXPORT void vsk_recover_debug_output(vsk_snapshot_handle *handle);
VSK_EXPORT void vsk_recover_debug_end(void);

VSK_END_DECLS

#endif /* VSK_RECOVER_H */
