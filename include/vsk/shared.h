/* Shared state outside Berkeley DB: the two System V segments, the three-semaphore lock,
 * the session id generator, the summary counters and the unit number pools.
 *
 * Every process that links the library attaches the same main segment (1088824 bytes) and
 * snapshot segment (11000000 bytes) and the same semaphore set. Only the infrastructure
 * daemon (`create` true) creates them; everyone else finds them or fails. The library never
 * removes them: they outlive every process until the system restarts.
 *
 * Semaphores: 0 guards the last session id, 1 the free lists of both unit pools, 2 the
 * shared heap and secondary tables. A process holds at most one at a time and none across
 * a call; SEM_UNDO gives a dead holder's semaphore back. */
#ifndef VSK_SHARED_H
#define VSK_SHARED_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"
#include "vsk/session.h"

VSK_BEGIN_DECLS

/* ---- regions and the lock ----------------------------------------------------------- */

/* Byte offsets of the main segment's parts (host byte order throughout). */
#define VSK_SHM_LAST_SESSION_ID_OFFSET 0
#define VSK_SHM_UNIT_POOL0_OFFSET 16
#define VSK_SHM_UNIT_POOL1_OFFSET 1048600
#define VSK_SHM_SUMMARY_COUNTER_OFFSET 1088608
#define VSK_SHM_DB_STATUS_OFFSET 1088820
#define VSK_SHM_MAIN_SIZE 1088824
#define VSK_SHM_SNAPSHOT_SIZE 11000000

/* Semaphore numbers. */
#define VSK_LOCK_ID 0
#define VSK_LOCK_UNIT 1
#define VSK_LOCK_HEAP 2

/* Values of the status word. */
#define VSK_DB_STATUS_NONE 0
#define VSK_DB_STATUS_OPENED 1
#define VSK_DB_STATUS_RECOVERING 2
#define VSK_DB_STATUS_READY 3

/* Points at the status word of the main segment while the process has it open; else null. */
VSK_EXPORT extern uint32_t *vsk_db_status;

/* Brings up key files (creator only), main and snapshot segments, the id generator with the
 * semaphores, the summary counters and the status word. 0 or -1; a failure leaves what was
 * done in place, and the caller runs vsk_close_internal. */
VSK_EXPORT int vsk_open_internal(bool create);
/* Closes the store, then drops every pointer into shared memory. Returns vsk_db_close's
 * result. The semaphore set id is kept. */
VSK_EXPORT int vsk_close_internal(void);

/* Find (or, when `create`, create and clear) a segment and attach it. 0 or -1. */
VSK_EXPORT int vsk_shared_memory_init(bool create);
VSK_EXPORT int vsk_snap_shared_memory_init(bool create);
/* Base of the main segment plus `offset`, unchecked; null while not attached. */
VSK_EXPORT void *vsk_get_shm_ptr(int32_t offset);
/* Base of the snapshot segment, or null. */
VSK_EXPORT void *vsk_snap_get_shared_memory_ptr(void);
VSK_EXPORT void vsk_detach_shm(void);
/* Always 0. */
VSK_EXPORT int vsk_snap_detach_shm(void);

/* Obtains the semaphore set (creating it with every semaphore at 1 when `create`). 0 or -1.
 * Once obtained, the id is kept for the life of the process. */
VSK_EXPORT int vsk_lock_init(bool create);
/* Wait for / give back semaphore `n`. An interrupted wait is retried, 1000 attempts in all.
 * 0 or -1. */
VSK_EXPORT int vsk_acquire_lock(int n);
VSK_EXPORT int vsk_release_lock(int n);

/* Stores ((session_id - 1) % 1500) * 1500, cut to 16 bits, in ids->shm_offset. Always 0. */
VSK_EXPORT int vsk_get_shared_mem(vsk_session_ids_t *ids);

/* ---- session id generator ----------------------------------------------------------- */

/* vsk_lock_init(create), then points at the id word. 0 or -1. */
VSK_EXPORT int vsk_id_generator_attach(bool create);
VSK_EXPORT void vsk_id_generator_detach(void);
/* Next id under semaphore 0: 0x7FFFFFFFFFFFFFFF is followed by 1. 0 or -1 (a failed
 * release still writes the id, which is then used up). */
VSK_EXPORT int vsk_id_generate(vsk_session_id_t *id);
/* Raises the last id to at least `id` under semaphore 0; never lowers it. 0 or -1. */
VSK_EXPORT int vsk_id_recover(vsk_session_id_t id);
/* Reads the last id without the lock; 0 while not attached. */
VSK_EXPORT vsk_session_id_t vsk_id_get_last(void);
/* Writes the last id without the lock; -1 while not attached. */
VSK_EXPORT int vsk_id_update(vsk_session_id_t id);

/* ---- summary counters --------------------------------------------------------------- */

/* The record: 49 unsigned 32-bit slots, 196 bytes. A private record has the same form. */
#define VSK_SUMMARY_COUNTER_SLOTS 49
#define VSK_SUMMARY_COUNTER_SIZE (VSK_SUMMARY_COUNTER_SLOTS * 4)

#define VSK_SUMMARY_COUNTER_TOTAL 0
#define VSK_SUMMARY_COUNTER_STATE_SUM 7
#define VSK_SUMMARY_COUNTER_TYPE_SUM 23

/* The shared record while attached, else null. */
VSK_EXPORT extern uint32_t *vsk_summary_counter;

