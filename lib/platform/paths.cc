#include "platform/paths.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vsk::platform {

namespace {
// Project number of the semaphore key under a root. System V keeps semaphore keys apart
// from segment keys, so this may share the main segment's number.
constexpr int kRootedSemaphoreProject = 8888 & 0xff;
}  // namespace

std::string Root() {
  const char* root = std::getenv("VSK_ROOT");
  if (root == nullptr) return {};
  std::string r(root);
  while (!r.empty() && r.back() == '/') r.pop_back();
  return r;
}

std::string RootedPath(std::string_view path) {
  std::string out = Root();
  out.append(path);
  return out;
}

size_t RootedPath(std::string_view path, char* out, size_t room) {
  std::string full = RootedPath(path);
  if (room > 0) {
    size_t n = full.size() < room - 1 ? full.size() : room - 1;
    std::memcpy(out, full.data(), n);
    out[n] = '\0';
  }
  return full.size();
}

key_t SemaphoreKey() {
  if (Root().empty()) return kSemaphoreKey;
  return ftok(RootedPath(kShmKeyFile).c_str(), kRootedSemaphoreProject);
}

bool MakeDirs(const std::string& path) {
  std::string partial;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    partial = path.substr(0, pos);
    if (partial.empty()) continue;
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool MakeSystemDirs(std::string* failed) {
  for (const char* dir : kSystemDirs) {
    std::string path = RootedPath(dir);
    if (!MakeDirs(path)) {
      if (failed != nullptr) *failed = path;
      return false;
    }
  }
  return true;
}

}  // namespace vsk::platform
