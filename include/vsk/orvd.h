/* The daemon link: registration with `orvd`, the link's options, and ISSU states.
 *
 * A daemon calls orvd_init_handle, its option setters, then orvd_register; only then do
 * session operations work. At the end it calls orvd_unregister. */
#ifndef VSK_ORVD_H
#define VSK_ORVD_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

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

/* The block an ISSU callback fills in. */
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

VSK_END_DECLS

#endif /* VSK_ORVD_H */
