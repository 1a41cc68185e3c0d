// Dynamic configuration over the real store, cache and unit pool: every predefined
// variable with and without its source attribute, the interface-set and device names, the
// interface unit drawn once per session by two processes at once and refused by an empty
// pool, and the writes (tables, cache, and the cache block that overflows to the tables).
#include <set>

#include "session_fixture.h"
#include "session_rows.h"
#include "snapshot_rows.h"
#include "support/attr_lists.h"

namespace vsk::test {
namespace {

const vsk_create_options_t kCache{0, 1, {0, 0}};

std::string Prefixed(uint16_t prefix, std::initializer_list<uint8_t> head) {
  std::string out(18, '\0');
  out[0] = static_cast<char>(prefix >> 8), out[1] = static_cast<char>(prefix & 0xff);
  size_t i = 2;
  for (uint8_t b : head) out[i++] = static_cast<char>(b);
  return out;
}
std::string V6(std::initializer_list<uint8_t> head) { return Prefixed(0, head).substr(2); }

class DynamicTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(Up(&link_, true), 0) << traces().Dump();
    shm_ = vsk_snap_get_shared_memory_ptr();
  }
  void TearDown() override {
    vsk_free_snapshot_handle(&h_);
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
    VskTest::TearDown();
  }
  void Load(uint64_t id) {
    vsk_free_snapshot_handle(&h_);
    h_ = vsk_snapshot_handle{};
    h_.client_session_id = id;
    ASSERT_EQ(vsk_get_snapshot(&h_), 0);
  }
  uint64_t Create(AttrList& attrs, DynList& dyn, bool cache) {
    vsk_session_ids_t ids{};
    EXPECT_EQ(vsk_create_extended_client_session(2, attrs.get(), nullptr, dyn.get(), &ids,
                                                 cache ? &kCache : nullptr, nullptr),
              0);
    return ids.session_id;
  }
  // All stored entries of the client's dynamic record, "name=value;" (values without NUL).
  std::string Stored(uint64_t id) {
    Load(id);
    vsk_dyn_attr_list_t* all = nullptr;
    if (vsk_get_all_dynamic_config_attrs(&h_, 0, &all) != 0) return "<none>";
    std::string out;
    for (vsk_dyn_attr_t* a = all->first; a != nullptr; a = a->next) {
      out += std::string(a->name) + "=" +
             std::string(static_cast<char*>(a->value), a->length).c_str() + ";";
    }
    return out;
  }
  orvd_ctx link_{};
  void* shm_ = nullptr;
  vsk_snapshot_handle h_{};
};

