// vskctl counters: the 49 summary counters with their names.
//
// Read the way the library offers them to a process that is not registered
// (vsk_summary_counter_open, vsk_get_summary_counters): no semaphore, no database, so a
// sum slot may be one change apart from its details while sessions come and go.
#include <cinttypes>
#include <cstdio>

#include "counter_names.h"
#include "ctl.h"
#include "vsk/shared.h"
#include "vsk/status.h"

namespace vskctl {
namespace {

struct CountersOptions {
  bool nonzero = false;
};

int RunCounters(const Globals& globals, const CountersOptions& options) {
  vsk::shared::SegmentView view;
  if (!OpenSegment(&view, Need::kReady)) return kExitFailure;
  uint32_t values[VSK_SUMMARY_COUNTER_SLOTS] = {};
  int rc = vsk_summary_counter_open();
  if (rc == VSK_ERR_UNSUPPORTED) {
    return Failure("this platform does not run the session store (see VSK_MODEL_ID)");
  }
  if (rc != 0) return Failure("summary counters of root " + RootText() + ": cannot attach");
  rc = vsk_get_summary_counters(values);
  vsk_summary_counter_close();
  if (rc != 0) return Failure("summary counters of root " + RootText() + ": cannot read");

  if (globals.json) {
    Json list = Json::array();
    for (const CounterSlot& s : CounterSlots()) {
      list.push_back({{"slot", s.slot},
                      {"name", s.name},
                      {"group", s.group},
                      {"key", s.key},
                      {"value", values[s.slot]}});
    }
    PrintJson({{"root", RootText()}, {"counters", list}});
    return kExitOk;
  }
  std::printf("summary counters of root %s\n", RootText().c_str());
  std::printf("%4s  %-12s %-18s %10s\n", "slot", "group", "name", "value");
  for (const CounterSlot& s : CounterSlots()) {
    if (options.nonzero && values[s.slot] == 0) continue;
    std::printf("%4u  %-12s %-18s %10" PRIu32 "\n", s.slot, s.group.c_str(), s.name.c_str(),
                values[s.slot]);
  }
  return kExitOk;
}

}  // namespace

void AddCounters(CLI::App& app, const Globals& globals, Action* action) {
  auto options = std::make_shared<CountersOptions>();
  CLI::App* sub = AddSubcommand(
      app, "counters", "the 49 summary counters: by state, type, interface type, config bit",
      globals, action, RunCounters, options);
  sub->add_flag("--nonzero", options->nonzero, "text: list only the counters that are not 0");
}

}  // namespace vskctl
