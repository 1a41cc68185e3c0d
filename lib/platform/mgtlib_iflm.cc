#include "platform/mgtlib_iflm.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

static_assert(sizeof(mgtlib_ifl_msg_t) == 88);
static_assert(offsetof(mgtlib_ifl_msg_t, gen_num) == 84);

struct mgtlib_iflm {
  std::mutex mu;
  std::map<uint32_t, mgtlib_ifl_msg_t> living;
  bool reachable = true;
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
  try {
    handle->living[index] = msg;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  return 0;
}

int mgtlib_iflm_remove(mgtlib_iflm_t* handle, uint32_t index) {
  if (handle == nullptr) return EINVAL;
  std::lock_guard<std::mutex> lock(handle->mu);
  return handle->living.erase(index) == 1 ? 0 : ENOENT;
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
  auto it = handle->living.find(index);
  if (it == handle->living.end()) return ENOENT;
  auto* copy = static_cast<mgtlib_ifl_msg_t*>(std::malloc(sizeof(mgtlib_ifl_msg_t)));
  if (copy == nullptr) return ENOMEM;
  *copy = it->second;
  *msg = copy;
  *msg_len = sizeof(mgtlib_ifl_msg_t);
  return 0;
}

void mgtlib_msg_idl_release(mgtlib_iflm_t*, void* msg, uint32_t) { std::free(msg); }

}  // extern "C"
