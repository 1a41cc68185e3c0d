// The System V objects that the library makes for the root in force, by the library's own
// keys, and their removal.
//
// The library never removes these itself: they outlive every process by design, and only
// the one who owns the root (a test, a benchmark, the demo, an operator's clean-up) may
// decide they go. This is the one list of them, so that every such owner follows what the
// library makes.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace vsk::shared {

struct RootObject {
  const char* what;  // "main segment", "snapshot segment", "semaphore set", ...
  bool semaphore;    // a semaphore set, else a shared-memory segment
  key_t key;         // -1 when its key file is missing (the object cannot exist)
};

// Every object the library may make under the root in force.
std::vector<RootObject> RootObjects();

// The object's id, or -1 (errno ENOENT when there is none).
int LookupRootObject(const RootObject& object);

// Removes `object`; 0, or -1 with errno.
int RemoveRootObject(const RootObject& object, int id);

// Removes every object of RootObjects() that exists. The number removed.
int RemoveAllRootObjects();

// Objects of /proc/sysvipc/<kind> ("shm" or "sem") whose key ftok() derived from one of
// `key_files` with any project number: (key, id) pairs.
std::vector<std::pair<key_t, int>> ObjectsKeyedBy(const char* kind,
                                                  const std::vector<std::string>& key_files);

// The key files of the root in force (the shared-memory key file, the replication one).
std::vector<std::string> RootKeyFiles();

}  // namespace vsk::shared
