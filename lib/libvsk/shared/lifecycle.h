// Internal half of the take-down of the shared regions (see lifecycle.cc).
#pragma once

namespace vsk::shared {

// Drops every process-local pointer into shared memory, in this order: id generator, unit
// allocators 0 and 1, summary counters, main segment, snapshot segment, status word. The
// semaphore id is kept. vsk_close_internal runs it right after closing the store.
void DetachAll();

}  // namespace vsk::shared
