// Dynamic trees and arrays: instances and ids, members, nesting, the id counter's wrap,
// and the dynamic update rules that callers depend on.
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "support/attr_lists.h"
#include "support/harness.h"
#include "vsk/attr.h"
#include "vsk/snapshot.h"

namespace vsk::test {
namespace {

struct Entry {
  const char* name;
  const char* value;
  uint16_t tag;
};

class DynTreeTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    tree_ = vsk_attr_tree_create();
  }
  void TearDown() override {
    vsk_attr_tree_free(tree_);
    VskTest::TearDown();
  }
  // Reads a stored list into the tree the way a snapshot does: identifying entries carry
  // the previous identifying value, members the last one.
  vsk_status_t Load(const std::vector<Entry>& entries) {
    for (const Entry& e : entries) {
      const uint16_t klen = static_cast<uint16_t>(std::strlen(e.name) + 1);
      vsk_status_t st = vsk_dyn_tree_add(tree_, klen, e.name,
                                         static_cast<uint32_t>(std::strlen(e.value)), e.value,
                                         e.tag, prev_, &id_, &members_, &index_, &ix_, false);
      if (st != 0) return st;
      if (e.tag == VSK_ARRAY_IDENTIFYING_TLV || e.tag == VSK_ARRAY_START_TLV) prev_ = e.value;
    }
    return 0;
  }
  // Trees borrow their keys from the update lists, so the lists outlive the tree.
  DynUpdateList& NewUpdates() { return updates_.emplace_back(); }
  std::deque<DynUpdateList> updates_;
  vsk_attr_tree_node_t* Node(const char* name) {
    return reinterpret_cast<vsk_attr_tree_node_t*>(
        patricia_get(tree_, static_cast<uint16_t>(std::strlen(name) + 1), name));
  }
  std::vector<std::string> Values(const char* name) {
    std::vector<std::string> out;
    vsk_attr_tree_node_t* n = Node(name);
    if (n == nullptr) return out;
    for (vsk_attr_value_t* v = n->values_first; v != nullptr; v = v->next) {
      out.emplace_back(static_cast<char*>(v->value), v->length);
    }
    return out;
  }
  static std::vector<std::string> Members(vsk_array_member_list_t* list) {
    std::vector<std::string> out;
    for (vsk_array_member_t* m = list->first; m != nullptr; m = m->next) {
      out.push_back(std::string(m->name) + "=" +
                    std::string(static_cast<char*>(m->entry->value), m->entry->length));
    }
    return out;
  }

  patricia_root_t* tree_ = nullptr;
  const void* prev_ = nullptr;
  uint16_t id_ = 0;
  vsk_array_member_list_t* members_ = nullptr;
  patricia_root_t* index_ = nullptr;
  vsk_array_index_node_t* ix_ = nullptr;
};

TEST_F(DynTreeTest, StoredArraysRebuildInstancesAndTheCounterWraps) {
  vsk_array_id_counter = 65534;
  ASSERT_EQ(Load({{"filter", "in", 2},
                  {"rate", "10", 3},
                  {"burst", "5", 3},
                  {"filter", "out", 2},
                  {"rate", "20", 3}}),
            0);
  vsk_attr_tree_node_t* f = Node("filter");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->array_tag, VSK_ARRAY_START_TLV);
  EXPECT_EQ(f->top_level, 1);
  vsk_attr_value_t* in = f->values_first;
  vsk_attr_value_t* out = in->next;
  EXPECT_EQ(in->array_id, 65535);
  EXPECT_EQ(out->array_id, 1) << "the counter goes from 65535 to 1, never 0";
  EXPECT_EQ(Members(in->members), (std::vector<std::string>{"rate=10", "burst=5"}));
  EXPECT_EQ(Members(out->members), (std::vector<std::string>{"rate=20"}));
  vsk_attr_tree_node_t* rate = Node("rate");
  EXPECT_EQ(rate->values_first->array_id, 65535);
  EXPECT_EQ(rate->values_first->next->array_id, 1);
  EXPECT_STREQ(static_cast<char*>(rate->values_first->next->array_value), "out");
  // The index tree names both instances by value.
  ASSERT_NE(f->index_root, nullptr);
  auto* ix = reinterpret_cast<vsk_array_index_node_t*>(patricia_get(f->index_root, 3, "out"));
  ASSERT_NE(ix, nullptr);
  EXPECT_EQ(ix->array_id, 1);
  EXPECT_EQ(ix->entry, out);
  EXPECT_EQ(out->parent_index, f->index_root);

  // The same identifying value again enters the existing instance: no new value, and a
  // member then joins that instance.
  prev_ = nullptr;
  ASSERT_EQ(Load({{"filter", "in", 2}, {"burst", "7", 3}}), 0);
  EXPECT_EQ(Values("filter"), (std::vector<std::string>{"in", "out"}));
  EXPECT_EQ(id_, 65535);
  EXPECT_EQ(Members(in->members), (std::vector<std::string>{"rate=10", "burst=5", "burst=7"}));

  // Blind removal of a member name takes only the named instance's values.
  ASSERT_EQ(vsk_dyn_tree_remove(tree_, 6, "burst", 0, nullptr, 65535, false), 0);
  EXPECT_TRUE(Values("burst").empty());
  EXPECT_EQ(Node("burst"), nullptr) << "node dropped once its list is empty";
  // The member list keeps its (now empty) entries; the tree frees them at the end.
  EXPECT_EQ(Members(in->members).size(), 3u);
}

