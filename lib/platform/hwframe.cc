#include "platform/hwframe.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/logging.h"
#include "platform/paths.h"

namespace vsk::platform {
namespace {

constexpr char kMasterText[] = "master";
constexpr char kStandbyText[] = "standby";

// "master" or "standby", with at most one trailing newline.
std::optional<bool> ParseRole(const char* text, size_t n) {
  if (n > 0 && text[n - 1] == '\n') --n;
  if (n == sizeof kMasterText - 1 && std::memcmp(text, kMasterText, n) == 0) return true;
  if (n == sizeof kStandbyText - 1 && std::memcmp(text, kStandbyText, n) == 0) return false;
  return std::nullopt;
}

}  // namespace

std::optional<bool> RoleFileSaysMaster() {
  std::string path = RootedPath(kRoleFile);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buf[16];
  ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  if (n <= 0) return std::nullopt;
  return ParseRole(buf, static_cast<size_t>(n));
}

bool WriteRoleFile(bool master) {
  std::string path = RootedPath(kRoleFile);
  std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::string text = std::string(master ? kMasterText : kStandbyText) + "\n";
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ok = close(fd) == 0 && ok;
  return ok && std::rename(tmp.c_str(), path.c_str()) == 0;
}

}  // namespace vsk::platform

extern "C" bool hwframe_is_vc_or_single_re_protocol_master(void) {
  if (std::optional<bool> file = vsk::platform::RoleFileSaysMaster()) return *file;
  const char* role = std::getenv("VSK_RE_ROLE");
  if (role == nullptr || role[0] == '\0' || std::strcmp(role, "master") == 0) return true;
  if (std::strcmp(role, "standby") == 0) return false;
  static std::atomic<bool> reported{false};
  if (!reported.exchange(true)) {
    logging(3, "VSK_RE_ROLE=%s is neither master nor standby; acting as master", role);
  }
  return true;
}
