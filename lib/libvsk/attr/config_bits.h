// Config bits inside the library: the one walk of an "info_attrs" list behind the exported
// vsk_update_info_section (client records) and the service session update, which differ
// only in the words of their traces.
//
// REQUIRES: *bits is null or a heap block owned by the caller (malloc family): the walk may
// free it and store a new one, and never shrinks *bits_length.
#pragma once

#include <cstdint>

#include "vsk/attr.h"

namespace vsk::attr {

// Whose words a refused entry is traced with.
enum class InfoWords {
  kClient,   // a wrong type and an unknown action share one text
  kService,  // each refusal has its own text, with the status's message
};

// 0; -6 for an entry of another type than VSK_INFO_ATTR, a same-or-replace mask of another
// length, or an unknown action (traced, naming `fn`); -2 when a grown mask cannot be had.
vsk_status_t ApplyInfoSection(const vsk_attr_update_list_t* updates, uint16_t* bits_length,
                              uint8_t** bits, InfoWords words, const char* fn);

}  // namespace vsk::attr
