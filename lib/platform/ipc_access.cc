// See ipc_access.h.
#include "platform/ipc_access.h"

#include <grp.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace vsk::platform {
namespace {

// A group by name, or by number when the text is all digits.
bool LookUpGroup(const char* text, gid_t* gid) {
  char* end = nullptr;
  errno = 0;
  unsigned long n = std::strtoul(text, &end, 10);
  if (errno == 0 && end != text && *end == '\0') {
    *gid = static_cast<gid_t>(n);
    return true;
  }
  group g{};
  group* found = nullptr;
  std::vector<char> buf(16384);
  if (getgrnam_r(text, &g, buf.data(), buf.size(), &found) != 0 || found == nullptr) return false;
  *gid = found->gr_gid;
  return true;
}

}  // namespace

IpcAccess CreatorIpcAccess() {
  IpcAccess access;
  const char* text = std::getenv(kIpcGroupVariable);
  if (text == nullptr || *text == '\0') return access;
  access.restricted = true;
  access.mode = kGroupIpcMode;
  if (!LookUpGroup(text, &access.gid)) {
    access.error = std::string(kIpcGroupVariable) + " names no group: " + text;
  }
  return access;
}

bool ApplyShmAccess(int shmid, const IpcAccess& access) {
  if (!access.restricted) return true;
  shmid_ds ds{};
  if (shmctl(shmid, IPC_STAT, &ds) != 0) return false;
  if (ds.shm_perm.gid == access.gid && static_cast<int>(ds.shm_perm.mode & 0777) == access.mode) return true;
  ds.shm_perm.gid = access.gid;
  ds.shm_perm.mode = static_cast<unsigned short>((ds.shm_perm.mode & ~0777) | access.mode);
  return shmctl(shmid, IPC_SET, &ds) == 0;
}

bool ApplySemAccess(int semid, const IpcAccess& access) {
  if (!access.restricted) return true;
  semid_ds ds{};
  if (semctl(semid, 0, IPC_STAT, &ds) != 0) return false;
  if (ds.sem_perm.gid == access.gid && static_cast<int>(ds.sem_perm.mode & 0777) == access.mode) return true;
  ds.sem_perm.gid = access.gid;
  ds.sem_perm.mode = static_cast<unsigned short>((ds.sem_perm.mode & ~0777) | access.mode);
  return semctl(semid, 0, IPC_SET, &ds) == 0;
}

}  // namespace vsk::platform
