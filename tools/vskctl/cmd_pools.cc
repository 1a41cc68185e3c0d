// vskctl pools: the two unit pools, each as a summary (size, used, free) and in the
// library's own dump format (vsk_dump_pool).
//
// The dump's "master" line shows this routing engine's role as the platform gives it. Like
// the dump, the summary takes no semaphore: it is a racy view while units are allocated.
#include <cstdio>

#include "ctl.h"
#include "platform/hwframe.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vskctl {
namespace {

struct PoolsOptions {
  int type = -1;  // both
  bool summary = false;
};

struct PoolInfo {
  uint32_t type;
  const char* name;
  int32_t max;
};
constexpr PoolInfo kPools[] = {
    {VSK_UNIT_POOL_IFL, "interface_units", VSK_UNIT_POOL_IFL_MAX},
    {VSK_UNIT_POOL_UID, "uid_numbers", VSK_UNIT_POOL_UID_MAX},
};

// Prints the library's dump of pool `type` through the public calls a reader has.
bool DumpPool(const PoolInfo& pool) {
  if (vsk_shared_memory_init(false) != 0) return false;
  vsk_unit_init(pool.max, false, pool.type);
  vsk_db_set_master(hwframe_is_vc_or_single_re_protocol_master());
  std::fflush(stdout);
  vsk_dump_pool(pool.type);
  std::fflush(stdout);
  vsk_unit_allocator_detach(pool.type);
  vsk_detach_shm();
  return true;
}

Json PoolJson(const vsk::shared::SegmentView& view, const PoolInfo& pool, bool with_list) {
  vsk::shared::PoolUsage u = view.Pool(pool.type);
  Json j = {
      {"type", pool.type}, {"name", pool.name}, {"first_unit", u.first_unit},
      {"size", u.size},    {"used", u.used},    {"free", u.free},
      {"head", u.head},    {"tail", u.tail},    {"state", vsk::shared::PoolStateName(u.state)}};
  if (with_list) j["allocated"] = view.AllocatedIndices(pool.type);
  return j;
}

int RunPools(const Globals& globals, const PoolsOptions& options) {
  vsk::shared::SegmentView view;
  if (!OpenSegment(&view, Need::kReady)) return kExitFailure;
  Json list = Json::array();
  for (const PoolInfo& pool : kPools) {
    if (options.type >= 0 && static_cast<uint32_t>(options.type) != pool.type) continue;
    if (globals.json) {
      list.push_back(PoolJson(view, pool, !options.summary));
      continue;
    }
    vsk::shared::PoolUsage u = view.Pool(pool.type);
    std::printf("pool %u %s: size %u, used %u, free %u, first unit %u, %s\n", pool.type, pool.name,
                u.size, u.used, u.free, u.first_unit, PoolStateName(u.state));
    if (!options.summary && !DumpPool(pool)) {
      return Failure("unit pool " + std::to_string(pool.type) + " of root " + RootText() +
                     ": cannot attach the main segment");
    }
  }
  if (globals.json) PrintJson({{"root", RootText()}, {"pools", list}});
  return kExitOk;
}

}  // namespace

void AddPools(CLI::App& app, const Globals& globals, Action* action) {
  auto options = std::make_shared<PoolsOptions>();
  CLI::App* sub = AddSubcommand(app, "pools", "the unit pools: summary and the allocator's dump",
                                globals, action, RunPools, options);
  sub->add_option("--type", options->type, "only pool 0 (interface units) or 1 (UID numbers)")
      ->check(CLI::Range(0, 1));
  sub->add_flag("--summary", options->summary, "size, used and free only, no dump");
}

}  // namespace vskctl
