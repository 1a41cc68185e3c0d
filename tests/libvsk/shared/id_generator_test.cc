// The session id generator seen by several real processes, and its wrap rules.
#include <algorithm>
#include <set>

#include "shared_fixture.h"

namespace vsk::test {
namespace {

class IdGeneratorTest : public SharedTest {};

TEST_F(IdGeneratorTest, DetachedGeneratorAnswersWithoutTouchingMemory) {
  EXPECT_EQ(vsk_id_get_last(), 0u);
  EXPECT_EQ(vsk_id_update(42), -1);
  vsk_session_id_t id = 7;
  EXPECT_EQ(vsk_id_generate(&id), -1);
  EXPECT_EQ(id, 7u);
  EXPECT_EQ(vsk_id_recover(5), -1);
}

TEST_F(IdGeneratorTest, FirstIdIsOneAndTheWordIsTheSegmentsFirstEightBytes) {
  ASSERT_EQ(OpenAsCreator(), 0);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 1u);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 2u);
  EXPECT_EQ(*static_cast<uint64_t*>(vsk_get_shm_ptr(0)), 2u);
  EXPECT_EQ(vsk_id_get_last(), 2u);
}

TEST_F(IdGeneratorTest, WrapsFromTheTopToOneAndKeepsTheCarry) {
  ASSERT_EQ(OpenAsCreator(), 0);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_id_update(0x7FFFFFFFFFFFFFFEull), 0);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 0x7FFFFFFFFFFFFFFFull);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 1u);

  // A word with the top bit set (written by another program) still yields a valid id.
  ASSERT_EQ(vsk_id_update(0xFFFFFFFFFFFFFFFFull), 0);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 1u);
  ASSERT_EQ(vsk_id_update(0x8000000000000004ull), 0);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 5u);

  ASSERT_EQ(vsk_id_update(0xFFFFFFFFull), 0);
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 0x100000000ull);
  auto* words = static_cast<uint32_t*>(vsk_get_shm_ptr(0));
  EXPECT_EQ(words[0], 0u);  // low word first
  EXPECT_EQ(words[1], 1u);
}

TEST_F(IdGeneratorTest, RecoverOnlyRaises) {
  ASSERT_EQ(OpenAsCreator(), 0);
  ASSERT_EQ(vsk_id_update(7), 0);
  EXPECT_EQ(vsk_id_recover(5), 0);
  EXPECT_EQ(vsk_id_get_last(), 7u);
  ASSERT_EQ(vsk_id_update(3), 0);
  EXPECT_EQ(vsk_id_recover(5), 0);
  EXPECT_EQ(vsk_id_get_last(), 5u);
  // The comparison is unsigned: a huge id wins.
  EXPECT_EQ(vsk_id_recover(0x7FFFFFFFFFFFFFF0ull), 0);
  EXPECT_EQ(vsk_id_get_last(), 0x7FFFFFFFFFFFFFF0ull);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_id_generate(&id), 0);
  EXPECT_EQ(id, 0x7FFFFFFFFFFFFFF1ull);
}

}  // namespace
}  // namespace vsk::test
