#include "platform/bitmap.h"

extern "C" bool bitmap_is_set(const void* bitmap, uint32_t bit) {
  const auto* bytes = static_cast<const uint8_t*>(bitmap);
  return (bytes[bit / 8] >> (bit % 8)) & 1u;
}
