/* The acknowledgement channel: a daemon asks the replication service to confirm that the
 * standby holds what the master had written when the request was made, and learns the
 * answer later through a callback on its event loop.
 *
 * Requests made close together are gathered for 200 ms and go out as messages of up to
 * 150 ids. Every request accepted with VSK_ACK_ACCEPTED gets exactly one callback:
 * VSK_ACK_POSITIVE once the standby has the data, VSK_ACK_NEGATIVE when the connection to
 * the replication service is lost or the message could not be sent. A request refused
 * (VSK_ACK_NO_CONNECTION, VSK_ACK_FAILURE) gets none.
 *
 * Everything runs on the caller's event loop thread; there is no unregister. */
#ifndef VSK_ACK_H
#define VSK_ACK_H

#include <stdint.h>

#include "vsk/evlib.h"
#include "vsk/export.h"

VSK_BEGIN_DECLS

struct wtimer_root;

/* Results. */
#define VSK_ACK_SUCCESS 0       /* vsk_ack_register: done */
#define VSK_ACK_NO_CONNECTION 0 /* vsk_ack_request: no connection, no callback will come */
#define VSK_ACK_ACCEPTED 1      /* vsk_ack_request: taken, one callback will come */
#define VSK_ACK_FAILURE 2       /* either: refused */

/* Statuses given to the response callback. */
#define VSK_ACK_POSITIVE 0
#define VSK_ACK_NEGATIVE 2

typedef void (*vsk_ack_response_cbk_t)(uint32_t context1, uint32_t context2, int status);

/* The caller's structure: its first word is the daemon's event context. */
typedef struct vsk_ack_app_context {
  evContext event_ctx;
} vsk_ack_app_context_t;

/* Sets the channel up once per process. `context` points at a structure whose first word is
 * the event context; `timer_context` is a timer root on that loop, or null to have one
 * made here. Returns VSK_ACK_SUCCESS, or VSK_ACK_FAILURE (null context or callback, a
 * second registration, or no timer). */
VSK_EXPORT int vsk_ack_register(void *context, struct wtimer_root *timer_context,
                                vsk_ack_response_cbk_t callback);

/* Asks for one acknowledgement; the two values come back in the callback. Returns
 * VSK_ACK_ACCEPTED, VSK_ACK_NO_CONNECTION or VSK_ACK_FAILURE (not registered, no memory). */
VSK_EXPORT int vsk_ack_request(uint32_t context1, uint32_t context2);

VSK_END_DECLS

#endif /* VSK_ACK_H */
