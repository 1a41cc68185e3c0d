// What one process attaches of the state the processes share, as one list in the order
// it comes up: key files, main segment, snapshot segment, semaphore set with the id
// generator, summary counters, status word, replication queue, unit pools, interface file.
//
// vsk_open_internal walks the list forwards and attaches the rows it brings up itself;
// vsk_close_internal closes the store and then walks it backwards, detaching every row
// that a process gives up. The other rows come up elsewhere and say where; the list is
// still the one place that names them, and what tests walk to check a process's holdings.
//
// Invariants:
//  1. Nothing here creates or removes a System V object the creator did not ask for, and
//     nothing removes one at all: the shared objects outlive every process.
//  2. Detaching a row that is not attached does nothing, so a close copes with any
//     subset left by a failed open.
//  3. The semaphore set's id is kept across a close (a later open reuses it), and the
//     interface table stays mapped.
// Who may call: the daemon's main context (registration and its take-down).
#pragma once

#include <cstdint>
#include <span>

namespace vsk::shared {

struct Attachment {
  const char* name;
  // Brings the row up (`create`: this process is the creator); 0 or a negative result.
  // Null when another step brings it up (`attached_by`).
  int (*attach)(bool create);
  // Drops this process's hold. Null when the row stays (`kept`) or another step drops it.
  void (*detach)();
  // Whether this process holds the row now; null for rows that hold nothing.
  bool (*attached)();
  const char* attach_failed;  // trace of a failed attach ("%d" with its result), or null
  const char* attached_by;    // who brings the row up when `attach` is null
};

// Every row, in the order a process brings them up.
std::span<const Attachment> Attachments();

// Attaches the rows that have `attach`, forwards; the first failure stops the walk with
// -1 (traced). Earlier rows stay attached for the caller's close to drop.
int AttachAll(bool create);

// Detaches the rows that have `detach`, backwards.
void DetachAll();

// Whether the id generator, or unit pool `type`, is attached in this process.
bool IdGeneratorAttached();
bool UnitPoolAttached(uint32_t type);

}  // namespace vsk::shared
