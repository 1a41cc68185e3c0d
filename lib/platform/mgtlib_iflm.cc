// The registry behind a look-up handle: the messages of the living interfaces in one
// array sorted by index, grown with realloc so that a full memory gives ENOMEM, not an
// abort.
#include "platform/mgtlib_iflm.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

static_assert(sizeof(mgtlib_ifl_msg_t) == 88);
static_assert(offsetof(mgtlib_ifl_msg_t, gen_num) == 84);

struct mgtlib_iflm {
  std::mutex mu;
  mgtlib_ifl_msg_t* living = nullptr;  // sorted by index
  size_t count = 0;
  size_t room = 0;
  bool reachable = true;

  ~mgtlib_iflm() { std::free(living); }

  // The position of `index`, or where it would go.
  size_t Find(uint32_t index) const {
    size_t lo = 0, hi = count;
    while (lo < hi) {
      size_t mid = lo + (hi - lo) / 2;
      if (living[mid].index < index) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }
  bool Has(size_t at, uint32_t index) const { return at < count && living[at].index == index; }
};

extern "C" {

mgtlib_iflm_t* mgtlib_iflm_open(void) { return new (std::nothrow) mgtlib_iflm; }

void mgtlib_iflm_close(mgtlib_iflm_t* handle) { delete handle; }

int mgtlib_iflm_add(mgtlib_iflm_t* handle, uint32_t index, uint32_t gen_num, const char* name,
                    uint32_t mtu) {
  if (handle == nullptr) return EINVAL;
  mgtlib_ifl_msg_t msg{};
  msg.index = index;
  msg.gen_num = gen_num;
  msg.mtu = mtu;
  if (name != nullptr) std::strncpy(msg.name, name, sizeof(msg.name) - 1);
  std::lock_guard<std::mutex> lock(handle->mu);
  const size_t at = handle->Find(index);
  if (!handle->Has(at, index)) {
    if (handle->count == handle->room) {
      const size_t room = handle->room == 0 ? 16 : 2 * handle->room;
      void* grown = std::realloc(handle->living, room * sizeof(mgtlib_ifl_msg_t));
      if (grown == nullptr) return ENOMEM;
      handle->living = static_cast<mgtlib_ifl_msg_t*>(grown);
      handle->room = room;
    }
    std::memmove(handle->living + at + 1, handle->living + at,
                 (handle->count - at) * sizeof(mgtlib_ifl_msg_t));
    ++handle->count;
  }
  handle->living[at] = msg;
  return 0;
}

int mgtlib_iflm_remove(mgtlib_iflm_t* handle, uint32_t index) {
  if (handle == nullptr) return EINVAL;
  std::lock_guard<std::mutex> lock(handle->mu);
  const size_t at = handle->Find(index);
  if (!handle->Has(at, index)) return ENOENT;
  std::memmove(handle->living + at, handle->living + at + 1,
               (handle->count - at - 1) * sizeof(mgtlib_ifl_msg_t));
  --handle->count;
  return 0;
}

void mgtlib_iflm_set_reachable(mgtlib_iflm_t* handle, bool reachable) {
  if (handle == nullptr) return;
  std::lock_guard<std::mutex> lock(handle->mu);
  handle->reachable = reachable;
}

int mgtlib_iflm_get_by_index(mgtlib_iflm_t* handle, uint32_t index, uint32_t index_len, void** msg,
                             uint32_t* msg_len) {
  if (handle == nullptr || index_len != sizeof(index) || msg == nullptr || msg_len == nullptr) {
    return EINVAL;
  }
  *msg = nullptr;
  *msg_len = 0;
  std::lock_guard<std::mutex> lock(handle->mu);
  if (!handle->reachable) return ENOTCONN;
  const size_t at = handle->Find(index);
  if (!handle->Has(at, index)) return ENOENT;
  auto* copy = static_cast<mgtlib_ifl_msg_t*>(std::malloc(sizeof(mgtlib_ifl_msg_t)));
  if (copy == nullptr) return ENOMEM;
  *copy = handle->living[at];
  *msg = copy;
  *msg_len = sizeof(mgtlib_ifl_msg_t);
  return 0;
}

void mgtlib_msg_idl_release(mgtlib_iflm_t*, void* msg, uint32_t) { std::free(msg); }

}  // extern "C"
