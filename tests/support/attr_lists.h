// Caller-owned attribute, update and dynamic lists for tests. Each builder owns its nodes
// and values (deques keep their addresses) and must not be copied or moved.
#pragma once

#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <utility>

#include "vsk/attr.h"

namespace vsk::test {

inline std::string U32(uint32_t v) { return std::string(reinterpret_cast<char*>(&v), 4); }
inline std::string Text(const char* s) { return std::string(s) + '\0'; }

class AttrList {
 public:
  AttrList(std::initializer_list<std::pair<uint16_t, std::string>> items = {}) {
    vsk_attr_list_init(&list_);
    for (const auto& [type, value] : items) Add(type, value);
  }
  AttrList(const AttrList&) = delete;
  AttrList& operator=(const AttrList&) = delete;

  AttrList& Add(uint16_t type, std::string value) {
    values_.push_back(std::move(value));
    std::string& v = values_.back();
    nodes_.push_back({type, static_cast<uint16_t>(v.size()), v.data(), nullptr});
    vsk_attr_list_append(&list_, &nodes_.back());
    return *this;
  }
  vsk_attr_list_t* get() { return &list_; }

 private:
  vsk_attr_list_t list_;
  std::deque<vsk_attr_t> nodes_;
  std::deque<std::string> values_;
};

class UpdateList {
 public:
  UpdateList() { list_.first = nullptr, list_.last = &list_.first; }
  UpdateList(const UpdateList&) = delete;
  UpdateList& operator=(const UpdateList&) = delete;

  // `value` goes to value/length, `new_value` to new_value/new_length.
  UpdateList& Add(uint16_t type, uint32_t action, std::string value, std::string new_value = {}) {
    values_.push_back(std::move(value));
    std::string& v = values_.back();
    values_.push_back(std::move(new_value));
    std::string& n = values_.back();
    vsk_attr_update_t e{};
    e.type = type;
    e.action = action;
    e.length = static_cast<uint32_t>(v.size());
    e.value = v.empty() ? nullptr : v.data();
    e.new_length = static_cast<uint32_t>(n.size());
    e.new_value = n.empty() ? nullptr : n.data();
    nodes_.push_back(e);
    *list_.last = &nodes_.back();
    list_.last = &nodes_.back().next;
    return *this;
  }
  UpdateList& Replace(uint16_t type, std::string new_value) {
    return Add(type, VSK_ATTR_ACTION_ADD_OR_REPLACE, {}, std::move(new_value));
  }
  vsk_attr_update_list_t* get() { return &list_; }

 private:
  vsk_attr_update_list_t list_;
  std::deque<vsk_attr_update_t> nodes_;
  std::deque<std::string> values_;
};

class DynList {
 public:
  DynList(std::initializer_list<std::pair<std::string, std::string>> items = {}) {
    list_.first = nullptr, list_.last = &list_.first;
    for (const auto& [name, value] : items) Add(name, value);
  }
  DynList(const DynList&) = delete;
  DynList& operator=(const DynList&) = delete;

  DynList& Add(std::string name, std::string value, uint16_t tag = VSK_ARRAY_NONE) {
    names_.push_back(std::move(name));
    values_.push_back(std::move(value));
    vsk_dyn_attr_t e{};
    e.name = names_.back().data();
    e.length = static_cast<uint32_t>(values_.back().size());
    e.value = values_.back().data();
    e.array_tag = tag;
    nodes_.push_back(e);
    *list_.last = &nodes_.back();
    list_.last = &nodes_.back().next;
    return *this;
  }
  vsk_dyn_attr_list_t* get() { return &list_; }

 private:
  vsk_dyn_attr_list_t list_;
  std::deque<vsk_dyn_attr_t> nodes_;
  std::deque<std::string> names_, values_;
};

// The value of `type` in a decoded list as bytes; "<absent>" when there is none.
inline std::string ValueOf(const vsk_attr_list_t* list, uint16_t type) {
  if (list == nullptr) return "<absent>";
  const vsk_attr_t* a = vsk_get_attribute_from_list(list, type);
  return a != nullptr ? std::string(static_cast<const char*>(a->value), a->length) : "<absent>";
}

}  // namespace vsk::test
