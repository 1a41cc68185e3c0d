/* The ordered radix tree: a map from variable-length byte keys to intrusive nodes.
 *
 * A user structure embeds a patricia_node_t as its first member; the key lies behind the
 * header, `key_offset` bytes past its end, either in place (the key bytes themselves) or
 * by pointer (a pointer to the key bytes is stored there), as the root was made. Each node
 * carries its own key length; a node whose length was never set gets the root's default.
 *
 * Order is byte-wise; a key that is a prefix of another sorts first. The tree is a
 * crit-bit tree: each node's header doubles as the storage of one branch, so adding and
 * deleting never allocate, and a tree of n nodes uses exactly n-1 branch slots.
 *
 * Nothing here is locked: a tree belongs to one thread at a time. */
#ifndef VSK_PATRICIA_H
#define VSK_PATRICIA_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"

VSK_BEGIN_DECLS

/* The node header. Opaque to users except for its size; clear it (calloc, memset) or call
 * patricia_node_init_length before patricia_add. */
typedef struct patricia_node {
  uintptr_t pn_child[2]; /* branch slot: links, low bit set for a branch slot */
  uint32_t pn_bit;       /* branch slot: the critical bit */
  uint16_t pn_length;    /* key length in bytes */
  uint8_t pn_length_set; /* pn_length is valid; else the root's default applies */
  uint8_t pn_slot_used;  /* the branch slot holds a live branch */
} patricia_node_t;

typedef struct patricia_root {
  uintptr_t pr_top;           /* link to the top: a leaf, a branch slot, or 0 */
  uint16_t pr_key_offset;     /* key position behind the node header */
  uint16_t pr_default_length; /* key length of nodes that were never given one */
  uint8_t pr_key_by_pointer;  /* the key position holds a pointer to the key */
  uint8_t pr_allocated;       /* made by patricia_root_init; patricia_root_delete frees */
} patricia_root_t;

/* Initialises `root`, or a new heap root when `root` is null. Returns the root, or null
 * when no memory was left. */
VSK_EXPORT patricia_root_t *patricia_root_init(patricia_root_t *root, bool key_by_pointer,
                                               uint16_t default_key_len, uint16_t key_offset);
/* Releases a root made by patricia_root_init(NULL, ...); a caller-storage root is only
 * cleared. Null is allowed. The nodes are the caller's: delete them first. */
VSK_EXPORT void patricia_root_delete(patricia_root_t *root);
/* Clears the header and sets the node's key length. */
VSK_EXPORT void patricia_node_init_length(patricia_node_t *node, uint16_t key_length);
/* Adds `node` under its key. False when an equal key is present (the tree is unchanged). */
VSK_EXPORT bool patricia_add(patricia_root_t *root, patricia_node_t *node);
/* The node with exactly this key, or null. */
VSK_EXPORT patricia_node_t *patricia_get(patricia_root_t *root, uint16_t key_length,
                                         const void *key);
/* Removes `node` from the tree. False when it is not in it. */
VSK_EXPORT bool patricia_delete(patricia_root_t *root, patricia_node_t *node);
/* The node with the smallest key above `node`'s, or the first node when `node` is null;
 * null at the end. `node` need not be in the tree: its key alone counts. */
VSK_EXPORT patricia_node_t *patricia_find_next(patricia_root_t *root, patricia_node_t *node);

VSK_END_DECLS

#endif /* VSK_PATRICIA_H */
