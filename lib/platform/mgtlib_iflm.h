// Interface look-up of the management library: which logical interfaces exist now, by
// index, with the generation number each got when it was (re)created.
//
// A handle is a registry of living interfaces that its owner keeps current: the daemon
// that learns of interfaces (from the kernel or the interface daemon) adds and removes
// them, and readers such as the statistics clean-up walk ask it. A look-up answers with a
// message of the library's own layout (mgtlib_ifl_msg_t), which the asker gives back with
// mgtlib_msg_idl_release. While the owner marks the source unreachable, look-ups fail with
// ENOTCONN, so that a reader can tell "gone" (ENOENT) from "cannot say".
//
// All functions are safe to call from several threads on one handle.
#pragma once

#include <cstdint>

extern "C" {

typedef struct mgtlib_iflm mgtlib_iflm_t;

// The message of a found interface: 88 bytes, host order.
typedef struct mgtlib_ifl_msg {
  uint32_t index;
  uint32_t flags;
  char name[72];  // NUL-terminated
  uint32_t mtu;
  uint32_t gen_num;  // at byte 84
} mgtlib_ifl_msg_t;

// A new, empty and reachable registry; null when memory is short.
__attribute__((visibility("default"))) mgtlib_iflm_t* mgtlib_iflm_open(void);
__attribute__((visibility("default"))) void mgtlib_iflm_close(mgtlib_iflm_t* handle);
// Adds interface `index` or replaces what is known of it. 0, EINVAL or ENOMEM.
__attribute__((visibility("default"))) int mgtlib_iflm_add(mgtlib_iflm_t* handle, uint32_t index,
                                                           uint32_t gen_num, const char* name,
                                                           uint32_t mtu);
// Forgets interface `index`. 0, or ENOENT when it was not known.
__attribute__((visibility("default"))) int mgtlib_iflm_remove(mgtlib_iflm_t* handle,
                                                              uint32_t index);
// Marks the source of the registry reachable or not.
__attribute__((visibility("default"))) void mgtlib_iflm_set_reachable(mgtlib_iflm_t* handle,
                                                                      bool reachable);

// Looks up `index`, given in `index_len` bytes (4). 0 with *msg (a new message) and
// *msg_len; ENOENT (2) when no such interface exists; ENOTCONN while the source is
// unreachable; EINVAL for bad arguments; ENOMEM.
__attribute__((visibility("default"))) int mgtlib_iflm_get_by_index(mgtlib_iflm_t* handle,
                                                                    uint32_t index,
                                                                    uint32_t index_len, void** msg,
                                                                    uint32_t* msg_len);
// Gives back a message of mgtlib_iflm_get_by_index; null is ignored.
__attribute__((visibility("default"))) void mgtlib_msg_idl_release(mgtlib_iflm_t* handle, void* msg,
                                                                   uint32_t msg_len);

}  // extern "C"
