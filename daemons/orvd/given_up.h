// What an environment that orvd gave up in a panic leaves in orvd's process, and how it is
// let go.
//
// A panicked environment is never closed: a close would flush its old cache and log over
// the recovered store. Its handle stays referenced for the life of the process
// (GivenUpEnvironments). What it holds in the process, its descriptors on the store's files
// and its mappings of its region files, is taken stock of by its worker when the drain
// begins (TakeHoldings: after the worker's last call into it, before orvd opens the next
// environment, so that only this environment's are listed) and released once nothing can
// touch them (Release), so that recoveries use up neither descriptors nor memory.
#pragma once

#include <db.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orvd {

// Handles of environments given up in a panic, never closed or freed.
std::vector<DB_ENV*>& GivenUpEnvironments();

struct Holdings {
  std::vector<std::pair<int, std::string>> descriptors;  // and the file each names
  std::vector<std::pair<uintptr_t, size_t>> mappings;    // of the region files
};

// The store's descriptors and region mappings of this process now.
// REQUIRES: only the environment being given up has the store's files open here.
Holdings TakeHoldings();

// Closes the descriptors that still name their files and unmaps the mappings.
void Release(const Holdings& holdings);

// True when process `pid` waits in a futex inside a removed region file of the store: a
// mutex, latch or condition of a given-up environment, which nobody will ever wake.
bool WaitsInsideGivenUpStore(pid_t pid);

// Every other process that waits in a futex inside a removed region file of the store.
// An orvd that was killed leaves its clients in its environment; the next orvd's recovery
// removes those region files, and a client that waits there on what a dead process held
// is never woken.
std::vector<pid_t> ProcessesWaitingInsideRemovedStore();

}  // namespace orvd
