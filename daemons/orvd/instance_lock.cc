// See instance_lock.h.
#include "instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/paths.h"

namespace orvd {

InstanceLock::~InstanceLock() {
  if (fd_ >= 0) close(fd_);
}

InstanceLock::Result InstanceLock::Take(pid_t* owner) {
  const std::string path = vsk::platform::RootedPath(kInstanceLockFile);
  // Not truncated on open: the owner's pid must stay readable for the loser.
  fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) return Result::kError;
  int rc;
  do {
    rc = flock(fd_, LOCK_EX | LOCK_NB);
  } while (rc != 0 && errno == EINTR);
  if (rc == 0) {
    WritePid();
    return Result::kTaken;
  }
  const int err = errno;
  if (owner != nullptr) {
    char text[32] = {};
    ssize_t n = pread(fd_, text, sizeof text - 1, 0);
    *owner = n > 0 ? static_cast<pid_t>(std::atoi(text)) : 0;
  }
  close(fd_);
  fd_ = -1;
  errno = err;
  return err == EWOULDBLOCK ? Result::kHeld : Result::kError;
}

void InstanceLock::WritePid() {
  if (fd_ < 0) return;
  char text[32];
  int n = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  if (ftruncate(fd_, 0) == 0) (void)!pwrite(fd_, text, static_cast<size_t>(n), 0);
}

}  // namespace orvd
