// See ctl.h.
#include "ctl.h"

#include <cstdarg>
#include <cstdio>

#include "platform/paths.h"
#include "vsk/status.h"

namespace vskctl {
namespace {

// Where the library's traces go: the verbose stream (one trace per line), or, while a
// RawTraces is alive, its stream with the text exactly as formatted.
std::FILE* g_trace_stream = nullptr;
std::FILE* g_raw_stream = nullptr;

void PrintTrace(void*, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  LinkTrace(nullptr, 0, format, args);
  va_end(args);
}

}  // namespace

void LinkTrace(void*, int, const char* format, va_list args) {
  if (g_raw_stream != nullptr) {
    std::vfprintf(g_raw_stream, format, args);
  } else if (g_trace_stream != nullptr) {
    std::vfprintf(g_trace_stream, format, args);
    std::fputc('\n', g_trace_stream);
  }
}

RawTraces::RawTraces(std::FILE* stream) : saved_(g_raw_stream) {
  g_raw_stream = stream;
  saved_hook_ = vsk_trace_cbk;
  // Only the daemon link's forwarder (installed at registration) and this module's own
  // hook lead here; without either, set ours for the scope.
  if (vsk_trace_cbk == nullptr) vsk_set_trace_cbk(PrintTrace);
}

RawTraces::~RawTraces() {
  g_raw_stream = saved_;
  vsk_set_trace_cbk(saved_hook_);
}

CLI::App* AddSubcommand(CLI::App& app, const char* name, const char* help, const Globals& globals,
                        Action* action, int (*run)(const Globals&)) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->callback([&globals, action, run] { *action = [&globals, run] { return run(globals); }; });
  return sub;
}

int Failure(const std::string& message) {
  std::fprintf(stderr, "vskctl: %s\n", message.c_str());
  return kExitFailure;
}

void Warning(const std::string& message) {
  std::fprintf(stderr, "vskctl: warning: %s\n", message.c_str());
}

void PrintJson(const Json& doc) {
  std::string text = doc.dump(2);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

std::string RootText() {
  std::string root = vsk::platform::Root();
  return root.empty() ? "/" : root;
}

bool OpenSegment(vsk::shared::SegmentView* view, Need need) {
  if (!view->Open()) {
    Failure(view->message());
    return false;
  }
  if (need == Need::kReady && view->DbStatus() != VSK_DB_STATUS_READY) {
    uint32_t status = view->DbStatus();
    Failure("the store on root " + RootText() + " is not ready: its status word is " +
            std::to_string(status) + " (" + vsk::shared::DbStatusName(status) +
            "), orvd has not finished opening or rebuilding it");
    return false;
  }
  return true;
}

void TraceTo(std::FILE* stream) {
  g_trace_stream = stream;
  vsk_set_trace_cbk(stream != nullptr ? PrintTrace : nullptr);
}

}  // namespace vskctl
