/* The generic table engine and the registry of application-defined tables.
 *
 * dyn_db_* is the one place where the library's tables touch Berkeley DB handles. Each
 * operation takes a table handle, a key with its encoder and a value with its encoder or
 * decoder, builds the DBTs and returns a translated status (except open and close, whose
 * callers interpret the raw Berkeley DB value). */
#ifndef VSK_DYN_DB_H
#define VSK_DYN_DB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Two-pass encoder: returns the size the encoded form needs and writes it to `buffer`
 * only if it fits in `room`. The result is the same in either case. */
typedef uint32_t (*vsk_encoder_t)(const void *object, void *buffer, uint32_t room);

/* Key encoder of lookups through secondary tables and cursors: (key, 0, buffer, room). */
typedef uint32_t (*vsk_key_encoder4_t)(const void *key, int unused, void *buffer, uint32_t room);

/* Value decoder: `out` is the caller's pointer to where the object goes. Returns the
 * bytes consumed or a negative status. The decoded object keeps `data`. */
typedef int (*vsk_value_decoder_t)(void *out, void *data, uint32_t size, const uint8_t *mask,
                                   uint16_t mask_len);

/* Key decoder: as a value decoder without the mask. */
typedef int (*vsk_key_decoder_t)(void *out, void *data, uint32_t size);

/* Decoder of a secondary key: (out, 0, data, size, allocator, 0). */
typedef int (*vsk_secondary_decoder_t)(void *out, int unused, void *data, uint32_t size,
                                       void *(*allocator)(size_t), int unused2);

/* Berkeley DB's associate callback. */
typedef int (*vsk_sec_key_callback_t)(struct __db *secondary, const struct __db_dbt *key,
                                      const struct __db_dbt *data, struct __db_dbt *result);

VSK_EXPORT int dyn_db_open(struct __db **out, struct __db_env *env, const char *name,
                           uint32_t extra_flags, bool master);
VSK_EXPORT int dyn_db_sec_open(struct __db **out, struct __db_env *env, const char *name,
                               struct __db *primary, vsk_sec_key_callback_t callback,
                               uint32_t extra_flags);
/* Closes a table without flushing its pages (DB_NOSYNC): the environment is
 * transactional, and a flush could wait for ever on a page held by a process that died
 * inside the library. 0 for a null handle. */
VSK_EXPORT int dyn_db_close(struct __db *db);

VSK_EXPORT vsk_status_t dyn_db_exists(struct __db *db, struct __db_txn *txn, const void *key,
                                      vsk_encoder_t key_encoder, uint32_t flags);
VSK_EXPORT vsk_status_t dyn_db_del(struct __db *db, struct __db_txn *txn, const void *key,
                                   vsk_encoder_t key_encoder, uint32_t flags);
VSK_EXPORT vsk_status_t dyn_db_put(struct __db *db, struct __db_txn *txn, const void *key,
                                   vsk_encoder_t key_encoder, const void *value,
                                   vsk_encoder_t value_encoder, uint32_t flags);
VSK_EXPORT vsk_status_t dyn_db_get(struct __db *db, struct __db_txn *txn, const void *key,
                                   vsk_encoder_t key_encoder, void *out,
                                   vsk_value_decoder_t decoder, uint32_t flags,
                                   const uint8_t *mask, uint16_t mask_len);
VSK_EXPORT vsk_status_t dyn_vsk_get(struct __db *db, struct __db_txn *txn, const void *key,
                                    vsk_key_encoder4_t key_encoder, void *key_out,
                                    vsk_key_decoder_t key_decoder, void *out,
                                    vsk_value_decoder_t decoder, uint32_t flags);
VSK_EXPORT vsk_status_t dyn_db_set_cursor(struct __dbc *cursor, const void *key, uint32_t length);
VSK_EXPORT vsk_status_t dyn_db_get_cursor(struct __dbc *cursor, const void *key,
                                          vsk_key_encoder4_t key_encoder, void *key_out,
                                          vsk_key_decoder_t key_decoder, void *out,
                                          vsk_value_decoder_t decoder, void *secondary_out,
                                          vsk_secondary_decoder_t secondary_decoder,
                                          uint32_t operation, const uint8_t *mask,
                                          uint16_t mask_len);

/* Application-defined tables, ids 0 to 6. */
#define VSK_APP_DEFINED_TABLES 7

typedef struct vsk_app_defined_entry {
  uint16_t key_len;
  char *name; /* heap copy; null if the table was never defined */
} vsk_app_defined_entry_t;

VSK_EXPORT extern vsk_app_defined_entry_t vsk_app_defined[VSK_APP_DEFINED_TABLES];
VSK_EXPORT extern const uint16_t vsk_app_defined_len_table[VSK_APP_DEFINED_TABLES];

VSK_EXPORT vsk_status_t vsk_db_app_define(int16_t table_id, const char *name);

VSK_END_DECLS

#endif /* VSK_DYN_DB_H */
