// Record encodings byte for byte, round trips, and decoders fed truncated and corrupted
// records: every one must end in a clean status, never a crash or an out-of-bounds read.
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "libvsk/store/records.h"
#include "support/harness.h"
#include "vsk/tables.h"

namespace vsk::test {
namespace {

using Bytes = std::vector<uint8_t>;
using vsk::store::DecoderStatus;

// Helpers that build expected bytes field by field.
void U16(Bytes& b, uint16_t v) { b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)}); }
void U32(Bytes& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}
void U64(Bytes& b, uint64_t v) {
  for (int i = 0; i < 8; ++i) b.push_back(uint8_t(v >> (8 * i)));
}

template <typename Fn>
Bytes Encode(Fn fn, const void* rec) {
  uint32_t need = fn(rec, nullptr, 0);
  Bytes out(need);
  EXPECT_EQ(fn(rec, out.data(), need), need);
  return out;
}

// A decoder gets a heap copy, as Berkeley DB would hand it; returns the caller's status.
template <typename Rec>
vsk_status_t Decode(int (*fn)(void*, void*, uint32_t, const uint8_t*, uint16_t), const Bytes& bytes,
                    Rec** out, const uint8_t* mask = nullptr, uint16_t mask_len = 0) {
  void* raw = std::malloc(bytes.empty() ? 1 : bytes.size());
  if (!bytes.empty()) std::memcpy(raw, bytes.data(), bytes.size());
  *out = nullptr;
  int r = fn(out, raw, static_cast<uint32_t>(bytes.size()), mask, mask_len);
  return DecoderStatus(r, static_cast<uint32_t>(bytes.size()));
}

struct AttrListBuilder {
  vsk_attr_list_t list;
  std::vector<std::unique_ptr<vsk_attr_t>> nodes;
  AttrListBuilder() { vsk_attr_list_init(&list); }
  void Add(uint16_t type, const void* v, uint16_t len) {
    nodes.push_back(std::make_unique<vsk_attr_t>());
    vsk_attr_t* n = nodes.back().get();
    n->type = type;
    n->length = len;
    n->value = const_cast<void*>(v);
    vsk_attr_list_append(&list, n);
  }
};

class RecordCodecTest : public VskTest {};

TEST_F(RecordCodecTest, EmptyClientRecordIs26Bytes) {
  vsk_client_session_t rec{};
  rec.dynamic_id = 0x1122334455667788ull;
  Bytes want;
  U16(want, 1);
  U32(want, 0), U32(want, 0);
  U32(want, 6), U32(want, 8), U64(want, 0x1122334455667788ull);
  EXPECT_EQ(Encode(vsk::store::EncodeClientRecord, &rec), want);
  EXPECT_EQ(want.size(), 26u);
}

