// See ctl.h.
#include "ctl.h"

#include <cstdarg>
#include <cstdio>

#include "platform/paths.h"
#include "vsk/status.h"

namespace vskctl {
namespace {

std::FILE* g_trace_stream = nullptr;

void PrintTrace(void*, int, const char* format, ...) {
  if (g_trace_stream == nullptr) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(g_trace_stream, format, args);
  va_end(args);
  std::fputc('\n', g_trace_stream);
}

}  // namespace

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
