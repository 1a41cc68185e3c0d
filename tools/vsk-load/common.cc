// The run's shared mapping, the typical subscriber, and the sample files that carry each
// worker's latencies back to the parent.
#include <sys/mman.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>

#include "load.h"

namespace vsk::load {

bool Shared::Map(int workers, uint64_t per_line) {
  ids_per_line = per_line;
  const size_t board_bytes = (sizeof(Board) + 4095) & ~size_t{4095};
  const uint64_t entries = per_line * static_cast<uint64_t>(workers);
  bytes = board_bytes + (sizeof(uint64_t) + sizeof(uint8_t)) * entries;
  // Untouched pages of the id lists cost nothing: a duration run reserves generously.
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE,
                 -1, 0);
  if (p == MAP_FAILED) return false;
  board = reinterpret_cast<Board*>(p);
  ids = reinterpret_cast<uint64_t*>(static_cast<char*>(p) + board_bytes);
  stages = reinterpret_cast<uint8_t*>(ids + entries);
  return true;
}

bool Transient(vsk_status_t st) {
  switch (st) {
    case VSK_ERR_RETRY:
    case VSK_ERR_RECOVERING:
    case VSK_ERR_NOT_STARTED:
    case VSK_ERR_SECONDARY_RECOVERY:
    case VSK_ERR_ORVD_FATAL:
    case VSK_ERR_ORVD_CONNECT:
      return true;
    default:
      return false;
  }
}

std::string ApplyMix(const std::string& mix, Options* o) {
  o->setup_updates = 0, o->activate = false, o->snapshots = 0, o->reads = 0;
  std::stringstream in(mix);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (item.empty()) continue;
    const size_t eq = item.find('=');
    const std::string name = item.substr(0, eq);
    long count = 1;
    if (eq != std::string::npos) {
      char* end = nullptr;
      const std::string digits = item.substr(eq + 1);
      count = std::strtol(digits.c_str(), &end, 10);
      if (digits.empty() || *end != '\0' || count < 0 || count > 1000)
        return "--mix: \"" + item + "\": the count must be 0 to 1000";
    }
    if (name == "setup-update") {
      o->setup_updates = static_cast<int>(count);
    } else if (name == "activate") {
      if (count > 1) return "--mix: activate runs once or not at all";
      o->activate = count == 1;
    } else if (name == "snapshot") {
      o->snapshots = static_cast<int>(count);
    } else if (name == "reads") {
      o->reads = static_cast<int>(count);
    } else {
      return "--mix: unknown step \"" + name +
             "\" (setup-update, activate, snapshot, reads; create and remove always run)";
    }
  }
  if (o->reads != 0 && o->snapshots == 0) return "--mix: reads need a snapshot to read from";
  return {};
}

std::string UserAfterSetup(const Subscriber& sub, int setup_updates) {
  if (setup_updates == 0) return sub.user;
  return kSetupUsers[(setup_updates - 1) & 1];
}

