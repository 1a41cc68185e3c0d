// The ordered radix tree against an ordered reference map: random adds, deletes, exact
// lookups and full ascending walks over keys that are often prefixes of one another.
#include <gtest/gtest.h>

#include <cstring>
#include <algorithm>
#include <map>
#include <set>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/patricia_walk.h"
#include "vsk/patricia.h"

namespace {

struct PtrNode {
  patricia_node_t header;
  const char* key;  // key by pointer, offset 0
  std::string storage;
};

struct InlineNode {
  patricia_node_t header;
  uint64_t pad;
  uint64_t id;  // in place, offset 8
};

std::string RandomKey(std::mt19937& rng, int alphabet) {
  std::uniform_int_distribution<int> len(0, 6);
  std::uniform_int_distribution<int> byte(0, alphabet - 1);
  std::string k;
  int n = len(rng);
  for (int i = 0; i < n; ++i) {
    // Use 0x00, 0xff and a few in between so that prefix and sign mistakes show.
    static const unsigned char kBytes[] = {0x00, 0xff, 0x01, 0x80, 0x7f, 'a', 'b', 0xfe};
    k.push_back(static_cast<char>(kBytes[byte(rng) % 8]));
  }
  return k;
}

class PatriciaModel {
 public:
  PatriciaModel() { root_ = patricia_root_init(nullptr, true, 4, 0); }
  ~PatriciaModel() {
    for (auto& [k, n] : ref_) EXPECT_TRUE(patricia_delete(root_, &n->header));
    EXPECT_EQ(patricia_find_next(root_, nullptr), nullptr);
    patricia_root_delete(root_);
  }

  void Add(const std::string& key) {
    auto node = std::make_unique<PtrNode>();
    node->storage = key;
    node->key = node->storage.data();
    patricia_node_init_length(&node->header, static_cast<uint16_t>(key.size()));
    bool added = patricia_add(root_, &node->header);
    ASSERT_EQ(added, ref_.count(key) == 0) << "key of length " << key.size();
    if (added) ref_[key] = std::move(node);
  }

  void Delete(const std::string& key) {
    auto it = ref_.find(key);
    patricia_node_t* got = patricia_get(root_, static_cast<uint16_t>(key.size()), key.data());
    if (it == ref_.end()) {
      ASSERT_EQ(got, nullptr);
      return;
    }
    ASSERT_EQ(got, &it->second->header);
    ASSERT_TRUE(patricia_delete(root_, got));
    ASSERT_FALSE(patricia_delete(root_, got)) << "a node deleted twice";
    ref_.erase(it);
  }

  void CheckAll() {
    patricia_node_t* n = patricia_find_next(root_, nullptr);
    for (auto& [k, node] : ref_) {
      ASSERT_EQ(n, &node->header) << "walk out of order at a key of length " << k.size();
      ASSERT_EQ(patricia_get(root_, static_cast<uint16_t>(k.size()), k.data()), &node->header);
      n = patricia_find_next(root_, n);
    }
    ASSERT_EQ(n, nullptr);
    // The one-pass walk visits the same leaves in the same order.
    vsk::platform::PatriciaWalk walk(root_);
    for (auto& [k, node] : ref_) ASSERT_EQ(walk.Next(), &node->header) << "key length " << k.size();
    ASSERT_EQ(walk.Next(), nullptr);
    ASSERT_FALSE(walk.failed());
  }

  // Takes the whole tree apart at once: every node comes back exactly once, the tree is
  // empty and takes the same nodes again in any order.
  void DrainAndRefill(std::mt19937& rng) {
    std::set<patricia_node_t*> want;
    for (auto& [k, node] : ref_) want.insert(&node->header);
    std::set<patricia_node_t*> got;
    for (patricia_node_t* n = vsk::platform::PatriciaDrain(root_); n != nullptr;
         n = reinterpret_cast<patricia_node_t*>(n->pn_child[0])) {
      ASSERT_TRUE(got.insert(n).second) << "a node chained twice";
      ASSERT_EQ(n->pn_slot_used, 0);
    }
    ASSERT_EQ(got, want);
    ASSERT_EQ(patricia_find_next(root_, nullptr), nullptr);
    std::vector<PtrNode*> nodes;
    for (auto& [k, node] : ref_) nodes.push_back(node.get());
    std::shuffle(nodes.begin(), nodes.end(), rng);
    for (PtrNode* node : nodes) ASSERT_TRUE(patricia_add(root_, &node->header));
    CheckAll();
  }

