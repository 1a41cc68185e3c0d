// The session cache in the real snapshot segment: the bytes of a slot and its blocks, the
// limits of every block, the flag-word protocol across real processes (a reader stuck
// with its bits set, a writer killed inside a slot), updates, records built from a slot,
// and reads of corrupted slots.
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "shared_fixture.h"
#include "support/attr_lists.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

class CacheTest : public SharedTest {
 protected:
  void SetUp() override {
    SharedTest::SetUp();
    ASSERT_EQ(OpenAsCreator(), 0);
    shm_ = vsk_snap_get_shared_memory_ptr();
    ASSERT_NE(shm_, nullptr);
    traces().Clear();
  }

  uint8_t* SlotBytes(uint64_t id) { return static_cast<uint8_t*>(shm_) + ((id - 1) % 1500) * 3000; }
  uint8_t* AuthBytes(uint64_t id, bool request) {
    return static_cast<uint8_t*>(shm_) + 8000000 + ((id - 1) % 1500) * 800 + (request ? 0 : 400);
  }
  template <typename T>
  static T At(const uint8_t* p, size_t offset) {
    T v;
    std::memcpy(&v, p + offset, sizeof v);
    return v;
  }
  std::string BytesAt(const uint8_t* p, size_t offset, size_t n) {
    return std::string(reinterpret_cast<const char*>(p + offset), n);
  }

  vsk_status_t Create(uint64_t id, AttrList& attrs, uint64_t dynamic_id = 0) {
    vsk_session_ids_t ids{id, 0, 0};
    return vsk_create_session_data_in_shm(&ids, dynamic_id, attrs.get(), shm_);
  }
  vsk_status_t Dynamic(uint64_t id, DynList& list, bool reset) {
    vsk_dynamic_config_t rec{};
    rec.attrs = list.get();
    return vsk_create_dynamic_data_in_shm(&rec, shm_, id, reset);
  }
  // The cached value of `type`, or the status as text.
  std::string Read(uint64_t id, uint16_t type) {
    uint16_t length = 0;
    void* value = nullptr;
    vsk_status_t st = vsk_get_session_data_from_shm(nullptr, shm_, type, &length, &value, id);
    return st == 0 ? std::string(static_cast<char*>(value), length) : "st" + std::to_string(st);
  }

  void* shm_ = nullptr;
};

TEST_F(CacheTest, SlotBlocksAndEntriesLieAtTheirOffsets) {
  AttrList attrs{{VSK_INTERFACE_NAME, Text("ge-0/0/0.100")},
                 {VSK_SESSION_STATE, U32(1)},
                 {VSK_INFO_ATTR, std::string("\x05\x00", 2)}};
  ASSERT_EQ(Create(5, attrs, 77), 0);
  DynList dyn;
  dyn.Add("kelvo-x", "ab", VSK_ARRAY_START_TLV);
  ASSERT_EQ(Dynamic(5, dyn, true), 0);
  AttrList auth{{VSK_USER_NAME, "bob"}, {VSK_RADIUS_ACCT_SESSION_ID, "acct"}};
  ASSERT_EQ(vsk_create_auth_req_resp_in_shm(auth.get(), shm_, 5, true), 0);

  const uint8_t* s = SlotBytes(5);
  EXPECT_EQ(s, static_cast<uint8_t*>(shm_) + 4 * 3000);
  EXPECT_EQ(At<uint64_t>(s, 0), 5u);
  EXPECT_EQ(At<uint64_t>(s, 8), 77u);
  EXPECT_EQ(At<uint16_t>(s, 16), 0) << "no flag left behind";
  // attr_offset[type] at byte 26 + 2 * type, in words; blocks of 8, 4 and 3 words.
  EXPECT_EQ(At<uint16_t>(s, 26 + 2 * VSK_INTERFACE_NAME), 276);
  EXPECT_EQ(At<uint16_t>(s, 26 + 2 * VSK_SESSION_STATE), 284);
  EXPECT_EQ(At<uint16_t>(s, 26 + 2 * VSK_INFO_ATTR), 288);
  EXPECT_EQ(At<uint16_t>(s, 274), 291) << "next_free";
  EXPECT_EQ(At<uint16_t>(s, 552), 13);
  EXPECT_EQ(BytesAt(s, 554, 14), Text("ge-0/0/0.100") + '\0');
  EXPECT_EQ(At<uint16_t>(s, 568), 4);
  EXPECT_EQ(At<uint32_t>(s, 570), 1u);
  // Dynamic block at 1600: end, start, then tag | name NUL | length | value | 0 0.
  EXPECT_EQ(At<uint16_t>(s, 1606), 24);
  EXPECT_EQ(At<uint16_t>(s, 1608), 10);
  EXPECT_EQ(BytesAt(s, 1610, 14), std::string("\x02kelvo-x\0\x02"
                                              "ab\0\0",
                                              14));
  // Request block: end, then type (2) | length | value | 0 0; the response stays clear.
  const uint8_t* req = AuthBytes(5, true);
  EXPECT_EQ(At<uint16_t>(req, 6), 27);
  EXPECT_EQ(BytesAt(req, 10, 18), std::string("\x11\0\x03"
                                              "bob\0\0\x22\0\x04"
                                              "acct\0\0",
                                              18));
  EXPECT_EQ(At<uint16_t>(AuthBytes(5, false), 10), 0);

  // A colliding id frees nothing; an empty slot's 0 is no session.
  vsk_clear_session_in_shm(1505, shm_);
  EXPECT_TRUE(vsk_is_session_in_shm(5, shm_));
  EXPECT_FALSE(vsk_is_session_in_shm(0, shm_));
  // The id block's cache position: slot x 1500 cut to 16 bits, as published.
  vsk_session_ids_t ids{1500, 0, 0};
  vsk_get_shared_mem(&ids);
  EXPECT_EQ(ids.shm_offset, (1499u * 1500u) & 0xFFFF);
}

