// Destructive recovery: vsk_recover_catastrophic empties the store's directory and the
// interface table's directory. Nothing in the library calls it; the supervising daemon
// does, when no process has the store open.
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "libvsk/base/fault.h"
#include "libvsk/base/trace.h"
#include "platform/paths.h"
#include "vsk/store.h"

namespace {

// Room for one file's path, as on the system's own layout; a root adds its length.
constexpr size_t kPathRoom = 80;

// opendir and unlink through the fault seam.
DIR* OpenDir(const char* dir) {
  int err;
  if (vsk::fault::Inject(vsk::fault::Kind::kOpendir, &err)) {
    errno = err;
    return nullptr;
  }
  return opendir(dir);
}

int Unlink(const char* path) {
  int err;
  if (vsk::fault::Inject(vsk::fault::Kind::kUnlink, &err)) {
    errno = err;
    return -1;
  }
  return unlink(path);
}

// Removes every entry of `dir` (ending in a slash) that is not a directory. "." and ".."
// are directories and so are never named. 0, or -1 when the directory cannot be read or
// some file stays.
vsk_status_t EmptyDirectory(const std::string& dir) {
  DIR* d = OpenDir(dir.c_str());
  if (d == nullptr) {
    VSK_TRACE("could not open dir : %s", dir.c_str());
    return VSK_ERR_FATAL;
  }
  std::vector<char> path(kPathRoom + vsk::platform::Root().size());
  int not_removed = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_type == DT_DIR) continue;
    std::snprintf(path.data(), path.size(), "%s%s", dir.c_str(), e->d_name);
    if (Unlink(path.data()) != 0) {
      VSK_TRACE("Failed to remove %s: %s", path.data(), std::strerror(errno));
      ++not_removed;
    }
  }
  closedir(d);
  if (not_removed > 0) {
    VSK_TRACE("%d files not removed from %s", not_removed, dir.c_str());
    return VSK_ERR_FATAL;
  }
  return VSK_OK;
}

}  // namespace

extern "C" {

vsk_status_t vsk_recover_catastrophic(void) {
  using vsk::platform::RootedPath;
  vsk_status_t store = EmptyDirectory(RootedPath(vsk::platform::kStoreHome));
  vsk_status_t intf = EmptyDirectory(RootedPath(vsk::platform::kInterfaceDir));
  return store != VSK_OK ? store : intf;
}

}  // extern "C"
