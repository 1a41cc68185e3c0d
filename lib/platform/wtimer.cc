// Timers on libevent: a root holds the context's event_base, a leaf one timer event.
#include "platform/wtimer.h"

#include <event2/event.h>

#include <new>

struct wtimer_root {
  event_base* base;
  wtimer_fatal_t fatal;
};

struct wtimer_leaf {
  wtimer_root_t* root;
  event* ev;
  wtimer_callback_t callback;
  void* arg;
  bool running;
};

namespace vsk::platform {
namespace {

void OnLeafFired(evutil_socket_t, short, void* arg) {
  auto* leaf = static_cast<wtimer_leaf_t*>(arg);
  leaf->running = false;  // before the callback, which may restart or destroy the leaf
  leaf->callback(leaf, leaf->arg);
}

}  // namespace

event_base* TimerRootBase(const wtimer_root_t* root) {
  return root != nullptr ? root->base : nullptr;
}

}  // namespace vsk::platform

extern "C" {

wtimer_root_t* wtimer_init(evContext event_ctx, uint32_t /*flags*/) {
  event_base* base = evGetBase(event_ctx);
  if (base == nullptr) return nullptr;
  return new (std::nothrow) wtimer_root{base, nullptr};
}

wtimer_leaf_t* wtimer_create_leaf(wtimer_root_t* root, uint32_t /*flags*/,
                                  wtimer_callback_t callback, void* arg) {
  if (root == nullptr || callback == nullptr) return nullptr;
  auto* leaf = new (std::nothrow) wtimer_leaf{root, nullptr, callback, arg, false};
  if (leaf == nullptr) return nullptr;
  leaf->ev = evtimer_new(root->base, vsk::platform::OnLeafFired, leaf);
  if (leaf->ev == nullptr) {
    delete leaf;
    return nullptr;
  }
  return leaf;
}

int wtimer_start_oneshot_precise(wtimer_leaf_t* leaf, const wtimer_interval_t* interval,
                                 uint32_t /*flags*/) {
  if (leaf == nullptr || interval == nullptr || interval->nsec >= 1000000000u) return -1;
  timeval tv{static_cast<time_t>(interval->sec),
             static_cast<suseconds_t>((interval->nsec + 999u) / 1000u)};
  if (tv.tv_usec >= 1000000) {
    tv.tv_sec += 1;
    tv.tv_usec -= 1000000;
  }
  if (evtimer_add(leaf->ev, &tv) != 0) {
    if (leaf->root->fatal != nullptr) leaf->root->fatal("the event loop refused a timer");
    return -1;
  }
  leaf->running = true;
  return 0;
}

bool wtimer_running(const wtimer_leaf_t* leaf) { return leaf != nullptr && leaf->running; }

int wtimer_destroy(wtimer_leaf_t* leaf) {
  if (leaf == nullptr) return 0;
  event_free(leaf->ev);
  delete leaf;
  return 0;
}

void wtimer_root_destroy(wtimer_root_t* root) { delete root; }

void wtimer_set_fatal_handler(wtimer_root_t* root, wtimer_fatal_t handler) {
  if (root != nullptr) root->fatal = handler;
}

}  // extern "C"
