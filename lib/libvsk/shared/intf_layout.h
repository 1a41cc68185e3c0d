// Byte layout of the interface file "vsk_intf.db", shared by every process.
//
// All integers are in the host's byte order; every link is an offset from the start of
// the file, 0 meaning none. The file is a 48-byte header followed by a heap that only
// grows: records of 100 bytes (one per interface name) and session nodes of 28 bytes (one
// per client on an underlying interface) are cut from it at `heap_top` and, once freed,
// kept on a free list of their own kind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vsk/avl.h"
#include "vsk/intf.h"

namespace vsk::shared::intf {

inline constexpr char kFileName[] = "vsk_intf.db";
inline constexpr int kFileMode = 0644;
// The file starts at and grows by this many pages.
inline constexpr int kInitialPages = 10;
inline constexpr uint32_t kNameSize = VSK_INTF_NAME_SIZE;

struct FileHeader {
  uint8_t initialized;       // 1 once `orvd` has formatted the file
  uint8_t zero[3];
  uint32_t free_interfaces;  // head of the free interface records
  uint32_t free_sessions;    // head of the free session nodes
  SHGenAVLTree interfaces;   // tree of interface records by name
  uint32_t grow_size;        // bytes added at each growth: the initial size
  int32_t lock_pid;          // holder of semaphore 2 inside the table, 0 if free
  int32_t file_size;         // current size of the file
  uint32_t heap_top;         // first unused byte of the heap
};
static_assert(sizeof(FileHeader) == 48);
static_assert(offsetof(FileHeader, initialized) == 0);
static_assert(offsetof(FileHeader, free_interfaces) == 4);
static_assert(offsetof(FileHeader, free_sessions) == 8);
static_assert(offsetof(FileHeader, interfaces) == 12);
static_assert(offsetof(FileHeader, grow_size) == 32);
static_assert(offsetof(FileHeader, lock_pid) == 36);
static_assert(offsetof(FileHeader, file_size) == 40);
static_assert(offsetof(FileHeader, heap_top) == 44);
inline constexpr uint32_t kHeapStart = sizeof(FileHeader);

struct InterfaceRecord {
  char name[kNameSize];    // NUL-terminated, cut to 59 characters; the tree's key
  uint32_t free_next;      // link in free_interfaces while free
  SHGenAVLNode node;       // in FileHeader::interfaces; data = this record's offset
  uint32_t sessions_root;  // root of the tree of SessionNode by id
  int32_t ifl_count;       // clients with this as their own interface
  int32_t uifl_count;      // clients with this as underlying interface
  uint32_t reserved;
  uint32_t state;          // meaning belongs to the callers
};
static_assert(sizeof(InterfaceRecord) == 100);
static_assert(offsetof(InterfaceRecord, name) == 0);
static_assert(offsetof(InterfaceRecord, free_next) == 60);
static_assert(offsetof(InterfaceRecord, node) == 64);
static_assert(offsetof(InterfaceRecord, sessions_root) == 80);
static_assert(offsetof(InterfaceRecord, ifl_count) == 84);
static_assert(offsetof(InterfaceRecord, uifl_count) == 88);
static_assert(offsetof(InterfaceRecord, reserved) == 92);
static_assert(offsetof(InterfaceRecord, state) == 96);

struct SessionNode {
  uint32_t session_id[2];  // vsk_session_id_t in host order; only 4-byte aligned
  uint32_t free_next;      // link in free_sessions while free
  SHGenAVLNode node;       // in its record's session tree; data = this node's offset
};
static_assert(sizeof(SessionNode) == 28);
static_assert(offsetof(SessionNode, session_id) == 0);
static_assert(offsetof(SessionNode, free_next) == 8);
static_assert(offsetof(SessionNode, node) == 12);

inline vsk_session_id_t IdOf(const SessionNode* node) {
  vsk_session_id_t id;
  std::memcpy(&id, node->session_id, sizeof id);
  return id;
}
inline void SetId(SessionNode* node, vsk_session_id_t id) {
  std::memcpy(node->session_id, &id, sizeof id);
}

}  // namespace vsk::shared::intf