TEST_F(DynamicTest, PredefinedVariablesFromTheirSourceAttributes) {
  AttrList full{
      {VSK_USER_IPV4_ADDRESS, U32(0x0a00000a)},
      {VSK_USER_IPV6_ADDRESS, V6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
      {VSK_USER_MAC_ADDRESS, std::string("\x00\x11\x22\xaa\xbb\xcc", 6)},
      {VSK_INTERFACE_NAME, "ge-1/0/0.7"},
      {VSK_ROUTING_INSTANCE, "vrf-a"},
      {VSK_UNNUMBERED_INTERFACE, "lo0.0"},
      {VSK_PREFERRED_IP_ADDRESS, std::string("\xc0\x00\x02\x01", 4)},
      {VSK_PREFERRED_IPV6_ADDRESS,
       V6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2})},
      {VSK_INTERFACE_IPV6_ADDRESS, Prefixed(64, {0x20, 0x01, 0x0d, 0xb8, 0, 1})},
      {VSK_NDRA_PREFIX, Prefixed(56, {0x20, 0x01, 0x0d, 0xb8, 0, 2})}};
  AttrList alt{{VSK_USER_IPV6_ADDRESS_ALT, Prefixed(48, {0x20, 0x01, 0x0d, 0xb8, 0, 3})},
               {VSK_DELEGATED_IPV6_PREFIX, Prefixed(60, {0x20, 0x01, 0x0d, 0xb8, 0, 4})}};
  AttrList none{{VSK_SESSION_STATE, U32(1)}};
  ASSERT_EQ(PutSession({1, &full}), 0);
  ASSERT_EQ(PutSession({2, &alt}), 0);
  ASSERT_EQ(PutSession({3, &none}), 0);
  struct Case {
    uint64_t id;
    const char* name;
    std::string want;
  } cases[] = {
      {1, "kelvo-subscriber-ip-address", Text("10.0.0.10/32")},
      {1, "kelvo-subscriber-ipv6-address", Text("2001:db8::1/128")},
      {1, "kelvo-subscriber-ipv6-multi-address", Text("2001:db8::1/128")},
      {1, "kelvo-subscriber-mac-address", Text("00:11:22:aa:bb:cc")},
      {1, "kelvo-interface-name", "ge-1/0/0.7"},
      {1, "kelvo-routing-instance", "vrf-a"},
      {1, "kelvo-loopback-interface", "lo0.0"},
      {1, "kelvo-preferred-source-address", Text("192.0.2.1")},
      {1, "kelvo-preferred-source-ipv6-address", Text("2001:db8::2")},
      {1, "kelvo-ipv6-address", Text("2001:db8:1::/64")},
      {1, "kelvo-ipv6-ndra-prefix", Text("2001:db8:2::/56")},
      {2, "kelvo-subscriber-ipv6-address", Text("2001:db8:3::/48")},
      {2, "kelvo-ipv6-ndra-prefix", Text("2001:db8:4::/60") + ""},
      {3, "kelvo-subscriber-ip-address", "st-7"},
      {3, "kelvo-subscriber-ipv6-address", "st-7"},
      {3, "kelvo-subscriber-mac-address", "st-7"},
      {3, "kelvo-interface-name", "st-7"},
      {3, "kelvo-preferred-source-address", "st-7"},
      {3, "kelvo-ipv6-ndra-prefix", "st-7"},
      {3, "kelvo-no-such-variable", "st-7"},
  };
  for (const Case& c : cases) {
    Load(c.id);
    EXPECT_EQ(DynamicValue(&h_, 0, c.name), c.want) << c.id << " " << c.name;
    EXPECT_EQ(DynamicValue(&h_, 0, c.name), c.want) << "again from the snapshot: " << c.name;
  }
}

TEST_F(DynamicTest, InterfaceSetAndDeviceNames) {
  AttrList vlans{{VSK_OUTER_VLAN_ID, U32(100)}, {VSK_INNER_VLAN_ID, U32(7)}};
  AttrList outer{{VSK_OUTER_VLAN_ID, U32(200)}};
  AttrList plain{{VSK_SESSION_STATE, U32(1)}};
  DynList phy{{"kelvo-phy-ifd-name", Text("ge-1/0/0")},
              {"kelvo-underlying-interface", Text("ge-1/0/0.100")}};
  DynList stored{{"kelvo-interface-set-name", Text("set-a")},
                 {"kelvo-underlying-interface", Text("ae0")}};
  ASSERT_EQ(PutSession({1, &vlans, &phy}), 0);
  ASSERT_EQ(PutSession({2, &outer, &phy}), 0);
  ASSERT_EQ(PutSession({3, &plain, &phy}), 0);
  ASSERT_EQ(PutSession({4, &plain, &stored}), 0);
  struct Case {
    uint64_t id;
    const char* name;
    std::string want;
  } cases[] = {
      {1, "kelvo-svlan-interface-set-name", Text("ge-1/0/0-100")},
      {1, "kelvo-tagged-vlan-interface-set-name", Text("ge-1/0/0-100-7")},
      {2, "kelvo-tagged-vlan-interface-set-name", Text("ge-1/0/0-200")},
      {3, "kelvo-svlan-interface-set-name", "st-7"},
      {4, "kelvo-svlan-interface-set-name", Text("set-a")},
      {1, "kelvo-interface-ifd-name", Text("ge-1/0/0")},
      {1, "kelvo-underlying-interface-unit", Text("100")},
      {4, "kelvo-interface-ifd-name", Text("ae0")},
      {4, "kelvo-underlying-interface-unit", Text("ae0")},  // no unit: the interface itself
  };
  for (const Case& c : cases) {
    Load(c.id);
    EXPECT_EQ(DynamicValue(&h_, 0, c.name), c.want) << c.id << " " << c.name;
  }
  // The published oddity: after a part is read, the snapshot's underlying value shows it.
  Load(1);
  EXPECT_EQ(DynamicValue(&h_, 0, "kelvo-underlying-interface-unit"), Text("100"));
  EXPECT_EQ(DynamicValue(&h_, 0, "kelvo-underlying-interface"), Text("100"));
}

