// Summary counters in one process: slot mapping, wraparound, private records and the
// stand-alone reader.
#include <cstring>

#include "platform/product_info.h"
#include "shared_fixture.h"
#include "vsk/status.h"

namespace vsk::test {
namespace {

class SummaryCounterTest : public SharedTest {
 protected:
  uint32_t Slot(int n) const { return vsk_summary_counter[n]; }
};

TEST(SummaryCounterMapping, SlotsFollowTheUnsignedRules) {
  using Map = uint32_t (*)(int32_t);
  struct Case {
    Map map;
    int32_t value;
    uint32_t slot;
  } cases[] = {
      {vsk_session_state_to_summary_counter, 0, 1},
      {vsk_session_state_to_summary_counter, 4, 5},
      {vsk_session_state_to_summary_counter, 5, 6},
      {vsk_session_state_to_summary_counter, 200, 6},
      {vsk_session_state_to_summary_counter, -1, 0},
      {vsk_session_state_to_summary_counter, -2, 6},
      {vsk_session_ifl_type_to_summary_counter, 0, 24},
      {vsk_session_ifl_type_to_summary_counter, 3, 27},
      {vsk_session_ifl_type_to_summary_counter, -1, 23},
      {vsk_session_config_bit_to_summary_counter, 0, 28},
      {vsk_session_config_bit_to_summary_counter, 20, 48},
      {vsk_session_config_bit_to_summary_counter, -1, 27},
  };
  for (const Case& c : cases) EXPECT_EQ(c.map(c.value), c.slot) << c.value;
  for (auto [type, slot] : {std::pair<uint32_t, uint32_t>{0, 8},
                            {1, 9},
                            {2, 10},
                            {3, 10},
                            {0x1000, 21},
                            {0x1FFF, 21},
                            {0x2000, 22},
                            {0x80000000u, 22}}) {
    EXPECT_EQ(vsk_session_type_to_summary_counter(type), slot) << type;
  }
}

TEST_F(SummaryCounterTest, DetachedProcessNeedsAPrivateRecord) {
  uint32_t dest[VSK_SUMMARY_COUNTER_SLOTS];
  std::memset(dest, 0xAB, sizeof dest);
  EXPECT_EQ(vsk_get_summary_counters(dest), -2);
  EXPECT_EQ(dest[0], 0xABABABABu);

  uint32_t record[VSK_SUMMARY_COUNTER_SLOTS] = {};
  EXPECT_EQ(vsk_summary_counter_increment_total(record), 0);
  EXPECT_EQ(vsk_summary_counter_increment_state(2, record), 0);
  EXPECT_EQ(vsk_summary_counter_increment_type(4, record), 0);
  EXPECT_EQ(vsk_summary_counter_increment_ifl_type(1, record), 0);
  const uint8_t bits[1] = {0x05};
  EXPECT_EQ(vsk_summary_counter_increment_config_bits(bits, 1, record), 0);
  EXPECT_EQ(record[0], 1u);
  EXPECT_EQ(record[3], 1u);
  EXPECT_EQ(record[7], 1u);
  EXPECT_EQ(record[11], 1u);
  EXPECT_EQ(record[23], 1u);
  EXPECT_EQ(record[25], 1u);
  EXPECT_EQ(record[28], 1u);
  EXPECT_EQ(record[30], 1u);

  EXPECT_EQ(vsk_summary_counter_increment_total(nullptr), -2);
  EXPECT_EQ(vsk_summary_counter_decrement_total(), -2);
  EXPECT_EQ(vsk_summary_counter_decrement_state(2), -2);
  EXPECT_EQ(vsk_summary_counter_decrement_type(4), -2);
  EXPECT_EQ(vsk_summary_counter_decrement_ifl_type(1), -2);
  EXPECT_EQ(vsk_summary_counter_decrement_config_bits(bits, 1), -2);
  EXPECT_EQ(vsk_subscribers_present(), 0);  // no segment to open
}

TEST_F(SummaryCounterTest, ChangesLandInTheMappedSlotsAndTheirSums) {
  ASSERT_EQ(OpenAsCreator(), 0);
  EXPECT_EQ(vsk_summary_counter_increment_state(1, nullptr), 0);
  EXPECT_EQ(vsk_summary_counter_increment_state(9, nullptr), 0);
  EXPECT_EQ(vsk_summary_counter_increment_type(0x10, nullptr), 0);
  EXPECT_EQ(vsk_summary_counter_increment_ifl_type(7, nullptr), 0);
  EXPECT_EQ(Slot(2), 1u);
  EXPECT_EQ(Slot(6), 1u);
  EXPECT_EQ(Slot(7), 2u);
  EXPECT_EQ(Slot(13), 1u);
  EXPECT_EQ(Slot(23), 1u);
  EXPECT_EQ(Slot(27), 1u);
  EXPECT_EQ(vsk_summary_counter_decrement_state(9), 0);
  EXPECT_EQ(Slot(6), 0u);
  EXPECT_EQ(Slot(7), 1u);

  // A state of -1 maps to the total, so the total moves twice.
  EXPECT_EQ(vsk_summary_counter_increment_state(-1, nullptr), 0);
  EXPECT_EQ(Slot(0), 1u);
  EXPECT_EQ(Slot(7), 2u);

  // No zero test: a decrement below zero wraps.
  EXPECT_EQ(vsk_summary_counter_decrement_ifl_type(0), 0);
  EXPECT_EQ(Slot(24), 0xFFFFFFFFu);
  EXPECT_EQ(vsk_summary_counter_increment_ifl_type(0, nullptr), 0);
  EXPECT_EQ(Slot(24), 0u);

  uint32_t copy[VSK_SUMMARY_COUNTER_SLOTS];
  ASSERT_EQ(vsk_get_summary_counters(copy), 0);
  EXPECT_EQ(std::memcmp(copy, vsk_get_shm_ptr(VSK_SHM_SUMMARY_COUNTER_OFFSET), sizeof copy), 0);
}

TEST_F(SummaryCounterTest, ConfigBitsAreCountedUpToBit18Only) {
  ASSERT_EQ(OpenAsCreator(), 0);
  // Bits 0, 9, 18 and 19 set in a 4-byte bitmap: bit 19 is beyond the counted range.
  const uint8_t bitmap[4] = {0x01, 0x02, 0x0C, 0x00};
  EXPECT_EQ(vsk_summary_counter_increment_config_bits(bitmap, 4, nullptr), 0);
  EXPECT_EQ(Slot(28), 1u);
  EXPECT_EQ(Slot(37), 1u);
  EXPECT_EQ(Slot(46), 1u);
  EXPECT_EQ(Slot(47), 0u);
  EXPECT_EQ(Slot(48), 0u);

  // Two bytes cover bits 0 to 15 only; the third byte is not read.
  EXPECT_EQ(vsk_summary_counter_increment_config_bits(bitmap, 2, nullptr), 0);
  EXPECT_EQ(Slot(28), 2u);
  EXPECT_EQ(Slot(37), 2u);
  EXPECT_EQ(Slot(46), 1u);

  EXPECT_EQ(vsk_summary_counter_increment_config_bits(bitmap, 0, nullptr), 0);
  EXPECT_EQ(vsk_summary_counter_increment_config_bits(bitmap, -3, nullptr), 0);
  EXPECT_EQ(vsk_summary_counter_decrement_config_bits(bitmap, 4), 0);
  EXPECT_EQ(Slot(28), 1u);
  EXPECT_EQ(Slot(37), 1u);
  EXPECT_EQ(Slot(46), 0u);
}

TEST_F(SummaryCounterTest, SubscribersPresentIsTheLowestByteOfSlot23) {
  ASSERT_EQ(OpenAsCreator(), 0);
  EXPECT_EQ(vsk_subscribers_present(), 0);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(vsk_summary_counter_increment_type(1, nullptr), 0);
  EXPECT_EQ(Slot(23), 256u);
  EXPECT_EQ(vsk_subscribers_present(), 0);
  ASSERT_EQ(vsk_summary_counter_increment_type(2, nullptr), 0);
  EXPECT_EQ(vsk_subscribers_present(), 1);

  // A process that never registered reads through a stand-alone attach and leaves again.
  ChildResult reader = RunInChild([] {
    vsk_summary_counter_close();  // drop what the fork inherited
    if (vsk_get_shm_ptr(0) != nullptr) return 1;
    if (vsk_subscribers_present() != 1) return 2;
    if (vsk_summary_counter != nullptr || vsk_get_shm_ptr(0) != nullptr) return 3;
    if (vsk_summary_counter_open() != 0) return 4;
    uint32_t copy[VSK_SUMMARY_COUNTER_SLOTS];
    if (vsk_get_summary_counters(copy) != 0 || copy[23] != 257 || copy[9] != 256) return 5;
    vsk_summary_counter_close();
    return 0;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
}

TEST_F(SummaryCounterTest, StandAloneOpenFailsWithoutSegmentOrPlatform) {
  EXPECT_EQ(vsk_summary_counter_open(), -1);
  EXPECT_TRUE(traces().Contains("Failed to init shared memory"));
  ChildResult unsupported = RunInChild([] {
    setenv("VSK_MODEL_ID", "none", 1);
    platform::ResetProductInfo();
    return vsk_summary_counter_open() == VSK_ERR_UNSUPPORTED ? 0 : 1;
  });
  EXPECT_TRUE(unsupported.Ok()) << unsupported;
}

}  // namespace
}  // namespace vsk::test
