// The event library on libevent.
//
// An evContext points at a Context, which holds the event_base and the list of live
// registrations; an evFileID points at one Registration. Both are heap objects owned by
// this file. Who may call: the thread that runs the context's loop.
//
// Invariants:
//  1. A Registration is in its context's list exactly while its libevent event exists;
//     __evDeselectFD and evDestroy remove, delete and free it together.
//  2. A callback may deselect its own registration: libevent has re-armed the persistent
//     event before the callback runs and touches it no more afterwards.
#include "platform/evlib.h"

#include <errno.h>
#include <event2/event.h>

#include <algorithm>
#include <new>
#include <vector>

namespace vsk::platform {
namespace {

struct Registration;

struct Context {
  event_base* base;
  bool owns_base;
  std::vector<Registration*> files;
};

struct Registration {
  Context* owner;
  event* ev;
  evFileFunc func;
  void* uap;
  int fd;
};

Context* FromHandle(evContext ctx) { return static_cast<Context*>(ctx.opaque); }

int Fail(int err) {
  errno = err;
  return -1;
}

void OnFileReady(evutil_socket_t fd, short what, void* arg) {
  auto* reg = static_cast<Registration*>(arg);
  int mask = 0;
  if (what & EV_READ) mask |= EV_READ;
  if (what & EV_WRITE) mask |= EV_WRITE;
  evContext ctx{reg->owner};
  // The registration may be freed by the callback: copy what the call needs first.
  evFileFunc func = reg->func;
  void* uap = reg->uap;
  func(ctx, uap, static_cast<int>(fd), mask);
}

void FreeRegistration(Registration* reg) {
  event_free(reg->ev);
  delete reg;
}

void OnDispatchTimeout(evutil_socket_t, short, void*) {}

}  // namespace
}  // namespace vsk::platform

using vsk::platform::Context;
using vsk::platform::Fail;
using vsk::platform::FromHandle;
using vsk::platform::Registration;

extern "C" {

int evCreate(evContext* ctx) {
  if (ctx == nullptr) return Fail(EINVAL);
  // Timers must never fire before their interval. libevent may otherwise pick the coarse
  // monotonic clock (on kernels whose tick is 1 ms) and date a timer from the time it
  // cached for the loop round rather than from its start.
  event_config* config = event_config_new();
  if (config == nullptr) return Fail(ENOMEM);
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
  event_base* base = event_base_new_with_config(config);
  event_config_free(config);
  if (base == nullptr) return Fail(ENOMEM);
  auto* c = new (std::nothrow) Context{base, true, {}};
  if (c == nullptr) {
    event_base_free(base);
    return Fail(ENOMEM);
  }
  ctx->opaque = c;
  return 0;
}

int evCreateFromBase(event_base* base, evContext* ctx) {
  if (ctx == nullptr || base == nullptr) return Fail(EINVAL);
  auto* c = new (std::nothrow) Context{base, false, {}};
  if (c == nullptr) return Fail(ENOMEM);
  ctx->opaque = c;
  return 0;
}

int evDestroy(evContext ctx) {
  Context* c = FromHandle(ctx);
  if (c == nullptr) return Fail(EINVAL);
  for (Registration* reg : c->files) vsk::platform::FreeRegistration(reg);
  c->files.clear();
  if (c->owns_base) event_base_free(c->base);
  delete c;
  return 0;
}

event_base* evGetBase(evContext ctx) {
  Context* c = FromHandle(ctx);
  return c != nullptr ? c->base : nullptr;
}

int __evSelectFD(evContext ctx, int fd, int eventmask, evFileFunc func, void* uap,
                 evFileID* id) {
  Context* c = FromHandle(ctx);
  if (c == nullptr || fd < 0 || func == nullptr) return Fail(EINVAL);
  if (eventmask == 0 || (eventmask & ~(EV_READ | EV_WRITE)) != 0) return Fail(EINVAL);
  auto* reg = new (std::nothrow) Registration{c, nullptr, func, uap, fd};
  if (reg == nullptr) return Fail(ENOMEM);
  short what = static_cast<short>(EV_PERSIST | (eventmask & (EV_READ | EV_WRITE)));
  reg->ev = event_new(c->base, fd, what, vsk::platform::OnFileReady, reg);
  if (reg->ev == nullptr || event_add(reg->ev, nullptr) != 0) {
    if (reg->ev != nullptr) event_free(reg->ev);
    delete reg;
    return Fail(EINVAL);
  }
  c->files.push_back(reg);
  if (id != nullptr) id->opaque = reg;
  return 0;
}

int __evDeselectFD(evContext ctx, evFileID id) {
  Context* c = FromHandle(ctx);
  auto* reg = static_cast<Registration*>(id.opaque);
  if (c == nullptr || reg == nullptr) return Fail(EINVAL);
  auto it = std::find(c->files.begin(), c->files.end(), reg);
  if (it == c->files.end()) return Fail(ENOENT);  // not of this context, or gone
  c->files.erase(it);
  vsk::platform::FreeRegistration(reg);
  return 0;
}

int evMainLoop(evContext ctx) {
  Context* c = FromHandle(ctx);
  if (c == nullptr) return Fail(EINVAL);
  return event_base_dispatch(c->base) < 0 ? Fail(EIO) : 0;
}

int evDispatchOnce(evContext ctx, int timeout_ms) {
  Context* c = FromHandle(ctx);
  if (c == nullptr) return Fail(EINVAL);
  if (timeout_ms < 0) return event_base_loop(c->base, EVLOOP_ONCE) < 0 ? Fail(EIO) : 0;
  // A private timer bounds the wait; it is gone again before this returns, so it can't
  // cut a later round short (as a pending loopexit would).
  event* limit = evtimer_new(c->base, vsk::platform::OnDispatchTimeout, nullptr);
  if (limit == nullptr) return Fail(ENOMEM);
  timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  evtimer_add(limit, &tv);
  int rc = event_base_loop(c->base, EVLOOP_ONCE);
  event_free(limit);
  return rc < 0 ? Fail(EIO) : 0;
}

int evBreak(evContext ctx) {
  Context* c = FromHandle(ctx);
  if (c == nullptr) return Fail(EINVAL);
  return event_base_loopbreak(c->base) == 0 ? 0 : Fail(EIO);
}

}  // extern "C"
