// Helpers of the store tests: raw keys and values with two-pass encoders, a decoder that
// keeps what it is given, and bringing the store up as the creating daemon or a client.
#pragma once

#include <db.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libvsk/orvd_ctx.h"
#include "libvsk/store/view.h"
#include "support/harness.h"
#include "support/txn.h"
#include "vsk/dyn_db.h"
#include "vsk/store.h"

namespace vsk::test {

// A run of bytes as an encodable object; counts how often it was encoded.
struct Bytes {
  std::string bytes;
  mutable int encodes = 0;

  static uint32_t Encode(const void* obj, void* buffer, uint32_t room) {
    auto* b = static_cast<const Bytes*>(obj);
    ++b->encodes;
    if (b->bytes.size() <= room) std::memcpy(buffer, b->bytes.data(), b->bytes.size());
    return static_cast<uint32_t>(b->bytes.size());
  }
  static uint32_t Encode4(const void* obj, int, void* buffer, uint32_t room) {
    return Encode(obj, buffer, room);
  }
};

inline Bytes IdKey(uint64_t id) {
  Bytes b;
  b.bytes.assign(reinterpret_cast<const char*>(&id), sizeof(id));
  return b;
}

// What a decoder was given. Owns the buffer, like a decoded record owns its raw form.
struct Decoded {
  std::string bytes;
  void* raw = nullptr;
  int result_override = 0;  // when non-zero, the decoder returns this instead of the size
  ~Decoded() { std::free(raw); }

  static int Value(void* out, void* data, uint32_t size, const uint8_t*, uint16_t) {
    auto* d = static_cast<Decoded*>(out);
    std::free(d->raw);
    d->raw = data;
    d->bytes.assign(static_cast<const char*>(data), size);
    return d->result_override != 0 ? d->result_override : static_cast<int>(size);
  }
  // Key decoders keep their buffer only on success.
  static int Key(void* out, void* data, uint32_t size) {
    auto* d = static_cast<Decoded*>(out);
    if (d->result_override != 0) return d->result_override;
    std::free(d->raw);
    d->raw = data;
    d->bytes.assign(static_cast<const char*>(data), size);
    return static_cast<int>(size);
  }
};

inline int StoreState() {
  const vsk::store::View store;
  return store.started() ? store.state() : -100;
}

// Brings the store up in this process as `orvd` (creator) or as a client daemon.
// A link handle is given as the daemon link leaves it: no socket, the process's role.
inline vsk_status_t InitAs(orvd_ctx* link, bool orvd, bool master) {
  SetProgramName(orvd ? "orvd" : "vsk-client");
  if (link != nullptr) {
    link->fd = -1;
    link->is_orvd = orvd;
  }
  vsk_db_set_master(master);
  return vsk_db_init(link, orvd);
}

inline vsk_status_t PutRaw(DB* db, uint64_t id, const std::string& value) {
  Bytes key = IdKey(id);
  Bytes val{value};
  return InTxn([&](vsk_db_txn_t* t) {
    return dyn_db_put(db, t->txn, &key, Bytes::Encode, &val, Bytes::Encode, 0);
  });
}

inline vsk_status_t GetRaw(DB* db, uint64_t id, std::string* value) {
  Bytes key = IdKey(id);
  Decoded out;
  vsk_status_t st =
      dyn_db_get(db, nullptr, &key, Bytes::Encode, &out, Decoded::Value, 0, nullptr, 0);
  if (st == VSK_OK) *value = out.bytes;
  return st;
}

}  // namespace vsk::test