TEST_F(RecordCodecTest, ClientSectionsInOrderWithFixedBitsLength) {
  vsk_session_id_t ids[3] = {5, 6, 0x700000000ull};
  uint8_t bits[4] = {0xa1, 0, 0, 0x80};
  AttrListBuilder a;
  uint32_t state = 2;
  a.Add(36, &state, 4);
  a.Add(17, "bob", 3);
  vsk_client_session_t rec{};
  rec.attrs = &a.list;
  rec.service_count = 3;
  rec.service_ids = ids;
  rec.config_bits_len = 4;
  rec.config_bits = bits;
  rec.dynamic_id = 9;
  Bytes want;
  U16(want, 1);
  U32(want, 1), U32(want, 26), U16(want, 3);
  for (auto id : ids) U64(want, id);
  U32(want, 7), U32(want, 8), U16(want, 4);
  want.insert(want.end(), bits, bits + 4);
  U32(want, 0), U32(want, 15);
  U16(want, 36), U16(want, 4), U32(want, 2);
  U16(want, 17), U16(want, 3), want.insert(want.end(), {'b', 'o', 'b'});
  U32(want, 6), U32(want, 8), U64(want, 9);
  Bytes got = Encode(vsk::store::EncodeClientRecord, &rec);
  ASSERT_EQ(got, want);

  // Too little room: nothing past the room is touched, and the size needed comes back.
  for (uint32_t room = 0; room < want.size(); ++room) {
    Bytes small(room + 8, 0xee);
    EXPECT_EQ(vsk::store::EncodeClientRecord(&rec, small.data(), room), want.size());
    for (size_t i = room; i < small.size(); ++i) ASSERT_EQ(small[i], 0xee) << room;
  }

  vsk_client_session_t* back = nullptr;
  ASSERT_EQ(Decode(vsk::store::DecodeClientRecord, got, &back), 0);
  ASSERT_EQ(back->service_count, 3);
  EXPECT_EQ(back->service_ids[2], 0x700000000ull);
  EXPECT_EQ(back->dynamic_id, 9u);
  ASSERT_EQ(back->config_bits_len, 4);
  EXPECT_EQ(std::memcmp(back->config_bits, bits, 4), 0);
  ASSERT_NE(back->attrs, nullptr);
  vsk_attr_t* n = back->attrs->first;
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->type, 36);
  EXPECT_EQ(static_cast<uint8_t*>(n->value),
            static_cast<uint8_t*>(back->raw) + 2 + 8 + 26 + 8 + 6 + 8 + 4)
      << "values point into the raw buffer";
  ASSERT_NE(n->next, nullptr);
  EXPECT_EQ(std::memcmp(n->next->value, "bob", 3), 0);
  EXPECT_EQ(n->next->next, nullptr);
  vsk_db_release_client_session(back, true);
  vsk_db_release_client_session(nullptr, true);
}

TEST_F(RecordCodecTest, ConfigBitsFilter) {
  uint8_t bits[1] = {0x0f};
  vsk_client_session_t rec{};
  rec.config_bits_len = 1;
  rec.config_bits = bits;
  Bytes with_bits = Encode(vsk::store::EncodeClientRecord, &rec);
  vsk_client_session_t plain{};
  Bytes no_bits = Encode(vsk::store::EncodeClientRecord, &plain);

  const uint8_t miss[1] = {0xf0}, hit[1] = {0x01};
  vsk_client_session_t* out = nullptr;
  EXPECT_EQ(Decode(vsk::store::DecodeClientRecord, with_bits, &out, miss, 1), -20);
  ASSERT_NE(out, nullptr) << "a filtered record stays for the caller to release";
  vsk_db_release_client_session(out, true);
  EXPECT_EQ(Decode(vsk::store::DecodeClientRecord, with_bits, &out, hit, 1), 0);
  vsk_db_release_client_session(out, true);
  EXPECT_EQ(Decode(vsk::store::DecodeClientRecord, no_bits, &out, miss, 1), 0);
  vsk_db_release_client_session(out, true);

  vsk_service_session_t srec{};
  srec.config_bits_len = 1;
  srec.config_bits = bits;
  srec.client_id = 77;
  Bytes s = Encode(vsk::store::EncodeServiceRecord, &srec);
  vsk_service_session_t* sout = nullptr;
  EXPECT_EQ(Decode(vsk::store::DecodeServiceRecord, s, &sout, miss, 1), -20);
  vsk_db_release_service_session(sout, true);
  EXPECT_EQ(Decode(vsk::store::DecodeServiceRecord, s, &sout, hit, 1), 0);
  EXPECT_EQ(sout->client_id, 77u);
  EXPECT_EQ(sout->config_bits, static_cast<uint8_t*>(sout->raw) + 2 + 8 + 2)
      << "service bits point into the record";
  vsk_db_release_service_session(sout, true);
}

