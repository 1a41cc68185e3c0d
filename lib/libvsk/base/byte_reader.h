// ByteReader: the one bounds-checked walk over bytes that every record, section and wire
// decoder of the library uses, so that no decoder can read past what it was given.
//
// Invariant: pos() <= size(), always. Every read checks the bytes it needs against
// remaining() first; a read that does not fit returns false and leaves the position where
// it was. A length read from the data is therefore never trusted: it only ever reaches
// Skip, Take, Bytes or Slice, which refuse it when it runs past the end.
//
// Integers are read in the host's byte order (records, shared memory and wire messages are
// host order) and need no alignment. The reader does not own its bytes: the caller keeps
// them alive for as long as the reader, its slices and any pointer from Take are in use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace vsk::base {

class ByteReader {
 public:
  ByteReader() = default;
  ByteReader(const void* data, size_t size)
      : data_(static_cast<const uint8_t*>(data)), size_(data != nullptr ? size : 0) {}

  // Reads one integer (or any trivially copyable value) in host order.
  template <typename T>
  bool Get(T* out) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (remaining() < sizeof(T)) return false;
    std::memcpy(out, data_ + pos_, sizeof(T));
    pos_ += sizeof(T);
    return true;
  }

  // Copies the next `n` bytes to `out`.
  bool Bytes(void* out, size_t n) {
    if (remaining() < n) return false;
    if (n != 0) std::memcpy(out, data_ + pos_, n);
    pos_ += n;
    return true;
  }

  // Passes over the next `n` bytes.
  bool Skip(size_t n) {
    if (remaining() < n) return false;
    pos_ += n;
    return true;
  }

  // Points *out at the next `n` bytes (no copy) and passes over them.
  bool Take(size_t n, const uint8_t** out) {
    if (remaining() < n) return false;
    *out = data_ + pos_;
    pos_ += n;
    return true;
  }

  // A reader over exactly the next `n` bytes in *out; this reader passes over them.
  bool Slice(size_t n, ByteReader* out) {
    const uint8_t* start = nullptr;
    if (!Take(n, &start)) return false;
    *out = ByteReader(start, n);
    return true;
  }

  // A NUL-terminated text: *out points at its first character, *length is its length
  // without the NUL, and the reader passes over the NUL. False when no NUL remains.
  bool CString(const char** out, size_t* length) {
    const void* nul = remaining() != 0 ? std::memchr(data_ + pos_, 0, remaining()) : nullptr;
    if (nul == nullptr) return false;
    *length = static_cast<size_t>(static_cast<const uint8_t*>(nul) - (data_ + pos_));
    *out = reinterpret_cast<const char*>(data_ + pos_);
    pos_ += *length + 1;
    return true;
  }

  size_t pos() const { return pos_; }
  size_t size() const { return size_; }
  size_t remaining() const { return size_ - pos_; }
  bool empty() const { return pos_ == size_; }
  // The byte at pos(); REQUIRES: !empty().
  const uint8_t* here() const { return data_ + pos_; }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t pos_ = 0;
};

}  // namespace vsk::base
