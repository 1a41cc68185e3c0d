// Unit number pools in one process: the free list in shared memory, recovery, exhaustion,
// the bounds, the operator dump; plus the text helpers around unit numbers.
#include <cstring>
#include <string>

#include "shared_fixture.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

// Reads pool 1 straight from the segment, as another process would.
struct PoolWords {
  uint32_t max;
  int32_t head;
  int32_t tail;
  int32_t entry[1];  // really max entries
};

class UnitPoolTest : public SharedTest {
 protected:
  void SetUp() override {
    SharedTest::SetUp();
    ASSERT_EQ(OpenAsCreator(), 0);
  }
  PoolWords* Uid() { return static_cast<PoolWords*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL1_OFFSET)); }
  const int32_t* Entries() {
    return reinterpret_cast<const int32_t*>(
        static_cast<uint8_t*>(vsk_get_shm_ptr(VSK_SHM_UNIT_POOL1_OFFSET)) + 12);
  }
  // A listed pool 1 of `max` entries with the given units in use.
  void Listed(int32_t max, std::initializer_list<uint32_t> in_use = {}) {
    vsk_unit_init(max, true, VSK_UNIT_POOL_UID);
    for (uint32_t unit : in_use) ASSERT_EQ(vsk_unit_recover(unit, VSK_UNIT_POOL_UID), 0);
    vsk_unit_recovered(VSK_UNIT_POOL_UID);
  }
  std::string Dump(uint32_t type) {
    testing::internal::CaptureStdout();
    vsk_dump_pool(type);
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(UnitPoolTest, PoolSizesMatchTheSegmentLayout) {
  EXPECT_EQ(vsk_unit_get_memory_size(0), 12u);
  EXPECT_EQ(VSK_SHM_UNIT_POOL0_OFFSET + vsk_unit_get_memory_size(VSK_UNIT_POOL_IFL_MAX),
            uint32_t{VSK_SHM_UNIT_POOL1_OFFSET});
  EXPECT_EQ(VSK_SHM_UNIT_POOL1_OFFSET + vsk_unit_get_memory_size(VSK_UNIT_POOL_UID_MAX),
            uint32_t{VSK_SHM_SUMMARY_COUNTER_OFFSET});
}

TEST_F(UnitPoolTest, RecoveryChainsFreeEntriesInAscendingOrder) {
  // Formatting marks nothing in use and makes no list yet.
  vsk_unit_init(4, true, VSK_UNIT_POOL_UID);
  EXPECT_EQ(Uid()->head, 0);
  EXPECT_EQ(Uid()->tail, 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Entries()[i], 0);
  Listed(4, {1000, 1002});
  EXPECT_EQ(Uid()->head, 1);
  EXPECT_EQ(Entries()[1], 3);
  EXPECT_EQ(Uid()->tail, 3);
  EXPECT_EQ(Entries()[3], -1);
  EXPECT_EQ(Dump(VSK_UNIT_POOL_UID),
            "unit number allocator {\nmax unit number = 4\nhead = 1\ntail = 3\nmaster = 0\n"
            "allocated = {\n0\n2\n}\n}\n");
  vsk_db_set_master(true);
  EXPECT_NE(Dump(VSK_UNIT_POOL_UID).find("\nmaster = 1\n"), std::string::npos);

  // Every unit in use: no list at all.
  Listed(2, {1000, 1001});
  EXPECT_EQ(Uid()->head, -1);
  EXPECT_EQ(Uid()->tail, -1);
  uint32_t unit = 0;
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -5);
}

