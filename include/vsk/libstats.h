/* Interface statistics and service statistics kept in the store's environment.
 *
 * Five Berkeley DB tables, replicated with the store, hold counters that must outlive a
 * daemon or a switch-over of the routing engines:
 *   - `iflstats`: plain, fixed-size interface records, with a secondary index by their
 *     8-byte index;
 *   - `iflstats_full`: one record per interface and forwarding location, a sequence of
 *     TLV sections in two sets (LS_CURRENT as last reported, LS_CLEARED as taken at the
 *     operator's last clear), with a secondary index by interface;
 *   - `servstats`: per-service records whose entries the module does not look into.
 * The store opens and closes them (vsk_db_init, vsk_db_close). The daemons that collect
 * statistics call these functions directly, from their own thread; there is no thread and
 * no lock here beyond the short Berkeley DB transactions each operation runs.
 *
 * Statuses: 0 or a status of vsk/status.h (not found is -7); -1 with the trace
 * "<function>: bad vsk env ptr" when the store is not usable. The record decoder's own
 * failures are errno values (22 EINVAL, 12 ENOMEM), which reads hand back as they are.
 * Records and their sections are malloc'ed; who frees what is told per function. */
#ifndef VSK_LIBSTATS_H
#define VSK_LIBSTATS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* ---- Common ---------------------------------------------------------------------- */

#define LIBSTATS_MAGIC 0xA5
#define LIBSTATS_RECORD_VERSION 1
/* Keys are built in a buffer of this size; longer keys are refused with -6. */
#define LIBSTATS_KEY_BUFFER_SIZE 256

/* The module state: names and handles of the five tables, in this order. */
typedef struct libstats_databases {
  char *base_path; /* heap copy of the store's home */
  char *iflstats_file;
  struct __db *iflstats_db;
  char *iflstats_sec_file;
  struct __db *iflstats_sec_db;
  char *servstats_file;
  struct __db *servstats_db;
  char *iflstats_full_file;
  struct __db *iflstats_full_db;
  char *iflstats_full_sec_file;
  struct __db *iflstats_full_sec_db;
} libstats_databases_t;

VSK_EXPORT extern libstats_databases_t g_stats;

/* A walk's transaction and cursor; cleared by the caller before the first step. */
typedef struct libstats_cursor_ctx {
  struct __db_txn *txn;
  struct __dbc *cursor;
} libstats_cursor_ctx_t;

/* Key function of the generic store: from a record, the key bytes (into a zeroed buffer
 * of LIBSTATS_KEY_BUFFER_SIZE bytes) and their length, and the value's address and
 * length. 0, or -6 when the key does not fit or the value's size cannot be. */
typedef int (*libstats_key_fn_t)(const void *record, uint8_t *key, uint32_t *key_len,
                                 const void **value, uint32_t *value_len);

/* Opens the five tables in `env` (the store does this in vsk_db_init). 0, or the
 * Berkeley DB value of the failure (-1 for a null environment); everything opened so far
 * is closed again on a failure. */
VSK_EXPORT int libstats_init_db(struct __db_env *env);
/* Opens one table `file` (inner database `inner`) in `env`, with sorted duplicates when
 * `dups`. `errfile` may be null: Berkeley DB's messages then reach the trace hook only.
 * 0 or the Berkeley DB value; *out is null on a failure. */
VSK_EXPORT int libstats_open_database(struct __db **out, const char *file, const char *inner,
                                      FILE *errfile, bool dups, struct __db_env *env);
/* Closes the five tables (secondaries before their primaries) and frees the names. While
 * vsk_in_panic is set no handle is touched and 0 comes back. Otherwise the Berkeley DB
 * value of the last close performed. */
VSK_EXPORT int libstats_db_close(void);
/* Frees the names in `state` and zeroes all of it; handles are forgotten, not closed. */
VSK_EXPORT void libstats_databases_free(libstats_databases_t *state);
/* 0 when the store is usable, -1 when not (vsk_db_check). */
VSK_EXPORT int libstats_is_db_open(void);
/* Traces "libstats_show_vsk_env_ptr: bad vsk env ptr" when this process has no
 * environment. */
VSK_EXPORT void libstats_show_vsk_env_ptr(void);

/* The generic store: one transaction with one put of what `fn` gives for `record`. */
VSK_EXPORT vsk_status_t libstats_store_stats_record(struct __db *table, const void *record,
                                                    libstats_key_fn_t fn);

