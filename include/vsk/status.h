/* Status codes, the trace hook and the two process-wide switches.
 *
 * Every public operation returns a vsk_status_t: 0 or one of the negative codes below.
 * The numbers are part of the interface: daemons compare against them and the daemon
 * link carries them on the wire. Raw Berkeley DB and errno values are turned into
 * statuses by get_vsk_err(). */
#ifndef VSK_STATUS_H
#define VSK_STATUS_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"

VSK_BEGIN_DECLS

typedef int32_t vsk_status_t;

enum {
  VSK_OK = 0,
  VSK_ERR_FATAL = -1,
  VSK_ERR_NOMEM = -2,
  VSK_ERR_INVALID_DATA = -3,
  VSK_ERR_RETRY = -4,
  VSK_ERR_CORRUPT = -5,
  VSK_ERR_INVALID_PARAM = -6,
  VSK_ERR_NOT_FOUND = -7,
  VSK_ERR_ATTR_EXISTS = -8,
  VSK_ERR_ATTR_MISMATCH = -9,
  VSK_ERR_UNIT_EXHAUSTED = -10,
  VSK_ERR_RECOVERING = -11,
  VSK_ERR_REP_NOT_STARTED = -12,
  VSK_ERR_READ_ONLY = -13,
  VSK_ERR_STATE_RECOVERING = -14,
  VSK_ERR_REP_UNSUPPORTED = -15,
  VSK_ERR_NO_ARRAY = -16,
  VSK_ERR_UNSUPPORTED = -17,
  VSK_ERR_NOT_STARTED = -19,
  VSK_ERR_SNAPSHOT_ONLY = -20,
  VSK_ERR_SECONDARY_RECOVERY = -21,
  VSK_ERR_SUMMARY_COUNTER = -22,
  VSK_ERR_SHM_IN_USE = -23,
  VSK_ERR_SHM_TOO_SMALL = -24,
  VSK_ERR_ORVD_FATAL = -25,
  VSK_ERR_ORVD_CONNECT = -26,
  VSK_ERR_ISSU = -27,
  /* Internal to walks: a record read and then filtered out. Has no message. */
  VSK_ERR_FILTERED = -29
};

/* Trace levels. Nearly every trace uses VSK_TRACE_LEVEL; broken invariants use
 * VSK_TRACE_LEVEL_ERROR. */
#define VSK_TRACE_LEVEL 65287
#define VSK_TRACE_LEVEL_ERROR 65283
#define VSK_TRACE_LEVEL_UID 65286

/* The trace hook: handle (the daemon-link handle or null), level, printf format, args. */
typedef void (*vsk_trace_cbk_t)(void *handle, int level, const char *format, ...);

/* Null until set; nothing is formatted while it is null. */
VSK_EXPORT extern vsk_trace_cbk_t vsk_trace_cbk;
/* Switches the recovery debug log and extra recovery traces on. */
VSK_EXPORT extern bool vsk_debug;
/* Set when the Berkeley DB environment must not be touched any more. */
VSK_EXPORT extern bool vsk_in_panic;

/* Constant text for a status; never freed. Null for 0, a fixed text for codes outside
 * the table. Meant for failures only. */
VSK_EXPORT const char *vsk_get_err_msg(vsk_status_t code);

/* Translates a Berkeley DB value, a positive errno or an already translated status. */
VSK_EXPORT vsk_status_t get_vsk_err(int value);

VSK_EXPORT void vsk_set_trace_cbk(vsk_trace_cbk_t fn);
VSK_EXPORT void vsk_orvd_set_debug(int flag);

VSK_END_DECLS

#endif /* VSK_STATUS_H */
