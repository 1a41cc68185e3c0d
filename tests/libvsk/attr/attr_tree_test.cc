// Tree editing as the session updates use it: load a record's attributes, apply a change
// list, flatten back to a sorted list; dynamic arrays; config-bit merges.
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "support/attr_lists.h"
#include "support/harness.h"
#include "vsk/attr.h"

namespace vsk::test {
namespace {

using Flat = std::vector<std::pair<int, std::string>>;

Flat Flatten(patricia_root_t* tree) {
  Flat out;
  for (patricia_node_t* p = patricia_find_next(tree, nullptr); p != nullptr;
       p = patricia_find_next(tree, p)) {
    auto* n = reinterpret_cast<vsk_attr_tree_node_t*>(p);
    uint16_t type;
    std::memcpy(&type, n->key, 2);
    for (vsk_attr_value_t* v = n->values_first; v != nullptr; v = v->next) {
      out.emplace_back(type, v->value != nullptr
                                 ? std::string(static_cast<char*>(v->value), v->length)
                                 : std::string("<null>"));
    }
  }
  return out;
}

using Updates = UpdateList;

class AttrTreeTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    tree_ = vsk_attr_tree_create();
  }
  void TearDown() override {
    vsk_attr_tree_free(tree_);
    VskTest::TearDown();
  }
  // Loads the attributes as a record would hold them (key = the node's type field).
  void Load(std::vector<std::pair<uint16_t, const char*>> attrs) {
    for (auto& [t, v] : attrs) {
      auto* a = &record_.emplace_back();
      a->type = t;
      a->length = static_cast<uint16_t>(std::strlen(v));
      a->value = const_cast<char*>(v);
      ASSERT_EQ(vsk_attr_tree_add(tree_, 2, &a->type, a->length, a->value, false), 0);
    }
  }
  // Trees borrow their keys from the update lists, so the lists outlive the tree.
  Updates& NewUpdates() { return updates_.emplace_back(); }
  std::deque<Updates> updates_;
  patricia_root_t* tree_ = nullptr;
  std::deque<vsk_attr_t> record_;
};

TEST_F(AttrTreeTest, RepeatedValuesKeepInsertionOrderAndFlattenSorts) {
  Load({{40, "mac"}, {17, "bob"}, {19, "ge-1"}, {17, "bob"}, {17, "carol"}});
  EXPECT_EQ(Flatten(tree_),
            (Flat{{17, "bob"}, {17, "bob"}, {17, "carol"}, {19, "ge-1"}, {40, "mac"}}));
  // Types whose little-endian bytes sort differently from their values still come out
  // in byte order of the key (the stored order the design fixes).
  EXPECT_EQ(vsk_attr_tree_add(tree_, 2, "\x00\x01", 1, "x", false), 0);
  EXPECT_EQ(Flatten(tree_).front().first, 256);
}

TEST_F(AttrTreeTest, ReplaceAndDeleteByValueAndBlind) {
  Load({{17, "bob"}, {17, "carol"}, {20, "gold"}, {36, "\x01"}});
  Updates& u = NewUpdates();
  u.Add(17, VSK_ATTR_ACTION_ADD_OR_REPLACE, "carol", "dave")       // by value
      .Add(20, VSK_ATTR_ACTION_ADD_OR_REPLACE, {}, "silver")  // blind
      .Add(22, VSK_ATTR_ACTION_ADD_OR_REPLACE, {}, "m")       // absent: created
      .Add(36, VSK_ATTR_ACTION_DELETE, {})                    // blind delete
      .Add(99, VSK_ATTR_ACTION_DELETE, {})                    // blind, absent: fine
      .Add(17, VSK_ATTR_ACTION_ADD_OR_APPEND, "bob");
  ASSERT_EQ(vsk_update_session(tree_, u.get()), 0);
  EXPECT_EQ(Flatten(tree_),
            (Flat{{17, "bob"}, {17, "dave"}, {17, "bob"}, {20, "silver"}, {22, "m"}}));

  // Deleting the only value leaves an empty node, which flattens to nothing.
  Updates& d = NewUpdates();
  d.Add(22, VSK_ATTR_ACTION_DELETE, "m");
  ASSERT_EQ(vsk_update_session(tree_, d.get()), 0);
  EXPECT_NE(patricia_get(tree_, 2, "\x16\x00"), nullptr);
  EXPECT_EQ(Flatten(tree_).back(), (std::pair<int, std::string>{20, "silver"}));

  // A blind replace with no new value stores a null value of length 0.
  Updates& n = NewUpdates();
  n.Add(20, VSK_ATTR_ACTION_ADD_OR_REPLACE, {}, {});
  ASSERT_EQ(vsk_update_session(tree_, n.get()), 0);
  EXPECT_EQ(Flatten(tree_).back(), (std::pair<int, std::string>{20, "<null>"}));
}

