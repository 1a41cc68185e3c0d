/* The attribute model: session and dynamic attribute lists, their change records, the
 * attribute trees in which records are edited and read, and the rules for arrays.
 *
 * Lists are singly linked with a tail link: `first` points at the first entry and `last`
 * at the last entry's `next` field (at `first` itself while the list is empty).
 *
 * Ownership: lists and values that a caller passes stay the caller's. A tree borrows its
 * keys and values unless a node was made with `owns` true; then the node owns its key and
 * every value and vsk_attr_tree_free releases them. */
#ifndef VSK_ATTR_H
#define VSK_ATTR_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/patricia.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

typedef uint64_t vsk_session_id_t;

/* Attribute types: VSK_TYPE_MIN to below VSK_TYPE_MAX. */
#define VSK_TYPE_MIN 1
#define VSK_TYPE_MAX 124

enum {
  VSK_PREFERRED_IPV6_ADDRESS = 10,
  VSK_INTERFACE_IPV6_ADDRESS = 11,
  VSK_UNDERLYING_INTERFACE_NAME = 14,
  VSK_LOGIN_TIME = 15,
  VSK_USER_NAME = 17,
  VSK_LOGICAL_SYSTEM_NAME = 18,
  VSK_INTERFACE_NAME = 19,
  VSK_PROFILE_NAME = 20,
  VSK_USER_IPV4_ADDRESS = 21,
  VSK_USER_IPV4_MASK = 22,
  VSK_USER_IPV6_ADDRESS = 24,
  VSK_USER_IPV6_MASK = 25,
  VSK_DELEGATED_IPV6_PREFIX = 27,
  VSK_NDRA_PREFIX = 29,
  VSK_USER_IPV6_ADDRESS_ALT = 31,
  VSK_RADIUS_ACCT_SESSION_ID = 34,
  VSK_RADIUS_NAS_PORT_TYPE = 35,
  VSK_SESSION_STATE = 36,
  VSK_CLIENT_SESSION_TYPE = 37,
  VSK_ROUTING_INSTANCE = 39,
  VSK_USER_MAC_ADDRESS = 40,
  VSK_DHCP_GI_ADDR = 41,
  VSK_SERVICE_NAME = 42,
  VSK_SESSION_IFL_TYPE = 43,
  VSK_UNNUMBERED_INTERFACE = 44,
  VSK_PREFERRED_IP_ADDRESS = 45,
  VSK_AGGREGATED = 46,
  VSK_INPUT_FILTER_INDEX = 47,
  VSK_OUTPUT_FILTER_INDEX = 48,
  VSK_AGENT_CIRCUIT_ID = 60,
  VSK_AGENT_REMOTE_ID = 62,
  VSK_DSL_FORUM_ATTRIBUTE = 64,
  VSK_INNER_VLAN_ID = 65,
  VSK_OUTER_VLAN_ID = 73,
  VSK_INFO_ATTR = 76,
  VSK_UNDERLYING_SESSION_ID = 81,
  VSK_UPSTREAM_RATE = 114,
  VSK_DOWNSTREAM_RATE = 115
};

/* Action codes of update entries. */
enum {
  VSK_ATTR_ACTION_ADD_OR_APPEND = 0,
  VSK_ATTR_ACTION_ADD_OR_REPLACE = 1,
  VSK_ATTR_ACTION_CLEAR_BITS = 2,
  VSK_ATTR_ACTION_SET_BITS = 3,
  VSK_ATTR_ACTION_DELETE = 4,
  VSK_ATTR_ACTION_DELETE_ARRAY = 5
};

/* Array tags of dynamic entries; 1 and 2 are the "identifying" tags. */
enum {
  VSK_ARRAY_NONE = 0,
  VSK_ARRAY_IDENTIFYING_TLV = 1,
  VSK_ARRAY_START_TLV = 2,
  VSK_ARRAY_MEMBER_TLV = 3
};

typedef struct vsk_attr {
  uint16_t type;
  uint16_t length;
  void *value;
  struct vsk_attr *next;
} vsk_attr_t;

typedef struct vsk_attr_list {
  vsk_attr_t *first;
  vsk_attr_t **last;
} vsk_attr_list_t;

typedef struct vsk_attr_update {
  struct vsk_attr_update *next;
  uint16_t type;
  uint16_t type_reserved; /* the rest of the type's 32-bit word */
  uint32_t length;
  void *value;
  uint32_t action;
  uint32_t new_length;
  void *new_value;
} vsk_attr_update_t;

typedef struct vsk_attr_update_list {
  vsk_attr_update_t *first;
  vsk_attr_update_t **last;
} vsk_attr_update_list_t;

typedef struct vsk_dyn_attr {
  struct vsk_dyn_attr *next;
  char *name;
  uint32_t length;
  void *value;
  uint16_t array_tag;
} vsk_dyn_attr_t;

typedef struct vsk_dyn_attr_list {
  vsk_dyn_attr_t *first;
  vsk_dyn_attr_t **last;
} vsk_dyn_attr_list_t;

typedef struct vsk_dyn_update {
  struct vsk_dyn_update *next;
  char *name;
  uint32_t length;
  void *value;
  uint16_t array_tag;
  uint16_t array_tag_reserved;
  uint32_t action;
  uint32_t new_length;
  void *new_value;
} vsk_dyn_update_t;

typedef struct vsk_dyn_update_list {
  vsk_dyn_update_t *first;
  vsk_dyn_update_t **last;
} vsk_dyn_update_list_t;

/* ---- Attribute trees ---------------------------------------------------------------- */

struct vsk_array_member_list;

