/* Export and linkage macros shared by every public header of libvsk.
 *
 * The library is built with hidden visibility; only declarations marked VSK_EXPORT
 * form the ABI of libvsk.so. Every header compiles as C11 and as C++. */
#ifndef VSK_EXPORT_H
#define VSK_EXPORT_H

#define VSK_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define VSK_BEGIN_DECLS extern "C" {
#define VSK_END_DECLS }
#else
#define VSK_BEGIN_DECLS
#define VSK_END_DECLS
#endif

/* Berkeley DB's handle types, declared by their tags so that users of libvsk need not
 * include db.h (which does not compile in strict C11). They name the same types. */
struct __db;
struct __db_env;
struct __db_txn;
struct __dbc;
struct __db_dbt;

/* The daemon-link handle; defined in vsk/orvd.h. */
struct orvd_ctx;

#endif /* VSK_EXPORT_H */