TEST_F(CacheTest, EveryBlockTakesExactlyItsRoomAndRefusesOneByteMore) {
  struct Case {
    const char* what;
    uint32_t last_length;  // of the last entry; the earlier ones fill up to it
    vsk_status_t want;
  };
  // Dynamic block: four entries of 275 bytes, then 15 + L + 5 up to byte 1380; one length
  // byte says at most 255.
  AttrList none;
  for (Case c : {Case{"dynamic", 250, 0}, Case{"dynamic", 251, -24}, Case{"dyn 256", 256, -24}}) {
    ASSERT_EQ(Create(11, none), 0);
    DynList dyn;
    for (int i = 0; i < 4; ++i) dyn.Add(std::string(20, 'a' + i), std::string(250, 'x'));
    ASSERT_EQ(Dynamic(11, dyn, true), 0);
    EXPECT_EQ(At<uint16_t>(SlotBytes(11), 1606), 1110);
    EXPECT_EQ(vsk_put_dynamic_data_in_shm("fifth-entry-xyz", c.last_length,
                                          std::string(c.last_length, 'y').data(), 0, 11),
              c.want)
        << c.what;
    EXPECT_EQ(At<uint16_t>(SlotBytes(11), 1606), c.want == 0 ? 1380 : 1110);
    vsk_clear_session_in_shm(11, shm_);
  }
  // Request block: 10 + 255 after the first entry, then offset + L + 7 up to 380.
  for (Case c : {Case{"auth", 108, 0}, Case{"auth", 109, -24}}) {
    ASSERT_EQ(Create(12, none), 0);
    AttrList auth{{VSK_USER_NAME, std::string(250, 'u')},
                  {VSK_AGENT_CIRCUIT_ID, std::string(c.last_length, 'c')}};
    EXPECT_EQ(vsk_create_auth_req_resp_in_shm(auth.get(), shm_, 12, true), c.want) << c.what;
    EXPECT_EQ(At<uint16_t>(AuthBytes(12, true), 6), c.want == 0 ? 378 : 0);
    vsk_clear_session_in_shm(12, shm_);
  }
}

