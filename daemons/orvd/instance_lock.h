// One orvd per root.
//
// orvd owns the store, the shared state and the socket of its root. A second orvd on the
// same root would run recovery under the first, take its socket and knock its store
// down; so before touching anything orvd takes an exclusive lock on the file
// "/var/run/orvd.pid" (rooted) and keeps it for its whole life. The lock is the kernel's
// (flock): it goes with the process however it ends, so a killed orvd never blocks the
// next one. The file holds the owner's process id for operators.
#pragma once

#include <sys/types.h>

#include <string>

namespace orvd {

inline constexpr const char kInstanceLockFile[] = "/var/run/orvd.pid";

class InstanceLock {
 public:
  InstanceLock() = default;
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  enum class Result { kTaken, kHeld, kError };
  // Takes the lock. kHeld: another process has it (its pid in *owner when readable);
  // kError: the file cannot be made (errno tells why).
  Result Take(pid_t* owner);
  // Writes this process's id into the file (after daemonising, the pid has changed).
  void WritePid();

 private:
  int fd_ = -1;
};

}  // namespace orvd