TEST_F(DynTreeTest, IdentifyingEntriesNest) {
  ASSERT_EQ(Load({{"vrf", "red", 1}, {"policy", "p1", 2}, {"limit", "9", 3}}), 0);
  vsk_attr_tree_node_t* vrf = Node("vrf");
  ASSERT_NE(vrf->index_root, nullptr);
  auto* red = reinterpret_cast<vsk_array_index_node_t*>(patricia_get(vrf->index_root, 3, "red"));
  ASSERT_NE(red, nullptr);
  EXPECT_EQ(red->array_id, 0) << "an identifying entry opens no instance";
  // "policy" went one level down, into red's nested tree, not into a tree of its own.
  auto* p1 = reinterpret_cast<vsk_array_index_node_t*>(patricia_get(red->nested_root, 2, "p1"));
  ASSERT_NE(p1, nullptr);
  EXPECT_NE(p1->array_id, 0);
  EXPECT_EQ(Node("policy")->index_root, nullptr);
  EXPECT_EQ(Node("policy")->top_level, 0);
  EXPECT_EQ(Node("vrf")->top_level, 1);
  // Removing the outer value by value takes its index entry and the nested level with it.
  ASSERT_EQ(vsk_dyn_tree_remove(tree_, 4, "vrf", 3, "red", 0, true), 0);
  EXPECT_EQ(patricia_get(vrf->index_root, 3, "red"), nullptr);
  EXPECT_EQ(Node("policy")->values_first->parent_index, nullptr);
}

TEST_F(DynTreeTest, WithoutBookkeepingTagsOnlyLabel) {
  EXPECT_EQ(vsk_dyn_tree_add(tree_, 2, "a", 1, "x", 2, nullptr, nullptr, nullptr, nullptr,
                             nullptr, false),
            0);
  EXPECT_EQ(Node("a")->index_root, nullptr);
  EXPECT_EQ(Node("a")->values_first->array_id, 0);
  EXPECT_EQ(vsk_dyn_tree_add(tree_, 2, "a", 1, "y", 0, nullptr, nullptr, nullptr, nullptr,
                             nullptr, false),
            -3)
      << "without cursors every add makes a node";
}


