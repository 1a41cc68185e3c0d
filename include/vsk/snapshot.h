/* The snapshot handle: the caller-owned structure of every read and walk.
 *
 * The caller zeroes the whole handle before first use. This header holds the handle's
 * layout, field for field, and the array-read helpers that the attribute model owns; the
 * snapshot operations themselves (get, walk, free) and the loaded-content types are
 * declared beside it as they are added. */
#ifndef VSK_SNAPSHOT_H
#define VSK_SNAPSHOT_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/store.h"

VSK_BEGIN_DECLS

#define VSK_HANDLE_FLAG_ATTRS_ONLY 5
#define VSK_SNAPSHOT_FREED 0xdeadbeefull
#define VSK_ARRAY_LEVELS 10

struct vsk_snapshot_data;

typedef struct vsk_snapshot_handle {
  vsk_session_id_t session_id;
  vsk_session_id_t client_session_id;
  uint32_t flags;
  void *attr_result;
  vsk_session_id_t current_key;
  vsk_session_id_t next_key;
  vsk_session_id_t start_key;
  uint16_t service_count;
  vsk_session_id_t *service_ids;
  uint32_t service_ids_owned;
  uint32_t include_services;
  uint16_t config_bits_len;
  uint32_t use_shm;
  uint8_t *config_bits;
  vsk_db_txn_t *walk;
  uint32_t app_id;
  /* Array cursor: the state of an array read across calls. */
  char *array_attr_name;
  char *array_attr_value;
  char *last_attr_name;
  uint8_t same_entry;
  uint8_t array_done;
  uint16_t array_id;
  patricia_root_t *array_root;
  patricia_root_t *level_root;
  vsk_array_index_node_t *level_cursor[VSK_ARRAY_LEVELS];
  vsk_array_index_node_t *level_next[VSK_ARRAY_LEVELS];
  uint32_t level;
  uint32_t entry_index;
  uint16_t entry_count;
  void *shm_session_copy;
  void *shm_dynamic_copy;
  struct vsk_snapshot_data *data;
  uint64_t freed_marker;
} vsk_snapshot_handle;

/* True when the members of the current array instance are all read. */
VSK_EXPORT bool vsk_done_reading_all_array_entries(const vsk_snapshot_handle *snapshot);
/* Frees the three remembered strings and zeroes the array read position. */
VSK_EXPORT void vsk_cleanup_after_arrays(vsk_snapshot_handle *snapshot);
/* 1 when `name`, from its second character on, names the array being read; else 0. */
VSK_EXPORT int vsk_get_next_array(const char *name, vsk_snapshot_handle *snapshot);

VSK_END_DECLS

#endif /* VSK_SNAPSHOT_H */
