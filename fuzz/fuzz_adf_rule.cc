// Feeds arbitrary text to the filter rule decoder. Every decode must give either the
// single error line or a term that ends in "}", with every line bounded.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "vsk/pfltd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto* text = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(text, data, size);
  text[size] = '\0';
  char** lines = nullptr;
  vsk_app_pflt_adf_rule_decode(text, &lines);
  if (lines == nullptr || lines[0] == nullptr) std::abort();
  int count = 0;
  while (count < VSK_ADF_RULE_LINES && lines[count] != nullptr) {
    if (std::strlen(lines[count]) >= 100) std::abort();
    ++count;
  }
  const bool error = std::strcmp(lines[0], "Error decoding ADF rule.") == 0;
  if (error ? count != 1 : std::strcmp(lines[count - 1], "}") != 0) std::abort();
  vsk_app_pflt_adr_decode_free(&lines);
  std::free(text);
  return 0;
}