// Two processes read the unit of the same twenty sessions at once, then again: each
// session holds the unit its first reader stored (a race may add a second value, never
// take one that another session holds), and the second round draws nothing. The sessions
// are in the tables: a cached session's dynamic block drops a write that loses a race with
// a reader of the block, which costs that unit (the cache's published trade).
class DynamicSystemTest : public SessionSystemTest {};

int ReadUnits(int sessions) {
  for (int id = 1; id <= sessions; ++id) {
    vsk_snapshot_handle h{};
    h.client_session_id = static_cast<uint64_t>(id);
    CHILD_CHECK(vsk_get_snapshot(&h) == 0);
    vsk_attr_value_t* v = nullptr;
    CHILD_CHECK(vsk_get_dynamic_config_attr(&h, 0, "kelvo-interface-unit", &v) == 0);
    vsk_free_snapshot_handle(&h);
  }
  return 0;
}

// The pool's first free entry, as the observer sees it.
int32_t PoolHead() {
  return static_cast<const int32_t*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL0_OFFSET))[1];
}

TEST_F(DynamicSystemTest, InterfaceUnitDrawnOncePerSessionAcrossTwoProcesses) {
  constexpr int kSessions = 20;
  ASSERT_TRUE(StartSystem());
  ChildResult made = AsClientDaemon([] {
    AttrList a{{VSK_SESSION_STATE, U32(1)}, {VSK_INTERFACE_NAME, Text("ge-2/0/0")}};
    DynList dyn{{"kelvo-a", "1"}};
    for (int i = 0; i < kSessions; ++i) {
      vsk_session_ids_t ids{};
      CHILD_CHECK(vsk_create_extended_client_session(2, a.get(), nullptr, dyn.get(), &ids, nullptr,
                                                     nullptr) == 0);
      CHILD_CHECK(ids.session_id == static_cast<uint64_t>(i + 1));
    }
    return 0;
  });
  ASSERT_TRUE(made.Ok()) << made;
  auto both_read = [this] {
    return RunConcurrently(2, [](int) {
      orvd_ctx link{};
      if (Up(&link, false) != 0) return 100;
      int rc = ReadUnits(kSessions);
      vsk_close_internal();
      return rc;
    });
  };
  ASSERT_TRUE(both_read());
  const int32_t head = PoolHead();
  EXPECT_GE(head, kSessions) << "every session drew at least one unit";
  ASSERT_TRUE(both_read());
  EXPECT_EQ(PoolHead(), head) << "sessions that hold a unit draw none";
  ChildResult checked = AsClientDaemon([] {
    std::set<std::string> all;
    size_t values = 0;
    for (int id = 1; id <= kSessions; ++id) {
      vsk_snapshot_handle h{};
      h.client_session_id = static_cast<uint64_t>(id);
      CHILD_CHECK(vsk_get_snapshot(&h) == 0);
      vsk_attr_value_t* v = nullptr;
      CHILD_CHECK(vsk_get_dynamic_config_attr(&h, 0, "kelvo-interface-unit", &v) == 0);
      for (vsk_attr_value_t* x = v->next; x != nullptr; x = x->next, ++values) {
        all.insert(std::string(static_cast<char*>(x->value), x->length));
      }
      vsk_free_snapshot_handle(&h);
    }
    CHILD_CHECK(all.size() == values);  // no unit is held twice
    return 0;
  });
  EXPECT_TRUE(checked.Ok()) << checked;
}

TEST_F(DynamicTest, EmptyPoolGivesMinusTenAndLeavesTheSessionAlone) {
  AttrList a{{VSK_SESSION_STATE, U32(1)}};
  DynList dyn{{"kelvo-a", "1"}};
  ASSERT_EQ(PutSession({9, &a, &dyn}), 0);
  uint32_t unit = 0;
  while (vsk_unit_allocate(&unit, 0) == 0) {
  }
  Load(9);
  EXPECT_EQ(DynamicValue(&h_, 0, "kelvo-interface-unit"), "st-10");
  EXPECT_TRUE(traces().Contains("vsk_get_internal_variables_internal: Ran out of unit numbers"));
  EXPECT_EQ(Stored(9), "kelvo-a=1;");
}

