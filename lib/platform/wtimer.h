// Timers on the daemon's event loop (see evlib.h): a root per event context, and leaves
// that fire a callback once after an interval.
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

}  // extern "C"