TEST_F(RecordCodecTest, VersionAndForeignSections) {
  vsk_client_session_t rec{};
  Bytes c = Encode(vsk::store::EncodeClientRecord, &rec);
  c[0] = 5;
  vsk_client_session_t* out = nullptr;
  EXPECT_EQ(Decode(vsk::store::DecodeClientRecord, c, &out), -5);
  vsk_db_release_client_session(out, true);
  // A section of tag 3 in the middle of a client record stops the decoder there.
  c[0] = 1;
  Bytes mid(c.begin(), c.begin() + 10);
  U32(mid, 3), U32(mid, 0);
  mid.insert(mid.end(), c.begin() + 10, c.end());
  EXPECT_EQ(Decode(vsk::store::DecodeClientRecord, mid, &out), -5);
  vsk_db_release_client_session(out, true);

  // The dynamic record alone accepts any version.
  char name[] = "kelvo-x";
  char value[] = "v1";
  vsk_dyn_attr_t e{nullptr, name, 2, value, 2};
  vsk_dyn_attr_list_t dl{&e, &e.next};
  vsk_dynamic_config_t d{};
  d.attrs = &dl;
  Bytes db = Encode(vsk::store::EncodeDynamicRecord, &d);
  Bytes want;
  U16(want, 1), U32(want, 5), U32(want, 8 + 2 + 4 + 2 + 1);
  want.insert(want.end(), name, name + 8);
  U16(want, 2), U32(want, 2), want.insert(want.end(), {'v', '1', 0});
  ASSERT_EQ(db, want);
  db[0] = 5;
  vsk_dynamic_config_t* dout = nullptr;
  ASSERT_EQ(Decode(vsk::store::DecodeDynamicRecord, db, &dout), 0);
  ASSERT_NE(dout->attrs->first, nullptr);
  EXPECT_STREQ(dout->attrs->first->name, "kelvo-x");
  EXPECT_EQ(dout->attrs->first->array_tag, 2);
  EXPECT_STREQ(static_cast<char*>(dout->attrs->first->value), "v1");
  vsk_db_release_dynamic_config(dout, true);

  vsk_auth_info_t auth{};
  Bytes ab = Encode(vsk::store::EncodeAuthRecord, &auth);
  EXPECT_EQ(ab.size(), 10u);
  ab[0] = 5;
  vsk_auth_info_t* aout = nullptr;
  EXPECT_EQ(Decode(vsk::store::DecodeAuthRecord, ab, &aout), -5);
  vsk_db_release_auth_info(aout, true);
}

// Representative records of each kind, for the truncation and corruption sweeps.
struct Samples {
  AttrListBuilder a;
  vsk_session_id_t ids[2] = {3, 4};
  uint8_t bits[3] = {1, 2, 3};
  char n1[8] = "kelvo-a", n2[8] = "kelvo-b";
  vsk_dyn_attr_t d2{nullptr, n2, 3, (void*)"xyz", 3};
  vsk_dyn_attr_t d1{&d2, n1, 1, (void*)"q", 2};
  vsk_dyn_attr_list_t dl{&d1, &d2.next};
  Bytes client, service, auth, dynamic;
  Samples() {
    a.Add(19, "ge-0/0/0.1", 10);
    a.Add(21, "\x0a\0\0\x01", 4);
    a.Add(99, "", 0);
    vsk_client_session_t c{};
    c.attrs = &a.list, c.service_count = 2, c.service_ids = ids, c.config_bits_len = 3,
    c.config_bits = bits, c.dynamic_id = 8;
    client = Encode(vsk::store::EncodeClientRecord, &c);
    vsk_service_session_t s{};
    s.attrs = &a.list, s.client_id = 1, s.config_bits_len = 3, s.config_bits = bits;
    service = Encode(vsk::store::EncodeServiceRecord, &s);
    vsk_auth_info_t au{};
    au.attrs = &a.list;
    auth = Encode(vsk::store::EncodeAuthRecord, &au);
    vsk_dynamic_config_t dy{};
    dy.attrs = &dl;
    dynamic = Encode(vsk::store::EncodeDynamicRecord, &dy);
  }
};

