// The run's shared mapping, the typical subscriber, and the sample files that carry each
// worker's latencies back to the parent.
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "load.h"

namespace vsk::load {

bool Shared::Map(int workers, uint64_t per_line) {
  ids_per_line = per_line;
  const size_t board_bytes = (sizeof(Board) + 4095) & ~size_t{4095};
  bytes = board_bytes + sizeof(uint64_t) * per_line * static_cast<uint64_t>(workers);
  // Untouched pages of the id lists cost nothing: a duration run reserves generously.
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE,
                 -1, 0);
  if (p == MAP_FAILED) return false;
  board = reinterpret_cast<Board*>(p);
  ids = reinterpret_cast<uint64_t*>(static_cast<char*>(p) + board_bytes);
  return true;
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