// A value taken out of the first, middle or last place leaves a list that later values
// are appended to in order, by a tree edit or by an update list alike.
TEST(AttrTreeValues, RemovingAnyValueKeepsTheListAppendable) {
  static const uint16_t kType = 17;
  for (const char* gone : {"a", "b", "c"}) {
    SCOPED_TRACE(gone);
    Flat want;
    for (const char* v : {"a", "b", "c", "d"}) {
      if (std::strcmp(v, gone) != 0) want.emplace_back(kType, v);
    }
    patricia_root_t* tree = vsk_attr_tree_create();
    for (const char* v : {"a", "b", "c"})
      ASSERT_EQ(vsk_attr_tree_add(tree, 2, &kType, 1, v, false), 0);
    ASSERT_EQ(vsk_attr_tree_remove(tree, 2, &kType, 1, gone, true), 0);
    ASSERT_EQ(vsk_attr_tree_add(tree, 2, &kType, 1, "d", false), 0);
    EXPECT_EQ(Flatten(tree), want);
    vsk_attr_tree_free(tree);

    tree = vsk_attr_tree_create();
    for (const char* v : {"a", "b", "c"})
      ASSERT_EQ(vsk_attr_tree_add(tree, 2, &kType, 1, v, false), 0);
    Updates u;
    u.Add(kType, VSK_ATTR_ACTION_DELETE, gone).Add(kType, VSK_ATTR_ACTION_ADD_OR_APPEND, "d");
    ASSERT_EQ(vsk_update_session(tree, u.get()), 0);
    EXPECT_EQ(Flatten(tree), want);
    vsk_attr_tree_free(tree);
  }
}

TEST_F(AttrTreeTest, ErrorsStopTheListWithTheirTraces) {
  Load({{17, "bob"}});
  Updates& wrong_old = NewUpdates();
  wrong_old.Add(17, VSK_ATTR_ACTION_ADD_OR_APPEND, "x")
      .Add(17, VSK_ATTR_ACTION_ADD_OR_REPLACE, "nobody", "y")
      .Add(17, VSK_ATTR_ACTION_ADD_OR_APPEND, "never");
  EXPECT_EQ(vsk_update_session(tree_, wrong_old.get()), -9);
  EXPECT_TRUE(traces().Contains("Failed to delete old attribute -9\n")) << traces().Dump();
  EXPECT_EQ(Flatten(tree_), (Flat{{17, "bob"}, {17, "x"}})) << "stopped at the bad entry";

  Updates& no_new = NewUpdates();
  no_new.Add(17, VSK_ATTR_ACTION_ADD_OR_REPLACE, "bob");
  EXPECT_EQ(vsk_update_session(tree_, no_new.get()), -6);
  EXPECT_TRUE(traces().Contains(
      "vsk_update_session: Replacing attribute without providing old or new value\n"));

  Updates& del_missing = NewUpdates();
  del_missing.Add(17, VSK_ATTR_ACTION_DELETE, "zzz");
  EXPECT_EQ(vsk_update_session(tree_, del_missing.get()), -9);
  EXPECT_EQ(traces().CountContaining("Failed to delete attribute, err="), 1);

  Updates& bits = NewUpdates();
  bits.Add(17, VSK_ATTR_ACTION_SET_BITS, "a");
  EXPECT_EQ(vsk_update_session(tree_, bits.get()), -6);
  EXPECT_EQ(traces().CountContaining("Update client session with unknown  action type 3\n"), 1);

  EXPECT_EQ(vsk_update_session(nullptr, bits.get()), 0);
  EXPECT_EQ(vsk_update_session(tree_, nullptr), 0);
}

