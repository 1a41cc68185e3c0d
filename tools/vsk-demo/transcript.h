// The demo's transcript: numbered acts, one line per step with its status, and the
// library's own trace lines, kept aside and printed with --verbose or after a failure.
//
// One process prints at a time (the parent waits while a child runs), so lines never
// interleave; every line is flushed before a fork.
#pragma once

#include <cstdarg>
#include <string>

#include "vsk/status.h"

namespace vsk::demo {

// "0 (ok)", or the status with the library's text for it.
std::string StatusText(vsk_status_t status);

// A heading: "[1] title".
void Act(const char* number, const char* title);
// An indented line of the transcript.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Prints "what ... status" and returns whether `status` is `expected`. A mismatch prints
// the traces gathered so far.
bool Check(const std::string& what, vsk_status_t status, vsk_status_t expected = VSK_OK);
// Prints a failure that has no status of its own, with the traces; returns false.
bool Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Traces: vsk_trace_cbk-shaped and daemon-link-shaped sinks that keep each line.
void TraceSink(void* handle, int level, const char* format, ...);
void TraceSinkV(void* cookie, int level, const char* format, va_list args);
// With `verbose`, traces are printed as they come instead of being kept.
void SetVerbose(bool verbose);
bool Verbose();
// Prints the kept traces (indented) and forgets them.
void DumpTraces();
// Forgets the kept traces; called at the start of each act so a dump shows only its own.
void ClearTraces();

}  // namespace vsk::demo
