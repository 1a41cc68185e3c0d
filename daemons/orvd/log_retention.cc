// See log_retention.h.
#include "log_retention.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"

namespace orvd {
namespace {

// Berkeley DB's list (a single allocation holding the pointers and the names), copied.
bool Archive(DB_ENV* env, uint32_t flags, std::vector<std::string>* out) {
  char** list = nullptr;
  int ret = env->log_archive(env, &list, flags);
  if (ret != 0) {
    Log("cannot list log files: %s", db_strerror(ret));
    return false;
  }
  for (char** p = list; p != nullptr && *p != nullptr; ++p) out->emplace_back(*p);
  std::free(list);
  return true;
}

}  // namespace

std::vector<std::string> LogFilesToRemove(const std::vector<std::string>& all,
                                          const std::vector<std::string>& unused) {
  std::vector<std::string> sorted = all;
  // Names are "log." and a fixed-width number: text order is age order.
  std::sort(sorted.begin(), sorted.end());
  const size_t keep_from = sorted.size() > kKeptLogFiles ? sorted.size() - kKeptLogFiles : 0;
  std::vector<std::string> remove;
  for (size_t i = 0; i < keep_from; ++i) {
    if (std::find(unused.begin(), unused.end(), sorted[i]) != unused.end()) {
      remove.push_back(sorted[i]);
    }
  }
  return remove;
}

uint64_t LogBytesBetween(const DB_LSN& from, const DB_LSN& to, uint32_t file_size) {
  if (log_compare(&to, &from) <= 0) return 0;
  const int64_t bytes = int64_t{to.file - from.file} * file_size + int64_t{to.offset} -
                        int64_t{from.offset};
  return bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

int RemoveUnneededLogs(DB_ENV* env, const std::string& home) {
  std::vector<std::string> all, unused;
  if (!Archive(env, DB_ARCH_LOG, &all) || !Archive(env, 0, &unused)) return 0;
  int removed = 0;
  for (const std::string& name : LogFilesToRemove(all, unused)) {
    const std::string path = home + name;
    if (unlink(path.c_str()) == 0) {
      ++removed;
    } else if (errno != ENOENT) {
      Log("cannot remove log file %s: %s", path.c_str(), std::strerror(errno));
    }
  }
  if (removed > 0) Log("removed %d log file(s) that neither recovery nor a standby needs", removed);
  return removed;
}

}  // namespace orvd
