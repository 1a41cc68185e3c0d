/* Reads of a loaded snapshot: client and service attributes, configuration bits, service
 * names, dynamic configuration by name and by array, the light read, a few reads that need
 * no snapshot, the operator's dump, and two small text helpers.
 *
 * A read hands back the address of a tree node's value list (`values_first`): walk it with
 * `next`, `length` and `value`. The pointers are the snapshot's, good until
 * vsk_free_snapshot_handle. A light handle (flags VSK_HANDLE_FLAG_ATTRS_ONLY) keeps one
 * result entry that each read overwrites, so only the first value of a type is reachable
 * and a result is good until the next read on that handle.
 *
 * Statuses: -6 a handle with nothing loaded (traced), -7 the attribute, service or name is
 * absent, -16 an array member asked for by plain name, or an array read that names no
 * array. */
#ifndef VSK_ATTR_READ_H
#define VSK_ATTR_READ_H

#include <stdint.h>

#include "vsk/attr.h"
#include "vsk/export.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"

VSK_BEGIN_DECLS

/* Array read modes of vsk_get_dynamic_array_config_attr_str. */
#define VSK_ARRAY_READ_BEGIN 1
#define VSK_ARRAY_READ_STAY 2
#define VSK_ARRAY_READ_NEXT 3

VSK_EXPORT vsk_status_t vsk_get_client_session_attr(vsk_snapshot_handle *handle, uint16_t type,
                                                    vsk_attr_value_t **out);
/* The session's present state: from the cache when the session is cached (then *length
 * and *value are filled and *out is left alone), else as vsk_get_client_session_attr. */
VSK_EXPORT vsk_status_t vsk_get_client_session_attr_shm(vsk_snapshot_handle *handle, uint16_t type,
                                                        vsk_attr_value_t **out, uint16_t *length,
                                                        void **value);
VSK_EXPORT vsk_status_t vsk_get_service_session_attr(vsk_snapshot_handle *handle,
                                                     vsk_session_id_t id, uint16_t type,
                                                     vsk_attr_value_t **out);
/* The first value of VSK_SERVICE_NAME of service `id`. */
VSK_EXPORT vsk_status_t vsk_get_service_name(vsk_snapshot_handle *handle, vsk_session_id_t id,
                                             char **name);
VSK_EXPORT vsk_status_t vsk_get_service_session_config_bits(vsk_snapshot_handle *handle,
                                                            vsk_session_id_t id, uint16_t *length,
                                                            uint8_t **bits);
/* The light read: the bare client record of `client_session_id` into `data`. */
VSK_EXPORT vsk_status_t vsk_get_client_session_attr_from_sid(vsk_snapshot_handle *handle);

/* Dynamic configuration of the client (`id` 0) or service `id`; a service falls back to
 * its client for names it does not define. */
VSK_EXPORT vsk_status_t vsk_get_dynamic_config_attr(vsk_snapshot_handle *handle,
                                                    vsk_session_id_t id, const char *name,
                                                    vsk_attr_value_t **out);
/* The lookup under the reads above: `tag_out` and `top_level_out` may be null; with
 * `array_mode` 0 an array attribute is refused with -16. */
VSK_EXPORT vsk_status_t vsk_get_internal_variables_internal(vsk_snapshot_handle *handle,
                                                            vsk_session_id_t id, const char *name,
                                                            vsk_attr_value_t **out,
                                                            uint16_t *tag_out,
                                                            uint8_t *top_level_out, int array_mode);
/* One step of an array read; `array_value` may be null; `mode` VSK_ARRAY_READ_*. */
VSK_EXPORT vsk_status_t vsk_get_dynamic_array_config_attr_str(vsk_snapshot_handle *handle,
                                                              vsk_session_id_t id, const char *name,
                                                              const char *array_value,
                                                              vsk_attr_value_t **out, int mode);

/* Reads without a snapshot. */
VSK_EXPORT vsk_status_t vsk_get_client_id_by_service_session_id(vsk_session_id_t id,
                                                                vsk_session_id_t *client_id);
VSK_EXPORT vsk_status_t vsk_get_num_clients_on_uifl(const char *name, uint32_t *count_out);
VSK_EXPORT vsk_status_t vsk_get_clients_by_uifl(const char *name, uint32_t *count_out,
                                                vsk_session_id_t **ids_out);
VSK_EXPORT vsk_status_t vsk_get_first_client_on_uifl(const char *name, vsk_session_id_t *id_out);

/* Writes the snapshot as text through the trace hook; nothing when no hook is set. */
VSK_EXPORT void vsk_dump_snapshot(vsk_snapshot_handle *handle);
/* Decimal digits of `value`, LOWEST DIGIT FIRST, and a NUL: 120 gives "021". The caller
 * gives the room (21 bytes always do). */
VSK_EXPORT void vsk_toa(uint64_t value, char *buffer);

VSK_END_DECLS

#endif /* VSK_ATTR_READ_H */