/* Slot numbers, in unsigned 32-bit arithmetic (a state of -1 maps to slot 0). */
VSK_EXPORT uint32_t vsk_session_state_to_summary_counter(int32_t state);
VSK_EXPORT uint32_t vsk_session_type_to_summary_counter(uint32_t type);
VSK_EXPORT uint32_t vsk_session_ifl_type_to_summary_counter(int32_t ifl_type);
VSK_EXPORT uint32_t vsk_session_config_bit_to_summary_counter(int32_t bit);

/* Changes of one slot (and its sum slot): 0, -2 when detached and no private `record` was
 * given, -22 for a slot above 48. `record` null means the shared record. Decrements always
 * act on the shared record. No zero test: 0 - 1 wraps. */
VSK_EXPORT int vsk_summary_counter_increment_state(int32_t state, uint32_t *record);
VSK_EXPORT int vsk_summary_counter_decrement_state(int32_t state);
VSK_EXPORT int vsk_summary_counter_increment_type(uint32_t type, uint32_t *record);
VSK_EXPORT int vsk_summary_counter_decrement_type(uint32_t type);
VSK_EXPORT int vsk_summary_counter_increment_ifl_type(int32_t ifl_type, uint32_t *record);
VSK_EXPORT int vsk_summary_counter_decrement_ifl_type(int32_t ifl_type);
VSK_EXPORT int vsk_summary_counter_increment_total(uint32_t *record);
VSK_EXPORT int vsk_summary_counter_decrement_total(void);
/* Counts bits 0 to 18 at most of `bitmap` (`length` bytes). The last non-zero result of a
 * slot, or 0; a length of 0 or less does nothing. */
VSK_EXPORT int vsk_summary_counter_increment_config_bits(const uint8_t *bitmap, int32_t length,
                                                         uint32_t *record);
VSK_EXPORT int vsk_summary_counter_decrement_config_bits(const uint8_t *bitmap, int32_t length);

VSK_EXPORT void vsk_summary_counter_attach(void);
VSK_EXPORT void vsk_summary_counter_detach(void);
/* Stand-alone attach for a reader that is not registered: -17 on an unsupported platform,
 * -1 when the main segment is missing, else 0. Takes no semaphore. */
VSK_EXPORT int vsk_summary_counter_open(void);
VSK_EXPORT void vsk_summary_counter_close(void);
/* Copies the shared record into `dest` (196 bytes); -2 while detached. */
VSK_EXPORT int vsk_get_summary_counters(uint32_t *dest);
/* The lowest byte of slot 23 (so 256 sessions read as 0); 0 when the segment is missing. */
VSK_EXPORT uint8_t vsk_subscribers_present(void);

/* ---- unit number pools -------------------------------------------------------------- */

/* Pool types: interface units (0x40000000 upward) and UID numbers (1000 upward). */
#define VSK_UNIT_POOL_IFL 0
#define VSK_UNIT_POOL_UID 1
#define VSK_UNIT_POOL_IFL_MAX 262143
#define VSK_UNIT_POOL_UID_MAX 9999
#define VSK_UNIT_POOL_IFL_FIRST UINT32_C(0x40000000)
#define VSK_UNIT_POOL_UID_FIRST UINT32_C(1000)

/* Private results of the pool operations; callers translate them. */
#define VSK_UNIT_OK 0
#define VSK_UNIT_ERR_ARG (-1)       /* bad type, pool not attached, number out of range */
#define VSK_UNIT_ERR_FREE (-2)      /* release of a unit that is free */
#define VSK_UNIT_ERR_LOCK (-3)      /* semaphore 1 not taken or not given back */
#define VSK_UNIT_ERR_EMPTY (-5)     /* pool empty */

/* max * 4 + 12 bytes. */
VSK_EXPORT uint32_t vsk_unit_get_memory_size(int32_t max);
/* Attaches pool `type`; with `init`, formats it (max, head 0, tail 0, entries 0). */
VSK_EXPORT void vsk_unit_init(int32_t max, bool init, uint32_t type);
VSK_EXPORT void vsk_unit_allocator_detach(uint32_t type);
VSK_EXPORT int vsk_unit_allocate(uint32_t *unit, uint32_t type);
VSK_EXPORT int vsk_unit_release(uint32_t unit, uint32_t type);
/* Marks one unit as in use, without the lock (recovery only). */
VSK_EXPORT int vsk_unit_recover(uint32_t unit, uint32_t type);
/* Rebuilds the free list in ascending order from the entries not marked in use. */
VSK_EXPORT void vsk_unit_recovered(uint32_t type);
/* Leading decimal digits of `text`; 0 when there are none, -1 for null. */
VSK_EXPORT int32_t vsk_unit_parse(const char *text);
/* Decimal text of `unit` (unsigned) into `text` of at least 12 bytes. */
VSK_EXPORT void vsk_unit_itoa(uint32_t unit, char *text);
/* Room, terminator included, that vsk_parse_ifd_name may fill in each destination. */
#define VSK_IFD_NAME_MAX 64
/* Splits "device.unit" at the last point; `device` gets no terminator (hand in a zeroed
 * buffer). A name without a point goes whole to `device`, `unit` untouched. A name of
 * VSK_IFD_NAME_MAX characters or more is no interface name: it is traced and nothing is
 * written, so destinations of VSK_IFD_NAME_MAX bytes always suffice. */
VSK_EXPORT void vsk_parse_ifd_name(const char *name, char *device, char *unit);
/* Prints the pool to standard output for operators. */
VSK_EXPORT void vsk_dump_pool(uint32_t type);

VSK_END_DECLS

#endif /* VSK_SHARED_H */
