/* Session ids and the id block of the extended create call.
 *
 * Client and service sessions share one id space, 1 to 0x7FFFFFFFFFFFFFFF; 0 means "no
 * session". Ids are never handed out twice until the space wraps (vsk/shared.h). */
#ifndef VSK_SESSION_H
#define VSK_SESSION_H

#include <stdint.h>

#include "vsk/export.h"

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

VSK_END_DECLS

#endif /* VSK_SESSION_H */
