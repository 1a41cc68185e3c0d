// The acknowledgement channel: vsk_ack_register and vsk_ack_request over lodex's
// lodex_ack_init and lodex_ack_send.
//
// A request lives on exactly one of two lists and ends with exactly one callback:
//
//   vsk_ack_request --> pending --(defer timer, connected)--> sent --(answer)--> +callback 0
//                         |                                     |--(state down)--> callback 2
//                         '--(defer timer, not connected)------>+--(send failed)-> callback 2
//
// Invariants:
//  1. A request is freed right after its one callback, and only then.
//  2. The defer timer runs whenever the pending list is not empty, so pending requests
//     never wait longer than one period (200 ms).
//  3. Ids of outgoing messages are in request order; one message holds at most 150.
// Who may call: the daemon's event loop thread; the timer and lodex's callbacks run there.
#include <cstdint>
#include <cstdlib>
#include <new>

#include "libvsk/base/trace.h"
#include "platform/lodex_ack.h"
#include "platform/wtimer.h"
#include "vsk/ack.h"

namespace vsk::ack {
namespace {

constexpr wtimer_interval_t kDeferPeriod = {0, 200000000};
constexpr uint32_t kMaxIdsPerMessage = LODEX_ACK_MAX_IDS;

struct Request {
  Request* next;
  Request** prev_link;  // the link that points at this request
  uint32_t id;
  uint32_t context1;
  uint32_t context2;
};

// A singly linked forward list with the address of its last link, so that appending is
// constant time and a request unlinks itself without a walk.
// Not copyable: `last_link` may point into the list itself.
struct RequestList {
  Request* first = nullptr;
  Request** last_link = &first;

  RequestList() = default;
  RequestList(const RequestList&) = delete;
  RequestList& operator=(const RequestList&) = delete;
  void Reset() {
    first = nullptr;
    last_link = &first;
  }