TEST_F(DynTreeTest, DynamicUpdateRules) {
  DynUpdateList& orphan = NewUpdates();
  orphan.Add("rate", 3, VSK_ATTR_ACTION_ADD_OR_APPEND, "1");
  EXPECT_EQ(vsk_update_session_dynamic(tree_, orphan.get(), 0, false), -6);
  EXPECT_TRUE(traces().Contains("vsk_update_session_dynamic - Array member without array start "
                                "being added to patricia tree \n"))
      << traces().Dump();

  DynUpdateList& build = NewUpdates();
  build.Add("filter", 2, VSK_ATTR_ACTION_ADD_OR_APPEND, "in")
      .Add("rate", 3, VSK_ATTR_ACTION_ADD_OR_APPEND, "10")
      .Add("plain", 0, VSK_ATTR_ACTION_ADD_OR_APPEND, "a")
      .Add("plain", 0, VSK_ATTR_ACTION_ADD_OR_APPEND, "b");
  ASSERT_EQ(vsk_update_session_dynamic(tree_, build.get(), 0, false), 0);
  EXPECT_EQ(Values("plain"), (std::vector<std::string>{"a", "b"}));

  traces().Clear();
  DynUpdateList& skipped = NewUpdates();
  skipped.Add("filter", 2, VSK_ATTR_ACTION_DELETE, "in")
      .Add("plain", 0, VSK_ATTR_ACTION_DELETE_ARRAY, "a");
  EXPECT_EQ(vsk_update_session_dynamic(tree_, skipped.get(), 0, false), 0);
  EXPECT_EQ(traces().CountContaining("Deleting array attribute with VSK_ARRAY_IDENTIFYING_TLV\n"),
            1);
  EXPECT_EQ(
      traces().CountContaining("Deleting non-array attribute  with VSK_ARRAY_IDENTIFYING_TLV\n"),
      1);
  EXPECT_EQ(Values("filter"), (std::vector<std::string>{"in"}));

  // With append_replaces, a plain append replaces whatever is there.
  DynUpdateList& rep = NewUpdates();
  rep.Add("plain", 0, VSK_ATTR_ACTION_ADD_OR_APPEND, "c");
  ASSERT_EQ(vsk_update_session_dynamic(tree_, rep.get(), 0, true), 0);
  EXPECT_EQ(Values("plain"), (std::vector<std::string>{"c"}));

  // Deleting the instance through its identifying entry; the same value then opens a new
  // instance with a new id.
  uint16_t old_id = Node("filter")->values_first->array_id;
  DynUpdateList& del = NewUpdates();
  del.Add("filter", 2, VSK_ATTR_ACTION_DELETE_ARRAY, "in");
  ASSERT_EQ(vsk_update_session_dynamic(tree_, del.get(), old_id, false), 0);
  EXPECT_TRUE(Values("filter").empty());
  DynUpdateList& again = NewUpdates();
  again.Add("filter", 2, VSK_ATTR_ACTION_ADD_OR_APPEND, "in");
  ASSERT_EQ(vsk_update_session_dynamic(tree_, again.get(), 0, false), 0);
  EXPECT_NE(Node("filter")->values_first->array_id, old_id);

  DynUpdateList& bad = NewUpdates();
  bad.Add("plain", 0, VSK_ATTR_ACTION_SET_BITS, "x");
  EXPECT_EQ(vsk_update_session_dynamic(tree_, bad.get(), 0, false), -6);
  DynUpdateList& noval = NewUpdates();
  noval.Add("filter", 1, VSK_ATTR_ACTION_ADD_OR_APPEND, {});
  EXPECT_EQ(vsk_update_session_dynamic(tree_, noval.get(), 0, false), -6);
}

}  // namespace
}  // namespace vsk::test

namespace vsk::test {
namespace {

class ArrayReadTest : public VskTest {};

TEST_F(ArrayReadTest, HelpersOnTheHandle) {
  vsk_snapshot_handle h;
  std::memset(&h, 0, sizeof h);
  EXPECT_EQ(vsk_get_next_array("xfilter", &h), 0) << "no array being read";
  h.array_attr_name = strdup("filter");
  h.array_attr_value = strdup("in");
  h.last_attr_name = strdup("rate");
  EXPECT_EQ(vsk_get_next_array("xfilter", &h), 1) << "the first character is skipped";
  EXPECT_EQ(vsk_get_next_array("filter", &h), 0);
  EXPECT_EQ(vsk_get_next_array(nullptr, &h), 0);
  h.entry_count = 3;
  h.entry_index = 1;
  EXPECT_FALSE(vsk_done_reading_all_array_entries(&h));
  h.entry_index = 2;
  EXPECT_TRUE(vsk_done_reading_all_array_entries(&h));
  h.level = 4;
  h.array_id = 9;
  h.level_cursor[9] = reinterpret_cast<vsk_array_index_node_t*>(&h);
  h.array_done = 1;
  EXPECT_EQ(vsk_get_next_array("xfilter", &h), 0) << "an ended array is cleaned up";
  EXPECT_EQ(h.array_attr_name, nullptr);
  EXPECT_EQ(h.last_attr_name, nullptr);
  EXPECT_EQ(h.level, 0u);
  EXPECT_EQ(h.array_id, 0);
  EXPECT_EQ(h.entry_count, 0);
  EXPECT_EQ(h.level_cursor[9], nullptr);
  EXPECT_EQ(h.array_done, 0);
}

}  // namespace
}  // namespace vsk::test
