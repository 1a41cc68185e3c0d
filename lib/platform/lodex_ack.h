// Client side of the replication service's acknowledgement channel.
//
// A process asks the replication daemon (lodexd, on the master) to acknowledge request
// ids; lodexd answers an id once the standby has applied the master's log up to where it
// stood when the request arrived (see daemons/lodexd/ack_server.h for the exact rule).
//
// Transport: a Unix-domain stream socket "/var/run/lodexd_ack" (under the root in force),
// host byte order, every frame a LodexAckMsg cut to its ids:
//   kind 1 request (client -> lodexd): count ids, 1..150;
//   kind 2 answer  (lodexd -> client): count ids, 1..150, each acknowledged;
//   kind 3 state   (lodexd -> client): count 1 when lodexd can acknowledge (a standby is
//                  linked and in step), 0 when it cannot; no ids.
// lodexd sends a state frame at once on every connection and again at each change. When
// the state goes down lodexd forgets the requests it holds: the client answers them
// negatively itself, which keeps "one answer per request" on the client's side.
//
// Who may call: the thread that runs the timer context's event loop; everything here,
// the callbacks included, runs on that loop. One channel per process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/wtimer.h"

extern "C" {

#define LODEX_ACK_MAX_IDS 150

enum { LODEX_ACK_REQUEST = 1, LODEX_ACK_ANSWER = 2, LODEX_ACK_STATE = 3 };

typedef struct lodex_ack_msg {
  uint32_t kind;   // filled by lodex_ack_send
  uint32_t count;  // ids that follow
  uint32_t ids[LODEX_ACK_MAX_IDS];
} lodex_ack_msg_t;

// An answer of lodexd: `msg->count` ids, every one acknowledged.
typedef void (*lodex_ack_answer_fn)(void* cookie, const lodex_ack_msg_t* msg);
// The channel can (true) or cannot (false) acknowledge any more.
typedef void (*lodex_ack_state_fn)(void* cookie, bool up);

// Starts the channel on the event loop of `timer_ctx`: connects to lodexd now and, while it
// is unreachable, again every second; the callbacks get `cookie`. 0, or -1 for a null timer
// context or callback, or a second call.
int lodex_ack_init(void* cookie, wtimer_root_t* timer_ctx, lodex_ack_answer_fn answer,
                   lodex_ack_state_fn state);

// Sends `msg` (1 to 150 ids) as a request; sets its kind. True once the whole frame is
// written or queued behind earlier ones; false when there is no connection, the count is
// out of range, or the connection cannot take it (nothing of it is sent then).
bool lodex_ack_send(lodex_ack_msg_t* msg);

}  // extern "C"

namespace vsk::platform {

inline constexpr const char kLodexAckSocket[] = "/var/run/lodexd_ack";
inline constexpr size_t kLodexAckHeaderSize = offsetof(lodex_ack_msg_t, ids);
static_assert(offsetof(lodex_ack_msg_t, kind) == 0);
static_assert(offsetof(lodex_ack_msg_t, count) == 4);
static_assert(offsetof(lodex_ack_msg_t, ids) == 8);
static_assert(sizeof(lodex_ack_msg_t) == 608);

// Bytes of a frame with `count` ids.
constexpr size_t LodexAckFrameSize(uint32_t count) {
  return kLodexAckHeaderSize + sizeof(uint32_t) * count;
}

// Splits the front of `data` into one frame. Returns the frame's size and fills `out`
// (ids copied), 0 when more bytes are needed, or -1 when the front is not a valid frame
// (unknown kind, count out of range for the kind).
long ParseLodexAckFrame(const uint8_t* data, size_t size, lodex_ack_msg_t* out);

}  // namespace vsk::platform
