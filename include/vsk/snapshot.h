/* Snapshots: private, consistent copies of sessions, read without touching the store again.
 *
 * A daemon zeroes a vsk_snapshot_handle (memset or calloc), names a session by id
 * (`client_session_id`, or `session_id`, a generic id that may name a client or a service),
 * and calls vsk_get_snapshot. One Berkeley DB transaction covers the whole of one snapshot:
 * the client record, its dynamic configuration, on request its services and the
 * application's private data, arranged as patricia trees under `data`. A session held in
 * the shared-memory cache is read from there by vsk_get_snapshot (and its dynamic
 * configuration also by searches); walks never use the cache.
 *
 * Walks (vsk_get_next_snapshot) and searches (vsk_search_session) are sequences of
 * single-session snapshots, each in a transaction of its own, resumed by key: nothing is
 * held between steps. Reads of a loaded handle: vsk/attr_read.h. A handle belongs to one
 * thread. vsk_free_snapshot_handle releases the content; the ids, the walk keys, `walk`,
 * `use_shm`, `include_services` and `app_id` survive it, and a second free is silent. */
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
struct vsk_client_session;
struct vsk_service_session;
struct vsk_dynamic_config;
struct vsk_app_data;

/* Actions of vsk_get_snapshot_internal. A walk step (2) never uses the session cache. */
#define VSK_SNAPSHOT_ACTION_GET 0
#define VSK_SNAPSHOT_ACTION_SEARCH 1
#define VSK_SNAPSHOT_ACTION_WALK 2

/* vsk_snapshot_filter.flags: bit 0 walks the client table; bit 1 with it loads each
 * client's services; bit 1 alone (the value 2 exactly) walks the service table. */
#define VSK_FILTER_CLIENT_SESSIONS 0x1u
#define VSK_FILTER_SERVICE_SESSIONS 0x2u

/* freed_marker while a snapshot is being built. */
#define VSK_SNAPSHOT_BUILDING 0xffffffffull

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

/* The loaded client part. Trees are patricia roots of vsk_attr_tree_node_t. */
typedef struct vsk_snapshot_client_data {
  struct vsk_client_session *record;         /* owned */
  patricia_root_t *attrs;                    /* key: the 2-byte type; values in record */
  patricia_root_t *dynamic;                  /* by name, array aware */
  patricia_root_t *predefined;               /* computed on demand; null until then */
  patricia_root_t *dynamic_str;              /* string forms computed on demand */
  struct vsk_dynamic_config *dynamic_record; /* owned; null when the session has none */
  struct vsk_app_data *app_private;          /* owned; null without app_id or record */
} vsk_snapshot_client_data;

/* One service session in the service tree: key in place, the 8-byte id. */
typedef struct vsk_snapshot_service_node {
  patricia_node_t header;
  vsk_session_id_t id;
  struct vsk_service_session *record; /* owned */
  patricia_root_t *attrs;
  patricia_root_t *dynamic;
  patricia_root_t *dynamic_str;
  struct vsk_dynamic_config *dynamic_record; /* owned; null when none */
  struct vsk_app_data *app_private;          /* owned; null when none */
} vsk_snapshot_service_node;

typedef struct vsk_snapshot_data {
  vsk_snapshot_client_data *client; /* null only until allocated */
  patricia_root_t *services;        /* of vsk_snapshot_service_node */
} vsk_snapshot_data;

/* Which sessions a search or walk returns. Lists are the caller's, borrowed per call. */
typedef struct vsk_snapshot_filter {
  uint32_t client_type_mask;          /* 0: no test; else must share a bit with the type */
  uint32_t flags;                     /* VSK_FILTER_* */
  uint32_t app_id;                    /* copied to the handle by the recovery walk only */
  vsk_dyn_attr_list_t *dynamic_attrs; /* all must match (value prefix) */
  vsk_attr_list_t *client_attrs;      /* all must match */
  vsk_attr_list_t *service_attrs;     /* service walk: all must match */
  uint8_t *config_bits;               /* mask against the record's config bits */
  uint16_t config_bits_len;           /* 0: no mask */
} vsk_snapshot_filter;

/* Called by vsk_search_session for each session found; its result is ignored. */
typedef int (*vsk_snapshot_callback_t)(vsk_snapshot_handle *handle);

/* One session by id into a zeroed or freed handle. `flags` 0: a full snapshot;
 * VSK_HANDLE_FLAG_ATTRS_ONLY: the light read of vsk_get_client_session_attr_from_sid;
 * any other value -6. -7 when the session does not exist. */
VSK_EXPORT vsk_status_t vsk_get_snapshot(vsk_snapshot_handle *handle);
/* Calls `callback` with a loaded handle for every session that passes `filter`, freeing it
 * after each call. 0 at the end. A null filter or one with flags 0 never ends: keep to
 * filters with bit 0 or bit 1 set. */
VSK_EXPORT vsk_status_t vsk_search_session(vsk_snapshot_callback_t callback,
                                           const vsk_snapshot_filter *filter);
/* One step of a walk: the first call starts it, each later call frees the previous step
 * and loads the next session that passes `filter`; -7 at the walk's end. `done` true ends
 * a running walk (the last snapshot stays loaded). -6 for a null filter or flags 0. */
VSK_EXPORT vsk_status_t vsk_get_next_snapshot(vsk_snapshot_handle *handle,
                                              const vsk_snapshot_filter *filter, int done);
/* Releases the handle's content. Null handles and handles never loaded are fine. */
VSK_EXPORT void vsk_free_snapshot_handle(vsk_snapshot_handle *handle);
/* The body behind every read and walk; `nearest` is 1 in walks and searches. */
VSK_EXPORT vsk_status_t vsk_get_snapshot_internal(vsk_snapshot_handle *handle, int action,
                                                  const vsk_snapshot_filter *filter,
                                                  uint8_t nearest, vsk_db_txn_t *walk);
/* Loads a client record (taken over by the handle) and its dynamic configuration. */
VSK_EXPORT vsk_status_t vsk_get_client_dyn_internal(vsk_snapshot_handle *handle, void *shm,
                                                    vsk_snapshot_data *data, int action,
                                                    struct vsk_client_session *record,
                                                    vsk_db_txn_t *txn);
/* Adds one service session (its record taken over) to the handle's service tree. */
VSK_EXPORT vsk_status_t vsk_generate_service_session_snapshot(vsk_snapshot_handle *handle,
                                                              vsk_db_txn_t *txn,
                                                              vsk_session_id_t id,
                                                              struct vsk_service_session *record);

/* True when the members of the current array instance are all read. */
VSK_EXPORT bool vsk_done_reading_all_array_entries(const vsk_snapshot_handle *snapshot);
/* Frees the three remembered strings and zeroes the array read position. */
VSK_EXPORT void vsk_cleanup_after_arrays(vsk_snapshot_handle *snapshot);
/* 1 when `name`, from its second character on, names the array being read; else 0. */
VSK_EXPORT int vsk_get_next_array(const char *name, vsk_snapshot_handle *snapshot);

VSK_END_DECLS

#endif /* VSK_SNAPSHOT_H */