/* ---- Plain interface statistics (`iflstats`) --------------------------------------- */

#define LIBSTATS_IFLSTATS_COUNTERS 12
#define LIBSTATS_IFLSTATS_VALUE_SIZE 200
/* The second twelve counters mean something only with this flag. */
#define LIBSTATS_IFLSTATS_FLAG_EXTENDED 0x20000u
/* The flags of a record just cleared through the secondary index. */
#define LIBSTATS_IFLSTATS_CLEARED_FLAGS 0x00000528u

/* The statistics area of a value: 196 bytes, packed, flags first. */
typedef struct __attribute__((packed)) libstats_iflstats_counters {
  uint32_t flags;
  uint64_t counters[LIBSTATS_IFLSTATS_COUNTERS];
  uint64_t ext_counters[LIBSTATS_IFLSTATS_COUNTERS];
} libstats_iflstats_counters_t;

/* The stored value: 200 bytes, packed, host order. */
typedef struct __attribute__((packed)) libstats_iflstats_value {
  uint8_t magic;   /* LIBSTATS_MAGIC, forced on write */
  uint8_t version; /* LIBSTATS_RECORD_VERSION, forced on write */
  uint16_t reserved;
  libstats_iflstats_counters_t stats;
} libstats_iflstats_value_t;

/* A record in memory, packed. The key is `index` followed by the `name_len` name bytes
 * (no terminator); `index` is also the secondary key. */
typedef struct __attribute__((packed)) libstats_iflstats {
  uint64_t index;
  uint16_t name_len;
  char *name;
  libstats_iflstats_value_t value;
} libstats_iflstats_t;

VSK_EXPORT int libstats_iflstats_key(const void *record, uint8_t *key, uint32_t *key_len,
                                     const void **value, uint32_t *value_len);
/* Sets magic and version and stores the record. */
VSK_EXPORT vsk_status_t libstats_write_iflstats_record(libstats_iflstats_t *record);
/* Copies the stored value over record->value; -7 when absent. */
VSK_EXPORT vsk_status_t libstats_get_iflstats_record(libstats_iflstats_t *record);
/* Deletes the stored record and always frees `record` and its name, also on a failure. */
VSK_EXPORT vsk_status_t libstats_del_iflstats_record(libstats_iflstats_t *record);
/* One step of a walk over the table: the next record into `record` (index, name_len, a
 * new malloc'ed name that the caller frees, and the first 196 stored bytes copied to
 * record->value.stats, starting with the stored magic and version). The first call opens
 * a transaction and a cursor in `ctx`; at the end (-7) or on a failure both are closed
 * again and the status comes back. */
VSK_EXPORT vsk_status_t libstats_get_final_stats_using_cursor(libstats_cursor_ctx_t *ctx,
                                                              libstats_iflstats_t *record);
/* Ends a walk early: closes the cursor and commits (or, if the close failed, aborts).
 * -1 when `ctx` has no cursor; otherwise the cursor close's status. */
VSK_EXPORT vsk_status_t libstats_close_cursor(libstats_cursor_ctx_t *ctx);
/* Frees the name and the record. */
VSK_EXPORT void libstats_free_iflstats_record(libstats_iflstats_t *record);
/* Frees only the block handed in. */
VSK_EXPORT void libstats_free_iflstats(void *block);

/* ---- Service statistics (`servstats`) ---------------------------------------------- */

#define LIBSTATS_SERVSTATS_HEADER_SIZE 32
#define LIBSTATS_SERVSTATS_ENTRY_BASE 68
/* Bytes one entry takes for a given entry_extra_len: extra + 68, rounded up to 8. */
#define LIBSTATS_SERVSTATS_ENTRY_SIZE(extra) \
  ((((uint32_t)(extra) + LIBSTATS_SERVSTATS_ENTRY_BASE) + 7u) & ~7u)

/* A record in memory: the 8-byte key, then the value image, whose `entry_count` entries
 * follow this header directly in the same block. */
typedef struct __attribute__((packed)) libstats_servstats {
  uint64_t key;
  uint8_t magic;      /* forced on write */
  uint8_t version;    /* forced on write */
  uint8_t header[26]; /* the caller's */
  uint16_t entry_count;
  uint16_t entry_extra_len;
} libstats_servstats_t;

VSK_EXPORT int libstats_servstats_key(const void *record, uint8_t *key, uint32_t *key_len,
                                      const void **value, uint32_t *value_len);