TEST_F(CacheTest, NeighbouringValuesOfOneTypeLoseTheSecondAndApartKeepTheLater) {
  AttrList neighbours{{VSK_USER_NAME, "first"}, {VSK_USER_NAME, "second"}};
  ASSERT_EQ(Create(20, neighbours), 0);
  EXPECT_EQ(Read(20, VSK_USER_NAME), "first");
  EXPECT_EQ(traces().Count("vsk_create_session_data_in_shm need semaphore for 20 flag"), 1);
  AttrList apart{{VSK_USER_NAME, "first"}, {VSK_PROFILE_NAME, "p"}, {VSK_USER_NAME, "later"}};
  traces().Clear();
  ASSERT_EQ(Create(21, apart), 0);
  EXPECT_EQ(Read(21, VSK_USER_NAME), "later");
  EXPECT_EQ(traces().CountContaining("need semaphore"), 0);
}

TEST_F(CacheTest, UpdatesRewriteInPlaceTakeNewBlocksAndNeverDelete) {
  AttrList attrs{{VSK_USER_NAME, "abcdef"}, {VSK_SESSION_STATE, U32(1)}};
  ASSERT_EQ(Create(30, attrs), 0);
  const uint8_t* s = SlotBytes(30);
  const uint16_t block = At<uint16_t>(s, 26 + 2 * VSK_USER_NAME);
  const uint16_t free = At<uint16_t>(s, 274);
  uint32_t state = 99;
  UpdateList shorter;
  shorter.Replace(VSK_USER_NAME, "ab")
      .Add(VSK_SESSION_STATE, VSK_ATTR_ACTION_ADD_OR_APPEND, U32(1));
  ASSERT_EQ(vsk_update_session_data_in_shm(30, shorter.get(), &state), 0);
  EXPECT_EQ(Read(30, VSK_USER_NAME), "ab");
  EXPECT_EQ(At<uint16_t>(s, 26 + 2 * VSK_USER_NAME), block) << "a shorter value keeps its block";
  EXPECT_EQ(state, 99u) << "an unchanged state is no new state";
  UpdateList longer;
  longer.Replace(VSK_SESSION_STATE, U32(2)).Replace(VSK_USER_NAME, "abcdefghij");
  ASSERT_EQ(vsk_update_session_data_in_shm(30, longer.get(), &state), 0);
  EXPECT_EQ(state, 2u);
  EXPECT_EQ(Read(30, VSK_USER_NAME), "abcdefghij");
  EXPECT_EQ(At<uint16_t>(s, 26 + 2 * VSK_USER_NAME), free) << "a longer value takes a new block";
  EXPECT_EQ(At<uint16_t>(s, 274), free + 7) << "and the old one is not reused";

  UpdateList del;
  del.Add(VSK_USER_NAME, VSK_ATTR_ACTION_DELETE, "");
  EXPECT_EQ(vsk_update_session_data_in_shm(30, del.get(), &state), 0);
  EXPECT_EQ(Read(30, VSK_USER_NAME), "abcdefghij") << "a cached attribute cannot be deleted";
  vsk_attr_update_t blind{};
  blind.type = VSK_USER_NAME, blind.action = VSK_ATTR_ACTION_DELETE, blind.length = 3;
  vsk_attr_update_list_t no_value{&blind, &blind.next};
  EXPECT_EQ(vsk_update_session_data_in_shm(30, &no_value, &state), -6);
  EXPECT_EQ(traces().CountContaining("Deleting attribute without providing old value\n"), 1);
  // Config bits: a SET_BITS mask fills an absent block, and leaves a present one alone.
  UpdateList bits;
  bits.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_SET_BITS, "\x03");
  ASSERT_EQ(vsk_update_session_data_in_shm(30, bits.get(), nullptr), 0);
  UpdateList more_bits;
  more_bits.Add(VSK_INFO_ATTR, VSK_ATTR_ACTION_SET_BITS, "\x0c");
  ASSERT_EQ(vsk_update_session_data_in_shm(30, more_bits.get(), nullptr), 0);
  EXPECT_EQ(Read(30, VSK_INFO_ATTR), "\x03");
  // Bad entries: a type out of range is a clear -6, not an abort; the area never overflows.
  UpdateList bad;
  bad.Replace(VSK_TYPE_MAX, "x");
  EXPECT_EQ(vsk_update_session_data_in_shm(30, bad.get(), nullptr), -6);
  EXPECT_EQ(traces().CountContaining("assertion 'attr_type < VSK_TYPE_MAX' failed"), 1);
  UpdateList huge;
  huge.Replace(VSK_USER_NAME, std::string(1100, 'h'));
  EXPECT_EQ(vsk_update_session_data_in_shm(30, huge.get(), nullptr), VSK_ERR_SHM_TOO_SMALL);
  EXPECT_EQ(At<uint16_t>(SlotBytes(30), 1606), 0) << "the dynamic block is untouched";
  EXPECT_EQ(vsk_update_session_data_in_shm(31, longer.get(), nullptr), VSK_ERR_NOT_FOUND);
}

