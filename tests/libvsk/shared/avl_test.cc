// The offset AVL tree through its C interface: shape after insertions and deletions,
// order and balance invariants against an ordered reference, walks by key, and a block
// that moves.
#include "vsk/avl.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "support/harness.h"

namespace vsk::test {
namespace {

// A record of the test's block: the key first, then the intrusive node.
struct Rec {
  int32_t key;
  SHGenAVLNode node;
};

const Rec* RecOf(const void* node) {
  return reinterpret_cast<const Rec*>(static_cast<const char*>(node) - offsetof(Rec, node));
}

int CompareInt(const void* node, const void* key) {
  int32_t a = RecOf(node)->key;
  int32_t b = *static_cast<const int32_t*>(key);
  return a < b ? -1 : (a > b ? 1 : 0);
}
const void* KeyOfInt(const void* node) { return &RecOf(node)->key; }

// Keys run 0..kKeySpace-1 and then wrap to 0.
constexpr int32_t kKeySpace = 100;
int NextInt(void* key) {
  int32_t* k = static_cast<int32_t*>(key);
  if (++*k == kKeySpace) {
    *k = 0;
    return 1;
  }
  return 0;
}
int IntOk(const void* key, const void* limit) {
  return *static_cast<const int32_t*>(key) <= *static_cast<const int32_t*>(limit);
}

// A block with a header at offset 0 and one record per key slot. Keys double as slot
// numbers, so a key's record is always at the same offset.
class AvlTest : public VskTest {
 protected:
  static constexpr size_t kSlots = 4096;
  static constexpr size_t kHeader = 64;

  void SetUp() override {
    VskTest::SetUp();
    block_.assign(kHeader + kSlots * sizeof(Rec), 0);
    SHGenAVLInitBase(block_.data());
    std::memset(&tree_, 0, sizeof tree_);
    ASSERT_EQ(SHGenAVLTreeSetFunctions(&tree_, CompareInt, KeyOfInt, NextInt, IntOk), 1);
  }

  uint32_t OffsetOfSlot(int32_t key) const {
    return static_cast<uint32_t>(kHeader + static_cast<size_t>(key) * sizeof(Rec));
  }
  Rec* Slot(int32_t key) { return reinterpret_cast<Rec*>(block_.data() + OffsetOfSlot(key)); }
  SHGenAVLNode* NodeAt(uint32_t offset) {
    return offset == 0 ? nullptr : reinterpret_cast<SHGenAVLNode*>(block_.data() + offset);
  }
  int32_t KeyAt(uint32_t offset) { return RecOf(NodeAt(offset))->key; }

  int Add(int32_t key) {
    Rec* r = Slot(key);
    r->key = key;
    SHGenAVLInit(&r->node, OffsetOfSlot(key));
    return SHGenAVLTreeAdd(&tree_, &r->node);
  }
  uint32_t Delete(int32_t key) { return SHGenAVLTreeDelete(&tree_, &key); }

  // Checks every node's balance against the heights and collects keys in order.
  // Returns the height; adds a failure on the first broken invariant.
  int Check(uint32_t offset, std::vector<int32_t>* keys) {
    if (offset == 0) return 0;
    SHGenAVLNode* n = NodeAt(offset);
    int hl = Check(n->left, keys);
    keys->push_back(KeyAt(offset));
    int hr = Check(n->right, keys);
    EXPECT_EQ(n->balance, hr - hl) << "key " << KeyAt(offset);
    EXPECT_LE(std::abs(n->balance), 1) << "key " << KeyAt(offset);
    EXPECT_EQ(n->data + offsetof(Rec, node), offset);
    return 1 + std::max(hl, hr);
  }
  void ExpectMatches(const std::set<int32_t>& ref) {
    std::vector<int32_t> keys;
    Check(tree_.root, &keys);
    ASSERT_EQ(keys, std::vector<int32_t>(ref.begin(), ref.end()));
  }