VSK_EXPORT vsk_status_t libstats_write_servstats_record(libstats_servstats_t *record);
/* Hands over the stored value: *block is the malloc'ed value (the caller frees it) and
 * *payload its address plus 4. -6 for a null out pointer, -7 when absent. */
VSK_EXPORT vsk_status_t libstats_get_servstats_record(const libstats_servstats_t *record,
                                                      void **block, void **payload);
/* Deletes the stored record; frees `record` when `free_record` is true (on a store that
 * is not usable, only when it is exactly 1). */
VSK_EXPORT vsk_status_t libstats_del_servstats_record(libstats_servstats_t *record,
                                                      int free_record);

/* ---- Full interface statistics (`iflstats_full`) ----------------------------------- */

enum { LS_CURRENT = 0, LS_CLEARED = 1, LS_MAX = 2 };

#define LIBSTATS_IFLSTATS_FULL_VERSION 0xA3
#define LIBSTATS_MAX_QUEUES 8
#define LIBSTATS_AGG_LINKS 32

/* TLV tags of the sections. */
enum {
  LIBSTATS_TLV_GENERIC = 1,
  LIBSTATS_TLV_POL = 2,
  LIBSTATS_TLV_AGGR = 3,
  LIBSTATS_TLV_ML = 4,
  LIBSTATS_TLV_ES = 5,
  LIBSTATS_TLV_CE = 6,
  LIBSTATS_TLV_ATM = 7,
  LIBSTATS_TLV_Q = 8,
  LIBSTATS_TLV_INQ = 9,
  LIBSTATS_TLV_QCNTR = 10,
  LIBSTATS_TLV_INQCNTR = 11,
  LIBSTATS_TLV_TS = 12,
  LIBSTATS_TLV_GEN_NUM = 13,
  LIBSTATS_TLV_MCAST = 14
};

/* Every section is stored as its memory image. In every section but the generic one the
 * first 8 bytes are kept as received and never read. */

typedef struct libstats_ifl_generic { /* 112 bytes */
  uint32_t ifl;
  uint32_t reserved;
  uint32_t reported_ifl;
  uint32_t align;
  uint64_t ipackets;
  uint64_t ibytes;
  uint64_t opackets;
  uint64_t obytes;
  uint64_t ipv6_ipackets;
  uint64_t ipv6_ibytes;
  uint64_t ipv6_opackets;
  uint64_t ipv6_obytes;
  uint32_t ipps;
  uint32_t opps;
  uint64_t ibps;
  uint64_t obps;
  uint16_t reqid;
  uint16_t pfe_listid;
  uint8_t reserved2[4];
} libstats_ifl_generic_t;

typedef struct libstats_ifl_mcast { /* 104 bytes */
  uint8_t head[8];
  uint64_t ipv4_ipackets;
  uint64_t ipv4_opackets;
  uint64_t ipv4_ibytes;
  uint64_t ipv4_obytes;
  uint32_t ipv4_ipps;
  uint32_t ipv4_opps;
  uint32_t ipv4_ibps;
  uint32_t ipv4_obps;
  uint64_t ipv6_ipackets;
  uint64_t ipv6_opackets;
  uint64_t ipv6_ibytes;
  uint64_t ipv6_obytes;
  uint32_t ipv6_ipps;
  uint32_t ipv6_opps;
  uint32_t ipv6_ibps;
  uint32_t ipv6_obps;
} libstats_ifl_mcast_t;

/* Policer classes, in stored order. */
enum {
  LIBSTATS_POL_LOW = 0,
  LIBSTATS_POL_MED_LOW = 1,
  LIBSTATS_POL_HIGH_LOW = 2,
  LIBSTATS_POL_HIGH = 3,
  LIBSTATS_POL_DROP = 4,
  LIBSTATS_POL_CLASSES = 5
};

typedef struct libstats_ifl_l2pol { /* 264 bytes, the layer 2 policer */
  uint8_t head[8];
  uint32_t ifl;
  uint32_t align;
  uint64_t in_frames[LIBSTATS_POL_CLASSES];
  uint64_t in_bytes[LIBSTATS_POL_CLASSES];
  uint64_t in_rate[LIBSTATS_POL_CLASSES];
  uint64_t out_frames[LIBSTATS_POL_CLASSES];
  uint64_t out_bytes[LIBSTATS_POL_CLASSES];
  uint64_t out_rate[LIBSTATS_POL_CLASSES];
  uint16_t reqid;
  uint16_t pfe_listid;
  uint8_t reserved[4];
} libstats_ifl_l2pol_t;