TEST_F(CacheTest, ServiceListIsReservedOnceAndBounded) {
  AttrList attrs{{VSK_USER_NAME, "svc"}};
  ASSERT_EQ(Create(40, attrs), 0);
  vsk_session_id_t ids[11] = {41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51};
  EXPECT_EQ(vsk_update_session_header_in_shm(40, 11, ids), -6);
  EXPECT_TRUE(traces().Contains("vsk_update_session_header_in_shm Max num of services exceed 40"));
  const uint16_t free = At<uint16_t>(SlotBytes(40), 274);
  ASSERT_EQ(vsk_update_session_header_in_shm(40, 3, ids), 0);
  ASSERT_EQ(vsk_update_session_header_in_shm(40, 2, ids + 5), 0);
  EXPECT_EQ(At<uint16_t>(SlotBytes(40), 24), free) << "the array is reserved once";
  EXPECT_EQ(At<uint16_t>(SlotBytes(40), 274), free + 80);
  EXPECT_EQ(At<uint16_t>(SlotBytes(40), 22), 2);
  EXPECT_EQ(At<uint64_t>(SlotBytes(40), 2 * free + 8), 47u);
  // A slot whose value area is nearly full has no room for the array.
  AttrList big{{VSK_USER_NAME, std::string(900, 'b')}};
  ASSERT_EQ(Create(60, big), 0);
  EXPECT_EQ(vsk_update_session_header_in_shm(60, 1, ids), VSK_ERR_SHM_TOO_SMALL);
  EXPECT_EQ(At<uint16_t>(SlotBytes(60), 22), 0) << "no count without its ids";
}

TEST_F(CacheTest, ReaderAndWriterBitsHoldOffTheOtherSideAcrossProcesses) {
  AttrList attrs{{VSK_USER_NAME, "u1"}, {VSK_PROFILE_NAME, "p1"}};
  ASSERT_EQ(Create(70, attrs), 0);
  // A reader in another process that named its type and left its bits set (the published
  // null-length read leaves them).
  ChildResult reader = RunInChild([] {
    vsk_snapshot_handle handle{};
    void* shm = vsk_snap_get_shared_memory_ptr();
    return vsk_get_session_data_from_shm(&handle, shm, VSK_USER_NAME, nullptr, nullptr, 70) == -1 &&
                   handle.session_id == 70
               ? 0
               : 1;
  });
  ASSERT_TRUE(reader.Ok()) << reader;
  UpdateList both;
  both.Replace(VSK_USER_NAME, "u2").Replace(VSK_PROFILE_NAME, "p2");
  ASSERT_EQ(vsk_update_session_data_in_shm(70, both.get(), nullptr), 0);
  EXPECT_EQ(Read(70, VSK_USER_NAME), "u1") << "skipped behind the reader";
  EXPECT_EQ(Read(70, VSK_PROFILE_NAME), "p2");
  EXPECT_EQ(traces().Count("vsk_update_session_data_in_shm need semaphore for 70 flag"), 1);
  ASSERT_EQ(vsk_update_session_data_in_shm(70, both.get(), nullptr), 0);
  EXPECT_EQ(Read(70, VSK_USER_NAME), "u2") << "the last read cleared the reader bits";

  // A writer killed inside the slot, its bits set on the type it wrote.
  Child writer;
  writer.Start([this](Child::Channel& ch) {
    uint8_t* s = SlotBytes(70);
    s[16] |= 0x30;
    std::memcpy(s + 20, "\x11\x00", 2);  // writer_type = VSK_USER_NAME
    ch.Ready();
    ch.WaitGo();
    return 0;
  });
  ASSERT_TRUE(writer.WaitReady());
  writer.Kill(SIGKILL);
  EXPECT_EQ(writer.Wait().signal, SIGKILL);
  traces().Clear();
  EXPECT_EQ(Read(70, VSK_USER_NAME), "st-1");
  EXPECT_EQ(traces().Count("vsk_get_session_data_from_shm need semaphore for 70 flag \n"), 1);
  EXPECT_EQ(Read(70, VSK_PROFILE_NAME), "p2") << "other types read on";
  UpdateList again;
  again.Replace(VSK_USER_NAME, "u3");
  ASSERT_EQ(vsk_update_session_data_in_shm(70, again.get(), nullptr), 0);
  EXPECT_EQ(Read(70, VSK_USER_NAME), "u2") << "the first update only clears the dead bits";
  ASSERT_EQ(vsk_update_session_data_in_shm(70, again.get(), nullptr), 0);
  EXPECT_EQ(Read(70, VSK_USER_NAME), "u3");
}

