// Predefined "kelvo-" variables: names an application reads like dynamic configuration,
// answered from the session's ordinary attributes and kept, as text, in the client's
// `predefined` tree for the snapshot's life. Also the string forms of dynamic values and
// the whole dynamic list of a loaded snapshot.
//
// Who may call: the thread that owns the handle. Everything here touches only the handle,
// except "kelvo-interface-unit", whose first read draws a unit from pool 0 and writes it
// into the session in a transaction of its own (two processes reading at once may each
// draw one: nothing prevents it).
//
// Invariants:
//  1. Every node of `predefined` and `dynamic_str` owns its key and values (heap copies);
//     the snapshot's free releases them.
//  2. A value that cannot be computed adds nothing: the lookup then answers -7.
//  3. An interface unit that cannot be stored in the session goes back to the pool, and the
//     snapshot does not keep it.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libvsk/base/trace.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "platform/format.h"
#include "vsk/attr_read.h"
#include "vsk/dynamic.h"
#include "vsk/shared.h"

namespace vsk::session {
namespace {

constexpr char kFn[] = "vsk_get_internal_variables_internal";
constexpr char kUnitName[] = "kelvo-interface-unit";
constexpr char kUnderlying[] = "kelvo-underlying-interface";
constexpr char kIfdName[] = "kelvo-interface-ifd-name";
constexpr char kUnderlyingUnit[] = "kelvo-underlying-interface-unit";
constexpr char kSetName[] = "kelvo-interface-set-name";
constexpr char kPhyIfdName[] = "kelvo-phy-ifd-name";
constexpr int kUnitStoreRetries = 3;
constexpr size_t kV4TextRoom = 32;
constexpr size_t kV6TextRoom = 92;
constexpr size_t kSetNameRoom = 60;

uint16_t KeyLength(const char* name) { return static_cast<uint16_t>(std::strlen(name) + 1); }

vsk_attr_tree_node_t* Find(patricia_root_t* tree, const char* name) {
  if (tree == nullptr) return nullptr;
  return reinterpret_cast<vsk_attr_tree_node_t*>(patricia_get(tree, KeyLength(name), name));
}

vsk_attr_value_t* ListOf(vsk_attr_tree_node_t* node) {
  return reinterpret_cast<vsk_attr_value_t*>(&node->values_first);
}

// Adds `value` (heap, handed over) under a heap copy of `name`, the node owning both. On a
// failure nothing handed over is left behind.
vsk_status_t AddOwned(patricia_root_t* tree, const char* name, void* value, uint32_t length) {
  char* key = strdup(name);
  if (key == nullptr) {
    std::free(value);
    return VSK_ERR_NOMEM;
  }
  const uint16_t klen = KeyLength(name);
  vsk_status_t st = vsk_attr_tree_add(tree, klen, key, length, value, true);
  if (st != VSK_OK) {
    std::free(value);
    // A node made for this key owns it; a surplus key was already dropped by the add.
    if (patricia_get(tree, klen, name) == nullptr) std::free(key);
  }
  return st;
}

// The client's `predefined` tree, made on the first need.
patricia_root_t* PredefinedTree(vsk_snapshot_handle* h) {
  vsk_snapshot_client_data* c = h->data->client;
  if (c == nullptr) return nullptr;
  if (c->predefined == nullptr) c->predefined = vsk_attr_tree_create();
  return c->predefined;
}

// The end of every text variable: the value is added, then looked up by its name.
vsk_status_t AddAndAnswer(vsk_snapshot_handle* h, const char* name, void* value, uint32_t length,
                          vsk_attr_value_t** out) {
  patricia_root_t* pre = PredefinedTree(h);
  if (pre == nullptr) {
    std::free(value);
    return VSK_ERR_NOMEM;
  }
  vsk_status_t st = AddOwned(pre, name, value, length);
  if (st != VSK_OK) return st;
  vsk_attr_tree_node_t* node = Find(pre, name);
  if (node == nullptr) return VSK_ERR_NOT_FOUND;
  *out = ListOf(node);
  return VSK_OK;
}

// Formatter output: its length plus the NUL, or nothing when it failed.
vsk_status_t AnswerText(vsk_snapshot_handle* h, const char* name, char* text, int n,
                        vsk_attr_value_t** out) {
  if (n <= 0) {
    std::free(text);
    patricia_root_t* pre = PredefinedTree(h);
    vsk_attr_tree_node_t* node = Find(pre, name);
    if (node == nullptr) return VSK_ERR_NOT_FOUND;
    *out = ListOf(node);
    return VSK_OK;
  }
  return AddAndAnswer(h, name, text, static_cast<uint32_t>(n) + 1, out);
}

// A session attribute's first value as bytes, read from the snapshot (`from_cache` false)
// or from the session's present state in the cache when it is there.
struct Bytes {
  const void* value = nullptr;
  uint32_t length = 0;
};
vsk_status_t ReadAttr(vsk_snapshot_handle* h, uint16_t type, bool from_cache, Bytes* out) {
  vsk_attr_value_t* list = nullptr;
  vsk_status_t st;
  if (from_cache) {
    uint16_t length = 0;
    void* value = nullptr;
    st = vsk_get_client_session_attr_shm(h, type, &list, &length, &value);
    if (st == VSK_OK && list == nullptr) {
      out->value = value;
      out->length = length;
      return VSK_OK;
    }
  } else {
    st = snapshot::ClientAttr(h, type, &list);
  }
  if (st != VSK_OK) return st;
  if (list == nullptr || list->next == nullptr) return VSK_ERR_NOT_FOUND;
  out->value = list->next->value;
  out->length = list->next->length;
  return VSK_OK;
}

// Up to `n` leading bytes of a value into `dst` (zeroed first): a short value reads as if
// padded with zeros.
void CopyPadded(const Bytes& b, void* dst, size_t n) {
  std::memset(dst, 0, n);
  if (b.value != nullptr) std::memcpy(dst, b.value, b.length < n ? b.length : n);
}

// The prefixed form of an address: a 2-byte prefix length in network order, 16 bytes.
void SplitPrefixed(const Bytes& b, uint8_t (&addr)[16], unsigned* prefix) {
  uint8_t raw[18];
  CopyPadded(b, raw, sizeof raw);
  uint16_t p;
  std::memcpy(&p, raw, 2);
  *prefix = ntohs(p);
  std::memcpy(addr, raw + 2, 16);
}

vsk_status_t FormatV6(vsk_snapshot_handle* h, const char* name, const uint8_t (&addr)[16],
                      int with_prefix, unsigned prefix, vsk_attr_value_t** out) {
  char* text = static_cast<char*>(std::calloc(1, kV6TextRoom));
  if (text == nullptr) return VSK_ERR_NOMEM;
  int n = format_ipaddr(28, addr, 0, with_prefix, prefix, 0, 0, text, kV6TextRoom);
  return AnswerText(h, name, text, n, out);
}

vsk_status_t FormatV4(vsk_snapshot_handle* h, const char* name, uint32_t addr, int with_prefix,
                      unsigned prefix, vsk_attr_value_t** out) {
  char* text = static_cast<char*>(std::calloc(1, kV4TextRoom));
  if (text == nullptr) return VSK_ERR_NOMEM;
  int n = format_ipaddr(2, &addr, 0, with_prefix, prefix, 0, 0, text, kV4TextRoom);
  return AnswerText(h, name, text, n, out);
}

// "kelvo-subscriber-ipv6-address" and its "-multi-" sibling: the full address with prefix
// 128, else the alternative attribute's prefixed form.
vsk_status_t SubscriberV6(vsk_snapshot_handle* h, const char* name, vsk_attr_value_t** out) {
  Bytes b;
  uint8_t addr[16];
  unsigned prefix = 128;
  if (ReadAttr(h, VSK_USER_IPV6_ADDRESS, false, &b) == VSK_OK) {
    CopyPadded(b, addr, sizeof addr);
  } else {
    vsk_status_t st = ReadAttr(h, VSK_USER_IPV6_ADDRESS_ALT, false, &b);
    if (st != VSK_OK) return st;
    SplitPrefixed(b, addr, &prefix);
  }
  return FormatV6(h, name, addr, 1, prefix, out);
}

// An attribute's bytes as they are, its own length, no NUL added.
vsk_status_t RawCopy(vsk_snapshot_handle* h, const char* name, uint16_t type,
                     vsk_attr_value_t** out) {
  Bytes b;
  vsk_status_t st = ReadAttr(h, type, true, &b);
  if (st != VSK_OK) return st;
  void* copy = std::malloc(b.length != 0 ? b.length : 1);
  if (copy == nullptr) return VSK_ERR_NOMEM;
  if (b.length != 0) std::memcpy(copy, b.value, b.length);
  return AddAndAnswer(h, name, copy, b.length, out);
}

// "kelvo-interface-ifd-name" and "kelvo-underlying-interface-unit": the two parts of the
// stored underlying interface. When the part asked for exists, the snapshot's underlying
// value itself is made to show it: the order of reads is visible through it, as published.
vsk_status_t IfdParts(vsk_snapshot_handle* h, patricia_root_t* tree, const char* name,
                      vsk_attr_value_t** out) {
  vsk_attr_tree_node_t* under = Find(tree, kUnderlying);
  if (under == nullptr) return VSK_ERR_NOT_FOUND;
  *out = ListOf(under);
  vsk_attr_value_t* v = under->values_first;
  vsk_status_t st = VSK_OK;
  if (v != nullptr && v->length != 0) {
    std::string text(static_cast<const char*>(v->value), v->length);
    const size_t room = text.size() + 1;
    char* ifd = static_cast<char*>(std::calloc(1, room));
    char* unit = static_cast<char*>(std::calloc(1, room));
    if (ifd == nullptr || unit == nullptr) {
      std::free(ifd);
      std::free(unit);
      return VSK_ERR_NOMEM;
    }
    vsk_parse_ifd_name(text.c_str(), ifd, unit);
    patricia_root_t* pre = PredefinedTree(h);
    if (pre == nullptr) {
      std::free(ifd);
      std::free(unit);
      return VSK_ERR_NOMEM;
    }
    if (ifd[0] != '\0') {
      st = AddOwned(pre, kIfdName, ifd, static_cast<uint32_t>(std::strlen(ifd) + 1));
    } else {
      std::free(ifd);
    }
    if (unit[0] != '\0') {
      vsk_status_t u =
          AddOwned(pre, kUnderlyingUnit, unit, static_cast<uint32_t>(std::strlen(unit) + 1));
      if (st == VSK_OK) st = u;
    } else {
      std::free(unit);
    }
  }
  patricia_root_t* pre = h->data->client != nullptr ? h->data->client->predefined : nullptr;
  if (pre == nullptr) return VSK_ERR_NOT_FOUND;
  vsk_attr_tree_node_t* found = Find(pre, name);
  if (found == nullptr) return st;
  *out = ListOf(found);
  if (v != nullptr && found->values_first != nullptr) {
    v->length = found->values_first->length;
    v->value = found->values_first->value;
  }
  return VSK_OK;
}

// "-<id>" behind a name, the id printed as a signed number.
void AppendId(std::string* text, uint32_t id) {
  char suffix[16];
  std::snprintf(suffix, sizeof suffix, "-%d", static_cast<int32_t>(id));
  text->append(suffix);
}

// The interface-set names: stored under "kelvo-interface-set-name", or built from the
// physical device's name and the VLAN ids ("ge-1/0/0-100", "ge-1/0/0-100-7").
vsk_status_t SetName(vsk_snapshot_handle* h, patricia_root_t* tree, const char* name,
                     bool with_inner, vsk_attr_value_t** out) {
  if (tree == nullptr) return VSK_ERR_NOT_FOUND;
  if (vsk_attr_tree_node_t* stored = Find(tree, kSetName)) {
    *out = ListOf(stored);
    return VSK_OK;
  }
  vsk_attr_tree_node_t* phy = Find(tree, kPhyIfdName);
  if (phy == nullptr) return VSK_ERR_NOT_FOUND;
  std::string text;
  if (const vsk_attr_value_t* v = phy->values_first; v != nullptr && v->value != nullptr) {
    text.assign(static_cast<const char*>(v->value),
                v->length < kSetNameRoom ? v->length : kSetNameRoom);
    text = text.c_str();
  }
  bool suffixed = false;
  Bytes b;
  if (ReadAttr(h, VSK_OUTER_VLAN_ID, false, &b) == VSK_OK) {
    uint32_t vlan;
    CopyPadded(b, &vlan, sizeof vlan);
    AppendId(&text, vlan);
    suffixed = true;
  }
  if (with_inner && ReadAttr(h, VSK_INNER_VLAN_ID, false, &b) == VSK_OK) {
    uint32_t vlan;
    CopyPadded(b, &vlan, sizeof vlan);
    AppendId(&text, vlan);
    suffixed = true;
  }
  if (!suffixed) return VSK_ERR_NOT_FOUND;
  char* value = strdup(text.c_str());
  if (value == nullptr) return VSK_ERR_NOMEM;
  patricia_root_t* pre = PredefinedTree(h);
  if (pre == nullptr) {
    std::free(value);
    return VSK_ERR_NOMEM;
  }
  vsk_status_t st = AddOwned(pre, name, value, static_cast<uint32_t>(text.size() + 1));
  if (st != VSK_OK) return st;
  if (vsk_attr_tree_node_t* node = Find(pre, name)) *out = ListOf(node);
  return VSK_OK;
}

// "kelvo-interface-unit": a unit drawn from pool 0 and stored in the session's dynamic
// configuration (in the store or the cache); it stays with the session until removal.
vsk_status_t InterfaceUnit(vsk_snapshot_handle* h, vsk_attr_value_t** out) {
  vsk_snapshot_client_data* c = h->data->client;
  if (h->client_session_id == 0 || c == nullptr || c->dynamic == nullptr) {
    return VSK_ERR_NOT_FOUND;
  }
  uint32_t unit = UINT32_MAX;
  vsk_status_t st = VSK_OK;
  bool added = false;
  int rc = vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL);
  if (rc == VSK_UNIT_ERR_EMPTY) {
    VSK_TRACE("%s: Ran out of unit numbers", kFn);
    st = VSK_ERR_UNIT_EXHAUSTED;
    unit = UINT32_MAX;
  } else if (rc != VSK_UNIT_OK) {
    VSK_TRACE("%s: Unit pool error %s", kFn, vsk_get_err_msg(rc));
    st = VSK_ERR_FATAL;
    unit = UINT32_MAX;
  }
  char* text = nullptr;
  if (st == VSK_OK) {
    text = static_cast<char*>(std::calloc(1, 12));
    if (text == nullptr) {
      st = VSK_ERR_NOMEM;
    } else {
      vsk_unit_itoa(unit, text);
      st = AddOwned(c->dynamic, kUnitName, text, static_cast<uint32_t>(std::strlen(text) + 1));
      added = st == VSK_OK;
    }
  }
  for (int retries = 0; added;) {
    vsk_dyn_update_t entry{};
    entry.name = const_cast<char*>(kUnitName);
    entry.length = static_cast<uint32_t>(std::strlen(text) + 1);
    entry.value = text;
    entry.array_tag = VSK_ARRAY_NONE;
    entry.action = VSK_ATTR_ACTION_ADD_OR_APPEND;
    vsk_dyn_update_list_t list{&entry, &entry.next};
    st = UpdateClientDynamic(h->client_session_id, &list);
    if (st == VSK_OK) {
      if (vsk_attr_tree_node_t* node = Find(c->dynamic, kUnitName)) {
        *out = ListOf(node);
        return VSK_OK;
      }
      VSK_TRACE("%s at %d: This should not happen, unit id not in patricia tree\n", kFn, __LINE__);
      return VSK_ERR_FATAL;
    }
    VSK_TRACE("%s: Failed to put %s in client session, err=%s", kFn, kUnitName,
              vsk_get_err_msg(st));
    if ((st != VSK_ERR_RECOVERING && st != VSK_ERR_RETRY) || retries++ == kUnitStoreRetries) break;
  }
  // The unit was not stored: the snapshot forgets it and the pool takes it back.
  if (added) vsk_attr_tree_remove(c->dynamic, sizeof kUnitName, kUnitName, 0, nullptr, false);
  if (unit != UINT32_MAX) {
    rc = vsk_unit_release(unit, VSK_UNIT_POOL_IFL);
    if (rc != VSK_UNIT_OK) {
      VSK_TRACE("%s: Failed to release client session unit number, err=%s", kFn,
                vsk_get_err_msg(rc));
    }
  }
  VSK_TRACE("%s: Failed to assign the unit number to client session, err=%s", kFn,
            vsk_get_err_msg(st));
  return st;
}

}  // namespace