TEST_F(AttrTreeTest, OwnedValuesAreFreedWithTheTree) {
  // ASan's leak check fails the test if owned keys or values are not released.
  for (int i = 0; i < 3; ++i) {
    char* key = strdup("kelvo-computed");
    char* val = strdup("v");
    ASSERT_EQ(
        vsk_attr_tree_add(tree_, static_cast<uint16_t>(std::strlen(key) + 1), key, 2, val, true),
        0);
  }
  char* key = strdup("kelvo-computed");
  EXPECT_EQ(vsk_attr_tree_remove(tree_, 15, key, 2, "v", true), 0);
  free(key);
  EXPECT_EQ(vsk_attr_tree_remove(tree_, 15, "kelvo-computed", 2, "q", true), -9);
  EXPECT_EQ(vsk_attr_tree_remove(tree_, 5, "none", 0, nullptr, true), -9);
  EXPECT_EQ(vsk_attr_tree_remove(tree_, 5, "none", 0, nullptr, false), 0);
}

TEST(AttrList, LookupsAndConversion) {
  vsk_attr_list_t list;
  vsk_attr_list_init(&list);
  vsk_attr_t a{17, 3, (void*)"bob", nullptr}, b{19, 2, (void*)"if", nullptr},
      c{17, 1, (void*)"x", nullptr};
  vsk_attr_list_append(&list, &a);
  vsk_attr_list_append(&list, &b);
  vsk_attr_list_insert_head(&list, &c);
  EXPECT_EQ(vsk_get_attribute_from_list(&list, 17), &c);
  EXPECT_EQ(vsk_get_attribute_from_list(&list, 99), nullptr);
  EXPECT_EQ(list.last, &b.next);

  char n1[] = "a", n2[] = "b";
  vsk_dyn_attr_t d2{nullptr, n2, 2, (void*)"22", 3};
  vsk_dyn_attr_t d1{&d2, n1, 1, (void*)"1", 2};
  vsk_dyn_attr_list_t dl{&d1, &d2.next};
  vsk_dyn_update_list_t* out = nullptr;
  ASSERT_EQ(vsk_convert_dynamic_to_add_replace(&dl, &out), 0);
  vsk_dyn_update_t* e = out->first;
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->action, static_cast<uint32_t>(VSK_ATTR_ACTION_ADD_OR_REPLACE));
  EXPECT_EQ(e->name, n1);
  EXPECT_EQ(e->length, 0u);
  EXPECT_EQ(e->array_tag, 0);
  EXPECT_EQ(e->new_length, 1u);
  EXPECT_EQ(e->new_value, d1.value);
  ASSERT_NE(e->next, nullptr);
  EXPECT_EQ(e->next->next, nullptr);
  EXPECT_EQ(out->last, &e->next->next);
  vsk_dyn_update_list_free(out);
}

