// The operator's dump of a snapshot through the trace hook, and vsk_toa.
//
// The dump's texts are the operators' published format, kept byte for byte, including
// lines that never close ("Session attributes {" has no closing line) and pieces with no
// line end. Every piece is one trace call; with no hook set nothing is formatted.
//
// Values are read within their lengths: a 32-bit word of a shorter value is zero-filled,
// and a text value with no NUL of its own is printed from a terminated copy.
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "libvsk/base/trace.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "vsk/attr_read.h"

namespace vsk::snapshot {
namespace {

enum class Shape { kText, kWord, kFourWords, kBlock };

struct Line {
  uint16_t type;
  Shape shape;
  const char* format;
};

// "user ipv address" (type 24) is the operators' text as it has always read.
constexpr Line kClientLines[] = {
    {10, Shape::kFourWords, "session preferred ipv6 address=%d %d %d %d\n"},
    {11, Shape::kFourWords, "session interface ipv6 address=%d %d %d %d\n"},
    {17, Shape::kText, "user name=%s\n"},
    {18, Shape::kText, "logical system name=%s\n"},
    {19, Shape::kText, "interface name=%s\n"},
    {20, Shape::kText, "profile name=%s\n"},
    {21, Shape::kWord, "user ipv4 address=%d\n"},
    {22, Shape::kWord, "user ipv4 mask=%d\n"},
    {24, Shape::kBlock, "user ipv address={\n"},
    {25, Shape::kWord, "user ipv6 mask=%d\n"},
    {29, Shape::kText, "NDRA prefix=%s\n"},
    {34, Shape::kText, "radius acct session id=%s\n"},
    {35, Shape::kText, "radius nas port type=%s\n"},
    {36, Shape::kWord, "client session state=%d\n"},
    {37, Shape::kWord, "client_session_type=%d\n"},
    {39, Shape::kText, "routing instance=%s\n"},
    {40, Shape::kText, "user mac address=%s\n"},
    {41, Shape::kWord, "dhcp gi addr=%d\n"},
    {43, Shape::kWord, "session ifl type=%d\n"},
    {44, Shape::kText, "unnumbered interface=%s\n"},
    {45, Shape::kWord, "session preferred ip address=%d\n"},
    {47, Shape::kWord, "input filter index=%d\n"},
    {48, Shape::kWord, "output filter index=%d\n"},
    {60, Shape::kText, "AGENT CIRCUIT ID=%s\n"},
    {62, Shape::kText, "AGENT REMOTE ID=%s\n"},
    {64, Shape::kBlock, "dsl forum attribute={\n"},
    {114, Shape::kWord, "advisory options upstream rate=%d\n"},
    {115, Shape::kWord, "advisory options downstream rate=%d\n"},
};

constexpr Line kServiceLines[] = {
    {36, Shape::kWord, "service session state=%d\n"}, {42, Shape::kText, "service name=%s\n"},
    {46, Shape::kWord, "aggregated boolean=%d\n"},    {47, Shape::kWord, "input filter index=%d\n"},
    {48, Shape::kWord, "output filter index=%d\n"},
};

void Bytes(const void* value, uint32_t length) {
  const auto* p = static_cast<const uint8_t*>(value);
  for (uint32_t i = 0; p != nullptr && i < length; ++i) VSK_TRACE("%d ", p[i]);
}

int Word(const void* value, uint32_t length, uint32_t index) {
  uint32_t w = 0;
  const uint32_t at = index * sizeof w;
  if (value != nullptr && length > at) {
    const uint32_t n = length - at < sizeof w ? length - at : sizeof w;
    std::memcpy(&w, static_cast<const uint8_t*>(value) + at, n);
  }
  return static_cast<int>(w);
}

const Line* Find(const Line* begin, const Line* end, uint16_t type) {
  for (const Line* l = begin; l != end; ++l) {
    if (l->type == type) return l;
  }
  return nullptr;
}

void Attr(const vsk_attr_t* a, const Line* line) {
  switch (line->shape) {
    case Shape::kText: {
      const char* text = static_cast<const char*>(a->value);
      char* copy = nullptr;
      if (text == nullptr || std::memchr(text, 0, a->length) == nullptr) {
        copy = static_cast<char*>(std::calloc(1, a->length + 1u));
        if (copy != nullptr && text != nullptr) std::memcpy(copy, text, a->length);
        text = copy != nullptr ? copy : "";
      }
      VSK_TRACE(line->format, text);
      std::free(copy);
      break;
    }
    case Shape::kWord:
      VSK_TRACE(line->format, Word(a->value, a->length, 0));
      break;
    case Shape::kFourWords:
      VSK_TRACE(line->format, Word(a->value, a->length, 0), Word(a->value, a->length, 1),
                Word(a->value, a->length, 2), Word(a->value, a->length, 3));
      break;
    case Shape::kBlock:
      VSK_TRACE("%s", line->format);
      Bytes(a->value, a->length);
      VSK_TRACE("}\n");
      break;
  }
}

// Each attribute of `list` by its table's line; a type the table lacks is announced (with
// its type for a client, without for a service) and its bytes follow with no line end.
template <size_t N>
void Attrs(const vsk_attr_list_t* list, const Line (&table)[N], bool client) {
  for (const vsk_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr; a = a->next) {
    const Line* line = Find(std::begin(table), std::end(table), a->type);
    if (line != nullptr) {
      Attr(a, line);
      continue;
    }
    if (client) {
      VSK_TRACE("unknown session attribute %d = ", a->type);
    } else {
      VSK_TRACE("unknown session attribute=");
    }
    Bytes(a->value, a->length);
  }
}

void DynamicBlock(const vsk_dynamic_config_t* record) {
  const vsk_dyn_attr_list_t* list = record != nullptr ? record->attrs : nullptr;
  if (list == nullptr) {
    VSK_TRACE("No dynamic configuration \n");
    return;
  }
  VSK_TRACE("Dynamic configuration {\n");
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    VSK_TRACE("%s=", a->name != nullptr ? a->name : "");
    Bytes(a->value, a->length);
  }
  VSK_TRACE("}\n");
}

void Dump(const vsk_snapshot_handle* h) {
  if (h == nullptr || h->data == nullptr || IsLight(h)) {
    VSK_TRACE("session data is missing");
    return;
  }
  if (h->config_bits_len != 0) {
    VSK_TRACE("configuration bits=");
    Bytes(h->config_bits, h->config_bits_len);
    VSK_TRACE("\n");
  }
  const vsk_snapshot_client_data* c = h->data->client;
  const bool has_client = c != nullptr && c->record != nullptr;
  if (!has_client) {
    VSK_TRACE("no client session");
    if (c != nullptr && c->dynamic_record == nullptr) VSK_TRACE("no client dynamic session");
  } else {
    VSK_TRACE("Client session %llu {\n", Ull(h->client_session_id));
    VSK_TRACE("Session attributes {\n");
    Attrs(c->record->attrs, kClientLines, true);
    if (c->dynamic_record != nullptr) DynamicBlock(c->dynamic_record);
    VSK_TRACE("Dynamic default configuration {\n");
    for (patricia_node_t* n = c->predefined != nullptr ? patricia_find_next(c->predefined, nullptr)
                                                       : nullptr;
         n != nullptr; n = patricia_find_next(c->predefined, n)) {
      auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(n);
      for (vsk_attr_value_t* v = node->values_first; v != nullptr; v = v->next) {
        VSK_TRACE("%s=", static_cast<const char*>(node->key));
        Bytes(v->value, v->length);
      }
    }
    VSK_TRACE("}\n");
  }
  VSK_TRACE("Service sessions {\n");
  patricia_root_t* services = h->data->services;
  for (patricia_node_t* n = services != nullptr ? patricia_find_next(services, nullptr) : nullptr;
       n != nullptr; n = patricia_find_next(services, n)) {
    auto* s = reinterpret_cast<vsk_snapshot_service_node*>(n);
    if (s->record != nullptr) Attrs(s->record->attrs, kServiceLines, false);
    // The test is on the client's dynamic record, not the service's: published behaviour.
    if (c != nullptr && c->dynamic_record != nullptr) DynamicBlock(s->dynamic_record);
  }
  VSK_TRACE("}\n");
  if (has_client) VSK_TRACE("}\n");
}

}  // namespace
}  // namespace vsk::snapshot

extern "C" {

void vsk_dump_snapshot(vsk_snapshot_handle* handle) {
  if (vsk_trace_cbk == nullptr) return;
  vsk::snapshot::Dump(handle);
}

// Digits lowest first: 120 gives "021". Deliberate: this order is the published one and
// callers depend on it; do not "fix" it into the usual order.
void vsk_toa(uint64_t value, char* buffer) {
  if (buffer == nullptr) return;
  size_t i = 0;
  do {
    buffer[i++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  buffer[i] = '\0';
}

}  // extern "C"
