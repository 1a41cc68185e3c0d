// The bare Berkeley DB side of the session benchmarks: a record encoded as the library
// writes it, and a put of those bytes under an 8-byte id key.
#pragma once

#include <db.h>

#include <cstdint>
#include <string>

namespace vsk::bench {

inline std::string Encode(uint32_t (*encoder)(const void*, void*, uint32_t), const void* record) {
  std::string out(encoder(record, nullptr, 0), '\0');
  encoder(record, out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

inline int Put(DB* db, DB_TXN* txn, uint64_t key, const std::string& bytes) {
  DBT k{}, d{};
  k.data = &key;
  k.size = sizeof key;
  d.data = const_cast<char*>(bytes.data());
  d.size = static_cast<uint32_t>(bytes.size());
  return db->put(db, txn, &k, &d, 0);
}

}  // namespace vsk::bench