class ConfigBitsTest : public VskTest {
 protected:
  void TearDown() override {
    std::free(bits_);
    VskTest::TearDown();
  }
  void Set(std::vector<uint8_t> v) {
    std::free(bits_);
    bits_ = static_cast<uint8_t*>(std::malloc(v.size()));
    std::memcpy(bits_, v.data(), v.size());
    len_ = static_cast<uint16_t>(v.size());
  }
  std::vector<uint8_t> Get() const { return std::vector<uint8_t>(bits_, bits_ + len_); }
  vsk_attr_update_t Entry(uint32_t action, const std::vector<uint8_t>& mask) {
    vsk_attr_update_t e{};
    e.type = VSK_INFO_ATTR;
    e.action = action;
    e.length = static_cast<uint32_t>(mask.size());
    e.value = const_cast<uint8_t*>(mask.data());
    return e;
  }
  vsk_status_t Apply(std::vector<vsk_attr_update_t> entries) {
    vsk_attr_update_list_t l{nullptr, nullptr};
    l.last = &l.first;
    for (auto& e : entries) {
      *l.last = &e;
      l.last = &e.next;
    }
    return vsk_update_info_section(&l, &len_, &bits_);
  }
  uint8_t* bits_ = nullptr;
  uint16_t len_ = 0;
};

TEST_F(ConfigBitsTest, MergeRules) {
  Set({0x0f, 0xf0, 0x00, 0x01});
  std::vector<uint8_t> m2 = {0xf0, 0x0f};
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_SET_BITS, m2)}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0xff, 0xff, 0x00, 0x01})) << "bytes 3, 4 untouched";
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_CLEAR_BITS, {0x0f})}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0xf0, 0xff, 0x00, 0x01}));

  Set({0x01, 0x02});
  std::vector<uint8_t> m4 = {0x10, 0, 0, 0x80};
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_SET_BITS, m4)}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0x11, 0x02, 0x00, 0x80})) << "grown, old bits kept";
  // Clearing with a longer mask grows too; the length never shrinks.
  std::vector<uint8_t> m5 = {0x01, 0, 0, 0, 0};
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_CLEAR_BITS, m5)}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0x10, 0x02, 0x00, 0x80, 0x00}));
}

TEST_F(ConfigBitsTest, StoreOnAnExistingMaskIsIgnoredUnlessThisCallAllocated) {
  Set({0xaa, 0xbb});
  std::vector<uint8_t> m = {0x01, 0x02};
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_ADD_OR_REPLACE, m)}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0xaa, 0xbb})) << "the old mask stands";
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_ADD_OR_APPEND, m)}), 0);
  EXPECT_EQ(Get(), (std::vector<uint8_t>{0xaa, 0xbb}));
  // Delete, then store twice in one call: the first allocates, the second overwrites.
  std::vector<uint8_t> m2 = {0x07, 0x08};
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_DELETE, {}), Entry(VSK_ATTR_ACTION_ADD_OR_REPLACE, m),
                   Entry(VSK_ATTR_ACTION_ADD_OR_REPLACE, m2)}),
            0);
  EXPECT_EQ(Get(), m2);
  // A different length is refused; a wrong type or action too.
  EXPECT_EQ(Apply({Entry(VSK_ATTR_ACTION_ADD_OR_REPLACE, {1, 2, 3})}), -6);
  EXPECT_TRUE(
      traces().Contains("vsk_update_info_section: Length must be the same for info_attrs 3"));
  auto bad = Entry(VSK_ATTR_ACTION_SET_BITS, m);
  bad.type = 17;
  EXPECT_EQ(Apply({bad}), -6);
  EXPECT_EQ(Apply({Entry(VSK_ATTR_ACTION_DELETE_ARRAY, m)}), -6);
  EXPECT_EQ(traces().CountContaining("Failed to add attributes to patricia tree during update"), 2);
  // Store into no mask with length 0 does nothing; with a length it allocates.
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_DELETE, {})}), 0);
  EXPECT_EQ(bits_, nullptr);
  EXPECT_EQ(len_, 0);
  ASSERT_EQ(Apply({Entry(VSK_ATTR_ACTION_ADD_OR_APPEND, {})}), 0);
  EXPECT_EQ(bits_, nullptr);
}

}  // namespace
}  // namespace vsk::test
