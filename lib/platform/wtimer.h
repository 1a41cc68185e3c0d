// Timers on the daemon's event loop (see evlib.h): a root per event context, and leaves
// that fire a callback once after an interval, on the same libevent event_base.
//
// Who may call: the thread that runs the context's loop. A leaf's callback runs on that
// loop; it may start its own leaf again or destroy it.
//
// Invariants:
//  1. wtimer_running(leaf) is true from wtimer_start_oneshot_precise until the callback
//     is entered (or the leaf is destroyed); the callback sees it false, so it may restart.
//  2. A leaf fires at most once per start; starting a running leaf restarts its interval.
#pragma once

#include <cstdint>

#include "platform/evlib.h"

extern "C" {

typedef struct wtimer_root wtimer_root_t;
typedef struct wtimer_leaf wtimer_leaf_t;

typedef struct wtimer_interval {
  uint32_t sec;
  uint32_t nsec;
} wtimer_interval_t;

typedef void (*wtimer_callback_t)(wtimer_leaf_t* leaf, void* arg);

// Told when a timer of the root can no longer be armed (the event loop refused it): the
// daemon's timers are then dead and it cannot go on as it was.
typedef void (*wtimer_fatal_t)(const char* reason);

// A timer root on the event context's loop; null for an empty context or no memory.
// `flags` is reserved (0). The caller owns it (wtimer_root_destroy).
wtimer_root_t* wtimer_init(evContext event_ctx, uint32_t flags);

// A stopped leaf of `root` that calls `callback(leaf, arg)` when it fires; null for a
// null root or callback. The caller owns it (wtimer_destroy).
wtimer_leaf_t* wtimer_create_leaf(wtimer_root_t* root, uint32_t flags,
                                  wtimer_callback_t callback, void* arg);

// Arms the leaf to fire once after `interval` (nanoseconds rounded up to microseconds).
// Returns 0, or -1 for a null leaf or interval or an nsec of a second or more.
int wtimer_start_oneshot_precise(wtimer_leaf_t* leaf, const wtimer_interval_t* interval,
                                 uint32_t flags);

// True while the leaf is armed and has not fired yet.
bool wtimer_running(const wtimer_leaf_t* leaf);

// Stops and frees the leaf. Null is accepted. Returns 0.
int wtimer_destroy(wtimer_leaf_t* leaf);

// Frees a root. REQUIRES: its leaves are destroyed.
void wtimer_root_destroy(wtimer_root_t* root);

// Installs the root's fatal handler (null: none). A null root is ignored.
void wtimer_set_fatal_handler(wtimer_root_t* root, wtimer_fatal_t handler);

}  // extern "C"

struct event_base;

namespace vsk::platform {
// The event loop a root's timers run on, for platform code that watches descriptors on the
// same loop; null for a null root.
event_base* TimerRootBase(const wtimer_root_t* root);
}  // namespace vsk::platform