vsk_status_t JoinStore(orvd_ctx_t** ctx, orvd_trace_fn_t trace,
                       orvd_db_env_change_cbk_t env_change, int limit) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
  vsk_status_t st = VSK_ERR_ORVD_FATAL;
  for (;;) {
    *ctx = orvd_init_handle();
    if (*ctx == nullptr) return VSK_ERR_NOMEM;
    st = orvd_set_trace_callback(*ctx, nullptr, trace);
    if (st == VSK_OK && env_change != nullptr) st = orvd_set_db_env_change_callback(*ctx, env_change);
    if (st == VSK_OK) st = orvd_set_reg_type_poll(*ctx);
    if (st == VSK_OK) st = orvd_register(*ctx);
    if (st == VSK_OK) st = vsk_db_check();
    if (st == VSK_OK) return orvd_send_recovery_complete(*ctx);
    orvd_unregister(ctx);
    // orvd refuses registrations until its store is ready and is not there at all while it
    // restarts; a store that is given up while this process opens it fails the open
    // (a panic, a deadlock victim: -1). A daemon tries again until its supervisor's limit.
    if (st == VSK_ERR_UNSUPPORTED || std::chrono::steady_clock::now() > end) return st;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void Shared::Unmap() {
  if (board != nullptr) munmap(board, bytes);
  board = nullptr;
}

void Samples::Add(const Samples& other) {
  for (int s = 0; s < kSteps; ++s)
    ns[s].insert(ns[s].end(), other.ns[s].begin(), other.ns[s].end());
}

Subscriber::Subscriber() {
  values.reserve(64);
  auto add = [&](std::vector<vsk_attr_t>& to, uint16_t type, std::string v) {
    values.push_back(std::move(v));
    to.push_back(
        {type, static_cast<uint16_t>(values.back().size()), values.back().data(), nullptr});
  };
  const uint32_t state = 1, ifl_type = 1;
  add(attrs, VSK_SESSION_STATE, std::string(reinterpret_cast<const char*>(&state), 4));
  add(attrs, VSK_SESSION_IFL_TYPE, std::string(reinterpret_cast<const char*>(&ifl_type), 4));
  for (uint16_t type = 90; attrs.size() < 27; ++type)
    add(attrs, type, std::string(8 + type % 9, 'a'));
  attrs.push_back({VSK_USER_NAME, 0, user, nullptr});
  attrs.push_back({VSK_INTERFACE_NAME, 0, ifl, nullptr});
  attrs.push_back({VSK_UNDERLYING_INTERFACE_NAME, 0, uifl, nullptr});
  for (int i = 0; i < 5; ++i) add(auth, static_cast<uint16_t>(1 + i), std::string(12, 'q'));
  static const char* const names[5] = {"kelvo-interface-set", kPolicyName, "kelvo-input-filter",
                                       "kelvo-output-filter", "kelvo-upstream-rate"};
  for (const char* n : names) {
    values.push_back(std::string(10, static_cast<char>('d' + (n[6] % 5))));
    dynamic.push_back({nullptr, const_cast<char*>(n), 10, values.back().data(), 0});
  }
}

void Subscriber::Name(int line, uint64_t n) {
  // Interface names carry their terminator, as daemons store them.
  std::snprintf(ifl, sizeof ifl, "pp0.%d%09llu", line + 1, static_cast<unsigned long long>(n));
  std::snprintf(uifl, sizeof uifl, "ge-0/0/%d.0", line);
  std::snprintf(user, sizeof user, "user-%d-%llu@isp.example", line,
                static_cast<unsigned long long>(n));
  attrs[attrs.size() - 3].length = static_cast<uint16_t>(std::strlen(user));
  attrs[attrs.size() - 2].length = static_cast<uint16_t>(std::strlen(ifl) + 1);
  attrs[attrs.size() - 1].length = static_cast<uint16_t>(std::strlen(uifl) + 1);
  vsk_attr_list_init(&attr_list);
  for (vsk_attr_t& a : attrs) vsk_attr_list_append(&attr_list, &a);
  vsk_attr_list_init(&auth_list);
  for (vsk_attr_t& a : auth) vsk_attr_list_append(&auth_list, &a);
  dyn_list.first = nullptr, dyn_list.last = &dyn_list.first;
  for (vsk_dyn_attr_t& d : dynamic) {
    d.next = nullptr;
    *dyn_list.last = &d;
    dyn_list.last = &d.next;
  }
}

// Sample files: for each step a 64-bit count and that many 32-bit nanosecond figures.
bool WriteSamples(const std::string& path, const Samples& s) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!f) return false;
  for (const auto& v : s.ns) {
    const uint64_t n = v.size();
    if (std::fwrite(&n, sizeof n, 1, f.get()) != 1) return false;
    if (n != 0 && std::fwrite(v.data(), sizeof v[0], n, f.get()) != n) return false;
  }
  return std::fflush(f.get()) == 0;
}

bool ReadSamples(const std::string& path, Samples* s) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!f) return false;
  for (auto& v : s->ns) {
    uint64_t n = 0;
    if (std::fread(&n, sizeof n, 1, f.get()) != 1 || n > (uint64_t{1} << 32)) return false;
    const size_t at = v.size();
    v.resize(at + n);
    if (n != 0 && std::fread(v.data() + at, sizeof v[0], n, f.get()) != n) return false;
  }
  return true;
}

}  // namespace vsk::load
