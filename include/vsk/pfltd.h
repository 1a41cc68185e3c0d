/* The firewall daemon's data: its per-session record `pfltd_vsk_data` in two encodings
 * (tagged `tlv_*` and positional `idr_*`), the session index values (`vsk_indexes`,
 * `vsk_dup_indexes` and their members), the read of the record from a session's
 * application private data, and the decoder of one stored filter rule into text lines.
 *
 * Encoders are two-pass: they return the bytes the encoding needs and write only what fits
 * in `size`, so `size` 0 asks for the size. Decoders return the bytes used or a negative
 * result: -1 malformed input, -2 no allocator or allocation failed, -4 unknown
 * discriminator. A truncated input is not an error: the decode ends at the last whole
 * element. After any decode, also a failed one, the caller releases the record with the
 * matching release function, which frees through `free_fn` what the decode allocated
 * through `alloc`. All integers on the wire are big-endian. */
#ifndef VSK_PFLTD_H
#define VSK_PFLTD_H

#include <stddef.h>
#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Allocator and release function of the decoders, `malloc` and `free` with the caller's
 * `context` handed through. */
typedef void *(*vsk_codec_alloc_t)(size_t size, void *context);
typedef void (*vsk_codec_free_t)(void *ptr, void *context);

/* A list of texts: `items` holds `count` text pointers. */
typedef struct pfltd_vsk_array {
  char **items;
  uint32_t count;
  uint32_t spare;
} pfltd_vsk_array_t;

/* The filter daemon's record. Members are named by their tag; the library gives them no
 * meaning. Texts may be NULL. The order is the order of encoding; the comment gives the
 * bit of the presence mask (bit n is bit n % 8 of byte n / 8 of an 8-byte mask). */
typedef struct pfltd_vsk_data {
  char *t1;              /* 0 */
  uint32_t t2;           /* 1 */
  uint32_t t37;          /* 2 */
  pfltd_vsk_array_t t3;  /* 3 */
  char *t4;              /* 4 */
  uint32_t t5;           /* 5 */
  uint32_t t38;          /* 6 */
  pfltd_vsk_array_t t6;  /* 7 */
  char *t7;              /* 8 */
  uint32_t t8;           /* 9 */
  char *t9;              /* 10 */
  uint32_t t10;          /* 11 */
  char *t11;             /* 12 */
  uint32_t t12;          /* 13 */
  uint32_t t39;          /* 14 */
  pfltd_vsk_array_t t13; /* 15 */
  char *t14;             /* 16 */
  uint32_t t15;          /* 17 */
  uint32_t t40;          /* 18 */
  pfltd_vsk_array_t t16; /* 19 */
  char *t17;             /* 20 */
  uint32_t t18;          /* 21 */
  pfltd_vsk_array_t t19; /* 22 */
  char *t20;             /* 23 */
  uint32_t t21;          /* 24 */
  pfltd_vsk_array_t t22; /* 25 */
  char *t23;             /* 26 */
  uint32_t t24;          /* 27 */
  pfltd_vsk_array_t t25; /* 28 */
  char *t26;             /* 29 */
  uint32_t t27;          /* 30 */
  pfltd_vsk_array_t t28; /* 31 */
  char *t29;             /* 32 */
  uint32_t t30;          /* 33 */
  char *t31;             /* 34 */
  uint32_t t32;          /* 35 */
  char *t33;             /* 36 */
  uint32_t t34;          /* 37 */
  char *t35;             /* 38 */
  uint32_t t36;          /* 39 */
} pfltd_vsk_data_t;

#define PFLTD_VSK_DATA_FIELDS 40
#define PFLTD_VSK_DATA_MASK_BYTES 8

/* Tagged form: elements of tag (16 bits), length (16 bits) and value, texts and lists
 * padded to 4 bytes. With a `mask` only the fields whose bit is set are written, and a
 * NULL text is never written. */
VSK_EXPORT uint32_t tlv_encode_pfltd_vsk_data(const pfltd_vsk_data_t *record, const uint8_t *mask,
                                              uint8_t *buffer, uint32_t size);
/* Zeroes `record` (and the 8 mask bytes), then reads elements; with a `mask`, the first of
 * several elements of one field wins and the mask tells which fields were present. */
