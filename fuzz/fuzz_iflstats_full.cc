// Feeds arbitrary bytes to the decoder of full interface statistics records, then encodes
// what it decoded. The decoder must end in a status without reading outside the value,
// and leave nothing behind once the record is freed. Traces are formatted, so that a
// trace whose arguments do not match its format is found too.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libvsk/stats/iflstats_full_codec.h"
#include "vsk/libstats.h"
#include "vsk/status.h"

namespace {

void FormatTrace(void*, int, const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vsk_trace_cbk = FormatTrace;
  if (size > UINT32_MAX) return 0;
  // An exact-size heap copy, as Berkeley DB hands a value over, so overreads are caught.
  void* raw = std::malloc(size == 0 ? 1 : size);
  if (size != 0) std::memcpy(raw, data, size);
  libstats_iflstats_full_t record{};
  int st = vsk::stats::DecodeIflstatsFull(static_cast<const uint8_t*>(raw),
                                          static_cast<uint32_t>(size), &record);
  if (st != 0 && st != 22) std::abort();  // no other result exists without memory pressure
  if (st == 0) {
    vsk::stats::Buffer encoded;
    uint32_t len = 0;
    if (vsk::stats::EncodeIflstatsFull(record, &encoded, &len) != VSK_OK) std::abort();
    if (len != vsk::stats::TotalTlvLen(record)) std::abort();
  }
  vsk::stats::FreeSets(&record);
  std::free(raw);
  return 0;
}
