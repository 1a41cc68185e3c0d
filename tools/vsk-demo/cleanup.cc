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
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "demo.h"
#include "libvsk/shared/layout.h"
#include "platform/lodex.h"
#include "platform/paths.h"
#include "transcript.h"

namespace vsk::demo {
namespace {

struct Object {
  const char* what;
  bool semaphore;  // a semaphore set, else a segment
  key_t key;       // -1 when its key file is missing
};

std::vector<Object> RootObjects() {
  std::string shm_file = platform::RootedPath(platform::kShmKeyFile);
  return {
      {"main segment", false, ftok(shm_file.c_str(), shared::kMainProject)},
      {"snapshot segment", false, ftok(shm_file.c_str(), shared::kSnapshotProject)},
      {"semaphore set", true, platform::SemaphoreKey()},
      {"replication queue segment", false, platform::LodexKey()},
  };
}

// Finds the object; -1 with errno ENOENT when there is none.
int Lookup(const Object& o) { return o.semaphore ? semget(o.key, 0, 0) : shmget(o.key, 0, 0); }

std::string Describe(const Object& o, int id) {
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

// The low 24 bits that ftok() takes from a file, whatever the project number.
bool Signature(const std::string& file, key_t* sig) {
  struct stat st {};
  if (stat(file.c_str(), &st) != 0) return false;
  *sig = static_cast<key_t>((st.st_ino & 0xffff) | ((st.st_dev & 0xff) << 16));
  return true;
}

// Objects in /proc/sysvipc/<kind> (ipcs' own source) whose key has a signature of `sigs`.
std::vector<std::pair<key_t, int>> Matching(const char* kind, const std::vector<key_t>& sigs) {
  std::vector<std::pair<key_t, int>> found;
  std::ifstream in(std::string("/proc/sysvipc/") + kind);
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    std::istringstream row(line);
    long long key = 0;
    int id = -1;
    if (!(row >> key >> id) || key == IPC_PRIVATE) continue;
    for (key_t s : sigs) {
      if ((static_cast<key_t>(key) & 0xffffff) == s) {
        found.emplace_back(static_cast<key_t>(key), id);
      }
    }
  }
  return found;
}

}  // namespace

int RemoveRootObjects(const std::string& root) {
  std::vector<key_t> sigs;
  for (const char* f : {platform::kShmKeyFile, platform::kLodexKeyFile}) {
    key_t s;
    if (Signature(platform::RootedPath(f), &s)) sigs.push_back(s);
  }
  if (sigs.empty()) {
    Say("no key file under %s: the library cannot have made any object for it", root.c_str());
    return 0;
  }
  bool failed = false;
  int removed = 0;
  for (const Object& o : RootObjects()) {
    if (o.key == -1) continue;  // its key file is missing, so the object cannot exist
    int id = Lookup(o);
    if (id == -1) {
      if (errno != ENOENT) {
        Say("%-26s key 0x%08x: cannot look it up: %s", o.what, static_cast<unsigned>(o.key),
            std::strerror(errno));
        failed = true;
      }
      continue;
    }
    std::string detail = Describe(o, id);
    int rc = o.semaphore ? semctl(id, 0, IPC_RMID) : shmctl(id, IPC_RMID, nullptr);
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
  for (const Object& o : RootObjects()) {
    ours.push_back(o.key);
    if (o.key != -1 && Lookup(o) != -1) {
      Say("still present: %s key 0x%08x", o.what, static_cast<unsigned>(o.key));
      failed = true;
    }
  }
  for (const char* kind : {"shm", "sem"}) {
    for (const auto& [key, id] : Matching(kind, sigs)) {
      if (std::find(ours.begin(), ours.end(), key) != ours.end()) continue;  // told above
      Say("left alone: %s key 0x%08x id %d shares the key files' signature but no key of the "
          "library",
          kind, static_cast<unsigned>(key), id);
    }
  }
  return failed ? 1 : 0;
}

}  // namespace vsk::demo