VSK_EXPORT int32_t tlv_decode_pfltd_vsk_data(pfltd_vsk_data_t *record, uint8_t *mask,
                                             const uint8_t *buffer, uint32_t size,
                                             vsk_codec_alloc_t alloc, void *context);
/* `mask` has no effect: every allocated text and list is freed. Pointers are not cleared. */
VSK_EXPORT void tlv_release_pfltd_vsk_data(pfltd_vsk_data_t *record, const uint8_t *mask,
                                           vsk_codec_free_t free_fn, void *context);

/* Positional form: every field in order, no tags. A NULL text is written as an empty
 * one, so it decodes as "". */
VSK_EXPORT uint32_t idr_encode_pfltd_vsk_data_0(const pfltd_vsk_data_t *record, uint8_t *buffer,
                                                uint32_t size);
VSK_EXPORT int32_t idr_decode_pfltd_vsk_data_0(pfltd_vsk_data_t *record, const uint8_t *buffer,
                                               uint32_t size, vsk_codec_alloc_t alloc,
                                               void *context);
VSK_EXPORT void idr_release_pfltd_vsk_data_0(pfltd_vsk_data_t *record, vsk_codec_free_t free_fn,
                                             void *context);

/* ---- Session index values ------------------------------------------------------------
 * A member is a few blobs named by tag; its elements have a 32-bit tag and a 32-bit
 * length and are padded to 4 bytes. A member's mask has 4 bytes (bit n for the blob of
 * tag n + 1). A union is a 32-bit discriminator followed by its member. */

typedef struct vsk_tlv_blob {
  uint8_t *data; /* NULL when `len` is 0 */
  uint32_t len;
} vsk_tlv_blob_t;

#define VSK_INDEX_MEMBER_MASK_BYTES 4

typedef struct vsk_ipv4_vr {
  vsk_tlv_blob_t t1, t2, t3;
} vsk_ipv4_vr_t;
typedef struct vsk_ipv6_vr {
  vsk_tlv_blob_t t1, t2, t3;
} vsk_ipv6_vr_t;
typedef struct vsk_acct_session_id {
  vsk_tlv_blob_t t1;
} vsk_acct_session_id_t;
typedef struct vsk_unnum_intf_pref_ip {
  vsk_tlv_blob_t t1, t2;
} vsk_unnum_intf_pref_ip_t;
typedef struct vsk_underlying_interface {
  vsk_tlv_blob_t t1;
} vsk_underlying_interface_t;
typedef struct vsk_profile_name {
  vsk_tlv_blob_t t1;
} vsk_profile_name_t;
typedef struct vsk_underlying_interface_name {
  vsk_tlv_blob_t t1;
} vsk_underlying_interface_name_t;

enum { VSK_INDEXES_IPV4_VR = 0, VSK_INDEXES_IPV6_VR = 1, VSK_INDEXES_ACCT_SESSION_ID = 2 };
typedef struct vsk_indexes {
  int32_t type; /* -1 after a decode that found none */
  union {
    vsk_ipv4_vr_t ipv4_vr;
    vsk_ipv6_vr_t ipv6_vr;
    vsk_acct_session_id_t acct_session_id;
  } u;
} vsk_indexes_t;

enum {
  VSK_DUP_INDEXES_UNNUM_INTF_PREF_IP = 0,
  VSK_DUP_INDEXES_UNDERLYING_INTERFACE = 1,
  VSK_DUP_INDEXES_PROFILE_NAME = 2,
  VSK_DUP_INDEXES_UNDERLYING_INTERFACE_NAME = 3
};
typedef struct vsk_dup_indexes {
  int32_t type;
  union {
    vsk_unnum_intf_pref_ip_t unnum_intf_pref_ip;
    vsk_underlying_interface_t underlying_interface;
    vsk_profile_name_t profile_name;
    vsk_underlying_interface_name_t underlying_interface_name;
  } u;
} vsk_dup_indexes_t;

