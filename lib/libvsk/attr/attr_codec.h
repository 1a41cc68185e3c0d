// The encoding of attributes inside records: attribute TLVs (type u16, length u16, value)
// and dynamic entries (name with NUL, tag u16, length u32, value, one NUL), host order,
// no padding. Callers: the record codecs of the store and the session cache.
//
// Encoders are two-pass: they return the size needed and write only when it all fits.
// Decoders never copy a value: nodes point into the caller's buffer, which must outlive
// them. They return 0, -1 (a TLV or entry runs past the section) or -2 (no memory); on
// failure the nodes made so far stay in the list for the caller to release.
#pragma once

#include <cstdint>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/byte_writer.h"
#include "vsk/attr.h"

namespace vsk::attr {

// Bytes of the TLVs of `list` (null or empty: 0).
uint32_t AttrEntriesSize(const vsk_attr_list_t* list);
// Writes the TLVs to `out`. REQUIRES: room for AttrEntriesSize(list) bytes.
void WriteAttrEntries(const vsk_attr_list_t* list, base::ByteWriter& out);
// Appends nodes for the TLVs of `section` (all of it) to *list, allocating the head if null.
int DecodeAttrEntries(base::ByteReader section, vsk_attr_list_t** list);

uint32_t DynEntriesSize(const vsk_dyn_attr_list_t* list);
void WriteDynEntries(const vsk_dyn_attr_list_t* list, base::ByteWriter& out);
int DecodeDynEntries(base::ByteReader section, vsk_dyn_attr_list_t** list);

// Frees the nodes of a list and its head; values (and names) too when `free_values`.
void FreeAttrList(vsk_attr_list_t* list, bool free_values);
void FreeDynList(vsk_dyn_attr_list_t* list, bool free_values);

}  // namespace vsk::attr