vsk_status_t Predefined(vsk_snapshot_handle* h, uint64_t id, const char* name,
                        vsk_attr_value_t** out) {
  patricia_root_t* tree = nullptr;
  if (id == 0) {
    tree = h->data->client != nullptr ? h->data->client->dynamic : nullptr;
  } else if (vsk_snapshot_service_node* s = snapshot::FindService(h, id)) {
    tree = s->dynamic;
  }
  if (std::strcmp(name, kIfdName) == 0 || std::strcmp(name, kUnderlyingUnit) == 0) {
    return IfdParts(h, tree, name, out);
  }
  if (std::strcmp(name, "kelvo-svlan-interface-set-name") == 0) {
    return SetName(h, tree, name, false, out);
  }
  if (std::strcmp(name, "kelvo-tagged-vlan-interface-set-name") == 0) {
    return SetName(h, tree, name, true, out);
  }
  if (std::strcmp(name, kUnitName) == 0) return InterfaceUnit(h, out);
  Bytes b;
  vsk_status_t st;
  if (std::strcmp(name, "kelvo-subscriber-ip-address") == 0) {
    if ((st = ReadAttr(h, VSK_USER_IPV4_ADDRESS, false, &b)) != VSK_OK) return st;
    // Stored as the reverse of network order; the preferred source below is not.
    uint32_t addr;
    CopyPadded(b, &addr, sizeof addr);
    return FormatV4(h, name, __builtin_bswap32(addr), 1, 32, out);
  }
  if (std::strcmp(name, "kelvo-subscriber-ipv6-address") == 0 ||
      std::strcmp(name, "kelvo-subscriber-ipv6-multi-address") == 0) {
    return SubscriberV6(h, name, out);
  }
  if (std::strcmp(name, "kelvo-subscriber-mac-address") == 0) {
    if ((st = ReadAttr(h, VSK_USER_MAC_ADDRESS, true, &b)) != VSK_OK) return st;
    char* text = static_cast<char*>(std::calloc(1, 21));
    if (text == nullptr) return VSK_ERR_NOMEM;
    uint8_t mac[6];
    CopyPadded(b, mac, sizeof mac);
    int n = b.length >= sizeof mac ? format_mac_addr(text, 21, mac, 0, 0) : 0;
    VSK_TRACE("%s: kelvo-subscriber-mac-address: %s\n", kFn, text);
    return AnswerText(h, name, text, n, out);
  }
  if (std::strcmp(name, "kelvo-interface-name") == 0)
    return RawCopy(h, name, VSK_INTERFACE_NAME, out);
  if (std::strcmp(name, "kelvo-routing-instance") == 0) {
    return RawCopy(h, name, VSK_ROUTING_INSTANCE, out);
  }
  if (std::strcmp(name, "kelvo-loopback-interface") == 0) {
    return RawCopy(h, name, VSK_UNNUMBERED_INTERFACE, out);
  }
  if (std::strcmp(name, "kelvo-preferred-source-address") == 0) {
    if ((st = ReadAttr(h, VSK_PREFERRED_IP_ADDRESS, true, &b)) != VSK_OK) return st;
    uint32_t addr;
    CopyPadded(b, &addr, sizeof addr);
    return FormatV4(h, name, addr, 0, 0, out);
  }
  if (std::strcmp(name, "kelvo-preferred-source-ipv6-address") == 0) {
    if ((st = ReadAttr(h, VSK_PREFERRED_IPV6_ADDRESS, true, &b)) != VSK_OK) return st;
    uint8_t addr[16];
    CopyPadded(b, addr, sizeof addr);
    return FormatV6(h, name, addr, 0, 0, out);
  }
  if (std::strcmp(name, "kelvo-ipv6-address") == 0) {
    if ((st = ReadAttr(h, VSK_INTERFACE_IPV6_ADDRESS, true, &b)) != VSK_OK) return st;
    uint8_t addr[16];
    unsigned prefix = 0;
    SplitPrefixed(b, addr, &prefix);
    return FormatV6(h, name, addr, 1, prefix, out);
  }
  if (std::strcmp(name, "kelvo-ipv6-ndra-prefix") == 0) {
    if (ReadAttr(h, VSK_DELEGATED_IPV6_PREFIX, false, &b) != VSK_OK &&
        (st = ReadAttr(h, VSK_NDRA_PREFIX, false, &b)) != VSK_OK) {
      return st;
    }
    uint8_t addr[16];
    unsigned prefix = 0;
    SplitPrefixed(b, addr, &prefix);
    return FormatV6(h, name, addr, 1, prefix, out);
  }
  return VSK_ERR_NOT_FOUND;
}