vsk_status_t DecodeAny(int kind, const Bytes& b) {
  vsk_status_t st;
  switch (kind) {
    case 0: {
      vsk_client_session_t* o;
      st = Decode(vsk::store::DecodeClientRecord, b, &o);
      vsk_db_release_client_session(o, true);
      break;
    }
    case 1: {
      vsk_service_session_t* o;
      st = Decode(vsk::store::DecodeServiceRecord, b, &o);
      vsk_db_release_service_session(o, true);
      break;
    }
    case 2: {
      vsk_auth_info_t* o;
      st = Decode(vsk::store::DecodeAuthRecord, b, &o);
      vsk_db_release_auth_info(o, true);
      break;
    }
    default: {
      vsk_dynamic_config_t* o;
      st = Decode(vsk::store::DecodeDynamicRecord, b, &o);
      vsk_db_release_dynamic_config(o, true);
      break;
    }
  }
  return st;
}

// Inner lengths exactly at the edge of what holds them decode; one byte more is a corrupt
// record, also where the record goes on behind them.
TEST_F(RecordCodecTest, InnerLengthsAreBoundedToTheByte) {
  auto dynamic_id = [](Bytes& b) { U32(b, 6), U32(b, 8), U64(b, 9); };
  auto attrs = [&](uint16_t declared) {  // one attribute of 3 bytes, then section 6
    Bytes b;
    U16(b, 1), U32(b, 0), U32(b, 7);
    U16(b, 17), U16(b, declared), b.insert(b.end(), {'b', 'o', 'b'});
    dynamic_id(b);
    return b;
  };
  auto ids = [&](uint16_t count, size_t id_bytes) {  // the service ids end the record
    Bytes b;
    U16(b, 1);
    dynamic_id(b);
    U32(b, 1), U32(b, static_cast<uint32_t>(2 + id_bytes)), U16(b, count);
    b.insert(b.end(), id_bytes, 0x5a);
    return b;
  };
  auto dyn = [](uint32_t declared) {  // "a", tag 2, value "xy" and its NUL
    Bytes b;
    U16(b, 1), U32(b, 5), U32(b, 2 + 2 + 4 + 2 + 1);
    b.insert(b.end(), {'a', 0}), U16(b, 2), U32(b, declared);
    b.insert(b.end(), {'x', 'y', 0});
    return b;
  };
  struct Case {
    const char* what;
    int kind;  // as DecodeAny
    Bytes bytes;
    vsk_status_t want;
  } cases[] = {
      {"attribute filling its section", 0, attrs(3), 0},
      {"attribute one byte past its section", 0, attrs(4), -5},
      {"ids filling the record", 0, ids(2, 16), 0},
      {"one id more than the record holds", 0, ids(3, 23), -5},
      {"dynamic value filling its entry", 3, dyn(2), 0},
      {"dynamic value one byte past its entry", 3, dyn(3), -5},
  };
  for (const Case& c : cases) EXPECT_EQ(DecodeAny(c.kind, c.bytes), c.want) << c.what;
}

TEST_F(RecordCodecTest, EveryTruncatedPrefixFailsCleanly) {
  Samples s;
  const Bytes* kinds[4] = {&s.client, &s.service, &s.auth, &s.dynamic};
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(DecodeAny(k, *kinds[k]), 0) << "kind " << k;
    for (size_t n = 0; n < kinds[k]->size(); ++n) {
      Bytes prefix(kinds[k]->begin(), kinds[k]->begin() + n);
      vsk_status_t st = DecodeAny(k, prefix);
      // A prefix that ends on a section boundary is a valid, shorter record.
      EXPECT_TRUE(st == -5 || st == 0) << "kind " << k << " prefix " << n << " -> " << st;
    }
  }
}

TEST_F(RecordCodecTest, RandomCorruptionsFailCleanly) {
  Samples s;
  const Bytes* kinds[4] = {&s.client, &s.service, &s.auth, &s.dynamic};
  std::mt19937 rng(42);
  for (int k = 0; k < 4; ++k) {
    for (int round = 0; round < 3000; ++round) {
      Bytes b = *kinds[k];
      int flips = 1 + static_cast<int>(rng() % 4);
      for (int f = 0; f < flips; ++f) {
        b[rng() % b.size()] = static_cast<uint8_t>(rng());
      }
      vsk_status_t st = DecodeAny(k, b);
      ASSERT_TRUE(st == 0 || st == -5) << "kind " << k << " status " << st;
    }
  }
}

}  // namespace
}  // namespace vsk::test
