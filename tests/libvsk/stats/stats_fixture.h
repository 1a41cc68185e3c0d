// Helpers of the statistics tests: a store opened as the creating daemon on the master,
// full records with chosen sections, and raw access to the tables' bytes.
#pragma once

#include <db.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "support/harness.h"
#include "vsk/vsk.h"

namespace vsk::test {

// Little-endian byte building, the host order of the stored records.
struct Bytes {
  std::string b;
  Bytes& U8(uint8_t v) { return Raw(&v, 1); }
  Bytes& U16(uint16_t v) { return Raw(&v, 2); }
  Bytes& U32(uint32_t v) { return Raw(&v, 4); }
  Bytes& U64(uint64_t v) { return Raw(&v, 8); }
  Bytes& Zeros(size_t n) {
    b.append(n, '\0');
    return *this;
  }
  Bytes& Raw(const void* p, size_t n) {
    b.append(static_cast<const char*>(p), n);
    return *this;
  }
  Bytes& Tlv(uint16_t tag, const std::string& body) {
    U16(tag).U16(static_cast<uint16_t>(4 + body.size()));
    b += body;
    return *this;
  }
};

// Opens the store (and with it the statistics tables) in this process as `orvd`, master.
inline vsk_status_t OpenStore(orvd_ctx* link, bool orvd = true) {
  SetProgramName(orvd ? "orvd" : "stats-daemon");
  link->fd = -1;
  link->is_orvd = orvd;
  vsk_db_set_master(true);
  return vsk_db_init(link, orvd);
}

// The stored value under `key` in `db`, read without the library; empty if absent.
inline std::string RawGet(DB* db, const std::string& key) {
  DBT k{};
  k.data = const_cast<char*>(key.data());
  k.size = static_cast<uint32_t>(key.size());
  DBT v{};
  v.flags = DB_DBT_MALLOC;
  if (db->get(db, nullptr, &k, &v, 0) != 0) return {};
  std::string out(static_cast<char*>(v.data), v.size);
  std::free(v.data);
  return out;
}

inline int RawPut(DB* db, const std::string& key, const std::string& value) {
  DBT k{};
  k.data = const_cast<char*>(key.data());
  k.size = static_cast<uint32_t>(key.size());
  DBT v{};
  v.data = const_cast<char*>(value.data());
  v.size = static_cast<uint32_t>(value.size());
  return db->put(db, nullptr, &k, &v, 0);
}

// Primary keys found under `index` through a secondary table, in index order.
inline std::vector<std::string> SecondaryKeys(DB* sec, const void* index, uint32_t size) {
  std::vector<std::string> out;
  DBC* c = nullptr;
  if (sec->cursor(sec, nullptr, &c, 0) != 0) return out;
  DBT k{};
  k.data = const_cast<void*>(index);
  k.size = size;
  DBT pk{};
  pk.flags = DB_DBT_MALLOC;
  DBT v{};
  v.flags = DB_DBT_MALLOC;
  for (uint32_t op = DB_SET; c->pget(c, &k, &pk, &v, op) == 0; op = DB_NEXT_DUP) {
    out.emplace_back(static_cast<char*>(pk.data), pk.size);
    std::free(pk.data);
    std::free(v.data);
  }
  c->close(c);
  return out;
}

inline std::string FullKey(uint32_t ifl, const std::string& loc) {
  return Bytes{}.U32(ifl).Raw(loc.data(), loc.size()).b;
}

// A heap record of (ifl, loc) with no sections, as the library's callers build one.
inline libstats_iflstats_full_t* NewFullRecord(uint32_t ifl, const std::string& loc) {
  auto* r =
      static_cast<libstats_iflstats_full_t*>(std::calloc(1, sizeof(libstats_iflstats_full_t)));
  r->ifl = ifl;
  r->loc_id_len = static_cast<uint16_t>(loc.size());
  r->loc_id = static_cast<uint8_t*>(std::malloc(loc.size() + 1));
  std::memcpy(r->loc_id, loc.data(), loc.size());
  for (auto& set : r->stats) libstats_iflstats_full_set_version(&set.ts);
  return r;
}

inline void DeleteFullRecord(libstats_iflstats_full_t* r) {
  libstats_free_iflstats_full_all(r);
  libstats_free_iflstats_full_record(r);
}

template <typename T>
T* NewSection(uint8_t fill) {
  auto* p = static_cast<T*>(std::malloc(sizeof(T)));
  std::memset(p, fill, sizeof(T));
  return p;
}

// Gives `set` every section, each filled with a byte of its own (from `seed`), and
// `queues` counters in each queue direction.
inline void FillEverySection(libstats_iflstats_full_set_t* set, uint8_t seed, int queues = 8) {
  set->mcast = NewSection<libstats_ifl_mcast_t>(seed + 1);
  set->pol = NewSection<libstats_ifl_l2pol_t>(seed + 2);
  set->aggr = NewSection<libstats_ifl_agg_t>(seed + 3);
  set->ml = NewSection<libstats_ifl_ml_t>(seed + 4);
  set->es = NewSection<libstats_ifl_es_t>(seed + 5);
  set->ce = NewSection<libstats_ifl_ce_t>(seed + 6);
  set->atm = NewSection<libstats_ifl_atm_t>(seed + 7);
  set->q = NewSection<libstats_ifl_qhdr_t>(0);
  set->q->num_q = static_cast<uint16_t>(queues);
  set->inq = NewSection<libstats_ifl_qhdr_t>(0);
  set->inq->num_q = static_cast<uint16_t>(queues);
  for (int i = 0; i < queues; ++i) {
    set->qcntr[i] = NewSection<libstats_ifl_qcntr_t>(static_cast<uint8_t>(seed + 10 + i));
    set->inqcntr[i] = NewSection<libstats_ifl_qcntr_t>(static_cast<uint8_t>(seed + 20 + i));
  }
}

class StatsTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(OpenStore(&link_), VSK_OK) << traces().Dump();
  }
  void TearDown() override {
    vsk_db_close();
    VskTest::TearDown();
  }
  orvd_ctx link_{};
};

}  // namespace vsk::test