vsk_status_t DynamicAttrStr(vsk_snapshot_handle* h, uint64_t id, const char* name,
                            vsk_attr_value_t** out) {
  if (name == nullptr || h == nullptr || h->data == nullptr || snapshot::IsLight(h)) {
    return VSK_ERR_INVALID_PARAM;
  }
  patricia_root_t* tree;
  if (id == 0) {
    if (h->data->client == nullptr) return VSK_ERR_NOT_FOUND;
    tree = h->data->client->dynamic_str;
  } else {
    vsk_snapshot_service_node* s = snapshot::FindService(h, id);
    if (s == nullptr) return VSK_ERR_NOT_FOUND;
    tree = s->dynamic_str;
  }
  if (vsk_attr_tree_node_t* node = Find(tree, name)) {
    if (node->array_tag == VSK_ARRAY_IDENTIFYING_TLV || node->array_tag == VSK_ARRAY_START_TLV) {
      return VSK_ERR_NO_ARRAY;
    }
    *out = ListOf(node);
    return VSK_OK;
  }
  vsk_status_t st = snapshot::DynamicAttr(h, id, name, out);
  if (st != VSK_OK) return st;
  if (tree == nullptr) return VSK_ERR_NOT_FOUND;
  for (const vsk_attr_value_t* v = (*out)->next; v != nullptr; v = v->next) {
    char* text = static_cast<char*>(std::malloc(v->length + 1));
    if (text == nullptr) {
      st = VSK_ERR_NOMEM;
    } else {
      if (v->length != 0) std::memcpy(text, v->value, v->length);
      text[v->length] = '\0';
      st = AddOwned(tree, name, text, v->length + 1);
    }
    if (st != VSK_OK) {
      VSK_TRACE(
          "%s: Failed to add string value of dynamic configuration attributes to patricia "
          "tree, err=%s",
          "vsk_get_dynamic_config_attr_str_internal", vsk_get_err_msg(st));
      return st;
    }
  }
  if (vsk_attr_tree_node_t* node = Find(tree, name)) *out = ListOf(node);
  return VSK_OK;
}