TEST_F(UnitPoolTest, ExhaustionAndReleaseGoThroughHeadAndTail) {
  Listed(4);
  uint32_t unit = 0;
  for (uint32_t expect = 1000; expect < 1004; ++expect) {
    ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0);
    EXPECT_EQ(unit, expect);
  }
  EXPECT_EQ(Uid()->head, -1);
  EXPECT_EQ(Uid()->tail, -1);
  unit = 77;
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -5);
  EXPECT_EQ(unit, 77u);

  ASSERT_EQ(vsk_unit_release(1002, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(Uid()->head, 2);
  EXPECT_EQ(Uid()->tail, 2);
  ASSERT_EQ(vsk_unit_release(1000, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(Uid()->head, 2);
  EXPECT_EQ(Uid()->tail, 0);
  // Released numbers come back in the order they were freed.
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(unit, 1002u);
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(unit, 1000u);
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_UNIT, GETVAL), 1);
}

TEST_F(UnitPoolTest, ReleaseOfAFreeUnitIsRefusedAndChangesNothing) {
  Listed(4);
  uint32_t unit = 0;
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0);  // 1000
  uint8_t before[12 + 4 * 4];
  std::memcpy(before, Uid(), sizeof before);
  EXPECT_EQ(vsk_unit_release(1001, VSK_UNIT_POOL_UID), -2);
  EXPECT_EQ(vsk_unit_release(1002, VSK_UNIT_POOL_UID), -2);
  EXPECT_EQ(std::memcmp(before, Uid(), sizeof before), 0);
  // The tail's entry reads -1 like an allocated one, so a second release of the tail is
  // not caught: it links the tail to itself.
  EXPECT_EQ(vsk_unit_release(1003, VSK_UNIT_POOL_UID), 0);
  EXPECT_EQ(Entries()[3], 3);
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_UNIT, GETVAL), 1);
}

TEST_F(UnitPoolTest, NumbersOutsideThePoolAreRefused) {
  Listed(4);
  EXPECT_EQ(vsk_unit_release(999, VSK_UNIT_POOL_UID), -1);   // below: wraps to a huge index
  EXPECT_EQ(vsk_unit_release(1005, VSK_UNIT_POOL_UID), -1);  // beyond max
  EXPECT_EQ(vsk_unit_recover(1005, VSK_UNIT_POOL_UID), -1);
  EXPECT_EQ(vsk_unit_release(1000, 2), -1);
  EXPECT_TRUE(traces().Contains("vsk_unit_release: type=2 out of range"));
  uint32_t unit = 0;
  EXPECT_EQ(vsk_unit_allocate(&unit, 7), -1);
  EXPECT_TRUE(traces().Contains("vsk_unit_allocate: type=7 out of range"));
  traces().Clear();
  EXPECT_EQ(Dump(3), "");
  EXPECT_TRUE(traces().Contains("vsk_dump_pool: type=3 out of range"));
  vsk_unit_init(4, true, 5);
  EXPECT_TRUE(traces().Contains("vsk_unit_init: type=5 out of range"));
  // A max that does not fit the pool's room is refused rather than written past it.
  vsk_unit_init(VSK_UNIT_POOL_UID_MAX + 1, true, VSK_UNIT_POOL_UID);
  EXPECT_EQ(Uid()->max, 4u);
}

// Release and recover let an index equal to `max` through with the status a pool gives
// it, but its entry would lie behind the pool: in the next pool's header or a counter.
TEST_F(UnitPoolTest, IndexAtMaxGetsItsStatusButWritesNothingBehindThePool) {
  struct Case {
    uint32_t type;
    int32_t max;
    uint32_t first;
    int32_t foreign_offset;  // the word where entry[max] would be
  } cases[] = {
      {VSK_UNIT_POOL_IFL, VSK_UNIT_POOL_IFL_MAX, VSK_UNIT_POOL_IFL_FIRST,
       VSK_SHM_UNIT_POOL1_OFFSET},
      {VSK_UNIT_POOL_UID, VSK_UNIT_POOL_UID_MAX, VSK_UNIT_POOL_UID_FIRST,
       VSK_SHM_SUMMARY_COUNTER_OFFSET},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    vsk_unit_init(c.max, true, c.type);
    vsk_unit_recovered(c.type);
    auto* foreign = static_cast<int32_t*>(vsk_get_shm_ptr(c.foreign_offset));
    auto* pool = static_cast<PoolWords*>(
        vsk_get_shm_ptr(c.type == 0 ? VSK_SHM_UNIT_POOL0_OFFSET : VSK_SHM_UNIT_POOL1_OFFSET));
    const uint32_t at_max = c.first + static_cast<uint32_t>(c.max);
    for (int32_t word : {0x1234, -1}) {
      *foreign = word;
      const int32_t tail = pool->tail;
      EXPECT_EQ(vsk_unit_recover(at_max, c.type), 0);
      // A word reading -1 looks like an allocated entry: the release goes through.
      EXPECT_EQ(vsk_unit_release(at_max, c.type), word == -1 ? 0 : -2);
      EXPECT_EQ(*foreign, word);
      EXPECT_EQ(pool->tail, tail) << "the list must not end behind the pool";
    }
    *foreign = 0;
  }
  EXPECT_EQ(Uid()->max, uint32_t{VSK_UNIT_POOL_UID_MAX});
}