  std::vector<char> block_;
  SHGenAVLTree tree_;
};

// The shape the rotations give is part of the file's bytes that every process reads.
TEST_F(AvlTest, AscendingOneToSevenIsPerfectWithFourAtRoot) {
  for (int32_t k = 1; k <= 7; ++k) ASSERT_EQ(Add(k), 1);
  EXPECT_EQ(KeyAt(tree_.root), 4);
  SHGenAVLNode* root = NodeAt(tree_.root);
  EXPECT_EQ(KeyAt(root->left), 2);
  EXPECT_EQ(KeyAt(root->right), 6);
  for (int32_t k = 1; k <= 7; ++k) EXPECT_EQ(Slot(k)->node.balance, 0) << k;
  for (int32_t k : {1, 3, 5, 7}) {
    EXPECT_EQ(Slot(k)->node.left, 0u);
    EXPECT_EQ(Slot(k)->node.right, 0u);
  }
}

TEST_F(AvlTest, DuplicateAddRefusedAndTreeUnchanged) {
  for (int32_t k : {5, 3, 8}) ASSERT_EQ(Add(k), 1);
  SHGenAVLTree before = tree_;
  std::vector<char> image(block_.begin(), block_.end());
  // A second record with key 3 in another slot.
  Rec* dup = Slot(100);
  dup->key = 3;
  SHGenAVLInit(&dup->node, 7);
  dup->node.left = 12345;  // stale links are cleared even though the add fails
  EXPECT_EQ(SHGenAVLTreeAdd(&tree_, &dup->node), 0);
  EXPECT_EQ(dup->node.left, 0u);
  EXPECT_EQ(dup->node.data, 7u);
  EXPECT_EQ(std::memcmp(&before, &tree_, sizeof tree_), 0);
  EXPECT_TRUE(std::equal(image.begin(), image.begin() + OffsetOfSlot(100), block_.begin()));
}

TEST_F(AvlTest, TwoChildDeleteTakesPredecessorWithBalance) {
  // 1..7 ascending, then 8: root 4 has balance 1 afterwards.
  for (int32_t k = 1; k <= 8; ++k) ASSERT_EQ(Add(k), 1);
  ASSERT_EQ(KeyAt(tree_.root), 4);
  ASSERT_EQ(NodeAt(tree_.root)->balance, 1);
  EXPECT_EQ(Delete(4), OffsetOfSlot(4));
  // The predecessor 3 stands where 4 stood, with its children and balance.
  EXPECT_EQ(KeyAt(tree_.root), 3);
  EXPECT_EQ(KeyAt(Slot(3)->node.left), 2);
  EXPECT_EQ(KeyAt(Slot(3)->node.right), 6);
  ExpectMatches({1, 2, 3, 5, 6, 7, 8});
  // 2 lost its right child and leans left; the root keeps leaning right.
  EXPECT_EQ(Slot(2)->node.balance, -1);
  EXPECT_EQ(Slot(3)->node.balance, 1);
}

// Against an ordered reference: order, balance and every walk form, deletes at the edges
// and of absent keys, single and double rotations alike.
TEST_F(AvlTest, RandomOperationsKeepOrderAndBalance) {
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int32_t> pick(0, 2999);
  std::set<int32_t> ref;
  for (int round = 0; round < 40000; ++round) {
    int32_t k = pick(rng);
    // Lean towards insertion in the first half, deletion in the second.
    bool insert = (rng() % 100) < (round < 20000 ? 65u : 35u);
    if (insert) {
      if (ref.count(k) != 0) continue;  // a duplicate would reuse the slot's node
      ASSERT_EQ(Add(k), 1);
      ref.insert(k);
    } else {
      ASSERT_EQ(Delete(k), ref.count(k) != 0 ? OffsetOfSlot(k) : 0u) << k;
      ref.erase(k);
    }
    if (round % 500 == 0) {
      ASSERT_NO_FATAL_FAILURE(ExpectMatches(ref));
    }
  }
  ASSERT_NO_FATAL_FAILURE(ExpectMatches(ref));
  // Every walk form against the reference, from keys in and out of the tree.
  for (int32_t k = -1; k <= 3000; ++k) {
    auto ge = ref.lower_bound(k);
    auto gt = ref.upper_bound(k);
    uint32_t want_ge = ge == ref.end() ? 0 : OffsetOfSlot(*ge);
    uint32_t want_gt = gt == ref.end() ? 0 : OffsetOfSlot(*gt);
    uint32_t want_lt = ge == ref.begin() ? 0 : OffsetOfSlot(*std::prev(ge));
    uint32_t want_le = gt == ref.begin() ? 0 : OffsetOfSlot(*std::prev(gt));
    uint32_t want_eq = ref.count(k) != 0 ? OffsetOfSlot(k) : 0;
    ASSERT_EQ(SHGenAVLTreeEqualNextData(&tree_, &k), want_ge) << k;
    ASSERT_EQ(SHGenAVLTreeNextData(&tree_, &k), want_gt) << k;
    ASSERT_EQ(SHGenAVLTreePrevData(&tree_, &k), want_lt) << k;
    ASSERT_EQ(SHGenAVLTreeEqualPrevData(&tree_, &k), want_le) << k;
    ASSERT_EQ(SHGenAVLTreeFindData(&tree_, &k), want_eq) << k;
  }
  ASSERT_EQ(SHGenAVLTreeFirstData(&tree_), ref.empty() ? 0 : OffsetOfSlot(*ref.begin()));
  // Empty it completely.
  for (int32_t k : std::vector<int32_t>(ref.begin(), ref.end()))
    ASSERT_EQ(Delete(k), OffsetOfSlot(k));
  EXPECT_EQ(tree_.root, 0u);
}

TEST_F(AvlTest, WalkByKeySurvivesDeletingWhereItStands) {
  for (int32_t k = 0; k < 200; k += 2) ASSERT_EQ(Add(k), 1);
  std::vector<int32_t> seen;
  int32_t key = -1;
  for (uint32_t off = SHGenAVLTreeFirstData(&tree_); off != 0;
       off = SHGenAVLTreeNextData(&tree_, &key)) {
    key = reinterpret_cast<Rec*>(block_.data() + off)->key;
    seen.push_back(key);
    if (key % 4 == 0) {
      ASSERT_EQ(Delete(key), off);  // drop the node we stand on
    }
  }
  ASSERT_EQ(seen.size(), 100u);
  for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], static_cast<int32_t>(2 * i));
  std::set<int32_t> left;
  for (int32_t k = 2; k < 200; k += 4) left.insert(k);
  ExpectMatches(left);
  int32_t top = 198;
  EXPECT_EQ(SHGenAVLTreeNext(&tree_, &top), nullptr);
  int32_t six = 6;
  EXPECT_EQ(SHGenAVLTreeEqualNext(&tree_, &six), &Slot(6)->node);
}