vsk_status_t AllDynamicAttrs(vsk_snapshot_handle* h, uint64_t id, vsk_dyn_attr_list_t** out) {
  if (h == nullptr || h->data == nullptr || snapshot::IsLight(h)) return VSK_ERR_INVALID_PARAM;
  if (id == 0) {
    vsk_snapshot_client_data* c = h->data->client;
    if (c == nullptr || c->dynamic_record == nullptr || c->dynamic_record->attrs == nullptr) {
      return VSK_ERR_NOT_FOUND;
    }
    *out = c->dynamic_record->attrs;
    return VSK_OK;
  }
  vsk_snapshot_service_node* s = snapshot::FindService(h, id);
  // A service answers only from its record: one without a record has nothing to list.
  if (s == nullptr || s->dynamic == nullptr || s->dynamic_record == nullptr ||
      s->dynamic_record->attrs == nullptr) {
    return VSK_ERR_NOT_FOUND;
  }
  *out = s->dynamic_record->attrs;
  return VSK_OK;
}

}  // namespace vsk::session

using namespace vsk::session;

extern "C" {

vsk_status_t vsk_get_dynamic_config_attr_str(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                             const char* name, vsk_attr_value_t** out) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  vsk_status_t st = DynamicAttrStr(handle, id, name, out);
  if (st == VSK_ERR_NOT_FOUND && id != 0) st = DynamicAttrStr(handle, 0, name, out);
  return st;
}

vsk_status_t vsk_get_all_dynamic_config_attrs(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                              vsk_dyn_attr_list_t** out) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  return AllDynamicAttrs(handle, id, out);
}

}  // extern "C"