TEST_F(CacheTest, RecordsFromTheSlotAreSortedCopies) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)},
                 {VSK_USER_NAME, "ann"},
                 {VSK_INFO_ATTR, std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09", 9)}};
  ASSERT_EQ(Create(80, attrs, 81), 0);
  vsk_session_id_t services[2] = {90, 91};
  ASSERT_EQ(vsk_update_session_header_in_shm(80, 2, services), 0);
  DynList old_list{{"old", "1"}}, new_list{{"new", "2"}};
  ASSERT_EQ(Dynamic(80, old_list, true), 0);
  ASSERT_EQ(Dynamic(80, new_list, false), 0);  // hides "old" from readers

  vsk_snapshot_handle handle{};
  vsk_client_session_t* rec = nullptr;
  ASSERT_EQ(vsk_db_client_session_empty(&rec), 0);
  ASSERT_EQ(vsk_shm_to_session_record(&handle, shm_, rec, 80), 0);
  ASSERT_NE(rec->attrs->first, nullptr);
  EXPECT_EQ(rec->attrs->first->type, VSK_USER_NAME) << "sorted by type";
  EXPECT_EQ(rec->attrs->first->next->type, VSK_SESSION_STATE);
  EXPECT_EQ(static_cast<char*>(rec->attrs->first->value)[3], '\0') << "copied with a NUL";
  EXPECT_EQ(rec->config_bits_len, 9);
  EXPECT_EQ(rec->dynamic_id, 81u);
  ASSERT_EQ(rec->service_count, 2);
  EXPECT_EQ(rec->service_ids[1], 91u);
  EXPECT_EQ(handle.service_count, 2);
  EXPECT_NE(handle.shm_session_copy, nullptr);
  vsk_db_release_client_session(rec, false);
  uint8_t bits[8];
  uint16_t bits_length = 0;
  EXPECT_EQ(vsk_get_config_bits_from_shm(shm_, 80, bits, &bits_length), 0);
  EXPECT_EQ(bits_length, 8) << "at most 8 bytes";
  vsk_dynamic_config_t* dyn = nullptr;
  ASSERT_EQ(vsk_db_dynamic_config_empty(&dyn), 0);
  ASSERT_EQ(vsk_shm_to_dynamic_record(dyn, shm_, 80, &handle), 0);
  ASSERT_NE(dyn->attrs->first, nullptr);
  EXPECT_STREQ(dyn->attrs->first->name, "new");
  EXPECT_EQ(dyn->attrs->first->next, nullptr);
  vsk_db_release_dynamic_config(dyn, false);
  std::free(handle.shm_session_copy);
  std::free(handle.shm_dynamic_copy);
  std::free(handle.service_ids);

  char name[8] = {};
  vsk_status_t st = 5;
  EXPECT_EQ(vsk_get_attr_from_tree_or_shm(nullptr, VSK_USER_NAME, name, nullptr, shm_, 80, &st), 1);
  EXPECT_STREQ(name, "ann");
  EXPECT_EQ(vsk_get_attr_from_tree_or_shm(nullptr, VSK_PROFILE_NAME, name, nullptr, shm_, 80, &st),
            0);
  EXPECT_EQ(st, 0) << "absent is no failure";
}

