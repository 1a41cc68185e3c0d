// Attribute TLVs and dynamic entries in record sections; see attr_codec.h.
#include "libvsk/attr/attr_codec.h"

#include <cstdlib>
#include <cstring>

namespace vsk::attr {
namespace {

template <typename T>
void Put(uint8_t*& p, T v) {
  std::memcpy(p, &v, sizeof v);
  p += sizeof v;
}

template <typename T>
T Get(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

uint32_t AttrEntriesSize(const vsk_attr_list_t* list) {
  uint32_t total = 0;
  if (list == nullptr) return 0;
  for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next) total += 4u + a->length;
  return total;
}

void WriteAttrEntries(const vsk_attr_list_t* list, uint8_t* out) {
  if (list == nullptr) return;
  for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next) {
    Put<uint16_t>(out, a->type);
    Put<uint16_t>(out, a->length);
    if (a->length != 0 && a->value != nullptr) std::memcpy(out, a->value, a->length);
    if (a->length != 0 && a->value == nullptr) std::memset(out, 0, a->length);
    out += a->length;
  }
}

int DecodeAttrEntries(const uint8_t* data, uint32_t length, vsk_attr_list_t** list) {
  if (*list == nullptr) {
    *list = static_cast<vsk_attr_list_t*>(std::calloc(1, sizeof(vsk_attr_list_t)));
    if (*list == nullptr) return -2;
    (*list)->first = nullptr;
    (*list)->last = &(*list)->first;
  }
  uint32_t pos = 0;
  while (pos < length) {
    if (length - pos < 4) return -1;
    const uint16_t type = Get<uint16_t>(data + pos);
    const uint16_t len = Get<uint16_t>(data + pos + 2);
    if (len > length - pos - 4) return -1;
    auto* node = static_cast<vsk_attr_t*>(std::calloc(1, sizeof(vsk_attr_t)));
    if (node == nullptr) return -2;
    node->type = type;
    node->length = len;
    node->value = const_cast<uint8_t*>(data + pos + 4);
    vsk_attr_list_append(*list, node);
    pos += 4u + len;
  }
  return 0;
}

uint32_t DynEntriesSize(const vsk_dyn_attr_list_t* list) {
  uint32_t total = 0;
  if (list == nullptr) return 0;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    const uint32_t n = a->name != nullptr ? static_cast<uint32_t>(std::strlen(a->name)) : 0;
    total += n + 1 + 2 + 4 + a->length + 1;
  }
  return total;
}

void WriteDynEntries(const vsk_dyn_attr_list_t* list, uint8_t* out) {
  if (list == nullptr) return;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    const size_t n = a->name != nullptr ? std::strlen(a->name) : 0;
    if (n != 0) std::memcpy(out, a->name, n);
    out[n] = 0;
    out += n + 1;
    Put<uint16_t>(out, a->array_tag);
    Put<uint32_t>(out, a->length);
    if (a->length != 0) {
      if (a->value != nullptr) {
        std::memcpy(out, a->value, a->length);
      } else {
        std::memset(out, 0, a->length);
      }
    }
    out += a->length;
    *out++ = 0;
  }
}

int DecodeDynEntries(const uint8_t* data, uint32_t length, vsk_dyn_attr_list_t** list) {
  if (*list == nullptr) {
    *list = static_cast<vsk_dyn_attr_list_t*>(std::calloc(1, sizeof(vsk_dyn_attr_list_t)));
    if (*list == nullptr) return -2;
    (*list)->first = nullptr;
    (*list)->last = &(*list)->first;
  }
  uint32_t pos = 0;
  while (pos < length) {
    const uint32_t left = length - pos;
    const void* nul = std::memchr(data + pos, 0, left);
    if (nul == nullptr) return -1;
    const uint32_t n = static_cast<uint32_t>(static_cast<const uint8_t*>(nul) - (data + pos));
    // name and NUL, tag, length; then the value and its trailing NUL.
    if (left - n - 1 < 6) return -1;
    const uint16_t tag = Get<uint16_t>(data + pos + n + 1);
    const uint32_t len = Get<uint32_t>(data + pos + n + 3);
    if (len > left - n - 7 || left - n - 7 - len < 1) return -1;
    auto* node = static_cast<vsk_dyn_attr_t*>(std::calloc(1, sizeof(vsk_dyn_attr_t)));
    if (node == nullptr) return -2;
    node->name = reinterpret_cast<char*>(const_cast<uint8_t*>(data + pos));
    node->array_tag = tag;
    node->length = len;
    node->value = const_cast<uint8_t*>(data + pos + n + 7);
    node->next = nullptr;
    *(*list)->last = node;
    (*list)->last = &node->next;
    pos += n + 8 + len;
  }
  return 0;
}

void FreeAttrList(vsk_attr_list_t* list, bool free_values) {
  if (list == nullptr) return;
  vsk_attr_t* a = list->first;
  while (a != nullptr) {
    vsk_attr_t* next = a->next;
    if (free_values) std::free(a->value);
    std::free(a);
    a = next;
  }
  std::free(list);
}

void FreeDynList(vsk_dyn_attr_list_t* list, bool free_values) {
  if (list == nullptr) return;
  vsk_dyn_attr_t* a = list->first;
  while (a != nullptr) {
    vsk_dyn_attr_t* next = a->next;
    if (free_values) {
      std::free(a->name);
      std::free(a->value);
    }
    std::free(a);
    a = next;
  }
  std::free(list);
}

}  // namespace vsk::attr
