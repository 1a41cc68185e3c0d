// Where the system's files and System V keys are.
//
// Every absolute path of the system ("/mfs/...", "/var/run/...", "/var/log/...") goes
// through RootedPath(). With the environment variable VSK_ROOT set, the path is taken under
// that directory, so several systems (tests, demos) run side by side on one host without
// root's /mfs; unset, the path is exactly the system's own. VSK_ROOT is read at each call,
// so a process may change it between uses (tests do).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace vsk::platform {

// The system's fixed locations.
inline constexpr const char kStoreHome[] = "/mfs/var/vsk/";
inline constexpr const char kInterfaceDir[] = "/mfs/var/vsk/shmem/";
inline constexpr const char kShmKeyFile[] = "/mfs/var/tmp/vsk_shmem";
inline constexpr const char kLodexKeyFile[] = "/mfs/var/tmp/lodex_shmem";
inline constexpr const char kOrvdSocket[] = "/var/run/orvd_server_communication";
inline constexpr const char kRecoverLog[] = "/var/log/vsk.recover";

// The semaphore set's key on a system without VSK_ROOT.
inline constexpr key_t kSemaphoreKey = 8888;

// The root in force: VSK_ROOT without a trailing slash, or "" when unset or empty.
std::string Root();

// `path` (absolute) under the root in force.
std::string RootedPath(std::string_view path);

// Writes RootedPath(path) into `out` of `room` bytes, truncating like snprintf.
// Returns the length the full text needs.
size_t RootedPath(std::string_view path, char* out, size_t room);

// The semaphore set's key: 8888 without a root; with one, a key derived from the root's
// shared-memory key file, so that each root has its own set. -1 if that file is missing.
key_t SemaphoreKey();

// Creates `path` (already rooted) and its parents, mode 0755. True on success.
bool MakeDirs(const std::string& path);

// The directories of the system's files, which orvd makes at its start.
inline constexpr const char* kSystemDirs[] = {"/mfs/var/tmp/", kStoreHome, kInterfaceDir,
                                              "/var/run/", "/var/log/"};
// Makes every directory of kSystemDirs under the root in force. False at the first that
// cannot be made, with its path in *failed when given (errno tells why).
bool MakeSystemDirs(std::string* failed = nullptr);

}  // namespace vsk::platform
