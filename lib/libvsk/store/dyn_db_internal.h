// Internals of the generic table engine shared by its source files.
//
// The engine encodes keys and values with two-pass encoders: first into a small buffer
// on the stack, and only when the encoded form does not fit into a heap buffer of exactly
// the size the first pass reported, encoded a second time. The common case (session ids,
// private keys, records up to 512 bytes) therefore allocates nothing on the way in.
//
// DynDbProbe counts the slow paths so that tests and benchmarks can see which way a call
// went; it is not part of the C interface.
#pragma once

#include <db.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "vsk/dyn_db.h"

namespace vsk::store {

// Local rooms and limits of the engine.
inline constexpr uint32_t kWriteKeyRoom = 12;    // key of put, del, exists
inline constexpr uint32_t kReadKeyLocalMax = 8;  // a get's key above this is allocated
inline constexpr uint32_t kValueRoom = 512;      // value of put
inline constexpr uint32_t kLookupKeyRoom = 256;  // key of dyn_vsk_get, dyn_db_get_cursor

// Counts of encoder passes and heap buffers, process-wide. Plain counters: the engine is
// called from the daemon's own context, and tests read them from the same thread.
struct DynDbCounters {
  uint64_t key_encodes;        // calls of key encoders
  uint64_t key_allocations;    // keys that did not stay in the local buffer
  uint64_t value_encodes;      // calls of value encoders
  uint64_t value_allocations;  // values that did not stay in the local buffer
};

class DynDbProbe {
 public:
  static DynDbCounters Read();
  static void Reset();

 private:
  template <uint32_t Room>
  friend class Encoded;
  static DynDbCounters counters_;
};

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// One encoded object: in the local buffer of `Room` bytes when its size is at most
// `local_max`, else in a heap buffer of exactly its size. The heap buffer is freed with
// this object.
template <uint32_t Room>
class Encoded {
 public:
  Encoded() = default;
  Encoded(const Encoded&) = delete;
  Encoded& operator=(const Encoded&) = delete;

  // `encode(buffer, room)` is a two-pass encoder bound to its object. False only when
  // the heap buffer cannot be had.
  template <typename Fn>
  bool Encode(Fn&& encode, uint32_t local_max, bool is_key) {
    Count(is_key, false);
    size_ = encode(local_, Room);
    if (size_ <= local_max) {
      data_ = local_;
      return true;
    }
    heap_.reset(std::malloc(size_));
    if (heap_ == nullptr) return false;
    Count(is_key, true);
    encode(heap_.get(), size_);
    data_ = heap_.get();
    return true;
  }

  void* data() { return data_; }
  uint32_t size() const { return size_; }
  bool allocated() const { return heap_ != nullptr; }

 private:
  static void Count(bool is_key, bool allocation) {
    DynDbCounters& c = DynDbProbe::counters_;
    if (is_key) {
      ++c.key_encodes;
      c.key_allocations += allocation;
    } else {
      ++c.value_encodes;
      c.value_allocations += allocation;
    }
  }

  uint8_t local_[Room];
  void* data_ = nullptr;
  uint32_t size_ = 0;
  std::unique_ptr<void, FreeDeleter> heap_;
};

// Berkeley DB's raw value of a failed call, translated; and the status a decoder's result
// gives when it is not the size of the data: -20 and -2 pass, all else is corruption.
inline vsk_status_t DecoderFailure(int result) {
  if (result == VSK_ERR_SNAPSHOT_ONLY || result == VSK_ERR_NOMEM) return result;
  return VSK_ERR_CORRUPT;
}

// Bad arguments of an engine call: traces "%s: bad argument %s" with the call and what
// was missing, and gives -6. A table operation with a null table, key, encoder or
// decoder ends here instead of inside Berkeley DB.
vsk_status_t BadArgument(const char* fn, const char* what);

// The key order of "client-session-db": two 32-bit words, the second the high one,
// compared as one unsigned 64-bit number.
int CompareSessionIdKeys(DB* db, const DBT* a, const DBT* b) noexcept;

int DynOpen(DB** out, DB_ENV* env, const char* name, uint32_t extra_flags, bool master);
int DynSecOpen(DB** out, DB_ENV* env, const char* name, DB* primary,
               vsk_sec_key_callback_t callback, uint32_t extra_flags);
int DynClose(DB* db);
vsk_status_t DynExists(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                       uint32_t flags);
vsk_status_t DynDel(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                    uint32_t flags);
vsk_status_t DynPut(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder,
                    const void* value, vsk_encoder_t value_encoder, uint32_t flags);
vsk_status_t DynGet(DB* db, DB_TXN* txn, const void* key, vsk_encoder_t key_encoder, void* out,
                    vsk_value_decoder_t decoder, uint32_t flags, const uint8_t* mask,
                    uint16_t mask_len);

vsk_status_t DynVskGet(DB* db, DB_TXN* txn, const void* key, vsk_key_encoder4_t key_encoder,
                       void* key_out, vsk_key_decoder_t key_decoder, void* out,
                       vsk_value_decoder_t decoder, uint32_t flags);
vsk_status_t DynSetCursor(DBC* cursor, const void* key, uint32_t length);
vsk_status_t DynGetCursor(DBC* cursor, const void* key, vsk_key_encoder4_t key_encoder,
                          void* key_out, vsk_key_decoder_t key_decoder, void* out,
                          vsk_value_decoder_t decoder, void* secondary_out,
                          vsk_secondary_decoder_t secondary_decoder, uint32_t operation,
                          const uint8_t* mask, uint16_t mask_len);

vsk_status_t AppDefine(int16_t table_id, const char* name);

}  // namespace vsk::store
