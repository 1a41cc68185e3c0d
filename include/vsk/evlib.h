/* The event library: file-descriptor callbacks and a loop runner on one event loop.
 *
 * On this platform an evContext wraps one libevent event_base, so an event-mode daemon
 * runs a single libevent loop for its own events, the daemon link and the timers. A
 * daemon either lets evCreate make the base, or wraps the base it already runs with
 * evCreateFromBase. Handles are small structs passed by value.
 *
 * Every call returns 0 on success and -1 with errno set on failure (EINVAL for an empty
 * context, a bad descriptor, a null callback or an event mask without EV_READ/EV_WRITE).
 * A context belongs to one thread, the one that runs its loop. */
#ifndef VSK_EVLIB_H
#define VSK_EVLIB_H

#include "vsk/export.h"

VSK_BEGIN_DECLS

struct event_base;

typedef struct evContext {
  void *opaque; /* null: no context */
} evContext;

typedef struct evFileID {
  void *opaque; /* null: no registration */
} evFileID;

/* Event masks. The values are libevent's own, so a daemon may include both headers. */
#define EV_READ 0x02
#define EV_WRITE 0x04

/* Called on the loop when `fd` is ready; `eventmask` holds the ready conditions. The
 * callback may deselect its own registration or any other one. */
typedef void (*evFileFunc)(evContext ctx, void *uap, int fd, int eventmask);

/* A new context that owns a new event_base. */
VSK_EXPORT int evCreate(evContext *ctx);
/* A context over `base`, which stays the caller's: evDestroy leaves it alone. */
VSK_EXPORT int evCreateFromBase(struct event_base *base, evContext *ctx);
/* Drops every registration still made through this context, then the context (and its
 * base when it owns it). The context must not be running its loop. */
VSK_EXPORT int evDestroy(evContext ctx);
/* The context's event_base, or null for an empty context. */
VSK_EXPORT struct event_base *evGetBase(evContext ctx);

/* Calls `func(ctx, uap, fd, ready)` each time `fd` is ready for a condition of
 * `eventmask`, until deselected. Writes the registration's id to `id`. */
VSK_EXPORT int __evSelectFD(evContext ctx, int fd, int eventmask, evFileFunc func,
                            void *uap, evFileID *id);
/* Ends a registration; its id is invalid afterwards. */
VSK_EXPORT int __evDeselectFD(evContext ctx, evFileID id);

/* Runs the loop until evBreak or until nothing is registered. */
VSK_EXPORT int evMainLoop(evContext ctx);
/* Waits up to `timeout_ms` (negative: without limit) for events and runs the callbacks
 * of those that came; returns after one round. */
VSK_EXPORT int evDispatchOnce(evContext ctx, int timeout_ms);
/* Makes evMainLoop return after the current callback. */
VSK_EXPORT int evBreak(evContext ctx);

VSK_END_DECLS

#endif /* VSK_EVLIB_H */
