// A bounds-checked reader of big-endian wire bytes, for the filter daemon's encodings.
//
// Invariant: pos() <= size() at all times. Every read checks that the bytes it wants lie
// below size() and otherwise fails without moving, so a decoder written on it cannot read
// past its input whatever lengths the input claims.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vsk::sidedata {

class WireReader {
 public:
  WireReader(const uint8_t* data, uint32_t size) : data_(data), size_(data ? size : 0) {}

  uint32_t pos() const { return pos_; }
  uint32_t size() const { return size_; }
  uint32_t remaining() const { return size_ - pos_; }
  // The byte at pos(); meaningful only while remaining() > 0.
  const uint8_t* here() const { return data_ + pos_; }

  bool GetBe16(uint16_t* out) {
    if (remaining() < 2) return false;
    *out = static_cast<uint16_t>(data_[pos_] << 8 | data_[pos_ + 1]);
    pos_ += 2;
    return true;
  }
  bool GetBe32(uint32_t* out) {
    if (remaining() < 4) return false;
    *out = static_cast<uint32_t>(data_[pos_]) << 24 | static_cast<uint32_t>(data_[pos_ + 1]) << 16 |
           static_cast<uint32_t>(data_[pos_ + 2]) << 8 | data_[pos_ + 3];
    pos_ += 4;
    return true;
  }
  bool Skip(uint32_t n) {
    if (remaining() < n) return false;
    pos_ += n;
    return true;
  }
  // The next `n` bytes as a reader of their own; this reader moves past them.
  bool Slice(uint32_t n, WireReader* out) {
    if (remaining() < n) return false;
    *out = WireReader(data_ + pos_, n);
    pos_ += n;
    return true;
  }
  // Moves to `pos`, which must not pass the end.
  bool Seek(uint64_t pos) {
    if (pos > size_) return false;
    pos_ = static_cast<uint32_t>(pos);
    return true;
  }

 private:
  const uint8_t* data_;
  uint32_t size_;
  uint32_t pos_ = 0;
};

}  // namespace vsk::sidedata
