// Bundled client sessions over the real store, cache and interface table: inheritance
// from the underlying session (found, missing, unreadable), the shared dynamic record
// (untouched without a list, changed in place with one, byte for byte), the first client
// on a shared underlying interface, and the refusals, each with what it leaves stored.
#include <string>

#include "bundle_rows.h"

namespace vsk::test {
namespace {

using BundleTest = EngineTest;

std::string Id8(uint64_t id) { return std::string(reinterpret_cast<char*>(&id), 8); }

// Inherited values land in the table record (replacing the session's own value), never in
// its slot, which holds the caller's list alone; a missing type is traced and skipped, and
// an underlying session that cannot be read leaves the create without inheritance.
TEST_F(BundleTest, InheritedTypesReachTheRecordButNotTheSlot) {
  const uint64_t u = CreateUnderlying(), cached = CreateUnderlying(true);
  ASSERT_NE(u, 0u);
  ASSERT_TRUE(vsk_is_session_in_shm(cached, shm_));
  const std::string under_row = RawDynamicRow(u);

  struct Case {
    const char* name;
    uint64_t underlying;
    const char *user, *mac;  // expected in the record
    const char* trace;
  } cases[] = {
      {"found and missing", u, "ulysses", "00:11:22",
       "could not get the underlying session params:34"},
      {"read from its slot", cached, "ulysses", "00:11:22",
       "could not get the underlying session params:34"},
      {"unreadable", 999999, "bea", "<absent>",
       "failed to get snapshot handle for underlying sid:999999"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    traces().Clear();
    AttrList attrs{{VSK_USER_NAME, "bea"}};
    AttrList inherit{
        {VSK_USER_NAME, ""}, {VSK_RADIUS_ACCT_SESSION_ID, ""}, {VSK_USER_MAC_ADDRESS, ""}};
    vsk_status_t st = -1;
    const uint64_t b = CreateOn(c.underlying, attrs, nullptr, &inherit, true, &st);
    ASSERT_EQ(st, 0) << traces().Dump();
    EXPECT_EQ(traces().CountContaining(c.trace), 1) << traces().Dump();
    EXPECT_EQ(Row(b, VSK_USER_NAME), c.user);
    EXPECT_EQ(Row(b, VSK_USER_MAC_ADDRESS), c.mac);
    EXPECT_EQ(Row(b, VSK_UNDERLYING_SESSION_ID), Id8(c.underlying));
    EXPECT_EQ(DynamicIdOf(b), c.underlying) << "the underlying dynamic record is shared";
    EXPECT_EQ(RawDynamicRow(b), "st" + std::to_string(DB_NOTFOUND)) << "no record of its own";
    ASSERT_TRUE(vsk_is_session_in_shm(b, shm_));
    EXPECT_EQ(SlotValue(b, VSK_USER_NAME), "bea");
    EXPECT_EQ(SlotValue(b, VSK_USER_MAC_ADDRESS), "<absent>");
  }
  EXPECT_EQ(RawDynamicRow(u), under_row) << "inheritance never writes the underlying record";
  EXPECT_EQ(Drift(), "");
}

// VSK_AGGREGATED 2 on an underlying interface: the first such client has its own dynamic
// record and is never cached; a later one takes the first client's dynamic id, and its list
// changes that record in place (named values replaced, new names added, the others kept).
// Naming an underlying session as well is refused, nothing stored.
TEST_F(BundleTest, SharedUnderlyingInterfaceUsesTheFirstClientsRecord) {
  AttrList first_attrs{{VSK_USER_NAME, "first"}};
  SharedOn(first_attrs, "ae0");
  DynList first_dyn{{"kelvo-a", "1"}, {"kelvo-b", "22"}};
  vsk_session_ids_t ids{};
  ids.shm_offset = 0xbeef;
  ASSERT_EQ(vsk_create_extended_client_session(2, first_attrs.get(), nullptr, first_dyn.get(), &ids,
                                               &kUseCache, nullptr),
            0);
  const uint64_t first = ids.session_id;
  EXPECT_EQ(ids.shm_offset, 0xbeef) << "no cache position is taken";
  EXPECT_FALSE(vsk_is_session_in_shm(first, shm_));
  EXPECT_EQ(DynamicIdOf(first), first);
  EXPECT_EQ(RawDynamicRow(first), EncodedDynamic(first_dyn));

  AttrList second_attrs{{VSK_USER_NAME, "second"}};
  SharedOn(second_attrs, "ae0");
  DynList second_dyn{{"kelvo-a", "7"}, {"kelvo-z", "9"}};
  const uint64_t second = CreateOn(0, second_attrs, &second_dyn, nullptr, true);
  ASSERT_NE(second, 0u) << traces().Dump();
  EXPECT_FALSE(vsk_is_session_in_shm(second, shm_));
  EXPECT_EQ(DynamicIdOf(second), first);
  DynList want{{"kelvo-a", "7"}, {"kelvo-b", "22"}, {"kelvo-z", "9"}};
  EXPECT_EQ(RawDynamicRow(first), EncodedDynamic(want));
  EXPECT_EQ(RawDynamicRow(second), "st" + std::to_string(DB_NOTFOUND));

  // Another interface with no client yet, and VSK_AGGREGATED 2 with no interface at all:
  // each has its own record, and neither is cached.
  AttrList lone{{VSK_USER_NAME, "lone"}};
  SharedOn(lone, "ae1");
  AttrList bare{{VSK_AGGREGATED, U32(2)}};
  DynList own{{"kelvo-own", "x"}};
  uint64_t lone_id = 0;
  for (AttrList* attrs : {&lone, &bare}) {
    const uint64_t id = CreateOn(0, *attrs, &own, nullptr, true);
    ASSERT_NE(id, 0u);
    EXPECT_FALSE(vsk_is_session_in_shm(id, shm_));
    EXPECT_EQ(DynamicIdOf(id), id);
    EXPECT_EQ(RawDynamicRow(id), EncodedDynamic(own));
    if (lone_id == 0) lone_id = id;
  }

  // Both ways at once, with a list: -6, and the id it took holds nothing.
  const std::string shared_row = RawDynamicRow(first);
  AttrList both{{VSK_USER_NAME, "both"}};
  SharedOn(both, "ae0");
  DynList both_dyn{{"kelvo-a", "0"}};
  traces().Clear();
  vsk_status_t st = 0;
  EXPECT_EQ(CreateOn(first, both, &both_dyn, nullptr, false, &st), 0u);
  EXPECT_EQ(st, VSK_ERR_INVALID_PARAM);
  EXPECT_EQ(traces().CountContaining("names dynamic session"), 1) << traces().Dump();
  EXPECT_EQ(Row(vsk_id_get_last(), VSK_USER_NAME), "st-7");
  EXPECT_EQ(RawDynamicRow(first), shared_row);
  // Without a list the two ways combine, and the first client's dynamic id wins over the
  // named session's.
  AttrList both_plain{{VSK_USER_NAME, "both-plain"}};
  SharedOn(both_plain, "ae0");
  const uint64_t bp = CreateOn(lone_id, both_plain, nullptr);
  ASSERT_NE(bp, 0u);
  EXPECT_EQ(DynamicIdOf(bp), first);
  EXPECT_EQ(Drift(), "");
}

}  // namespace
}  // namespace vsk::test
