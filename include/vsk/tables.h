/* The session tables: decoded records, keys and the per-table operations.
 *
 * Seven kinds of table stand in "vsk.db": client sessions, service sessions, auth requests,
 * auth responses, dynamic configuration (all keyed by an 8-byte id), application private
 * data (12-byte key) and application-defined tables 0 to 6. Every operation runs inside a
 * transaction that the caller owns, takes the block first and the key second, does no
 * retry and returns a status; a missing key is -7.
 *
 * Decoded records are heap objects of one common size whose last word `raw` holds the
 * record buffer; the pointers inside point into `raw` unless a field says otherwise. */
#ifndef VSK_TABLES_H
#define VSK_TABLES_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/status.h"
#include "vsk/store.h"

VSK_BEGIN_DECLS

/* Record sections. */
enum {
  VSK_SECTION_CLIENT_ATTRS = 0,
  VSK_SECTION_SERVICE_IDS = 1,
  VSK_SECTION_SERVICE_ATTRS = 2,
  VSK_SECTION_CLIENT_ID = 3,
  VSK_SECTION_AUTH_ATTRS = 4,
  VSK_SECTION_DYNAMIC = 5,
  VSK_SECTION_DYNAMIC_ID = 6,
  VSK_SECTION_CONFIG_BITS = 7
};
#define VSK_RECORD_VERSION 1
/* The common size of every decoded object. */
#define VSK_DECODED_OBJECT_SIZE 64

typedef struct vsk_client_session {
  vsk_attr_list_t *attrs;
  uint16_t service_count;
  vsk_session_id_t *service_ids;
  vsk_session_id_t dynamic_id;
  uint16_t config_bits_len;
  uint8_t *config_bits; /* its own heap copy, length plus one byte */
  uint8_t free_attr_values;
  uint8_t free_service_ids;
  void *raw;
} vsk_client_session_t;

typedef struct vsk_service_session {
  vsk_attr_list_t *attrs;
  vsk_session_id_t client_id;
  uint16_t config_bits_len;
  uint8_t *config_bits; /* points into raw */
  uint8_t reserved[24];
  void *raw;
} vsk_service_session_t;

typedef struct vsk_auth_info {
  vsk_attr_list_t *attrs;
  uint8_t free_attr_values;
  uint8_t reserved[47];
  void *raw;
} vsk_auth_info_t;

typedef struct vsk_dynamic_config {
  vsk_dyn_attr_list_t *attrs;
  uint8_t free_attr_values; /* frees each entry's name and value */
  uint8_t reserved[47];
  void *raw;
} vsk_dynamic_config_t;

typedef struct vsk_app_data {
  uint32_t length;
  void *data;
  uint8_t reserved[40];
  void *raw;
} vsk_app_data_t;

typedef struct vsk_session_key {
  vsk_session_id_t id;
  uint8_t reserved[48];
  void *raw;
} vsk_session_key_t;

typedef struct vsk_app_pri_key {
  vsk_session_id_t id;
  uint32_t app_id;
} vsk_app_pri_key_t;

typedef struct vsk_app_def_key {
  uint16_t table_id;
  void *key;
} vsk_app_def_key_t;

/* The last application-defined key buffer decoded by a walk. */
VSK_EXPORT extern void *decoded_data2;

/* ---- Per-table operations ------------------------------------------------------------- */

