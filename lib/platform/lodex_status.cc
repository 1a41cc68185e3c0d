// The replication daemon's status file: see lodex_status.h.
#include "platform/lodex_status.h"

#include <time.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>

#include "platform/paths.h"

namespace vsk::platform {
namespace {

// One row per field: its name and how to write and read it.
struct Field {
  const char* name;
  enum Kind { kBool, kU32, kU64, kI64, kPid, kLsn } kind;
  size_t offset;
};

#define LODEX_FIELD(name, kind) {#name, Field::kind, offsetof(LodexStatus, name)}
constexpr Field kFields[] = {
    LODEX_FIELD(pid, kPid),           LODEX_FIELD(master, kBool),
    LODEX_FIELD(env_open, kBool),     LODEX_FIELD(peer_up, kBool),
    LODEX_FIELD(gen, kU32),           LODEX_FIELD(log_end, kLsn),
    LODEX_FIELD(last_commit, kLsn),   LODEX_FIELD(standby_ready, kBool),
    LODEX_FIELD(standby_gen, kU32),   LODEX_FIELD(standby_next, kLsn),
    LODEX_FIELD(in_sync, kBool),      LODEX_FIELD(shipped, kU64),
    LODEX_FIELD(shipped_bytes, kU64), LODEX_FIELD(undelivered, kU64),
    LODEX_FIELD(received, kU64),      LODEX_FIELD(unapplied, kU64),
    LODEX_FIELD(rep_errors, kU64),    LODEX_FIELD(links, kU64),
    LODEX_FIELD(nudges, kU64),        LODEX_FIELD(queue_dropped, kU64),
    LODEX_FIELD(ack_clients, kU64),   LODEX_FIELD(ack_waiting, kU64),
    LODEX_FIELD(ack_answered, kU64),  LODEX_FIELD(updated_ms, kI64),
};
#undef LODEX_FIELD

template <typename T>
T& At(LodexStatus* s, size_t offset) {
  return *reinterpret_cast<T*>(reinterpret_cast<char*>(s) + offset);
}
template <typename T>
const T& At(const LodexStatus& s, size_t offset) {
  return *reinterpret_cast<const T*>(reinterpret_cast<const char*>(&s) + offset);
}

template <typename T>
bool ParseNumber(std::string_view text, T* out) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && end == text.data() + text.size();
}

bool ParseField(const Field& f, std::string_view text, LodexStatus* s) {
  switch (f.kind) {
    case Field::kBool: {
      if (text != "0" && text != "1") return false;
      At<bool>(s, f.offset) = text == "1";
      return true;
    }
    case Field::kU32:
      return ParseNumber(text, &At<uint32_t>(s, f.offset));
    case Field::kU64:
      return ParseNumber(text, &At<uint64_t>(s, f.offset));
    case Field::kI64:
      return ParseNumber(text, &At<int64_t>(s, f.offset));
    case Field::kPid:
      return ParseNumber(text, &At<pid_t>(s, f.offset));
    case Field::kLsn: {
      size_t slash = text.find('/');
      if (slash == std::string_view::npos) return false;
      DB_LSN& lsn = At<DB_LSN>(s, f.offset);
      return ParseNumber(text.substr(0, slash), &lsn.file) &&
             ParseNumber(text.substr(slash + 1), &lsn.offset);
    }
  }
  return false;
}

}  // namespace

std::string FormatLodexStatus(const LodexStatus& s) {
  std::ostringstream out;
  for (const Field& f : kFields) {
    out << f.name << ' ';
    switch (f.kind) {
      case Field::kBool:
        out << (At<bool>(s, f.offset) ? 1 : 0);
        break;
      case Field::kU32:
        out << At<uint32_t>(s, f.offset);
        break;
      case Field::kU64:
        out << At<uint64_t>(s, f.offset);
        break;
      case Field::kI64:
        out << At<int64_t>(s, f.offset);
        break;
      case Field::kPid:
        out << At<pid_t>(s, f.offset);
        break;
      case Field::kLsn: {
        const DB_LSN& lsn = At<DB_LSN>(s, f.offset);
        out << lsn.file << '/' << lsn.offset;
        break;
      }
    }
    out << '\n';
  }
  return out.str();
}

bool ParseLodexStatus(const std::string& text, LodexStatus* out) {
  LodexStatus s;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t space = line.find(' ');
    if (space == std::string::npos) return false;
    std::string_view name(line.data(), space);
    std::string_view value(line.data() + space + 1, line.size() - space - 1);
    for (const Field& f : kFields) {
      if (name == f.name && !ParseField(f, value, &s)) return false;
    }
  }
  *out = s;
  return true;
}

bool WriteLodexStatus(const LodexStatus& s) {
  std::string path = RootedPath(kLodexStatusFile);
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) return false;
    out << FormatLodexStatus(s);
    if (!out) return false;
  }
  return std::rename(tmp.c_str(), path.c_str()) == 0;  // readers never see half a file
}

bool ReadLodexStatus(LodexStatus* out) {
  std::ifstream in(RootedPath(kLodexStatusFile));
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  return ParseLodexStatus(text.str(), out);
}

}  // namespace vsk::platform
