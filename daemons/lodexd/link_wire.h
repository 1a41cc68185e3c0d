// The stream between the two engines' lodexd: frames in the host byte order (both engines
// are one architecture), each a FrameHeader and then `control_size` and `rec_size` bytes.
//
// Kinds:
//   kHello     first frame on every connection, each way: the sender's nonce (8 bytes of
//              control) that decides which of two crossing connections stays.
//   kRep       one Berkeley DB replication message: envid, flags and LSN as the sender's
//              transport callback got them, control and record as they were.
//   kProgress  the standby's position (ProgressBody as control), after each batch of
//              messages it applies and at least once a second.
// A header with another magic, an unknown kind or a size over kMaxPart is a protocol error
// and ends the connection.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lodexd {

inline constexpr uint32_t kFrameMagic = 0x4c584431;  // "LXD1"
inline constexpr uint32_t kMaxPart = 16u << 20;

enum FrameKind : uint32_t { kHello = 1, kRep = 2, kProgress = 3 };

struct FrameHeader {
  uint32_t magic;
  uint32_t kind;
  int32_t envid;
  uint32_t flags;
  uint32_t lsn_file;
  uint32_t lsn_offset;
  uint32_t control_size;
  uint32_t rec_size;
};
static_assert(sizeof(FrameHeader) == 32);
static_assert(offsetof(FrameHeader, kind) == 4);
static_assert(offsetof(FrameHeader, envid) == 8);
static_assert(offsetof(FrameHeader, flags) == 12);
static_assert(offsetof(FrameHeader, lsn_file) == 16);
static_assert(offsetof(FrameHeader, lsn_offset) == 20);
static_assert(offsetof(FrameHeader, control_size) == 24);
static_assert(offsetof(FrameHeader, rec_size) == 28);

struct ProgressBody {
  uint32_t gen;
  uint32_t next_file;
  uint32_t next_offset;
  uint32_t ready;  // 1 once the standby's start-up sync is complete
};
static_assert(sizeof(ProgressBody) == 16);
static_assert(offsetof(ProgressBody, next_file) == 4);
static_assert(offsetof(ProgressBody, ready) == 12);

}  // namespace lodexd