typedef struct libstats_ifl_agg_link { /* 64 bytes, one child link of a bundle */
  uint32_t ifl;
  uint8_t present;
  uint8_t reserved[3];
  uint64_t ipackets;
  uint64_t ibytes;
  uint64_t ibps;
  uint64_t opackets;
  uint64_t obytes;
  uint64_t obps;
  uint32_t ipps;
  uint32_t opps;
} libstats_ifl_agg_link_t;

typedef struct libstats_ifl_agg { /* 2128 bytes, an aggregate bundle */
  uint8_t head[8];
  uint32_t ifl;
  uint8_t present;
  uint8_t reserved[3];
  uint64_t ipackets;
  uint64_t ibytes;
  uint64_t ibps;
  uint64_t opackets;
  uint64_t obytes;
  uint64_t obps;
  uint32_t ipps;
  uint32_t opps;
  libstats_ifl_agg_link_t link[LIBSTATS_AGG_LINKS];
  uint16_t reqid;
  uint16_t pfe_listid;
  uint8_t reserved2[4];
} libstats_ifl_agg_t;

/* Sections the module copies, stores and frees without looking inside. */
typedef struct libstats_ifl_ml {
  uint8_t bytes[1304];
} libstats_ifl_ml_t;
typedef struct libstats_ifl_es {
  uint8_t bytes[36];
} libstats_ifl_es_t;
typedef struct libstats_ifl_ce {
  uint8_t bytes[76];
} libstats_ifl_ce_t;
typedef struct libstats_ifl_atm {
  uint8_t bytes[968];
} libstats_ifl_atm_t;

typedef struct libstats_ifl_qhdr { /* 40 bytes, output (q) or input (inq) queue header */
  uint8_t head[12];
  uint32_t ifd_index;
  uint32_t desc;
  uint16_t reqid;
  uint16_t listid;
  uint32_t cifd_index;
  uint16_t qstart;
  uint16_t num_q;
  uint32_t high_threshold;
  uint32_t unused;
} libstats_ifl_qhdr_t;

typedef struct libstats_ifl_qcntr { /* 216 bytes, the counters of one queue */
  uint8_t head[8];
  uint64_t offered_bps;
  uint64_t output_bps;
  uint32_t offered_pps;
  uint32_t output_pps;
  uint32_t tail_drop_pps;
  uint32_t rl_drop_bps;
  uint32_t rl_drop_pps;
  uint32_t mu_byte;
  uint32_t mu_percent;
  uint32_t bu_byte;
  uint32_t red_drop_pps[4];
  uint32_t red_drop_bps[4];
  uint64_t offered_packets;
  uint64_t offered_bytes;
  uint64_t output_packets;
  uint64_t output_bytes;
  uint64_t tail_drop_packets;
  uint64_t tail_drop_bytes;
  uint64_t rl_drop_packets;
  uint8_t reserved[8];
  uint64_t red_drop_packets[4];
  uint64_t red_drop_bytes[4];
} libstats_ifl_qcntr_t;

/* One set of sections. A null pointer is an absent section. */
typedef struct libstats_iflstats_full_set {
  libstats_ifl_generic_t generic;
  libstats_ifl_mcast_t *mcast;
  libstats_ifl_l2pol_t *pol;
  libstats_ifl_agg_t *aggr;
  libstats_ifl_ml_t *ml;
  libstats_ifl_es_t *es;
  libstats_ifl_ce_t *ce;
  libstats_ifl_atm_t *atm;
  libstats_ifl_qhdr_t *q;
  libstats_ifl_qhdr_t *inq;
  libstats_ifl_qcntr_t *qcntr[LIBSTATS_MAX_QUEUES];
  libstats_ifl_qcntr_t *inqcntr[LIBSTATS_MAX_QUEUES];
  uint32_t ts;      /* the record version, LIBSTATS_IFLSTATS_FULL_VERSION */
  uint32_t gen_num; /* the interface's generation number */
} libstats_iflstats_full_set_t;

/* A record: the statistics of interface `ifl` on one forwarding location. The key is
 * `ifl` (4 bytes) followed by the `loc_id_len` bytes of `loc_id`, which the record owns. */
typedef struct libstats_iflstats_full {
  uint32_t ifl;
  uint16_t loc_id_len;
  uint8_t *loc_id;
  libstats_iflstats_full_set_t stats[LS_MAX];
} libstats_iflstats_full_t;