VSK_EXPORT vsk_status_t vsk_db_get_client_session(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                  vsk_client_session_t **record_out,
                                                  bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_client_session(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                  const vsk_client_session_t *record);
VSK_EXPORT vsk_status_t vsk_db_del_client_session(vsk_db_txn_t *txn,
                                                  const vsk_session_id_t *key);
VSK_EXPORT vsk_status_t vsk_db_client_session_record_exists(vsk_db_txn_t *txn,
                                                            const vsk_session_id_t *key,
                                                            bool for_update);

VSK_EXPORT vsk_status_t vsk_db_get_service_session(vsk_db_txn_t *txn,
                                                   const vsk_session_id_t *key,
                                                   vsk_service_session_t **record_out,
                                                   bool for_update, const uint8_t *mask,
                                                   uint16_t mask_len);
VSK_EXPORT vsk_status_t vsk_db_put_service_session(vsk_db_txn_t *txn,
                                                   const vsk_session_id_t *key,
                                                   const vsk_service_session_t *record);
VSK_EXPORT vsk_status_t vsk_db_del_service_session(vsk_db_txn_t *txn,
                                                   const vsk_session_id_t *key);

VSK_EXPORT vsk_status_t vsk_db_get_auth_request(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                vsk_auth_info_t **record_out, bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_auth_request(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                const vsk_auth_info_t *record);
VSK_EXPORT vsk_status_t vsk_db_del_auth_request(vsk_db_txn_t *txn, const vsk_session_id_t *key);
VSK_EXPORT vsk_status_t vsk_db_auth_request_record_exists(vsk_db_txn_t *txn,
                                                          const vsk_session_id_t *key,
                                                          bool for_update);

VSK_EXPORT vsk_status_t vsk_db_get_auth_response(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                 vsk_auth_info_t **record_out, bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_auth_response(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                 const vsk_auth_info_t *record);
VSK_EXPORT vsk_status_t vsk_db_del_auth_response(vsk_db_txn_t *txn,
                                                 const vsk_session_id_t *key);
VSK_EXPORT vsk_status_t vsk_db_auth_response_record_exists(vsk_db_txn_t *txn,
                                                           const vsk_session_id_t *key,
                                                           bool for_update);

VSK_EXPORT vsk_status_t vsk_db_get_dynamic_config(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                  vsk_dynamic_config_t **record_out,
                                                  bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_dynamic_config(vsk_db_txn_t *txn, const vsk_session_id_t *key,
                                                  const vsk_dynamic_config_t *record);
VSK_EXPORT vsk_status_t vsk_db_del_dynamic_config(vsk_db_txn_t *txn,
                                                  const vsk_session_id_t *key);
VSK_EXPORT vsk_status_t vsk_db_dynamic_config_record_exists(vsk_db_txn_t *txn,
                                                            const vsk_session_id_t *key,
                                                            bool for_update);

VSK_EXPORT vsk_status_t vsk_db_get_app_pri_data(vsk_db_txn_t *txn, const vsk_app_pri_key_t *key,
                                                vsk_app_data_t **data_out, bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_app_pri_data(vsk_db_txn_t *txn, const vsk_app_pri_key_t *key,
                                                const vsk_app_data_t *data);
VSK_EXPORT vsk_status_t vsk_db_del_app_pri_data(vsk_db_txn_t *txn, const vsk_app_pri_key_t *key);

VSK_EXPORT vsk_status_t vsk_db_get_app_def_data(vsk_db_txn_t *txn, const vsk_app_def_key_t *key,
                                                vsk_app_data_t **data_out, bool for_update);
VSK_EXPORT vsk_status_t vsk_db_put_app_def_data(vsk_db_txn_t *txn, const vsk_app_def_key_t *key,
                                                const vsk_app_data_t *data);
VSK_EXPORT vsk_status_t vsk_db_del_app_def_data(vsk_db_txn_t *txn, const vsk_app_def_key_t *key);

/* Cleared decoded objects; -2 when allocation fails. */
VSK_EXPORT vsk_status_t vsk_db_client_session_empty(vsk_client_session_t **out);
VSK_EXPORT vsk_status_t vsk_db_auth_info_empty(vsk_auth_info_t **out);
VSK_EXPORT vsk_status_t vsk_db_dynamic_config_empty(vsk_dynamic_config_t **out);

/* ---- Release (never fails; null allowed) ---------------------------------------------- */

VSK_EXPORT void vsk_db_release_session_attrs(vsk_attr_list_t **slot, bool free_values);
VSK_EXPORT void vsk_db_release_client_session(vsk_client_session_t *rec, bool free_raw);
VSK_EXPORT void vsk_db_release_service_session(vsk_service_session_t *rec, bool free_raw);
VSK_EXPORT void vsk_db_release_auth_info(vsk_auth_info_t *rec, bool free_raw);
VSK_EXPORT void vsk_db_release_dynamic_config(vsk_dynamic_config_t *rec, bool free_raw);
VSK_EXPORT void vsk_db_release_app_pri_data(vsk_app_data_t *rec, bool free_raw);
VSK_EXPORT void vsk_db_release_key_session_id(vsk_session_key_t *key, bool free_raw);
VSK_EXPORT void vsk_db_release_key_app_pri_id(vsk_session_key_t *key, bool free_raw);
VSK_EXPORT void vsk_db_release_key_app_def_id(vsk_app_def_key_t *key, bool free_raw);

/* ---- Resumable walks ------------------------------------------------------------------ */

/* One step of a walk of "client-session-db". REQUIRES: walk->cursor null. Returns 0 or -20
 * (read but filtered out; the keys are valid), -7 at the end, or a failure. *next_out stays
 * as it was at the table's end. */
VSK_EXPORT vsk_status_t vsk_db_iterate_client_session(
    vsk_db_txn_t *walk, vsk_session_id_t current_key, vsk_session_id_t next_key,
    vsk_session_id_t start_key, bool nearest, vsk_session_key_t **key_out,
    vsk_session_key_t **next_out, vsk_client_session_t **record_out, const uint8_t *mask,
    uint16_t mask_len);
VSK_EXPORT vsk_status_t vsk_db_iterate_service_session(
    vsk_db_txn_t *walk, vsk_session_id_t current_key, vsk_session_id_t next_key,
    vsk_session_id_t start_key, bool nearest, vsk_session_key_t **key_out,
    vsk_session_key_t **next_out, vsk_service_session_t **record_out, const uint8_t *mask,
    uint16_t mask_len);
/* `key_out` and `next_out` are the caller's objects; `data_out` is not written. */
VSK_EXPORT vsk_status_t vsk_db_iterate_app_defined(vsk_db_txn_t *walk, const void *current_key,
                                                   const void *next_key,
                                                   vsk_app_def_key_t **key_out,
                                                   vsk_app_def_key_t **next_out,
                                                   vsk_app_data_t **data_out, uint16_t table_id);

VSK_END_DECLS

#endif /* VSK_TABLES_H */
