// Unit number pools: the free list in shared memory, recovery, exhaustion, the operator dump
// and several processes allocating at once; plus the text helpers around unit numbers.
#include <cstring>
#include <set>
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

TEST_F(UnitPoolTest, FormattingMarksNothingInUse) {
  vsk_unit_init(4, true, VSK_UNIT_POOL_UID);
  EXPECT_EQ(Uid()->max, 4u);
  EXPECT_EQ(Uid()->head, 0);
  EXPECT_EQ(Uid()->tail, 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Entries()[i], 0);
  // Attaching without formatting keeps what is there.
  Uid()->head = 3;
  vsk_unit_init(4, false, VSK_UNIT_POOL_UID);
  EXPECT_EQ(Uid()->head, 3);
}

TEST_F(UnitPoolTest, RecoveryChainsFreeEntriesInAscendingOrder) {
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
  EXPECT_TRUE(traces().Contains("vsk_unit_allocate: unit_allocator[type] is NULL"));
  EXPECT_EQ(vsk_unit_release(0x40000000, VSK_UNIT_POOL_IFL), -1);
  EXPECT_TRUE(traces().Contains("vsk_unit_release: unit_allocator[type] is NULL"));
  vsk_unit_recovered(VSK_UNIT_POOL_IFL);
  EXPECT_TRUE(traces().Contains("vsk_unit_recovered: unit_allocator[0] is NULL"));
  EXPECT_EQ(Dump(VSK_UNIT_POOL_IFL), "");
  EXPECT_TRUE(traces().Contains("vsk_dump_pool: unit_allocator[type] is NULL"));

  Listed(4);
  vsk_unit_allocator_detach(VSK_UNIT_POOL_UID);
  vsk_unit_allocator_detach(9);  // out of range: nothing happens
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

TEST_F(UnitPoolTest, ConcurrentProcessesGetUniqueUnitsThatComeBack) {
  Listed(VSK_UNIT_POOL_UID_MAX);
  constexpr int kWorkers = 3;
  constexpr int kPerWorker = 3000;
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    SetProgramName("vsk-client");
    if (vsk_open_internal(false) != 0) return 1;
    vsk_unit_init(VSK_UNIT_POOL_UID_MAX, false, VSK_UNIT_POOL_UID);
    std::vector<uint32_t> units;
    for (int i = 0; i < kPerWorker; ++i) {
      uint32_t unit = 0;
      if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) != 0) return 2;
      units.push_back(unit);
    }
    if (!WriteNumbers(ResultFile(k), units)) return 3;
    for (uint32_t unit : units) {
      if (vsk_unit_release(unit, VSK_UNIT_POOL_UID) != 0) return 4;
    }
    return 0;
  }));
  std::set<uint32_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint32_t unit : ReadNumbers<uint32_t>(ResultFile(k))) {
      EXPECT_GE(unit, 1000u);
      EXPECT_LT(unit, 1000u + VSK_UNIT_POOL_UID_MAX);
      all.insert(unit);
    }
  }
  EXPECT_EQ(all.size(), size_t{kWorkers * kPerWorker}) << "a unit was handed out twice";
  // Every unit is back: the whole pool can be drawn once more, and then it is empty.
  std::set<uint32_t> again;
  uint32_t unit = 0;
  for (int i = 0; i < VSK_UNIT_POOL_UID_MAX; ++i) {
    ASSERT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), 0) << i;
    again.insert(unit);
  }
  EXPECT_EQ(again.size(), size_t{VSK_UNIT_POOL_UID_MAX});
  EXPECT_EQ(vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID), -5);
}

TEST(UnitText, ParseTakesLeadingDigitsOnly) {
  EXPECT_EQ(vsk_unit_parse("12ab"), 12);
  EXPECT_EQ(vsk_unit_parse("ab"), 0);
  EXPECT_EQ(vsk_unit_parse(""), 0);
  EXPECT_EQ(vsk_unit_parse(nullptr), -1);
  EXPECT_EQ(vsk_unit_parse("1073741824"), 0x40000000);
  EXPECT_EQ(vsk_unit_parse("-5"), 0);  // no sign
}

TEST(UnitText, ItoaWritesUnsignedDecimal) {
  char text[12];
  vsk_unit_itoa(0, text);
  EXPECT_STREQ(text, "0");
  vsk_unit_itoa(1073741824u, text);
  EXPECT_STREQ(text, "1073741824");
  vsk_unit_itoa(0xFFFFFFFFu, text);
  EXPECT_STREQ(text, "4294967295");
  EXPECT_EQ(vsk_unit_parse(text), -1);  // wraps back through the unsigned value
}

TEST(UnitText, InterfaceNameSplitsAtTheLastPoint) {
  char device[32] = {};
  char unit[32] = {};
  vsk_parse_ifd_name("x-0/0/1.100", device, unit);
  EXPECT_STREQ(device, "x-0/0/1");
  EXPECT_STREQ(unit, "100");

  std::memset(device, 0, sizeof device);
  vsk_parse_ifd_name("a.b.c", device, unit);
  EXPECT_STREQ(device, "a.b");
  EXPECT_STREQ(unit, "c");

  std::memset(device, 0, sizeof device);
  std::strcpy(unit, "keep");
  vsk_parse_ifd_name("ge-1/2/3", device, unit);
  EXPECT_STREQ(device, "ge-1/2/3");
  EXPECT_STREQ(unit, "keep");

  std::strcpy(device, "dev");
  vsk_parse_ifd_name("a", device, unit);
  vsk_parse_ifd_name(nullptr, device, unit);
  EXPECT_STREQ(device, "dev");
  EXPECT_STREQ(unit, "keep");
}

}  // namespace
}  // namespace vsk::test
