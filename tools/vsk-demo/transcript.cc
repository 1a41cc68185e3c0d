#include "transcript.h"

#include <cstdio>
#include <string>
#include <vector>

namespace vsk::demo {
namespace {

bool g_verbose = false;
std::vector<std::string> g_traces;

std::string Format(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n <= 0) return {};
  std::string text(static_cast<size_t>(n), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, args);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void Keep(std::string line) {
  if (g_verbose) {
    std::printf("      . %s\n", line.c_str());
    std::fflush(stdout);
  } else {
    g_traces.push_back(std::move(line));
  }
}

}  // namespace

std::string StatusText(vsk_status_t status) {
  if (status == VSK_OK) return "0 (ok)";
  const char* text = vsk_get_err_msg(status);
  return std::to_string(status) + " (" + (text != nullptr ? text : "no text") + ")";
}

void Act(const char* number, const char* title) {
  std::printf("\n[%s] %s\n", number, title);
  std::fflush(stdout);
}

void Say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string line = Format(format, args);
  va_end(args);
  std::printf("    %s\n", line.c_str());
  std::fflush(stdout);
}

bool Check(const std::string& what, vsk_status_t status, vsk_status_t expected) {
  bool ok = status == expected;
  std::printf("    %-52s -> %s%s\n", what.c_str(), StatusText(status).c_str(),
              ok ? "" : "   <-- FAILED");
  if (!ok) {
    std::printf("    expected %s\n", StatusText(expected).c_str());
    DumpTraces();
  }
  std::fflush(stdout);
  return ok;
}

bool Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string line = Format(format, args);
  va_end(args);
  std::printf("    FAILED: %s\n", line.c_str());
  DumpTraces();
  std::fflush(stdout);
  return false;
}

void TraceSink(void*, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Keep(Format(format, args));
  va_end(args);
}

void TraceSinkV(void*, int, const char* format, va_list args) { Keep(Format(format, args)); }

void SetVerbose(bool verbose) { g_verbose = verbose; }

bool Verbose() { return g_verbose; }

void DumpTraces() {
  if (g_traces.empty()) return;
  std::printf("    library traces of this act:\n");
  for (const auto& line : g_traces) std::printf("      . %s\n", line.c_str());
  g_traces.clear();
}

void ClearTraces() { g_traces.clear(); }

}  // namespace vsk::demo
