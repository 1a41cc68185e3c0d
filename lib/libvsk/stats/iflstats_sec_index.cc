// Clear, delete and sum over the plain interface records that share one 8-byte index,
// through the plain table's secondary index.
#include <db.h>

#include <algorithm>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/stats/layout.h"
#include "libvsk/stats/sec_index.h"
#include "vsk/libstats.h"

namespace vsk::stats {
namespace {

constexpr uint32_t kHeader = offsetof(libstats_iflstats_value_t, stats);
constexpr uint32_t kArea = sizeof(libstats_iflstats_counters_t);

// The statistics area of a stored value; bytes a short value lacks read as zero.
libstats_iflstats_counters_t AreaOf(const DBT& data) {
  libstats_iflstats_counters_t area{};
  if (data.size > kHeader) {
    std::memcpy(&area, static_cast<const uint8_t*>(data.data) + kHeader,
                std::min(data.size - kHeader, kArea));
  }
  return area;
}

// Every value of the group gets zero statistics and the cleared flags; its header stays.
vsk_status_t Clear(GroupWalk* walk, uint64_t index) {
  DB* primary = g_stats.iflstats_db;
  DBT skey = InDbt(&index, sizeof(index));
  DBT pkey{};
  DBT data{};
  for (uint32_t flags = DB_SET | DB_RMW;
       walk->cursor()->pget(walk->cursor(), &skey, &pkey, &data, flags) == 0;
       flags = DB_NEXT_DUP | DB_RMW) {
    libstats_iflstats_value_t value{};
    std::memcpy(&value, data.data, std::min<uint32_t>(data.size, sizeof(value)));
    value.stats = libstats_iflstats_counters_t{};
    value.stats.flags = LIBSTATS_IFLSTATS_CLEARED_FLAGS;
    DBT key = InDbt(pkey.data, pkey.size);
    DBT out = InDbt(&value, sizeof(value));
    if (primary->put(primary, walk->txn(), &key, &out, 0) != 0) break;
  }
  walk->CloseCursor();
  walk->Commit();
  return VSK_OK;
}

vsk_status_t Sum(GroupWalk* walk, uint64_t index, libstats_iflstats_counters_t* result) {
  libstats_iflstats_counters_t sum{};
  DBT key = InDbt(&index, sizeof(index));
  DBT data{};
  for (uint32_t flags = DB_SET; walk->cursor()->get(walk->cursor(), &key, &data, flags) == 0;
       flags = DB_NEXT_DUP) {
    const libstats_iflstats_counters_t area = AreaOf(data);
    sum.flags |= area.flags;
    for (int i = 0; i < LIBSTATS_IFLSTATS_COUNTERS; ++i) {
      sum.counters[i] += area.counters[i];
      if (area.flags & LIBSTATS_IFLSTATS_FLAG_EXTENDED) sum.ext_counters[i] += area.ext_counters[i];
    }
  }
  // The caller's area is byte-packed: it is written as bytes.
  std::memcpy(result, &sum, sizeof(sum));
  walk->CloseCursor();
  walk->Commit();
  return VSK_OK;
}

}  // namespace
}  // namespace vsk::stats

extern "C" vsk_status_t libstats_op_iflstats_using_sec_index(uint64_t index, int32_t op,
                                                             libstats_iflstats_counters_t* result) {
  using namespace vsk::stats;
  if (op == LIBSTATS_OP_GET && result == nullptr) return VSK_ERR_INVALID_PARAM;
  GroupWalk walk;
  vsk_status_t st = walk.Begin("libstats_op_iflstats_using_sec_index", g_stats.iflstats_sec_db);
  if (st != VSK_OK) return st;
  switch (op) {
    case LIBSTATS_OP_CLEAR:
      return Clear(&walk, index);
    case LIBSTATS_OP_DELETE:
      return DeleteGroupRecords(&walk, &index, sizeof(index));
    case LIBSTATS_OP_GET:
      return Sum(&walk, index, result);
    default:  // nothing to do; the walk closes as usual
      walk.CloseCursor();
      walk.Commit();
      return VSK_OK;
  }
}
