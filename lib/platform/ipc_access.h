// Who may use the System V objects that the creating daemon makes: the semaphore set
// and the main and snapshot segments.
//
// By default they are made 0666, as the system has always had them: any local user may
// attach, and one semop without SEM_UNDO on the set stops every daemon. An installation
// that runs its daemons under one group closes that door by starting the creator with
// VSK_IPC_GROUP=<group name or number> in its environment: the objects are then made (and,
// when the creator finds them already there and owns them, changed to) mode 0660 with
// that group. Joiners need no setting; they must be members of the group.
//
// Read at each call, so a test may change the variable between uses.
#pragma once

#include <sys/types.h>

#include <string>

namespace vsk::platform {

inline constexpr const char kIpcGroupVariable[] = "VSK_IPC_GROUP";
inline constexpr int kOpenIpcMode = 0666;
inline constexpr int kGroupIpcMode = 0660;

struct IpcAccess {
  bool restricted = false;  // VSK_IPC_GROUP is set
  int mode = kOpenIpcMode;  // permission bits for creation
  gid_t gid = 0;            // the group when restricted
  std::string error;        // non-empty when the variable names no group
};

// The access in force for objects this process creates.
IpcAccess CreatorIpcAccess();

// Gives an existing segment or semaphore set the restricted mode and group. Does nothing
// when `access` is not restricted. False (errno set) when the change was refused.
bool ApplyShmAccess(int shmid, const IpcAccess& access);
bool ApplySemAccess(int semid, const IpcAccess& access);

}  // namespace vsk::platform
