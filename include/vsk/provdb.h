/* The provisioning table: a small key and value table, "dcpprovDB.db" in the store's
 * environment, replicated with the sessions. vsk_db_init opens it after the session tables
 * and vsk_db_close closes it before the environment; daemons only store and read.
 *
 * A key is 4 bytes of head (two 16-bit fields, stored as they are) and `key_len` bytes of
 * tail; a value is `data_len` bytes. In the store the value is preceded by `data_len` as a
 * host-order 32-bit word. Each side, with its 4 leading bytes, must fit in 1024 bytes. */
#ifndef VSK_PROVDB_H
#define VSK_PROVDB_H

#include <stdint.h>

#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Room for the stored key (head and tail) and for the stored value (length and data). */
#define PROVDB_RECORD_ROOM 1024
#define PROVDB_KEY_HEAD 4

typedef struct provdb_provision_info_record {
  uint32_t key_len;  /* length of the key tail */
  uint32_t data_len; /* length of the data */
  uint8_t *key;      /* PROVDB_KEY_HEAD bytes of head, then key_len bytes of tail */
  uint8_t *data;     /* data_len bytes; allocated by a read, freed by provdb_provision_free */
} provdb_provision_info_record_t;

/* Names and opens the table in `env`. 0; -1 without an environment; otherwise the
 * Berkeley DB value of the failed open (ENOENT on a standby that lacks the file), after
 * which the table is closed again. Called by the store's open. */
VSK_EXPORT int provdb_init_db(struct __db_env *env);
/* Closes the table (only forgets it while vsk_in_panic is set) and clears the module's
 * state. 0 or the Berkeley DB value of the failed close. Called by the store's close. */
VSK_EXPORT int provdb_db_close(void);
/* 1 when the store is usable (vsk_db_check passes), else 0. */
VSK_EXPORT int provdb_is_db_open(void);
/* Stores the record, replacing one under the same key. 0, -6 for a missing key or data or
 * a side that does not fit its room, -1 when the table is not open, or the status of the
 * failed transaction or write. */
VSK_EXPORT vsk_status_t
provdb_write_provision_info_record(const provdb_provision_info_record_t *record);
/* Reads the record of `key` and `key_len`: sets `data_len` and allocates `data`. -7 when
 * absent (then `data` is left alone), -5 for a stored value shorter than its length word,
 * -2 without memory, -6 for bad arguments, -1 when the table is not open. */
VSK_EXPORT vsk_status_t provdb_get_provision_info_record(provdb_provision_info_record_t *record);
/* Frees `data` (if any) and clears the pointer. */
VSK_EXPORT void provdb_provision_free(provdb_provision_info_record_t *record);

VSK_END_DECLS

#endif /* VSK_PROVDB_H */