TEST_F(AvlTest, TreesStayValidAfterTheBlockMoves) {
  std::set<int32_t> ref;
  for (int32_t k = 0; k < 500; k += 3) {
    ASSERT_EQ(Add(k), 1);
    ref.insert(k);
  }
  std::vector<char> moved(block_);
  std::fill(block_.begin(), block_.end(), static_cast<char>(0xA5));  // the old place is gone
  block_.swap(moved);
  SHGenAVLInitBase(block_.data());
  ExpectMatches(ref);
  int32_t k = 300;
  EXPECT_EQ(SHGenAVLTreeFind(&tree_, &k), &Slot(300)->node);
  ASSERT_EQ(Delete(300), OffsetOfSlot(300));
  ASSERT_EQ(Add(301), 1);
  ref.erase(300);
  ref.insert(301);
  ExpectMatches(ref);
}

TEST_F(AvlTest, NextFreeKeyFindsTheNextGapAfterKey) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 300; ++trial) {
    std::set<int32_t> ref;
    tree_.root = 0;
    int n = static_cast<int>(rng() % 60);
    for (int i = 0; i < n; ++i) {
      int32_t k = static_cast<int32_t>(rng() % 90);
      if (ref.insert(k).second) {
        ASSERT_EQ(Add(k), 1);
      }
    }
    int32_t start = static_cast<int32_t>(rng() % 90);
    int32_t limit = 95;
    int32_t want = start + 1;
    while (ref.count(want) != 0) ++want;
    int32_t key = start;
    ASSERT_EQ(SHGenAVLTreeNextFreeKey(&tree_, &limit, &key), 1) << "trial " << trial;
    EXPECT_EQ(key, want) << "trial " << trial << " start " << start;
  }
}

TEST_F(AvlTest, NextFreeKeyStopsAtLimitAndWraps) {
  for (int32_t k = 10; k <= 20; ++k) ASSERT_EQ(Add(k), 1);
  int32_t limit = 15;
  int32_t key = 9;
  EXPECT_EQ(SHGenAVLTreeNextFreeKey(&tree_, &limit, &key), 0) << "10..15 are all taken";
  limit = 50;
  key = 9;
  EXPECT_EQ(SHGenAVLTreeNextFreeKey(&tree_, &limit, &key), 1);
  EXPECT_EQ(key, 21);
  // The last key of the space is taken: the key wraps and the search starts over.
  ASSERT_EQ(Add(kKeySpace - 1), 1);
  key = kKeySpace - 2;
  limit = kKeySpace;
  EXPECT_EQ(SHGenAVLTreeNextFreeKey(&tree_, &limit, &key), 1);
  EXPECT_LT(key, 10);
  EXPECT_EQ(SHGenAVLTreeFind(&tree_, &key), nullptr);
}

TEST_F(AvlTest, HandleWithoutFunctionsFindsNothing) {
  for (int32_t k = 1; k <= 3; ++k) ASSERT_EQ(Add(k), 1);
  SHGenAVLTree bare = tree_;
  bare.compare = 0;
  int32_t k = 2;
  EXPECT_EQ(SHGenAVLTreeFind(&bare, &k), nullptr);
  EXPECT_EQ(SHGenAVLTreeDelete(&bare, &k), 0u);
  bare.compare = tree_.key_of;  // an id of the wrong kind is refused, never called
  EXPECT_EQ(SHGenAVLTreeFind(&bare, &k), nullptr);
  EXPECT_EQ(SHGenAVLTreeFind(&tree_, &k), &Slot(2)->node);
}

}  // namespace
}  // namespace vsk::test
