// Caller-owned attribute, update and dynamic lists for tests. Each builder owns its nodes
// and values (deques keep their addresses) and must not be copied or moved.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "vsk/attr.h"

namespace vsk::test {

inline std::string U32(uint32_t v) { return std::string(reinterpret_cast<char*>(&v), 4); }
inline std::string Text(const std::string& s) { return s + '\0'; }

// A list of nodes of type Node with a head of type List, appended in order.
template <typename Node, typename List>
class ListOf {
 public:
  ListOf() { list_.first = nullptr, list_.last = &list_.first; }
  ListOf(const ListOf&) = delete;
  ListOf& operator=(const ListOf&) = delete;
  List* get() { return &list_; }

 protected:
  // Keeps `value` and returns its bytes.
  std::string& Keep(std::string value) { return values_.emplace_back(std::move(value)); }
  void Append(const Node& node) {
    Node& n = nodes_.emplace_back(node);
    n.next = nullptr;
    *list_.last = &n;
    list_.last = &n.next;
  }

 private:
  List list_;
  std::deque<Node> nodes_;
  std::deque<std::string> values_;
};

struct AttrList : ListOf<vsk_attr_t, vsk_attr_list_t> {
  AttrList(std::initializer_list<std::pair<uint16_t, std::string>> items = {}) {
    for (const auto& [type, value] : items) Add(type, value);
  }
  AttrList& Add(uint16_t type, std::string value) {
    std::string& v = Keep(std::move(value));
    Append({type, static_cast<uint16_t>(v.size()), v.data(), nullptr});
    return *this;
  }
};

struct UpdateList : ListOf<vsk_attr_update_t, vsk_attr_update_list_t> {
  // `value` goes to value/length, `new_value` to new_value/new_length; empty means null.
  UpdateList& Add(uint16_t type, uint32_t action, std::string value, std::string new_value = {}) {
    std::string& v = Keep(std::move(value));
    std::string& n = Keep(std::move(new_value));
    vsk_attr_update_t e{};
    e.type = type, e.action = action;
    e.length = static_cast<uint32_t>(v.size()), e.value = v.empty() ? nullptr : v.data();
    e.new_length = static_cast<uint32_t>(n.size()), e.new_value = n.empty() ? nullptr : n.data();
    Append(e);
    return *this;
  }
  UpdateList& Replace(uint16_t type, std::string new_value) {
    return Add(type, VSK_ATTR_ACTION_ADD_OR_REPLACE, {}, std::move(new_value));
  }
};

struct DynList : ListOf<vsk_dyn_attr_t, vsk_dyn_attr_list_t> {
  DynList(std::initializer_list<std::pair<std::string, std::string>> items = {}) {
    for (const auto& [name, value] : items) Add(name, value);
  }
  DynList& Add(std::string name, std::string value, uint16_t tag = VSK_ARRAY_NONE) {
    std::string& n = Keep(std::move(name));
    std::string& v = Keep(std::move(value));
    Append({nullptr, n.data(), static_cast<uint32_t>(v.size()), v.data(), tag});
    return *this;
  }
};

struct DynUpdateList : ListOf<vsk_dyn_update_t, vsk_dyn_update_list_t> {
  // As UpdateList, for a named dynamic attribute in array `tag`; empty means null.
  DynUpdateList& Add(std::string name, uint16_t tag, uint32_t action, std::string value,
                     std::string new_value = {}) {
    std::string& nm = Keep(std::move(name));
    std::string& v = Keep(std::move(value));
    std::string& n = Keep(std::move(new_value));
    vsk_dyn_update_t e{};
    e.name = nm.data(), e.array_tag = tag, e.action = action;
    e.length = static_cast<uint32_t>(v.size()), e.value = v.empty() ? nullptr : v.data();
    e.new_length = static_cast<uint32_t>(n.size()), e.new_value = n.empty() ? nullptr : n.data();
    Append(e);
    return *this;
  }
};

// The first value of `type` in a decoded list as bytes; "<absent>" when there is none.
inline std::string ValueOf(const vsk_attr_list_t* list, uint16_t type) {
  const vsk_attr_t* a = list != nullptr ? vsk_get_attribute_from_list(list, type) : nullptr;
  return a != nullptr ? std::string(static_cast<const char*>(a->value), a->length) : "<absent>";
}

}  // namespace vsk::test
