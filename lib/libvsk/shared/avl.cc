// The offset AVL tree: the process's base, the function registry, insertion with its
// critical node, the rotations and the iterative deletion.
//
// Who may call: any process, any tree in the block that SHGenAVLInitBase named; the
// caller serialises all operations on one tree (the interface table holds semaphore 2).
// No operation allocates.
#include "libvsk/shared/avl.h"

#include <array>
#include <cstring>

namespace vsk::shared::avl {
namespace {

char* g_base = nullptr;

// The per-process function registry behind the 32-bit function fields of a handle. The
// four kinds share one id space; an id remembers its kind so that a handle holding a
// compare id in its key_of field finds nothing rather than calling the wrong type.
enum class Kind : uint8_t { kNone, kCompare, kKeyOf, kNextKey, kKeyOk };
struct Entry {
  Kind kind = Kind::kNone;
  void (*fn)() = nullptr;
};
constexpr size_t kRegistrySize = 256;
std::array<Entry, kRegistrySize> g_registry;
size_t g_registry_used = 0;

template <typename Fn>
void (*Erase(Fn fn))() {
  return reinterpret_cast<void (*)()>(fn);
}

// Id of `fn` of `kind`, registering it on first sight. 0 for null or a full registry.
uint32_t Register(Kind kind, void (*fn)()) {
  if (fn == nullptr) return 0;
  for (size_t i = 0; i < g_registry_used; ++i) {
    if (g_registry[i].kind == kind && g_registry[i].fn == fn) return static_cast<uint32_t>(i + 1);
  }
  if (g_registry_used == kRegistrySize) return 0;
  g_registry[g_registry_used] = Entry{kind, fn};
  return static_cast<uint32_t>(++g_registry_used);
}

void (*Lookup(Kind kind, uint32_t id))() {
  if (id == 0 || id > g_registry_used) return nullptr;
  const Entry& e = g_registry[id - 1];
  return e.kind == kind ? e.fn : nullptr;
}

// Single left rotation of N, the node under (parent, dir). After insertion R's balance
// is 1 and both end balanced; deletion also rotates around an R of balance 0, which
// leaves R at -1 and N at 1 with the subtree's height unchanged.
void RotateLeft(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir) {
  SHGenAVLNode* n = GetChild(tree, parent, dir);
  SHGenAVLNode* r = NodeAt(n->right);
  n->right = r->left;
  r->left = OffsetOf(n);
  if (r->balance == 1) {
    r->balance = 0;
    n->balance = 0;
  } else {
    r->balance = -1;
    n->balance = 1;
  }
  SetChild(tree, parent, dir, r);
}

// Single right rotation: the mirror image of RotateLeft.
void RotateRight(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir) {
  SHGenAVLNode* n = GetChild(tree, parent, dir);
  SHGenAVLNode* l = NodeAt(n->left);
  n->left = l->right;
  l->right = OffsetOf(n);
  if (l->balance == -1) {
    l->balance = 0;
    n->balance = 0;
  } else {
    l->balance = 1;
    n->balance = -1;
  }
  SetChild(tree, parent, dir, l);
}

// Double rotation, right then left: M, the left child of N's right child R, comes up.
void RotateRightLeft(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir) {
  SHGenAVLNode* n = GetChild(tree, parent, dir);
  SHGenAVLNode* r = NodeAt(n->right);
  SHGenAVLNode* m = NodeAt(r->left);
  n->right = m->left;
  r->left = m->right;
  m->left = OffsetOf(n);
  m->right = OffsetOf(r);
  switch (m->balance) {
    case -1:
      n->balance = 0;
      r->balance = 1;
      break;
    case 1:
      n->balance = -1;
      r->balance = 0;
      break;
    default:
      n->balance = 0;
      r->balance = 0;
      break;
  }
  m->balance = 0;
  SetChild(tree, parent, dir, m);
}

// Double rotation, left then right: M, the right child of N's left child L, comes up.
void RotateLeftRight(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir) {
  SHGenAVLNode* n = GetChild(tree, parent, dir);
  SHGenAVLNode* l = NodeAt(n->left);
  SHGenAVLNode* m = NodeAt(l->right);
  l->right = m->left;
  n->left = m->right;
  m->right = OffsetOf(n);
  m->left = OffsetOf(l);
  switch (m->balance) {
    case -1:
      l->balance = 0;
      n->balance = 1;
      break;
    case 1:
      l->balance = -1;
      n->balance = 0;
      break;
    default:
      l->balance = 0;
      n->balance = 0;
      break;
  }
  m->balance = 0;
  SetChild(tree, parent, dir, m);
}

struct PathEntry {
  SHGenAVLNode* node;
  int dir;
};

}  // namespace

SHGenAVLNode* NodeAt(uint32_t offset) {
  return offset == 0 ? nullptr : reinterpret_cast<SHGenAVLNode*>(g_base + offset);
}

uint32_t OffsetOf(const SHGenAVLNode* node) {
  return node == nullptr ? 0 : static_cast<uint32_t>(reinterpret_cast<const char*>(node) - g_base);
}

SHGenAVLCompareFn CompareOf(const SHGenAVLTree* tree) {
  return reinterpret_cast<SHGenAVLCompareFn>(Lookup(Kind::kCompare, tree->compare));
}
SHGenAVLKeyOfFn KeyOfOf(const SHGenAVLTree* tree) {
  return reinterpret_cast<SHGenAVLKeyOfFn>(Lookup(Kind::kKeyOf, tree->key_of));
}
SHGenAVLNextKeyFn NextKeyOf(const SHGenAVLTree* tree) {
  return reinterpret_cast<SHGenAVLNextKeyFn>(Lookup(Kind::kNextKey, tree->next_key));
}
SHGenAVLKeyOkFn KeyOkOf(const SHGenAVLTree* tree) {
  return reinterpret_cast<SHGenAVLKeyOkFn>(Lookup(Kind::kKeyOk, tree->key_ok));
}

SHGenAVLNode* GetChild(const SHGenAVLTree* tree, const SHGenAVLNode* parent, int dir) {
  if (parent == nullptr) return NodeAt(tree->root);
  return NodeAt(dir < 0 ? parent->left : parent->right);
}

void SetChild(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir, SHGenAVLNode* node) {
  uint32_t offset = OffsetOf(node);
  if (parent == nullptr) {
    tree->root = offset;
  } else if (dir < 0) {
    parent->left = offset;
  } else {
    parent->right = offset;
  }
}

}  // namespace vsk::shared::avl

