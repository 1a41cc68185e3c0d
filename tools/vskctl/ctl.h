// What the subcommands of vskctl share: the global options, exit codes, failure messages,
// JSON output and the read-only attachment of the root's shared state.
//
// Every subcommand only reads. Failures go to stderr as one line "vskctl: <what>", where
// <what> names the path or object that failed; listings go to stdout, as text or (with
// --json) as one JSON document with stable field names.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "libvsk/shared/segment_view.h"
#include "vsk/status.h"

namespace vskctl {

using Json = nlohmann::ordered_json;

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

struct Globals {
  std::string root;   // --root, else VSK_ROOT, else the system's own paths
  bool json = false;  // --json
  bool no_progress = false;
  bool verbose = false;  // the library's traces on stderr
};

// A subcommand adds itself to the parser and leaves the action to run once the whole
// command line has been parsed.
using Action = std::function<int()>;
using AddCommand = void (*)(CLI::App& app, const Globals& globals, Action* action);

// Adds subcommand `name` to `app`. Once the whole command line is parsed, the action is
// run(globals, *options), with the options that the subcommand's flags filled in.
template <typename Options>
CLI::App* AddSubcommand(CLI::App& app, const char* name, const char* help, const Globals& globals,
                        Action* action, int (*run)(const Globals&, const Options&),
                        const std::shared_ptr<Options>& options) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->callback([&globals, options, action, run] {
    *action = [&globals, options, run] { return run(globals, *options); };
  });
  return sub;
}
// The same for a subcommand without options of its own.
CLI::App* AddSubcommand(CLI::App& app, const char* name, const char* help, const Globals& globals,
                        Action* action, int (*run)(const Globals&));

void AddCounters(CLI::App& app, const Globals& globals, Action* action);
void AddPools(CLI::App& app, const Globals& globals, Action* action);
void AddInterfaces(CLI::App& app, const Globals& globals, Action* action);
void AddDaemons(CLI::App& app, const Globals& globals, Action* action);
void AddSessions(CLI::App& app, const Globals& globals, Action* action);
void AddStore(CLI::App& app, const Globals& globals, Action* action);
void AddServeMetrics(CLI::App& app, const Globals& globals, Action* action);

// Prints "vskctl: <message>" on stderr and returns kExitFailure.
int Failure(const std::string& message);
// Prints "vskctl: warning: <message>" on stderr.
void Warning(const std::string& message);

// Writes `doc` to stdout, indented, with a final newline.
void PrintJson(const Json& doc);

// The root in force, for messages: VSK_ROOT, or "/" for the system's own.
std::string RootText();

// How much of the shared state a subcommand needs.
enum class Need { kAttached, kReady };

// Attaches the root's main segment read-only. With kReady the status word must say
// "ready" too. False after printing why (the caller exits 1).
bool OpenSegment(vsk::shared::SegmentView* view, Need need);

// Installs a trace hook that prints the library's traces on `stream`, one per line.
void TraceTo(std::FILE* stream);
// The same sink in the daemon link's form (orvd_set_trace_callback).
void LinkTrace(void* cookie, int level, const char* format, va_list args);
// For its lifetime, the library's traces go to `stream` exactly as formatted (no line
// ends added): the form of the operator dumps that the library writes through its trace
// hook.
class RawTraces {
 public:
  explicit RawTraces(std::FILE* stream);
  ~RawTraces();
  RawTraces(const RawTraces&) = delete;
  RawTraces& operator=(const RawTraces&) = delete;

 private:
  std::FILE* saved_;
  vsk_trace_cbk_t saved_hook_;
};

}  // namespace vskctl
