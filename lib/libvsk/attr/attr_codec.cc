// Attribute TLVs and dynamic entries in record sections; see attr_codec.h.
#include "libvsk/attr/attr_codec.h"

#include <cstdlib>
#include <cstring>

namespace vsk::attr {

uint32_t AttrEntriesSize(const vsk_attr_list_t* list) {
  uint32_t total = 0;
  if (list == nullptr) return 0;
  for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next) total += 4u + a->length;
  return total;
}

void WriteAttrEntries(const vsk_attr_list_t* list, base::ByteWriter& out) {
  if (list == nullptr) return;
  for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next) {
    out.Put<uint16_t>(a->type);
    out.Put<uint16_t>(a->length);
    out.Bytes(a->value, a->length);  // a null value is written as zeros
  }
}

int DecodeAttrEntries(base::ByteReader section, vsk_attr_list_t** list) {
  if (*list == nullptr) {
    *list = static_cast<vsk_attr_list_t*>(std::calloc(1, sizeof(vsk_attr_list_t)));
    if (*list == nullptr) return -2;
    (*list)->first = nullptr;
    (*list)->last = &(*list)->first;
  }
  while (!section.empty()) {
    uint16_t type = 0, len = 0;
    const uint8_t* value = nullptr;
    if (!section.Get(&type) || !section.Get(&len) || !section.Take(len, &value)) return -1;
    auto* node = static_cast<vsk_attr_t*>(std::calloc(1, sizeof(vsk_attr_t)));
    if (node == nullptr) return -2;
    node->type = type;
    node->length = len;
    node->value = const_cast<uint8_t*>(value);
    vsk_attr_list_append(*list, node);
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

void WriteDynEntries(const vsk_dyn_attr_list_t* list, base::ByteWriter& out) {
  if (list == nullptr) return;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    const size_t n = a->name != nullptr ? std::strlen(a->name) : 0;
    out.Bytes(a->name, n);
    out.Put<uint8_t>(0);
    out.Put<uint16_t>(a->array_tag);
    out.Put<uint32_t>(a->length);
    out.Bytes(a->value, a->length);  // a null value is written as zeros
    out.Put<uint8_t>(0);
  }
}

int DecodeDynEntries(base::ByteReader section, vsk_dyn_attr_list_t** list) {
  if (*list == nullptr) {
    *list = static_cast<vsk_dyn_attr_list_t*>(std::calloc(1, sizeof(vsk_dyn_attr_list_t)));
    if (*list == nullptr) return -2;
    (*list)->first = nullptr;
    (*list)->last = &(*list)->first;
  }
  while (!section.empty()) {
    // Name and NUL, tag, length, the value and one NUL behind it.
    const char* name = nullptr;
    size_t name_len = 0;
    uint16_t tag = 0;
    uint32_t len = 0;
    const uint8_t* value = nullptr;
    if (!section.CString(&name, &name_len) || !section.Get(&tag) || !section.Get(&len) ||
        !section.Take(len, &value) || !section.Skip(1)) {
      return -1;
    }
    auto* node = static_cast<vsk_dyn_attr_t*>(std::calloc(1, sizeof(vsk_dyn_attr_t)));
    if (node == nullptr) return -2;
    node->name = const_cast<char*>(name);
    node->array_tag = tag;
    node->length = len;
    node->value = const_cast<uint8_t*>(value);
    node->next = nullptr;
    *(*list)->last = node;
    (*list)->last = &node->next;
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
