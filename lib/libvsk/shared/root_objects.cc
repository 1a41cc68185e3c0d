// See root_objects.h.
#include "libvsk/shared/root_objects.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "libvsk/shared/layout.h"
#include "platform/lodex.h"
#include "platform/paths.h"

namespace vsk::shared {
namespace {

// The low 24 bits that ftok() takes from a file, whatever the project number.
bool KeySignature(const std::string& file, key_t* sig) {
  struct stat st {};
  if (stat(file.c_str(), &st) != 0) return false;
  *sig = static_cast<key_t>((st.st_ino & 0xffff) | ((st.st_dev & 0xff) << 16));
  return true;
}

}  // namespace

std::vector<RootObject> RootObjects() {
  std::string shm_file = platform::RootedPath(platform::kShmKeyFile);
  return {
      {"main segment", false, ftok(shm_file.c_str(), kMainProject)},
      {"snapshot segment", false, ftok(shm_file.c_str(), kSnapshotProject)},
      {"semaphore set", true, platform::SemaphoreKey()},
      {"replication queue segment", false, platform::LodexKey()},
  };
}

int LookupRootObject(const RootObject& o) {
  if (o.key == -1) {
    errno = ENOENT;
    return -1;
  }
  return o.semaphore ? semget(o.key, 0, 0) : shmget(o.key, 0, 0);
}

int RemoveRootObject(const RootObject& o, int id) {
  return o.semaphore ? semctl(id, 0, IPC_RMID) : shmctl(id, IPC_RMID, nullptr);
}

int RemoveAllRootObjects() {
  int removed = 0;
  for (const RootObject& o : RootObjects()) {
    int id = LookupRootObject(o);
    if (id != -1 && RemoveRootObject(o, id) == 0) ++removed;
  }
  return removed;
}

std::vector<std::pair<key_t, int>> ObjectsKeyedBy(const char* kind,
                                                  const std::vector<std::string>& key_files) {
  std::vector<key_t> sigs;
  for (const auto& f : key_files) {
    key_t s;
    if (KeySignature(f, &s)) sigs.push_back(s);
  }
  std::vector<std::pair<key_t, int>> found;
  if (sigs.empty()) return found;
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
        break;
      }
    }
  }
  return found;
}

std::vector<std::string> RootKeyFiles() {
  return {platform::RootedPath(platform::kShmKeyFile),
          platform::RootedPath(platform::kLodexKeyFile)};
}

}  // namespace vsk::shared
