// See given_up.h.
#include "given_up.h"

#include <dirent.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "platform/paths.h"

namespace orvd {

std::vector<DB_ENV*>& GivenUpEnvironments() {
  static auto* list = new std::vector<DB_ENV*>;
  return *list;
}

namespace {

// Where the link `/proc/.../fd/N` points; empty when it cannot be read.
std::string LinkTarget(const std::string& link) {
  char target[4096];
  ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// One line of a /proc/<pid>/maps file: its address range and whether it maps one of the
// store's region files ("__db.*" in its home, `prefix`), and one since removed.
struct MapLine {
  uintptr_t start = 0;
  uintptr_t end = 0;
  bool region = false;
  bool removed = false;
};

MapLine ParseMapLine(const std::string& line, const std::string& prefix) {
  MapLine m;
  m.start = std::strtoull(line.c_str(), nullptr, 16);
  m.end = std::strtoull(line.c_str() + line.find('-') + 1, nullptr, 16);
  auto slash = line.find('/');
  m.region = slash != std::string::npos && line.compare(slash, prefix.size(), prefix) == 0;
  m.removed = m.region && line.find(" (deleted)", slash) != std::string::npos;
  return m;
}

std::string RegionPrefix() {
  return vsk::platform::RootedPath(vsk::platform::kStoreHome) + "__db.";
}

// Descriptors of this process on the store's files (its home, not the interface table's
// directory below it).
std::vector<std::pair<int, std::string>> StoreDescriptors() {
  const std::string home = vsk::platform::RootedPath(vsk::platform::kStoreHome);
  const std::string shmem = vsk::platform::RootedPath(vsk::platform::kInterfaceDir);
  std::vector<std::pair<int, std::string>> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* e = readdir(dir)) {
    int fd = std::atoi(e->d_name);
    if (fd <= 2 || fd == dirfd(dir)) continue;
    const std::string path = LinkTarget(std::string("/proc/self/fd/") + e->d_name);
    if (path.empty()) continue;
    if (path.rfind(home, 0) == 0 && path.rfind(shmem, 0) != 0) fds.emplace_back(fd, path);
  }
  closedir(dir);
  return fds;
}

// Closes `fd` if it still names `path`. A descriptor that Berkeley DB closed by itself
// may have been given to something else since.
void CloseIfStill(int fd, const std::string& path) {
  const std::string now = LinkTarget("/proc/self/fd/" + std::to_string(fd));
  if (now.empty()) return;
  // A removed file shows with " (deleted)" added.
  if (now == path || now == path + " (deleted)") close(fd);
}

// The mappings of this process of the current environment's region files ("__db.*" in
// the store's home, not yet removed: an older environment's show as deleted).
std::vector<std::pair<uintptr_t, size_t>> RegionMappings() {
  const std::string prefix = RegionPrefix();
  std::ifstream maps("/proc/self/maps");
  std::vector<std::pair<uintptr_t, size_t>> ranges;
  for (std::string line; std::getline(maps, line);) {
    const MapLine m = ParseMapLine(line, prefix);
    if (m.region && !m.removed)
      ranges.emplace_back(m.start, m.end - m.start);  // not an older one's
  }
  return ranges;
}

}  // namespace

Holdings TakeHoldings() { return {StoreDescriptors(), RegionMappings()}; }

void Release(const Holdings& holdings) {
  for (const auto& [fd, path] : holdings.descriptors) CloseIfStill(fd, path);
  for (auto [start, size] : holdings.mappings) munmap(reinterpret_cast<void*>(start), size);
}

// True when process `pid` waits in a futex whose address lies in a removed region file of
// the store: a mutex, latch or condition of an environment that has been given up.
bool WaitsInsideGivenUpStore(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  std::ifstream syscall(proc + "/syscall");
  long number = -1;
  std::string address;
  if (!(syscall >> number >> address) || number != SYS_futex) return false;
  const uintptr_t at = std::strtoull(address.c_str(), nullptr, 16);
  const std::string prefix = RegionPrefix();
  std::ifstream maps(proc + "/maps");
  for (std::string line; std::getline(maps, line);) {
    const MapLine m = ParseMapLine(line, prefix);
    if (at >= m.start && at < m.end) return m.removed;
  }
  return false;
}

std::vector<pid_t> ProcessesWaitingInsideRemovedStore() {
  std::vector<pid_t> out;
  DIR* dir = opendir("/proc");
  if (dir == nullptr) return out;
  while (const dirent* e = readdir(dir)) {
    char* end = nullptr;
    const long pid = std::strtol(e->d_name, &end, 10);
    if (pid <= 0 || *end != '\0' || pid == getpid()) continue;
    if (WaitsInsideGivenUpStore(static_cast<pid_t>(pid))) out.push_back(static_cast<pid_t>(pid));
  }
  closedir(dir);
  return out;
}

}  // namespace orvd