/* Every codec below has the form of the tagged record's three functions. */
#define VSK_INDEX_CODEC_DECL(name, type)                                                          \
  VSK_EXPORT uint32_t tlv_encode_##name(const type *record, const uint8_t *mask, uint8_t *buffer, \
                                        uint32_t size);                                           \
  VSK_EXPORT int32_t tlv_decode_##name(type *record, uint8_t *mask, const uint8_t *buffer,        \
                                       uint32_t size, vsk_codec_alloc_t alloc, void *context);    \
  VSK_EXPORT void tlv_release_##name(type *record, const uint8_t *mask, vsk_codec_free_t free_fn, \
                                     void *context);

VSK_INDEX_CODEC_DECL(vsk_indexes, vsk_indexes_t)
VSK_INDEX_CODEC_DECL(vsk_dup_indexes, vsk_dup_indexes_t)
VSK_INDEX_CODEC_DECL(ipv4_vr, vsk_ipv4_vr_t)
VSK_INDEX_CODEC_DECL(ipv6_vr, vsk_ipv6_vr_t)
VSK_INDEX_CODEC_DECL(acct_session_id, vsk_acct_session_id_t)
VSK_INDEX_CODEC_DECL(unnum_intf_pref_ip, vsk_unnum_intf_pref_ip_t)
VSK_INDEX_CODEC_DECL(underlying_interface, vsk_underlying_interface_t)
VSK_INDEX_CODEC_DECL(profile_name, vsk_profile_name_t)
VSK_INDEX_CODEC_DECL(underlying_interface_name, vsk_underlying_interface_name_t)

#undef VSK_INDEX_CODEC_DECL

/* ---- The record of a session, and its filter rules -------------------------------------- */

/* The application id under which the firewall daemon keeps its record. */
#define VSK_APP_ID_PFLTD 6

/* The record of one session as vsk_app_pflt_data_get hands it over, in this order. Texts
 * and lists belong to the block; `tN_present` is 1 when the list of tag N had elements. */
typedef struct vsk_app_pflt_data {
  char *t1;
  uint32_t t2;
  uint32_t t3_present;
  char *t4;
  uint32_t t5;
  uint32_t t6_present;
  char *t11;
  uint32_t t12;
  uint32_t t13_present;
  char *t14;
  uint32_t t15;
  uint32_t t16_present;
  char *t7;
  uint32_t t8;
  char *t9;
  uint32_t t10;
  char *t17;
  uint32_t t18;
  uint32_t t19_count;
  char **t19;
  char *t20;
  uint32_t t21;
  uint32_t t22_count;
  char **t22;
  char *t23;
  uint32_t t24;
  uint32_t t25_count;
  char **t25;
  char *t26;
  uint32_t t27;
  uint32_t t28_count;
  char **t28;
  char *t33;
  uint32_t t34;
  char *t35;
  uint32_t t36;
  char *t29;
  uint32_t t30;
  char *t31;
  uint32_t t32;
} vsk_app_pflt_data_t;

/* Reads and unpacks the firewall daemon's record of `session_id`. 0 with *result set;
 * -7 when the session has no such record (or the store is not usable); -5 when the
 * record does not decode; -2 without memory. *result is NULL on every failure. */
VSK_EXPORT vsk_status_t vsk_app_pflt_data_get(vsk_session_id_t session_id,
                                              vsk_app_pflt_data_t **result);
/* Frees the block and all it holds; sets *result to NULL. */
VSK_EXPORT void vsk_app_pflt_data_free(vsk_app_pflt_data_t **result);

/* Number of line pointers of a decoded rule. */
#define VSK_ADF_RULE_LINES 20

/* Decodes one rule (hexadecimal digit pairs) into the lines of a filter term: *lines
 * becomes a calloc'ed array of VSK_ADF_RULE_LINES texts, unused ones NULL. A rule that
 * does not decode gives the single line "Error decoding ADF rule.". *lines stays NULL only
 * when the array cannot be allocated. */
VSK_EXPORT void vsk_app_pflt_adf_rule_decode(const char *text, char ***lines);
/* Frees every line and the array; sets *lines to NULL. (The "adr" is the published name.) */
VSK_EXPORT void vsk_app_pflt_adr_decode_free(char ***lines);

VSK_END_DECLS

#endif /* VSK_PFLTD_H */