using namespace vsk::shared::avl;

void vsk::shared::avl::InitBase(void* base) { vsk::shared::avl::g_base = static_cast<char*>(base); }

extern "C" void SHGenAVLInitBase(void* base) { vsk::shared::avl::InitBase(base); }

void vsk::shared::avl::Init(SHGenAVLNode* node, uint32_t data) {
  node->data = data;
  node->balance = 0;
  node->right = 0;
  node->left = 0;
}

extern "C" void SHGenAVLInit(SHGenAVLNode* node, uint32_t data) {
  vsk::shared::avl::Init(node, data);
}

int vsk::shared::avl::SetFunctions(SHGenAVLTree* tree, SHGenAVLCompareFn compare,
                                   SHGenAVLKeyOfFn key_of, SHGenAVLNextKeyFn next_key,
                                   SHGenAVLKeyOkFn key_ok) {
  uint32_t ids[4] = {
      Register(Kind::kCompare, Erase(compare)), Register(Kind::kKeyOf, Erase(key_of)),
      Register(Kind::kNextKey, Erase(next_key)), Register(Kind::kKeyOk, Erase(key_ok))};
  bool full = (compare != nullptr && ids[0] == 0) || (key_of != nullptr && ids[1] == 0) ||
              (next_key != nullptr && ids[2] == 0) || (key_ok != nullptr && ids[3] == 0);
  if (full) std::memset(ids, 0, sizeof ids);
  tree->compare = ids[0];
  tree->key_of = ids[1];
  tree->next_key = ids[2];
  tree->key_ok = ids[3];
  return full ? 0 : 1;
}

extern "C" int SHGenAVLTreeSetFunctions(SHGenAVLTree* tree, SHGenAVLCompareFn compare,
                                        SHGenAVLKeyOfFn key_of, SHGenAVLNextKeyFn next_key,
                                        SHGenAVLKeyOkFn key_ok) {
  return vsk::shared::avl::SetFunctions(tree, compare, key_of, next_key, key_ok);
}