// The record built from a slot in one pass holds exactly what type-by-type reads find,
// over every kind of block: empty, long, rewritten in place, moved to a new block, the
// config bits, the service array, and a block that leaves the value area; a type whose
// writer is active is skipped with the reader's trace, and no reader bit stays set.
TEST_F(CacheTest, RecordFromASlotMatchesReadsTypeByType) {
  constexpr uint64_t kId = 120;
  AttrList attrs;
  for (uint16_t type = 1; type < VSK_TYPE_MAX; type += 5) {
    attrs.Add(type, std::string(type % 3 == 0 ? 0 : 1 + (type * 7) % 40, static_cast<char>('a' + type % 26)));
  }
  attrs.Add(VSK_INFO_ATTR, std::string("\x0f\xf0\x01", 3));
  attrs.Add(100, std::string(200, 'L'));
  ASSERT_EQ(Create(kId, attrs, 121), 0);
  UpdateList updates;
  updates.Replace(6, "a longer value than before, in a block of its own")  // moved
      .Replace(11, "s")                                                     // in place
      .Replace(2, "new type");                                             // appended
  ASSERT_EQ(vsk_update_session_data_in_shm(kId, updates.get(), nullptr), 0);
  vsk_session_id_t services[3] = {7, 8, 9};
  ASSERT_EQ(vsk_update_session_header_in_shm(kId, 3, services), 0);
  uint8_t* s = SlotBytes(kId);
  const uint16_t outside = 790;  // a 100-byte block there would cross word 800
  std::memcpy(s + 26 + 2 * 16, &outside, 2);
  std::memcpy(s + 2 * outside, "\x64\x00", 2);

  auto expect_record = [&](uint16_t skipped) {
    vsk_client_session_t* rec = nullptr;
    ASSERT_EQ(vsk_db_client_session_empty(&rec), 0);
    ASSERT_EQ(vsk_shm_to_session_record(nullptr, shm_, rec, kId), 0);
    const vsk_attr_t* a = rec->attrs->first;
    int found = 0;
    for (uint16_t type = 1; type < VSK_TYPE_MAX; ++type) {
      const std::string want = type == skipped ? "skipped" : Read(kId, type);
      if (want.rfind("st", 0) == 0 || type == skipped) continue;
      if (type == VSK_INFO_ATTR) {
        ASSERT_NE(rec->config_bits, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(rec->config_bits), rec->config_bits_len), want);
        EXPECT_EQ(rec->config_bits[rec->config_bits_len], 0);
        continue;
      }
      ASSERT_NE(a, nullptr) << "type " << type << " missing";
      EXPECT_EQ(a->type, type);
      EXPECT_EQ(std::string(static_cast<char*>(a->value), a->length), want) << "type " << type;
      EXPECT_EQ(static_cast<char*>(a->value)[a->length], '\0');
      a = a->next;
      ++found;
    }
    EXPECT_EQ(a, nullptr) << "more attributes than the reads find";
    EXPECT_EQ(found, skipped == 0 ? 25 : 24);
    EXPECT_EQ(rec->dynamic_id, 121u);
    ASSERT_EQ(rec->service_count, 3);
    EXPECT_EQ(rec->service_ids[2], 9u);
    EXPECT_EQ(At<uint16_t>(s, 16) & 0xC0, 0) << "reader bits left set";
    vsk_db_release_client_session(rec, false);
  };
  EXPECT_EQ(Read(kId, 16), "st" + std::to_string(VSK_ERR_CORRUPT));
  EXPECT_EQ(Read(kId, 6), "a longer value than before, in a block of its own");
  expect_record(0);
  if (HasFatalFailure()) return;

  // A writer active on one type: only that type is missing, after the reader's waits.
  s[16] |= 0x30;
  std::memcpy(s + 20, "\x29\x00", 2);  // writer_type 41
  traces().Clear();
  expect_record(41);
  EXPECT_EQ(traces().Count("vsk_get_session_data_from_shm need semaphore for 120 flag \n"), 1);
  EXPECT_EQ(At<uint16_t>(s, 16) & 0x30, 0x30) << "the writer's bits are not the reader's to clear";
  s[16] &= static_cast<uint8_t>(~0x30);
}

