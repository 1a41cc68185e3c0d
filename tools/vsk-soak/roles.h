// The processes of the soak: what each kind does in its own process, and the rows the
// writers leave behind.
//
// Every role is a forked process of vsk-soak that registers with orvd in poll mode. Each
// function returns the process's exit code (0 when it did what it came for). A writer
// reports every commit that returned by writing the row's id to `report_fd` after the
// commit, so the parent's list of committed rows never holds one that was not committed.
#pragma once

#include <cstdint>

namespace vsk::soak {

// One short life: register, check the store, unregister.
int ChurnLife();
// One probe of service: register, write a row, read it back, unregister.
int ProbeLife(uint64_t row);
// Writes rows first, first+1, ... for ever (until killed), reporting each commit.
int WriterLife(uint64_t first, int report_fd);
// Adds and removes sessions on a few interfaces of the interface table for ever.
int InterfaceUserLife(uint64_t seed);
// Reads back every id in `ids` (count of them); the number that is missing or wrong, or -1
// when the store cannot be reached.
long CountLostRows(const uint64_t* ids, long count);

}  // namespace vsk::soak
