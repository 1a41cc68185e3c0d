// The event library: file-descriptor callbacks on the daemon's single event loop.
//
// On this platform an evContext wraps one libevent event_base, so an event-mode daemon
// runs one libevent loop for its own events, the daemon link and the timers (wtimer.h).
// Handles are small structs passed by value, as the event library's callers expect.
#pragma once

#include "vsk/export.h"

extern "C" {

typedef struct evContext {
  void* opaque;
} evContext;

typedef struct evFileID {
  void* opaque;
} evFileID;

#define EV_READ 1
#define EV_WRITE 2
#define EV_EXCEPT 4

typedef void (*evFileFunc)(evContext ctx, void* uap, int fd, int eventmask);

}  // extern "C"
