// ByteWriter: the writing half of ByteReader, for encoders that have already sized what
// they write (the two-pass record encoders, wire messages).
//
// Invariant: pos() <= room(), always. A write that does not fit writes nothing, leaves the
// position where it was and returns false; callers that sized their region first never
// see that. Integers are written in the host's byte order, unaligned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vsk::base {

class ByteWriter {
 public:
  ByteWriter() = default;
  ByteWriter(void* out, size_t room)
      : out_(static_cast<uint8_t*>(out)), room_(out != nullptr ? room : 0) {}

  // Writes one integer (or any trivially copyable value) in host order.
  template <typename T>
  bool Put(T value) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (room_ - pos_ < sizeof(T)) return false;
    std::memcpy(out_ + pos_, &value, sizeof(T));
    pos_ += sizeof(T);
    return true;
  }

  // Writes `n` bytes from `src`, or `n` zero bytes when `src` is null.
  bool Bytes(const void* src, size_t n) {
    if (room_ - pos_ < n) return false;
    if (n != 0) {
      if (src != nullptr) {
        std::memcpy(out_ + pos_, src, n);
      } else {
        std::memset(out_ + pos_, 0, n);
      }
    }
    pos_ += n;
    return true;
  }

  size_t pos() const { return pos_; }
  size_t room() const { return room_; }

 private:
  uint8_t* out_ = nullptr;
  size_t room_ = 0;
  size_t pos_ = 0;
};

}  // namespace vsk::base