  // find_next from a key that need not be in the tree.
  void CheckSuccessorOf(const std::string& key) {
    PtrNode probe{};
    probe.key = key.data();
    patricia_node_init_length(&probe.header, static_cast<uint16_t>(key.size()));
    auto it = ref_.upper_bound(key);
    patricia_node_t* want = it == ref_.end() ? nullptr : &it->second->header;
    ASSERT_EQ(patricia_find_next(root_, &probe.header), want);
  }

  size_t size() const { return ref_.size(); }

 private:
  patricia_root_t* root_;
  std::map<std::string, std::unique_ptr<PtrNode>> ref_;
};

TEST(Patricia, EmptyTree) {
  patricia_root_t* root = patricia_root_init(nullptr, true, 2, 0);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(patricia_find_next(root, nullptr), nullptr);
  EXPECT_EQ(patricia_get(root, 2, "ab"), nullptr);
  PtrNode n{};
  n.key = "ab";
  EXPECT_FALSE(patricia_delete(root, &n.header));
  patricia_root_delete(root);
  patricia_root_delete(nullptr);
}

TEST(Patricia, PrefixSortsFirstAndDuplicateRefused) {
  PatriciaModel m;
  for (const char* k : {"abc", "ab", "", "b", "a", "ab\0"}) m.Add(k);
  m.Add(std::string("ab\0", 3));
  m.Add("ab");  // duplicate
  m.CheckAll();
  EXPECT_EQ(m.size(), 6u);
}

TEST(Patricia, RandomOperationsMatchOrderedMap) {
  for (int seed = 1; seed <= 6; ++seed) {
    std::mt19937 rng(seed);
    PatriciaModel m;
    std::uniform_int_distribution<int> op(0, 9);
    for (int step = 0; step < 4000; ++step) {
      std::string key = RandomKey(rng, seed % 2 == 0 ? 3 : 8);
      int o = op(rng);
      if (o < 5) {
        m.Add(key);
      } else if (o < 8) {
        m.Delete(key);
      } else {
        m.CheckSuccessorOf(key);
      }
      if (::testing::Test::HasFatalFailure()) return;
      if (step % 97 == 0) m.CheckAll();
    }
    m.CheckAll();
  }
}

// Whole-tree walks and drains on random trees and on a chain of prefixes, whose depth
// outgrows the walks' first stack.
TEST(Patricia, WalkAndDrainMatchTheOrderedMapAtAnyDepth) {
  for (int seed = 1; seed <= 4; ++seed) {
    std::mt19937 rng(seed);
    PatriciaModel m;
    for (int i = 0; i < 600; ++i) m.Add(RandomKey(rng, 8));
    m.CheckAll();
    m.DrainAndRefill(rng);
    if (::testing::Test::HasFatalFailure()) return;
  }
  std::mt19937 rng(9);
  PatriciaModel deep;
  for (int n = 0; n < 300; ++n) {
    deep.Add(std::string(n, 'a'));        // each a prefix of the next: deep to the right
    deep.Add(std::string(n, 'a') + "b");  // each above the next: deep to the left
  }
  deep.CheckAll();
  deep.DrainAndRefill(rng);
  PatriciaModel empty;
  empty.DrainAndRefill(rng);
}

TEST(Patricia, InlineKeysWithDefaultLength) {
  // Nodes never given a length use the root's default; the key sits in place.
  patricia_root_t root_storage;
  patricia_root_t* root = patricia_root_init(&root_storage, false, 8, 8);
  ASSERT_EQ(root, &root_storage);
  std::vector<std::unique_ptr<InlineNode>> nodes;
  std::map<std::string, InlineNode*> ref;
  std::mt19937_64 rng(7);
  for (int i = 0; i < 500; ++i) {
    auto n = std::make_unique<InlineNode>();
    std::memset(n.get(), 0, sizeof *n);
    n->id = rng() % 300;
    std::string k(reinterpret_cast<char*>(&n->id), 8);
    bool added = patricia_add(root, &n->header);
    EXPECT_EQ(added, ref.count(k) == 0);
    if (added) ref[k] = n.get();
    nodes.push_back(std::move(n));
  }
  patricia_node_t* p = patricia_find_next(root, nullptr);
  for (auto& [k, n] : ref) {
    ASSERT_EQ(p, &n->header);
    EXPECT_EQ(patricia_get(root, 8, k.data()), p);
    p = patricia_find_next(root, p);
  }
  EXPECT_EQ(p, nullptr);
  // Drain in key order from the front, as the tree-release loops do.
  while ((p = patricia_find_next(root, nullptr)) != nullptr) ASSERT_TRUE(patricia_delete(root, p));
  patricia_root_delete(root);
}

}  // namespace