int vsk::shared::avl::Add(SHGenAVLTree* tree, SHGenAVLNode* node) {
  SHGenAVLCompareFn compare = CompareOf(tree);
  SHGenAVLKeyOfFn key_of = KeyOfOf(tree);
  node->balance = 0;
  node->right = 0;
  node->left = 0;
  if (compare == nullptr || key_of == nullptr) return 0;

  // The critical node is the deepest unbalanced node on the path, named by its parent and
  // the direction from it; with none remembered it is the root.
  SHGenAVLNode* critical_parent = nullptr;
  int critical_dir = 0;
  SHGenAVLNode* parent = nullptr;
  int dir = 0;
  SHGenAVLNode* cur = NodeAt(tree->root);
  while (cur != nullptr) {
    if (cur->balance != 0 && parent != nullptr) {
      critical_parent = parent;
      critical_dir = dir;
    }
    int c = compare(node, key_of(cur));
    if (c == 0) return 0;
    parent = cur;
    dir = c < 0 ? -1 : 1;
    cur = GetChild(tree, cur, dir);
  }
  SetChild(tree, parent, dir, node);

  SHGenAVLNode* critical = GetChild(tree, critical_parent, critical_dir);
  for (SHGenAVLNode* n = critical; n != node;) {
    if (compare(node, key_of(n)) < 0) {
      n->balance -= 1;
      n = NodeAt(n->left);
    } else {
      n->balance += 1;
      n = NodeAt(n->right);
    }
  }

  if (critical->balance == 2) {
    int child = NodeAt(critical->right)->balance;
    if (child == 1) {
      RotateLeft(tree, critical_parent, critical_dir);
    } else if (child == -1) {
      RotateRightLeft(tree, critical_parent, critical_dir);
    }
  } else if (critical->balance == -2) {
    int child = NodeAt(critical->left)->balance;
    if (child == -1) {
      RotateRight(tree, critical_parent, critical_dir);
    } else if (child == 1) {
      RotateLeftRight(tree, critical_parent, critical_dir);
    }
  }
  return 1;
}

extern "C" int SHGenAVLTreeAdd(SHGenAVLTree* tree, SHGenAVLNode* node) {
  return vsk::shared::avl::Add(tree, node);
}

uint32_t vsk::shared::avl::Delete(SHGenAVLTree* tree, const void* key) {
  SHGenAVLCompareFn compare = CompareOf(tree);
  if (compare == nullptr) return 0;

  // path[i].dir leads from path[i].node to path[i + 1].node (or to the removed node);
  // the parent of path[i].node is path[i - 1], and of path[0].node the handle.
  PathEntry path[kMaxDepth];
  int depth = 0;
  SHGenAVLNode* cur = NodeAt(tree->root);
  int c = 0;
  while (cur != nullptr && (c = compare(cur, key)) != 0) {
    int dir = c > 0 ? -1 : 1;
    path[depth++] = PathEntry{cur, dir};
    cur = GetChild(tree, cur, dir);
  }
  if (cur == nullptr) return 0;

  uint32_t data = cur->data;
  SHGenAVLNode* parent = depth > 0 ? path[depth - 1].node : nullptr;
  int parent_dir = depth > 0 ? path[depth - 1].dir : 0;
  if (cur->right == 0 || cur->left == 0) {
    SetChild(tree, parent, parent_dir, NodeAt(cur->right != 0 ? cur->right : cur->left));
  } else {
    // The in-order predecessor P takes the node's place, links and balance; the entry
    // pushed for the first step left stands for the node and then for P.
    int node_index = depth;
    path[depth++] = PathEntry{cur, -1};
    SHGenAVLNode* p = NodeAt(cur->left);
    while (p->right != 0) {
      path[depth++] = PathEntry{p, 1};
      p = NodeAt(p->right);
    }
    SHGenAVLNode* p_parent = path[depth - 1].node;
    SetChild(tree, p_parent, path[depth - 1].dir, NodeAt(p->left));
    p->left = cur->left;
    p->right = cur->right;
    p->balance = cur->balance;
    SetChild(tree, parent, parent_dir, p);
    path[node_index].node = p;
  }

  // Walk back up while the subtree below got shorter.
  for (int i = depth - 1; i >= 0; --i) {
    SHGenAVLNode* n = path[i].node;
    SHGenAVLNode* up = i > 0 ? path[i - 1].node : nullptr;
    int up_dir = i > 0 ? path[i - 1].dir : 0;
    n->balance += path[i].dir <= 0 ? 1 : -1;
    if (n->balance == 2) {
      int child = NodeAt(n->right)->balance;
      if (child == 1) {
        RotateLeft(tree, up, up_dir);
      } else if (child == -1) {
        RotateRightLeft(tree, up, up_dir);
      } else {
        RotateLeft(tree, up, up_dir);
        break;
      }
    } else if (n->balance == -2) {
      int child = NodeAt(n->left)->balance;
      if (child == -1) {
        RotateRight(tree, up, up_dir);
      } else if (child == 1) {
        RotateLeftRight(tree, up, up_dir);
      } else {
        RotateRight(tree, up, up_dir);
        break;
      }
    } else if (n->balance != 0) {
      break;
    }
  }
  return data;
}

extern "C" uint32_t SHGenAVLTreeDelete(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::Delete(tree, key);
}