TEST_F(UnitPoolTest, DetachedPoolIsReportedNotTouched) {
  uint32_t unit = 0;
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL), -1);
  EXPECT_EQ(vsk_unit_release(0x40000000, VSK_UNIT_POOL_IFL), -1);
  vsk_unit_recovered(VSK_UNIT_POOL_IFL);
  EXPECT_EQ(Dump(VSK_UNIT_POOL_IFL), "");
  for (const char* fn : {"vsk_unit_allocate", "vsk_unit_release", "vsk_dump_pool"}) {
    EXPECT_TRUE(traces().Contains(std::string(fn) + ": unit_allocator[type] is NULL")) << fn;
  }
  EXPECT_TRUE(traces().Contains("vsk_unit_recovered: unit_allocator[0] is NULL"));
  Listed(4);
  vsk_unit_allocator_detach(VSK_UNIT_POOL_UID);
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -1);
  EXPECT_EQ(Uid()->head, 0);
}

TEST_F(UnitPoolTest, InterfacePoolHandsOutUnitsFrom0x40000000) {
  vsk_unit_init(VSK_UNIT_POOL_IFL_MAX, true, VSK_UNIT_POOL_IFL);
  ASSERT_EQ(vsk_unit_recover(0x40000000, VSK_UNIT_POOL_IFL), 0);
  vsk_unit_recovered(VSK_UNIT_POOL_IFL);
  uint32_t unit = 0;
  ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL), 0);
  EXPECT_EQ(unit, 0x40000001u);
  // The UID pool behind it is untouched by the interface pool's formatting.
  EXPECT_EQ(Uid()->max, 0u);
  EXPECT_EQ(vsk_unit_release(0x40000005, VSK_UNIT_POOL_IFL), -2);  // still free
  EXPECT_EQ(Uid()->max, 0u);
}

TEST(UnitText, ParseItoaAndInterfaceNames) {
  // Leading digits only, no sign, no overflow check; null is -1.
  for (auto [text, value] : {std::pair<const char*, int32_t>{"12ab", 12},
                             {"ab", 0},
                             {"", 0},
                             {nullptr, -1},
                             {"1073741824", 0x40000000},
                             {"-5", 0},
                             {"4294967295", -1}}) {
    EXPECT_EQ(vsk_unit_parse(text), value) << (text != nullptr ? text : "null");
  }
  char text[12];
  for (uint32_t unit : {0u, 1073741824u, 0xFFFFFFFFu}) {
    vsk_unit_itoa(unit, text);
    EXPECT_EQ(std::string(text), std::to_string(unit));
  }
  // Split at the last point; without one the unit is left as it was; a name shorter than
  // two characters writes nothing.
  struct Case {
    const char* name;
    const char* device;
    const char* unit;
  } cases[] = {{"x-0/0/1.100", "x-0/0/1", "100"},
               {"a.b.c", "a.b", "c"},
               {"ge-1/2/3", "ge-1/2/3", "keep"},
               {"a", "", "keep"},
               {nullptr, "", "keep"}};
  for (const Case& c : cases) {
    char device[32] = {};
    char unit[32] = "keep";
    vsk_parse_ifd_name(c.name, device, unit);
    EXPECT_STREQ(device, c.device) << (c.name != nullptr ? c.name : "null");
    EXPECT_STREQ(unit, c.unit);
  }
}

}  // namespace
}  // namespace vsk::test
