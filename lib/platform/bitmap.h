// Bit tests on byte bitmaps, as the router's support library defines them.
//
// Bit i of a bitmap is bit (i % 8) of byte i / 8, counting from the least significant bit:
// bit 0 is 0x01 of byte 0, bit 7 is 0x80 of byte 0, bit 8 is 0x01 of byte 1. The caller
// guarantees that byte i / 8 lies inside the bitmap.
#pragma once

#include <cstdint>

extern "C" {
bool bitmap_is_set(const void* bitmap, uint32_t bit);
}