// A handle's private copies start from blocks given back by earlier copies: each copy is
// the used part of the slot or block and zero behind it, whatever the block held before.
TEST_F(CacheTest, HandleCopiesAreZeroBehindTheUsedPartWhenBlocksAreReused) {
  AttrList big, small{{VSK_USER_NAME, "s"}};
  for (uint16_t type = 1; type < 40; ++type) big.Add(type, std::string(20, 'B'));
  ASSERT_EQ(Create(130, big), 0);
  ASSERT_EQ(Create(131, small), 0);
  DynList long_list{{"a-long-dynamic-name", std::string(200, 'D')}}, short_list{{"n", "v"}};
  ASSERT_EQ(Dynamic(130, long_list, true), 0);
  ASSERT_EQ(Dynamic(131, short_list, true), 0);
  vsk_snapshot_handle handle{};
  for (uint64_t id : {130, 131, 130, 131, 131}) {
    vsk_client_session_t* rec = nullptr;
    vsk_dynamic_config_t* dyn = nullptr;
    ASSERT_EQ(vsk_db_client_session_empty(&rec), 0);
    ASSERT_EQ(vsk_db_dynamic_config_empty(&dyn), 0);
    ASSERT_EQ(vsk_shm_to_session_record(&handle, shm_, rec, id), 0);
    ASSERT_EQ(vsk_shm_to_dynamic_record(dyn, shm_, id, &handle), 0);
    const uint8_t* slot = SlotBytes(id);
    const size_t used = 2u * At<uint16_t>(slot, 274);
    const auto* copy = static_cast<const uint8_t*>(handle.shm_session_copy);
    EXPECT_EQ(std::memcmp(copy, slot, used), 0) << id;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(copy) + used, 3000 - used),
              std::string(3000 - used, '\0'))
        << id;
    const size_t dyn_used = 2u * At<uint16_t>(slot + 1600, 6);
    const auto* dcopy = static_cast<const uint8_t*>(handle.shm_dynamic_copy);
    EXPECT_EQ(std::memcmp(dcopy, slot + 1600, dyn_used), 0) << id;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(dcopy) + dyn_used, 1400 - dyn_used),
              std::string(1400 - dyn_used, '\0'))
        << id;
    vsk_db_release_client_session(rec, false);
    vsk_db_release_dynamic_config(dyn, false);
  }
  std::free(handle.shm_session_copy);
  std::free(handle.shm_dynamic_copy);
  std::free(handle.service_ids);
}

// Readers never trust what a slot says: random bytes over slots and blocks read cleanly.
TEST_F(CacheTest, CorruptSlotsAndBlocksReadCleanly) {
  std::mt19937 rng(7);
  AttrList attrs{{VSK_USER_NAME, "x"}};
  for (int round = 0; round < 300; ++round) {
    const uint64_t id = 100 + round % 7;
    vsk_clear_session_in_shm(id, shm_);
    ASSERT_EQ(Create(id, attrs), 0);
    uint8_t* s = SlotBytes(id);
    for (int k = 0; k < 40; ++k) s[8 + rng() % 2992] = static_cast<uint8_t>(rng());
    for (int k = 0; k < 40; ++k) AuthBytes(id, k % 2)[rng() % 400] = static_cast<uint8_t>(rng());
    s[16] = 0;  // no writer left: the readers walk everything
    vsk_client_session_t* rec = nullptr;
    vsk_dynamic_config_t* dyn = nullptr;
    vsk_auth_info_t* auth = nullptr;
    ASSERT_EQ(vsk_db_client_session_empty(&rec), 0);
    ASSERT_EQ(vsk_db_dynamic_config_empty(&dyn), 0);
    ASSERT_EQ(vsk_db_auth_info_empty(&auth), 0);
    vsk_shm_to_session_record(nullptr, shm_, rec, id);
    vsk_shm_to_dynamic_record(dyn, shm_, id, nullptr);
    vsk_shm_to_auth_record(auth, shm_, id, round % 2);
    vsk_db_release_client_session(rec, false);
    vsk_db_release_dynamic_config(dyn, false);
    vsk_db_release_auth_info(auth, false);
  }
}

}  // namespace
}  // namespace vsk::test
