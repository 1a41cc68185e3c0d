// Record codec figures: per record kind, encode and decode (with release) rates, the tree
// load + flatten of a typical 30-attribute client record, and a plain memcpy of the same
// bytes as the limit. Prints one table.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "libvsk/store/records.h"
#include "vsk/attr.h"
#include "vsk/tables.h"

namespace {

uint64_t g_sink;

// Keeps results alive so the measured work is not optimised away.
void Consume() { asm volatile("" : : "r"(g_sink) : "memory"); }

// Runs `fn` repeatedly for about a quarter of a second; returns operations per second.
double Rate(const std::function<void()>& fn) {
  using Clock = std::chrono::steady_clock;
  for (int i = 0; i < 1000; ++i) fn();
  uint64_t ops = 0;
  auto start = Clock::now();
  double secs = 0;
  do {
    for (int i = 0; i < 1000; ++i) fn();
    ops += 1000;
    secs = std::chrono::duration<double>(Clock::now() - start).count();
  } while (secs < 0.25);
  Consume();
  return static_cast<double>(ops) / secs;
}

struct Typical {
  std::deque<vsk_attr_t> nodes;
  std::deque<std::string> values;
  vsk_attr_list_t list;
  vsk_session_id_t ids[2] = {101, 102};
  uint8_t bits[4] = {1, 0, 0, 4};
  char n[3][24] = {"kelvo-filter", "kelvo-rate", "kelvo-interface-unit"};
  std::deque<vsk_dyn_attr_t> dyn;
  vsk_dyn_attr_list_t dlist;

  Typical() {
    vsk_attr_list_init(&list);
    // 30 attributes of the sizes a broadband session carries: names, addresses, counters.
    static const uint16_t kTypes[30] = {15, 17, 18, 19, 20, 21, 22, 24, 25, 27, 34, 35, 36, 37, 39,
                                        40, 41, 43, 44, 45, 46, 47, 48, 60, 62, 64, 65, 73, 114, 115};
    for (int i = 0; i < 30; ++i) {
      size_t len = (i % 3 == 0) ? 24 : (i % 3 == 1 ? 4 : 16);
      values.emplace_back(len, static_cast<char>('a' + i));
      vsk_attr_t& a = nodes.emplace_back();
      a.type = kTypes[(i * 7) % 30];  // not in type order, as a create list comes
      a.length = static_cast<uint16_t>(len);
      a.value = values.back().data();
      vsk_attr_list_append(&list, &a);
    }
    dlist.first = nullptr;
    dlist.last = &dlist.first;
    for (int i = 0; i < 9; ++i) {
      vsk_dyn_attr_t& d = dyn.emplace_back();
      d.name = n[i % 3];
      d.length = 12;
      d.value = values[i].data();
      d.array_tag = static_cast<uint16_t>(i % 3 == 0 ? 2 : 3);
      d.next = nullptr;
      *dlist.last = &d;
      dlist.last = &d.next;
    }
  }
};

struct Row {
  const char* kind;
  uint32_t bytes;
  double encode, decode, memcpy_rate;
};

template <typename Rec>
Row Measure(const char* kind, const Rec& rec, uint32_t (*enc)(const void*, void*, uint32_t),
            int (*dec)(void*, void*, uint32_t, const uint8_t*, uint16_t), void (*rel)(Rec*, bool)) {
  const uint32_t size = enc(&rec, nullptr, 0);
  std::vector<uint8_t> buf(size);
  enc(&rec, buf.data(), size);
  Row r{kind, size, 0, 0, 0};
  std::vector<uint8_t> out(size);
  r.encode = Rate([&] { g_sink += enc(&rec, out.data(), size); });
  r.decode = Rate([&] {
    void* raw = std::malloc(size);
    std::memcpy(raw, buf.data(), size);
    Rec* o = nullptr;
    g_sink += static_cast<uint64_t>(dec(&o, raw, size, nullptr, 0));
    rel(o, true);
  });
  r.memcpy_rate = Rate([&] {
    void* raw = std::malloc(size);
    std::memcpy(raw, buf.data(), size);
    g_sink += static_cast<const uint8_t*>(raw)[size - 1];
    std::free(raw);
  });
  return r;
}

}  // namespace

int main() {
  Typical t;
  vsk_client_session_t client{};
  client.attrs = &t.list;
  client.service_count = 2;
  client.service_ids = t.ids;
  client.config_bits_len = 4;
  client.config_bits = t.bits;
  client.dynamic_id = 7;
  vsk_service_session_t service{};
  service.attrs = &t.list;
  service.client_id = 7;
  service.config_bits_len = 4;
  service.config_bits = t.bits;
  vsk_auth_info_t auth{};
  auth.attrs = &t.list;
  vsk_dynamic_config_t dyn{};
  dyn.attrs = &t.dlist;

  std::vector<Row> rows;
  rows.push_back(Measure("client", client, vsk::store::EncodeClientRecord,
                         vsk::store::DecodeClientRecord, vsk_db_release_client_session));
  rows.push_back(Measure("service", service, vsk::store::EncodeServiceRecord,
                         vsk::store::DecodeServiceRecord, vsk_db_release_service_session));
  rows.push_back(Measure("auth", auth, vsk::store::EncodeAuthRecord,
                         vsk::store::DecodeAuthRecord, vsk_db_release_auth_info));
  rows.push_back(Measure("dynamic", dyn, vsk::store::EncodeDynamicRecord,
                         vsk::store::DecodeDynamicRecord, vsk_db_release_dynamic_config));

  // Tree load + flatten of the decoded 30-attribute client record, as an update does it.
  const uint32_t size = vsk::store::EncodeClientRecord(&client, nullptr, 0);
  std::vector<uint8_t> buf(size);
  vsk::store::EncodeClientRecord(&client, buf.data(), size);
  void* raw = std::malloc(size);
  std::memcpy(raw, buf.data(), size);
  vsk_client_session_t* rec = nullptr;
  vsk::store::DecodeClientRecord(&rec, raw, size, nullptr, 0);
  std::vector<vsk_attr_t> flat(64);
  double tree_rate = Rate([&] {
    patricia_root_t* tree = vsk_attr_tree_create();
    for (vsk_attr_t* a = rec->attrs->first; a != nullptr; a = a->next) {
      vsk_attr_tree_add(tree, 2, &a->type, a->length, a->value, false);
    }
    size_t i = 0;
    for (patricia_node_t* p = patricia_find_next(tree, nullptr); p != nullptr;
         p = patricia_find_next(tree, p)) {
      auto* n = reinterpret_cast<vsk_attr_tree_node_t*>(p);
      for (vsk_attr_value_t* v = n->values_first; v != nullptr && i < flat.size(); v = v->next) {
        std::memcpy(&flat[i].type, n->key, 2);
        flat[i].length = static_cast<uint16_t>(v->length);
        flat[i++].value = v->value;
      }
    }
    g_sink += i;
    vsk_attr_tree_free(tree);
  });
  vsk_db_release_client_session(rec, true);

  std::printf("%-10s %7s %14s %14s %14s %10s\n", "record", "bytes", "encode/s", "decode/s",
              "memcpy/s", "dec/memcpy");
  for (const Row& r : rows) {
    std::printf("%-10s %7u %14.0f %14.0f %14.0f %9.2fx\n", r.kind, r.bytes, r.encode, r.decode,
                r.memcpy_rate, r.memcpy_rate / r.decode);
  }
  std::printf("\nclient record, 30 attributes: tree load + flatten %.0f/s (%.2f us each)\n",
              tree_rate, 1e6 / tree_rate);
  return 0;
}
