/* UID tables: a small unique number with a reference count for a name.
 *
 * Application-defined table 6 maps each name in use to a number drawn from unit pool 1
 * (1000 upward) and the count of its holders. Adding a known name raises its count and
 * returns the same number; deleting the last reference gives the number back to the pool.
 * The table survives in the store, and `orvd` marks its numbers as in use again when it
 * rebuilds the pools at a start.
 *
 * A name is the key: at most 32 bytes of text (the table's key length), kept zero-padded.
 * The read-modify-write of a record is not one transaction: one writer per name at a time.
 *
 * Statuses: the library's codes (0, -6, -7, -1, ...), except that the last delete of a
 * name returns the pool's own release status (0, -1, -2, -3). */
#ifndef VSK_UID_H
#define VSK_UID_H

#include <stdint.h>

#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* "uid_hash_table" and "uid_hash_table_dump": the table's name, and a name exported beside
 * it for applications. */
VSK_EXPORT extern const char *uid_hash_table_name;
VSK_EXPORT extern const char *uid_hash_table_dump_name;

/* Opens the table once per process. */
VSK_EXPORT vsk_status_t vsk_uid_open_db(void);
/* Takes a reference on `name`; its number in *uid. */
VSK_EXPORT vsk_status_t vsk_uid_add_db_entry(const char *name, uint32_t *uid);
/* Drops a reference on `name`; the last one removes the record and frees the number. */
VSK_EXPORT vsk_status_t vsk_uid_delete_db_entry(const char *name);
/* Marks every number of the table as in use in pool 1 (the rebuild at a start). */
VSK_EXPORT vsk_status_t vsk_uid_recover(void);

VSK_END_DECLS

#endif /* VSK_UID_H */