/* Reads the record of (ifl, loc_id) into record->stats, which must hold no sections: the
 * sections are allocated for the caller. -7 when absent; 22 or 12 when the stored value
 * cannot be decoded (nothing is then left allocated). */
VSK_EXPORT vsk_status_t libstats_get_iflstats_full_record(libstats_iflstats_full_t *record);
/* Stores the record: both sets, as TLVs. */
VSK_EXPORT vsk_status_t libstats_write_iflstats_full_record(libstats_iflstats_full_t *record);
/* Deletes the record of (ifl, loc_id). */
VSK_EXPORT vsk_status_t libstats_del_iflstats_full_record(libstats_iflstats_full_t *record);
/* Frees the sections of one set and clears their pointers. The queue counters are freed
 * from index 0 up to the first null one: any behind a gap stay, and stay the caller's. */
VSK_EXPORT void libstats_free_iflstats_full(libstats_iflstats_full_set_t *set);
/* libstats_free_iflstats_full on both sets. */
VSK_EXPORT void libstats_free_iflstats_full_all(libstats_iflstats_full_t *record);
/* Frees loc_id and the record itself (not its sections). */
VSK_EXPORT void libstats_free_iflstats_full_record(libstats_iflstats_full_t *record);
/* Stores LIBSTATS_IFLSTATS_FULL_VERSION in *ts. */
VSK_EXPORT void libstats_iflstats_full_set_version(uint32_t *ts);
/* Writes the record, both sets, to the trace hook for an operator. */
VSK_EXPORT void libstats_iflstats_full_show_records(const libstats_iflstats_full_t *record);
/* The secondary key of a stored value (the generic section's `ifl`, at value offset 4):
 * Berkeley DB's associate callback of the `iflstats_full` pair. */
VSK_EXPORT int libstats_iflstats_full_get_secondary_index(struct __db *secondary,
                                                          const struct __db_dbt *key,
                                                          const struct __db_dbt *data,
                                                          struct __db_dbt *result);

/* ---- Update rules (per process) ---------------------------------------------------- */

/* Replies in which each counter was kept at the stored value (a drop of at most 65536,
 * or a zero reply). */
VSK_EXPORT extern uint32_t g_inflated_ifl_ipackets;
VSK_EXPORT extern uint32_t g_inflated_ifl_opackets;
VSK_EXPORT extern uint32_t g_inflated_ifl_ibytes;
VSK_EXPORT extern uint32_t g_inflated_ifl_obytes;
VSK_EXPORT extern uint32_t g_inflated_ifl_ipv6_ipackets;
VSK_EXPORT extern uint32_t g_inflated_ifl_ipv6_opackets;
VSK_EXPORT extern uint32_t g_inflated_ifl_ipv6_ibytes;
VSK_EXPORT extern uint32_t g_inflated_ifl_ipv6_obytes;
/* System log lines written for downward spikes since the last clear; at most 2000. */
VSK_EXPORT extern uint32_t g_libstats_iflfull_stats_syslog_entries;
/* The text form of the last location id converted. */
VSK_EXPORT extern char location_id_str[256];

/* Takes a reply of the forwarding engine for interface `ifl` on location `loc_id`: the
 * eight packet and byte counters of reply->generic are compared with the stored
 * LS_CURRENT (a counter that would fall by at most 65536, or to zero, keeps the stored
 * value and the reply is changed to it; a larger fall is taken, and for the IPv4 counters
 * written to the system log); then the reply's sections become LS_CURRENT and the record
 * is written. A new record gets an all-zero LS_CLEARED with the same sections. The
 * reply's sections stay the caller's. With `show` 1 the record is traced. */
VSK_EXPORT vsk_status_t
libstats_iflstats_full_update_record_in_db(uint32_t ifl, libstats_iflstats_full_set_t *reply,
                                           const uint8_t *loc_id, uint16_t loc_id_len, int show);
VSK_EXPORT void libstats_iflstats_full_clear_syslog_entries_counter(void);
/* Writes the text form of a location id to location_id_str and returns it: one
 * hexadecimal digit per byte (its first), all of the last byte's. Ids longer than 254
 * bytes are cut there. */
VSK_EXPORT char *fwdd_convert_location_id_str(uint32_t length, const uint8_t *bytes);

/* The rates of an aggregate bundle and its child links, as a caller sums them. */
typedef struct __attribute__((packed)) libstats_agg_link_rate { /* 28 bytes */
  uint32_t ipps;
  uint32_t opps;
  uint64_t ibps;
  uint64_t obps;
  uint32_t ifl; /* the child */
} libstats_agg_link_rate_t;

