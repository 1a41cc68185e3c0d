// The messages between a daemon and orvd on "/var/run/orvd_server_communication".
//
// Raw structures in the host's byte order with no length prefix: both ends run on one
// machine, every message starts with a 32-bit type, and the type (with the direction)
// decides the size. Used by the library's client side and by orvd's server side.
//
// Invariants: each layout below is pinned by static_assert; changing one breaks every
// daemon on the system at once, so they never change.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vsk/orvd.h"

namespace vsk::orvd {

// Types, client to orvd.
inline constexpr uint32_t ORVD_MSG_REGISTER = 0;
inline constexpr uint32_t ORVD_MSG_REPLICATION_REQUEST = 1;
inline constexpr uint32_t ORVD_MSG_RECOVERY_COMPLETE = 2;
inline constexpr uint32_t ORVD_MSG_ISSU_STATE = 4;
// Types, orvd to client.
inline constexpr uint32_t ORVD_MSG_REGISTER_ACK = 0;
inline constexpr uint32_t ORVD_MSG_PLATD_ISSU_STATE = 3;

// Role byte of ORVD_MSG_REGISTER.
inline constexpr uint8_t kRoleLeaving = 0;
inline constexpr uint8_t kRoleStandby = 1;
inline constexpr uint8_t kRoleMaster = 3;

// Flags of ORVD_MSG_REGISTER_ACK.
inline constexpr uint8_t kAckAccepted = 0x01;

inline constexpr size_t kProgramNameLen = 64;  // NUL included

struct __attribute__((packed)) RegisterMsg {
  uint32_t type;                    // ORVD_MSG_REGISTER
  char program[kProgramNameLen];    // NUL-terminated, at most 63 characters, zero-filled
  int32_t pid;
  uint8_t role;                     // kRole*
  uint8_t zero1[3];
  int32_t status;                   // 0 joining; leaving: the status of the close
  uint8_t recovery_complete_sent;
  uint8_t issu_enabled;
  vsk_issu_info_t issu_info;
  uint8_t zero2;
};
static_assert(sizeof(RegisterMsg) == 220);
static_assert(offsetof(RegisterMsg, program) == 4);
static_assert(offsetof(RegisterMsg, pid) == 68);
static_assert(offsetof(RegisterMsg, role) == 72);
static_assert(offsetof(RegisterMsg, status) == 76);
static_assert(offsetof(RegisterMsg, recovery_complete_sent) == 80);
static_assert(offsetof(RegisterMsg, issu_enabled) == 81);
static_assert(offsetof(RegisterMsg, issu_info) == 82);
static_assert(offsetof(RegisterMsg, zero2) == 219);

struct __attribute__((packed)) RegisterAckMsg {
  uint32_t type;  // ORVD_MSG_REGISTER_ACK
  uint8_t flags;  // kAckAccepted
  uint8_t reserved[3];
  int32_t error;  // a status when not accepted
  uint32_t daemon_issu_state;
  uint32_t platd_issu_state;
};
static_assert(sizeof(RegisterAckMsg) == 20);
static_assert(offsetof(RegisterAckMsg, flags) == 4);
static_assert(offsetof(RegisterAckMsg, error) == 8);
static_assert(offsetof(RegisterAckMsg, daemon_issu_state) == 12);
static_assert(offsetof(RegisterAckMsg, platd_issu_state) == 16);

struct __attribute__((packed)) IssuStateMsg {
  uint32_t type;  // ORVD_MSG_ISSU_STATE
  vsk_issu_info_t issu_info;
};
static_assert(sizeof(IssuStateMsg) == 141);
static_assert(offsetof(IssuStateMsg, issu_info) == 4);

struct __attribute__((packed)) PlatdIssuStateMsg {
  uint32_t type;  // ORVD_MSG_PLATD_ISSU_STATE
  uint32_t state;
};
static_assert(sizeof(PlatdIssuStateMsg) == 8);
static_assert(offsetof(PlatdIssuStateMsg, state) == 4);

// A message with nothing but its type (replication request, recovery complete).
struct __attribute__((packed)) BareMsg {
  uint32_t type;
};
static_assert(sizeof(BareMsg) == 4);

// The operator's control of an upgrade, on the same socket. orvd plays the chassis
// daemon's part: an operator tool sends one IssuControlMsg, orvd answers with an
// IssuControlReply header followed by `length` bytes of JSON (the upgrade's status, and
// the reason when the command was refused). Daemons never send these.
inline constexpr uint32_t ORVD_MSG_ISSU_CONTROL = 100;
inline constexpr uint32_t ORVD_MSG_ISSU_CONTROL_REPLY = 101;
inline constexpr uint32_t kIssuCmdStatus = 0;
inline constexpr uint32_t kIssuCmdPrepare = 1;
inline constexpr uint32_t kIssuCmdDone = 2;  // ends the prepare or the switchover phase
inline constexpr uint32_t kIssuCmdSwitchover = 3;
inline constexpr uint32_t kIssuCmdAbort = 4;
inline constexpr uint32_t kIssuCmdIdle = 5;
// Relays `value` as the chassis state without any check, for rehearsing how daemons
// take unexpected states; only idle leads out of a state outside the usual set.
inline constexpr uint32_t kIssuCmdInject = 6;
inline constexpr uint32_t kIssuReplyMax = 1u << 20;  // a reader refuses a longer length

struct __attribute__((packed)) IssuControlMsg {
  uint32_t type;  // ORVD_MSG_ISSU_CONTROL
  uint32_t command;  // kIssuCmd*
  uint32_t value;    // the state of kIssuCmdInject; 0 otherwise
};
static_assert(sizeof(IssuControlMsg) == 12);

struct __attribute__((packed)) IssuControlReply {
  uint32_t type;    // ORVD_MSG_ISSU_CONTROL_REPLY
  int32_t status;   // 0 done; VSK_ERR_ORVD_FATAL refused
  uint32_t length;  // bytes of JSON that follow
};
static_assert(sizeof(IssuControlReply) == 12);
static_assert(offsetof(IssuControlReply, length) == 8);

// Body sizes after the type, as the client reads them.
inline constexpr size_t kAckBodySize = sizeof(RegisterAckMsg) - sizeof(uint32_t);        // 16
inline constexpr size_t kPlatdBodySize = sizeof(PlatdIssuStateMsg) - sizeof(uint32_t);  // 4

// Size of a client-to-orvd message of `type`, or 0 for a type orvd does not take.
constexpr size_t ClientMessageSize(uint32_t type) {
  switch (type) {
    case ORVD_MSG_REGISTER:
      return sizeof(RegisterMsg);
    case ORVD_MSG_REPLICATION_REQUEST:
    case ORVD_MSG_RECOVERY_COMPLETE:
      return sizeof(BareMsg);
    case ORVD_MSG_ISSU_STATE:
      return sizeof(IssuStateMsg);
    case ORVD_MSG_ISSU_CONTROL:
      return sizeof(IssuControlMsg);
    default:
      return 0;
  }
}

}  // namespace vsk::orvd
