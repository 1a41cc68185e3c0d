// Config bits: a record's byte mask beside its attributes, changed through "info_attrs"
// lists of VSK_INFO_ATTR entries. The mask buffer is a heap block owned by its record;
// these functions may replace it (the old block is freed) and never shrink its length.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "vsk/attr.h"

extern "C" {

vsk_status_t vsk_merge_config_bits(uint16_t* bits_length, uint8_t** bits, uint16_t mask_length,
                                   const uint8_t* mask, uint8_t** allocated, bool set) {
  if (mask_length > *bits_length) {
    auto* grown = static_cast<uint8_t*>(std::calloc(mask_length, 1));
    if (grown == nullptr) return VSK_ERR_NOMEM;
    if (allocated != nullptr) *allocated = grown;
    if (*bits != nullptr && *bits_length != 0) std::memcpy(grown, *bits, *bits_length);
    std::free(*bits);
    *bits = grown;
    *bits_length = mask_length;
  } else if (*bits == nullptr) {
    return VSK_OK;
  }
  if (mask == nullptr) return VSK_OK;
  for (uint16_t i = 0; i < mask_length; ++i) {
    if (set) {
      (*bits)[i] = static_cast<uint8_t>((*bits)[i] | mask[i]);
    } else {
      (*bits)[i] = static_cast<uint8_t>((*bits)[i] & ~mask[i]);
    }
  }
  return VSK_OK;
}

vsk_status_t vsk_update_info_section(const vsk_attr_update_list_t* updates,
                                     uint16_t* bits_length, uint8_t** bits) {
  if (updates == nullptr) return VSK_OK;
  // A store of a same-length mask takes effect only once this call has itself allocated a
  // mask buffer; before that, an existing mask stands. Callers rely on this asymmetry.
  uint8_t* allocated = nullptr;
  for (const vsk_attr_update_t* e = updates->first; e != nullptr; e = e->next) {
    if (e->type != VSK_INFO_ATTR || e->action > VSK_ATTR_ACTION_DELETE_ARRAY ||
        e->action == VSK_ATTR_ACTION_DELETE_ARRAY) {
      VSK_TRACE("%s: Failed to add attributes to patricia tree during update %d", __func__,
                static_cast<int>(e->type));
      return VSK_ERR_INVALID_PARAM;
    }
    const auto length = static_cast<uint16_t>(e->length);
    switch (e->action) {
      case VSK_ATTR_ACTION_ADD_OR_APPEND:
      case VSK_ATTR_ACTION_ADD_OR_REPLACE:
        if (*bits == nullptr) {
          if (length == 0) break;
          auto* fresh = static_cast<uint8_t*>(std::malloc(length));
          if (fresh == nullptr) return VSK_ERR_NOMEM;
          if (e->value != nullptr) {
            std::memcpy(fresh, e->value, length);
          } else {
            std::memset(fresh, 0, length);
          }
          *bits = fresh;
          *bits_length = length;
          allocated = fresh;
        } else if (*bits_length != e->length) {
          VSK_TRACE("%s: Length must be the same for info_attrs %d", __func__,
                    static_cast<int>(e->length));
          return VSK_ERR_INVALID_PARAM;
        } else if (allocated != nullptr && e->value != nullptr) {
          std::memcpy(*bits, e->value, length);
        }
        break;
      case VSK_ATTR_ACTION_CLEAR_BITS:
      case VSK_ATTR_ACTION_SET_BITS: {
        vsk_status_t st =
            vsk_merge_config_bits(bits_length, bits, length, static_cast<const uint8_t*>(e->value),
                                  &allocated, e->action == VSK_ATTR_ACTION_SET_BITS);
        if (st != VSK_OK) return st;
        break;
      }
      case VSK_ATTR_ACTION_DELETE:
        if (*bits != nullptr) {
          std::free(*bits);
          *bits = nullptr;
          *bits_length = 0;
        }
        break;
      default:
        break;
    }
  }
  return VSK_OK;
}

}  // extern "C"