  void Append(Request* r) {
    r->next = nullptr;
    r->prev_link = last_link;
    *last_link = r;
    last_link = &r->next;
  }
  void Unlink(Request* r) {
    *r->prev_link = r->next;
    if (r->next != nullptr) {
      r->next->prev_link = r->prev_link;
    } else {
      last_link = r->prev_link;
    }
    r->next = nullptr;
    r->prev_link = nullptr;
  }
  Request* PopFront() {
    Request* r = first;
    if (r != nullptr) Unlink(r);
    return r;
  }
  Request* Find(uint32_t id) const {
    for (Request* r = first; r != nullptr; r = r->next) {
      if (r->id == id) return r;
    }
    return nullptr;
  }
};

struct ChannelState {
  bool registered = false;
  bool connected = false;
  bool timer_running = false;
  uint32_t next_request_id = 0;
  evContext event_ctx{};
  wtimer_root_t* timer_ctx = nullptr;
  wtimer_leaf_t* defer_timer = nullptr;
  vsk_ack_response_cbk_t callback = nullptr;
  RequestList pending;
  RequestList sent;
};

ChannelState g_state;

void Nack(ChannelState& s, Request* r) {
  VSK_TRACE("NACK Response to request %d", r->id);
  s.callback(r->context1, r->context2, VSK_ACK_NEGATIVE);
}

void SendMessage(ChannelState& s, lodex_ack_msg_t& msg) {
  VSK_TRACE("Request %d acks", msg.count);
  if (lodex_ack_send(&msg)) {
    VSK_TRACE("Request sent %d acks", msg.count);
    return;
  }
  VSK_TRACE("Request send failed for %d acks", msg.count);
  for (uint32_t i = 0; i < msg.count; ++i) {
    Request* r = s.sent.Find(msg.ids[i]);
    if (r == nullptr) {
      VSK_TRACE("Missing entry %d during unwind", msg.ids[i]);
      continue;
    }
    s.sent.Unlink(r);
    Nack(s, r);
    delete r;
  }
}

// The defer timer: everything pending goes out (or, without a connection, is answered
// negatively), in messages of at most 150 ids.
void OnDeferExpired(wtimer_leaf_t*, void*) {
  ChannelState& s = g_state;
  VSK_TRACE("** Defered Event **");  // published text: the missing "r" is part of it
  lodex_ack_msg_t msg{};
  while (Request* r = s.pending.PopFront()) {
    VSK_TRACE("Walking %d", r->id);
    if (!s.connected) {
      VSK_TRACE("Connection down for %d", r->id);
      Nack(s, r);
      delete r;
      continue;
    }
    s.sent.Append(r);
    msg.ids[msg.count++] = r->id;
    if (msg.count > kMaxIdsPerMessage - 1) {
      SendMessage(s, msg);
      msg.count = 0;
    }
  }
  if (msg.count > 0) SendMessage(s, msg);
  s.timer_running = false;
}

void OnAnswer(void*, const lodex_ack_msg_t* msg) {
  ChannelState& s = g_state;
  VSK_TRACE("Response, num = %d", msg->count);
  for (uint32_t i = 0; i < msg->count; ++i) {
    Request* r = s.sent.Find(msg->ids[i]);
    if (r == nullptr) {
      VSK_TRACE("Failed to find request %d", msg->ids[i]);
      continue;
    }
    VSK_TRACE("Response to ack request %d", r->id);
    s.sent.Unlink(r);
    s.callback(r->context1, r->context2, VSK_ACK_POSITIVE);
    delete r;
  }
}

void OnStateChange(void*, bool up) {
  ChannelState& s = g_state;
  if (s.connected == up) return;
  s.connected = up;
  VSK_TRACE("** state change to %s **", up ? "UP" : "DOWN");
  if (up) return;
  VSK_TRACE("** Lost connection **");
  // What was sent can no longer be answered; what is pending is answered by the next
  // expiry of the defer timer, which finds the connection down.
  while (Request* r = s.sent.PopFront()) {
    VSK_TRACE("Walking %d", r->id);
    Nack(s, r);
    delete r;
  }
}

void OnTimersFatal(const char* reason) {
  VSK_TRACE("Wtimers for VSK ACK init failed %s", reason);
  g_state.registered = false;
  std::exit(1);
}

int Register(void* context, wtimer_root_t* timer_ctx, vsk_ack_response_cbk_t callback) {
  if (context == nullptr || callback == nullptr) {
    VSK_TRACE("Invalid call to vsk_ack_register()");
    return VSK_ACK_FAILURE;
  }
  ChannelState& s = g_state;
  if (s.registered) {
    VSK_TRACE("Application already registered");
    return VSK_ACK_FAILURE;
  }
  // Step 3: all state cleared, both lists empty.
  s.connected = s.timer_running = false;
  s.next_request_id = 0;
  s.timer_ctx = nullptr;
  s.defer_timer = nullptr;
  s.callback = nullptr;
  s.pending.Reset();
  s.sent.Reset();
  s.event_ctx = static_cast<const vsk_ack_app_context_t*>(context)->event_ctx;
  s.timer_ctx = timer_ctx;
  if (s.timer_ctx == nullptr) {
    s.timer_ctx = wtimer_init(s.event_ctx, 0);
    if (s.timer_ctx == nullptr) {
      VSK_TRACE("Failed to init timer");
      return VSK_ACK_FAILURE;
    }
    wtimer_set_fatal_handler(s.timer_ctx, OnTimersFatal);
    VSK_TRACE("Created timer Context");
  }
  s.defer_timer = wtimer_create_leaf(s.timer_ctx, 0, OnDeferExpired, nullptr);
  if (s.defer_timer == nullptr) {
    VSK_TRACE("Failed to create defer timer");
    return VSK_ACK_FAILURE;
  }
  VSK_TRACE("Created defer timer");
  s.registered = true;
  s.callback = callback;
  lodex_ack_init(&s, s.timer_ctx, OnAnswer, OnStateChange);
  return VSK_ACK_SUCCESS;
}

int Request(uint32_t context1, uint32_t context2) {
  ChannelState& s = g_state;
  if (!s.registered) {
    VSK_TRACE("vsk ack not registered");
    return VSK_ACK_FAILURE;
  }
  if (!s.connected) {
    VSK_TRACE("No connection to server");
    return VSK_ACK_NO_CONNECTION;
  }
  auto* r = new (std::nothrow) struct Request;
  if (r == nullptr) {
    VSK_TRACE("No memory to create ack request");
    return VSK_ACK_FAILURE;
  }
  r->id = s.next_request_id++;
  r->context1 = context1;
  r->context2 = context2;
  s.pending.Append(r);
  if (!s.timer_running) {
    s.timer_running = true;
    wtimer_start_oneshot_precise(s.defer_timer, &kDeferPeriod, 0);
  }
  VSK_TRACE("Created ack request %d", r->id);
  return VSK_ACK_ACCEPTED;
}

}  // namespace
}  // namespace vsk::ack

extern "C" {

VSK_EXPORT int vsk_ack_register(void* context, wtimer_root* timer_context,
                                vsk_ack_response_cbk_t callback) {
  return vsk::ack::Register(context, timer_context, callback);
}

VSK_EXPORT int vsk_ack_request(uint32_t context1, uint32_t context2) {
  return vsk::ack::Request(context1, context2);
}

}  // extern "C"
