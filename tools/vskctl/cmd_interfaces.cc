// vskctl interfaces: the interface table (names, counts, state, the client sessions on
// each underlying interface).
//
// The table is copied under its semaphore, held only for the copy and never marked in the
// file, so this reader can be interrupted at any point without leaving the table to be
// rebuilt. --no-lock copies without the semaphore (a racy view that never waits).
#include <cinttypes>
#include <cstdio>

#include "ctl.h"
#include "libvsk/shared/intf_view.h"
#include "progress.h"

namespace vskctl {
namespace {

namespace intf = vsk::shared::intf;

struct InterfacesOptions {
  std::string name;  // only this interface
  bool sessions = false;
  bool no_lock = false;
};

Json InterfaceJson(const intf::InterfaceInfo& i) {
  return {{"name", i.name},
          {"ifl_count", i.ifl_count},
          {"uifl_count", i.uifl_count},
          {"state", i.state},
          {"sessions", i.sessions}};
}

int RunInterfaces(const Globals& globals, const InterfacesOptions& options) {
  vsk::shared::SegmentView view;
  if (!OpenSegment(&view, Need::kReady)) return kExitFailure;
  intf::InterfaceTable table;
  std::string error;
  if (!intf::ReadInterfaceTable(options.no_lock ? intf::Locking::kNone : intf::Locking::kSemaphore,
                                &table, &error)) {
    return Failure(error);
  }
  std::vector<const intf::InterfaceInfo*> shown;
  for (const auto& i : table.interfaces) {
    if (options.name.empty() || i.name == options.name) shown.push_back(&i);
  }

  if (globals.json) {
    Json list = Json::array();
    for (const auto* i : shown) list.push_back(InterfaceJson(*i));
    PrintJson({{"root", RootText()},
               {"path", table.path},
               {"file_size", table.file_size},
               {"heap_top", table.heap_top},
               {"interface_count", table.interfaces.size()},
               {"dead_lock_holder", table.dead_holder},
               {"damage", table.damage.empty() ? Json(nullptr) : Json(table.damage)},
               {"interfaces", list}});
  } else {
    std::printf("interface table %s: %d bytes, heap used to %u, %zu interfaces\n",
                table.path.c_str(), table.file_size, table.heap_top, table.interfaces.size());
    std::printf("%-40s %8s %8s %10s %s\n", "NAME", "IFL", "UIFL", "STATE",
                options.sessions ? "SESSIONS" : "");
    Progress progress(globals, "interfaces", shown.size());
    uint64_t done = 0;
    for (const auto* i : shown) {
      progress.Step(++done);
      std::printf("%-40s %8d %8d %10u", i->name.c_str(), i->ifl_count, i->uifl_count, i->state);
      if (options.sessions) {
        for (vsk_session_id_t id : i->sessions) std::printf(" %" PRIu64, id);
      }
      std::printf("\n");
    }
  }
  if (!options.name.empty() && shown.empty()) {
    return Failure("interface " + options.name + " is not in the table " + table.path);
  }
  if (table.dead_holder != 0) {
    return Failure("interface table " + table.path + " was left locked by pid " +
                   std::to_string(table.dead_holder) +
                   ", which died inside it: it may be half-changed until orvd rebuilds it");
  }
  if (!table.damage.empty()) {
    return Failure("interface table " + table.path + " is damaged: " + table.damage);
  }
  return kExitOk;
}

}  // namespace

void AddInterfaces(CLI::App& app, const Globals& globals, Action* action) {
  auto options = std::make_shared<InterfacesOptions>();
  CLI::App* sub = AddSubcommand(app, "interfaces",
                                "the interface table: names, counts, state, sessions on each",
                                globals, action, RunInterfaces, options);
  sub->add_option("--name", options->name, "only this interface");
  sub->add_flag("--sessions", options->sessions, "text: list the session ids on each");
  sub->add_flag("--no-lock", options->no_lock,
                "copy the table without its semaphore (never waits; may be inconsistent)");
}

}  // namespace vskctl
