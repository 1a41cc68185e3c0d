// The System V objects of one root, and their removal.
//
// Every System V object the library makes is keyed by ftok() of a key file under the root:
//   main segment        the shared-memory key file, the main segment's project number
//   snapshot segment    the shared-memory key file, the snapshot segment's project number
//   semaphore set       SemaphoreKey(): the shared-memory key file again (semaphore keys
//                       are a name space of their own)
//   replication queue   LodexKey(): the replication key file
// The keys come from the library's own functions and constants, so this list follows
// whatever the library makes. Berkeley DB keeps its regions in files under the store's
// home, and the interface table is a file too: removing the root takes those away.
//
// REQUIRES: VSK_ROOT names the root (the caller checks that it is a directory other
// than "/", since without a root the keys are those of the system itself).
#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "demo.h"
#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"
#include "transcript.h"

namespace vsk::demo {
namespace {

using shared::RootObject;

std::string Describe(const RootObject& o, int id) {
  char text[96];
  if (o.semaphore) {
    semid_ds ds{};
    union {  // semctl's fourth argument, which the caller must declare
      int val;
      semid_ds* buf;
    } arg{};
    arg.buf = &ds;
    if (semctl(id, 0, IPC_STAT, arg) != 0) return "";
    std::snprintf(text, sizeof text, "%lu semaphores", static_cast<unsigned long>(ds.sem_nsems));
  } else {
    shmid_ds ds{};
    if (shmctl(id, IPC_STAT, &ds) != 0) return "";
    std::snprintf(text, sizeof text, "%zu bytes, %lu attached", static_cast<size_t>(ds.shm_segsz),
                  static_cast<unsigned long>(ds.shm_nattch));
  }
  return text;
}

}  // namespace

int RemoveRootObjects(const std::string& root) {
  const std::vector<std::string> key_files = shared::RootKeyFiles();
  bool any_key_file = false;
  for (const auto& f : key_files) {
    struct stat st {};
    any_key_file = any_key_file || stat(f.c_str(), &st) == 0;
  }
  if (!any_key_file) {
    Say("no key file under %s: the library cannot have made any object for it", root.c_str());
    return 0;
  }
  bool failed = false;
  int removed = 0;
  for (const RootObject& o : shared::RootObjects()) {
    if (o.key == -1) continue;  // its key file is missing, so the object cannot exist
    int id = shared::LookupRootObject(o);
    if (id == -1) {
      if (errno != ENOENT) {
        Say("%-26s key 0x%08x: cannot look it up: %s", o.what, static_cast<unsigned>(o.key),
            std::strerror(errno));
        failed = true;
      }
      continue;
    }
    std::string detail = Describe(o, id);
    int rc = shared::RemoveRootObject(o, id);
    if (rc != 0) {
      Say("%-26s key 0x%08x id %d: removal failed: %s", o.what, static_cast<unsigned>(o.key), id,
          std::strerror(errno));
      failed = true;
      continue;
    }
    ++removed;
    Say("removed %-26s key 0x%08x id %-8d %s", o.what, static_cast<unsigned>(o.key), id,
        detail.c_str());
  }
  if (removed == 0 && !failed) Say("no object of this root was present");

  // Nothing carrying one of the library's keys may be left. An object whose key shares
  // only the key files' signature (another project number) is not the library's: it is
  // shown and left alone.
  std::vector<key_t> ours;
  for (const RootObject& o : shared::RootObjects()) {
    ours.push_back(o.key);
    if (shared::LookupRootObject(o) != -1) {
      Say("still present: %s key 0x%08x", o.what, static_cast<unsigned>(o.key));
      failed = true;
    }
  }
  for (const char* kind : {"shm", "sem"}) {
    for (const auto& [key, id] : shared::ObjectsKeyedBy(kind, key_files)) {
      if (std::find(ours.begin(), ours.end(), key) != ours.end()) continue;  // told above
      Say("left alone: %s key 0x%08x id %d shares the key files' signature but no key of the "
          "library",
          kind, static_cast<unsigned>(key), id);
    }
  }
  return failed ? 1 : 0;
}

}  // namespace vsk::demo