/* One value under a tree node. */
typedef struct vsk_attr_value {
  struct vsk_attr_value *next;
  uint32_t length;
  void *value;
  void *array_value; /* member: the value of its array's identifying entry */
  uint16_t array_id;
  struct vsk_array_member_list *members; /* array start: its member list */
  patricia_root_t *parent_index;         /* identifying: the index tree holding it */
  uint8_t member_state;                  /* library-private bookkeeping; leave alone */
} vsk_attr_value_t;

typedef struct vsk_attr_tree_node {
  patricia_node_t header;
  void *key;
  vsk_attr_value_t *values_first;
  vsk_attr_value_t **values_last;
  uint16_t array_tag;
  patricia_root_t *index_root;
  uint8_t top_level;
  uint8_t owns_key;
} vsk_attr_tree_node_t;

typedef struct vsk_array_index_node {
  patricia_node_t header;
  void *key;
  const char *name;
  uint16_t array_id;
  vsk_attr_value_t *entry;
  uint16_t tag;
  patricia_root_t *nested_root;
} vsk_array_index_node_t;

typedef struct vsk_array_member {
  struct vsk_array_member *next;
  vsk_attr_value_t *entry;
  const char *name;
} vsk_array_member_t;

typedef struct vsk_array_member_list {
  vsk_array_member_t *first;
  vsk_array_member_t **last;
} vsk_array_member_list_t;

/* The process-wide array id counter; not shared between processes. */
VSK_EXPORT extern uint16_t vsk_array_id_counter;

/* ---- Lists ---------------------------------------------------------------------------- */

static inline void vsk_attr_list_init(vsk_attr_list_t *list) {
  list->first = NULL;
  list->last = &list->first;
}
static inline void vsk_attr_list_append(vsk_attr_list_t *list, vsk_attr_t *node) {
  node->next = NULL;
  *list->last = node;
  list->last = &node->next;
}
static inline void vsk_attr_list_insert_head(vsk_attr_list_t *list, vsk_attr_t *node) {
  node->next = list->first;
  if (list->first == NULL) list->last = &node->next;
  list->first = node;
}

/* First node of `type` or null. REQUIRES: a valid list head. */
VSK_EXPORT vsk_attr_t *vsk_get_attribute_from_list(const vsk_attr_list_t *list, uint16_t type);
/* 0 with the first match in *result; -6 for a null list, -7 for none (*result null). */
VSK_EXPORT vsk_status_t vsk_db_get_client_attr_by_type(vsk_attr_t **result,
                                                       const vsk_attr_list_t *list,
                                                       uint16_t type);

/* ---- Trees ---------------------------------------------------------------------------- */

/* A new, empty attribute or dynamic tree (key by pointer, default length 4, offset 0);
 * null when no memory was left. */
VSK_EXPORT patricia_root_t *vsk_attr_tree_create(void);

/* Adds one value under `key`, making the node if needed. -2 no memory, -3 node refused. */
VSK_EXPORT vsk_status_t vsk_attr_tree_add(patricia_root_t *tree, uint16_t key_length,
                                          const void *key, uint32_t length, const void *value,
                                          bool owns);
/* Blind (by_value false): drops the node and its values; 0 also when absent.
 * By value: drops the first equal value; -9 when none. */
VSK_EXPORT vsk_status_t vsk_attr_tree_remove(patricia_root_t *tree, uint16_t key_length,
                                             const void *key, uint32_t length,
                                             const void *value, bool by_value);

/* Adds one dynamic value with its array bookkeeping. `array_id`, `members`, `index_root`
 * and `index_node` are the caller's cursors; a null `index_root` switches the bookkeeping
 * off. -2 no memory, -3 node refused, -6 a member with no open array instance. */
VSK_EXPORT vsk_status_t vsk_dyn_tree_add(patricia_root_t *tree, uint16_t key_length,
                                         const char *name, uint32_t length, const void *value,
                                         uint16_t tag, const void *array_value,
                                         uint16_t *array_id,
                                         vsk_array_member_list_t **members,
                                         patricia_root_t **index_root,
                                         vsk_array_index_node_t **index_node, bool owns);
VSK_EXPORT vsk_status_t vsk_dyn_tree_remove(patricia_root_t *tree, uint16_t key_length,
                                            const char *name, uint32_t length,
                                            const void *value, uint16_t array_id,
                                            bool by_value);

VSK_EXPORT vsk_status_t vsk_update_session(patricia_root_t *tree,
                                           const vsk_attr_update_list_t *updates);
VSK_EXPORT vsk_status_t vsk_update_session_dynamic(patricia_root_t *tree,
                                                   const vsk_dyn_update_list_t *updates,
                                                   uint16_t array_id, bool append_replaces);
/* Applies an "info_attrs" list to config bits (*bits_length, *bits: heap, may be null). */
VSK_EXPORT vsk_status_t vsk_update_info_section(const vsk_attr_update_list_t *updates,
                                                uint16_t *bits_length, uint8_t **bits);
VSK_EXPORT vsk_status_t vsk_merge_config_bits(uint16_t *bits_length, uint8_t **bits,
                                              uint16_t mask_length, const uint8_t *mask,
                                              uint8_t **allocated, bool set);
/* A new heap list (*result) of replace entries; free it with vsk_dyn_update_list_free. */
VSK_EXPORT vsk_status_t vsk_convert_dynamic_to_add_replace(const vsk_dyn_attr_list_t *list,
                                                           vsk_dyn_update_list_t **result);
VSK_EXPORT void vsk_dyn_update_list_free(vsk_dyn_update_list_t *list);

VSK_EXPORT void vsk_attr_tree_free(patricia_root_t *tree);
VSK_EXPORT void vsk_array_index_free(patricia_root_t *root);

VSK_END_DECLS

#endif /* VSK_ATTR_H */
