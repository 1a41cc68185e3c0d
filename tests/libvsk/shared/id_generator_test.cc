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

TEST_F(IdGeneratorTest, ConcurrentProcessesDrawUniqueIdsWithoutGaps) {
  ASSERT_EQ(OpenAsCreator(), 0);
  constexpr int kWorkers = 4;
  constexpr int kPerWorker = 2000;
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    // Each worker attaches on its own, as a client daemon does.
    SetProgramName("vsk-client");
    if (vsk_open_internal(false) != 0) return 1;
    std::vector<vsk_session_id_t> ids;
    for (int i = 0; i < kPerWorker; ++i) {
      vsk_session_id_t id = 0;
      if (vsk_id_generate(&id) != 0) return 2;
      ids.push_back(id);
    }
    return WriteNumbers(ResultFile(k), ids) ? 0 : 3;
  }));
  std::set<vsk_session_id_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    auto ids = ReadNumbers<vsk_session_id_t>(ResultFile(k));
    ASSERT_EQ(ids.size(), size_t{kPerWorker});
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "ids of one process ascend";
    all.insert(ids.begin(), ids.end());
  }
  ASSERT_EQ(all.size(), size_t{kWorkers * kPerWorker}) << "an id was handed out twice";
  EXPECT_EQ(*all.begin(), 1u);
  EXPECT_EQ(*all.rbegin(), vsk_session_id_t{kWorkers * kPerWorker});
  EXPECT_EQ(vsk_id_get_last(), vsk_session_id_t{kWorkers * kPerWorker});
  EXPECT_EQ(semctl(SemaphoreSet(), VSK_LOCK_ID, GETVAL), 1);
}

}  // namespace
}  // namespace vsk::test