typedef struct __attribute__((packed)) libstats_agg_rates { /* 920 bytes */
  uint64_t ibps;
  uint64_t obps;
  uint32_t ipps;
  uint32_t opps;
  libstats_agg_link_rate_t link[LIBSTATS_AGG_LINKS];
} libstats_agg_rates_t;

/* Adds the rates of the present links of set->aggr into `rates` (bundle and per link);
 * never clears, so that several sets add up. `trace` non-zero traces each step. */
VSK_EXPORT void libstats_iflstats_full_agg_bps_pps(uint32_t ifl, uint8_t trace,
                                                   libstats_agg_rates_t *rates,
                                                   const libstats_iflstats_full_set_t *set);
/* Copies summed rates into the LS_CURRENT bundle of `results`: the bundle's four, and
 * those of each link whose child matches the rate record at the same position. */
VSK_EXPORT void libstats_iflstats_full_copy_agg_bps_pps(libstats_iflstats_full_t *results,
                                                        const libstats_agg_rates_t *rates);

/* ---- Operations by secondary index --------------------------------------------------- */

enum { LIBSTATS_OP_CLEAR = 1, LIBSTATS_OP_DELETE = 2, LIBSTATS_OP_GET = 3 };

/* The caller's table of bundle links: the child `ifl` of entry i is at byte 148 + 144 * i.
 * It gives the order in which a get sums child links. */
typedef struct libstats_agg_link_table {
  uint8_t head[148];
  struct {
    uint32_t ifl;
    uint8_t info[140];
  } link[LIBSTATS_AGG_LINKS];
} libstats_agg_link_table_t;

/* On the group of full records of interface `index` (one per forwarding location):
 *   LIBSTATS_OP_CLEAR: LS_CLEARED becomes a copy of LS_CURRENT in every record, all or
 *     none; *count gets the number cleared. -7 when the interface has no record.
 *   LIBSTATS_OP_DELETE: every record goes; 0 whatever was found; *count is not written.
 *   LIBSTATS_OP_GET: *results gets a new record with the sum of the group (release it with
 *     libstats_free_iflstats_full_all and libstats_free_iflstats_full_record), child links
 *     summed in the order of `links` (may be null), bundle rates from `rates` (may be
 *     null); *count the records read. 0 even when nothing was found.
 * Any other code does nothing and gives 0; its transaction and cursor are left open until
 * the statistics tables close. -1 when the store is not usable; 1 when no transaction can
 * be started. */
VSK_EXPORT vsk_status_t libstats_iflstats_full_op_using_sec_index(
    uint32_t index, int32_t op, uint32_t *count, libstats_iflstats_full_t **results,
    const libstats_agg_link_table_t *links, const libstats_agg_rates_t *rates);
VSK_EXPORT vsk_status_t libstats_iflstats_full_clear_by_index(uint32_t index);
VSK_EXPORT vsk_status_t libstats_iflstats_full_del_by_index(uint32_t index);
/* The same on the plain records of `index`: clear zeroes the statistics and sets the
 * flags to LIBSTATS_IFLSTATS_CLEARED_FLAGS; get sums into `result` (flags ORed, the second
 * twelve counters only from records flagged LIBSTATS_IFLSTATS_FLAG_EXTENDED). Any other
 * code gives 0. */
VSK_EXPORT vsk_status_t libstats_op_iflstats_using_sec_index(uint64_t index, int32_t op,
                                                             libstats_iflstats_counters_t *result);

/* ---- Walks ------------------------------------------------------------------------- */

enum { LIBSTATS_ISSU_IFLSTATS = 1, LIBSTATS_ISSU_SERVSTATS = 2 };

/* Looks at the record version of every plain (type 1) or service (type 2) record after a
 * software upgrade and traces what it found; changes nothing. */
VSK_EXPORT void libstats_issu_walk_all_stats(int type);

/* The interface registry of the management library (its own header). */
struct mgtlib_iflm;
/* Removes every full record whose interface no longer exists (per `handle`), was created
 * again since (another generation number) or was written by another record version.
 * -7 after a full walk; -1 when the store is not usable; 1 when no transaction can be
 * started; 12 when memory is short. */
VSK_EXPORT vsk_status_t libstats_iflstats_full_walk_all_stats(struct mgtlib_iflm *handle);

VSK_END_DECLS

#endif /* VSK_LIBSTATS_H */