TEST_F(DynamicTest, UpdatesMergeIntoTablesAndServices) {
  AttrList a{{VSK_SESSION_STATE, U32(1)}};
  DynList dyn{{"kelvo-z", "1"}, {"kelvo-b", "2"}};
  DynList sdyn{{"svc-rate", "5"}};
  ASSERT_EQ(PutSession({1, &a, &dyn, {}, {{2, &a, &sdyn}}}), 0);
  ASSERT_EQ(vsk_update_client_dynamic(1, nullptr), 0);
  EXPECT_EQ(Stored(1), "kelvo-b=2;kelvo-z=1;") << "a rewrite puts names in order";
  vsk_dyn_update_t e{nullptr,
                     const_cast<char*>("kelvo-c"),
                     1,
                     const_cast<char*>("3"),
                     0,
                     0,
                     VSK_ATTR_ACTION_ADD_OR_APPEND,
                     0,
                     nullptr};
  vsk_dyn_update_list_t list{&e, &e.next};
  ASSERT_EQ(vsk_update_client_dynamic(1, &list), 0);
  EXPECT_EQ(Stored(1), "kelvo-b=2;kelvo-c=3;kelvo-z=1;");
  e.name = const_cast<char*>("svc-burst");
  ASSERT_EQ(vsk_update_service_dynamic(2, &list), 0);
  Load(1);
  h_.include_services = 1;
  vsk_free_snapshot_handle(&h_);
  h_ = vsk_snapshot_handle{};
  h_.session_id = 2;
  ASSERT_EQ(vsk_get_snapshot(&h_), 0);
  EXPECT_EQ(DynamicValue(&h_, 2, "svc-burst"), "3");
  EXPECT_EQ(DynamicValue(&h_, 2, "svc-rate"), "5");
  EXPECT_EQ(vsk_update_client_dynamic(77, &list), VSK_ERR_NOT_FOUND);
  EXPECT_TRUE(traces().Contains("Failed to update dynamic configuration -7"));
  DynList fresh{{"only", "x"}};
  ASSERT_EQ(vsk_set_client_dynamic_configuration(1, fresh.get()), 0);
  EXPECT_EQ(Stored(1), "only=x;");
}

// A cached session's dynamic block fills up: the update that no longer fits moves the
// session, with every entry, to the tables and gives the slot up.
TEST_F(DynamicTest, CachedUpdatesThatOverflowTheBlockMoveTheSessionToTheTables) {
  AttrList a{{VSK_SESSION_STATE, U32(1)}, {VSK_INTERFACE_NAME, Text("ge-3/0/0")}};
  DynList dyn{{"kelvo-a", "1"}};
  const uint64_t id = Create(a, dyn, true);
  ASSERT_TRUE(vsk_is_session_in_shm(id, shm_));
  const std::string big(100, 'v');
  int moved_at = -1;
  for (int i = 0; i < 40 && moved_at < 0; ++i) {
    std::string name = "kelvo-n" + std::to_string(i);
    vsk_dyn_update_t e{
        nullptr, name.data(), static_cast<uint32_t>(big.size()), const_cast<char*>(big.data()),
        0,       0,           VSK_ATTR_ACTION_ADD_OR_APPEND,     0,
        nullptr};
    vsk_dyn_update_list_t list{&e, &e.next};
    ASSERT_EQ(vsk_update_client_dynamic(id, &list), 0) << i;
    if (!vsk_is_session_in_shm(id, shm_)) moved_at = i;
  }
  ASSERT_GE(moved_at, 1) << "the block held a few updates first";
  EXPECT_EQ(traces().CountContaining("vsk_update_client_dynamic_internal too big for buffer"), 1);
  vsk_db_txn_t txn{};
  vsk_dynamic_config_t* rec = nullptr;
  uint64_t key = id;
  ASSERT_EQ(vsk_db_get_dynamic_config(&txn, &key, &rec, false), 0);
  int entries = 0;
  for (vsk_dyn_attr_t* e = rec->attrs->first; e != nullptr; e = e->next) ++entries;
  vsk_db_release_dynamic_config(rec, true);
  EXPECT_EQ(entries, moved_at + 2) << "kelvo-a and every update, the last included";
  EXPECT_EQ(Row(id, VSK_INTERFACE_NAME), Text("ge-3/0/0"));
}

}  // namespace
}  // namespace vsk::test
