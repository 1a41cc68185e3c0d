// Config bits: a record's byte mask beside its attributes, changed through "info_attrs"
// lists of VSK_INFO_ATTR entries. The mask buffer is a heap block owned by its record;
// these functions may replace it (the old block is freed) and never shrink its length.
#include "libvsk/attr/config_bits.h"

#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"

namespace vsk::attr {
namespace {

void TraceWrongType(InfoWords words, const char* fn, const vsk_attr_update_t* e) {
  if (words == InfoWords::kClient) {
    VSK_TRACE("%s: Failed to add attributes to patricia tree during update %d", fn,
              static_cast<int>(e->type));
  } else {
    VSK_TRACE("%s: Failed to add config bits to session during update %d", fn,
              static_cast<int>(e->type));
  }
}

void TraceWrongLength(InfoWords words, const char* fn, const vsk_attr_update_t* e) {
  if (words == InfoWords::kClient) {
    VSK_TRACE("%s: Length must be the same for info_attrs %d", fn, static_cast<int>(e->length));
  } else {
    VSK_TRACE("%s: Length must be the same for info_attrs, err=%s", fn,
              vsk_get_err_msg(VSK_ERR_INVALID_PARAM));
  }
}

// Actions 0 to 4 are known; 5 (array delete) and above are not.
void TraceBadAction(InfoWords words, const char* fn, const vsk_attr_update_t* e) {
  if (words == InfoWords::kClient) {
    TraceWrongType(words, fn, e);
  } else {
    VSK_TRACE("%s: Invalid action type for info_attrs, err=%s", fn,
              vsk_get_err_msg(VSK_ERR_INVALID_PARAM));
  }
}

}  // namespace
}  // namespace vsk::attr

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

}  // extern "C"

namespace vsk::attr {

vsk_status_t ApplyInfoSection(const vsk_attr_update_list_t* updates, uint16_t* bits_length,
                              uint8_t** bits, InfoWords words, const char* fn) {
  if (updates == nullptr) return VSK_OK;
  // A store of a same-length mask takes effect only once this call has itself allocated a
  // mask buffer; before that, an existing mask stands. Callers rely on this asymmetry.
  uint8_t* allocated = nullptr;
  for (const vsk_attr_update_t* e = updates->first; e != nullptr; e = e->next) {
    if (e->type != VSK_INFO_ATTR) {
      TraceWrongType(words, fn, e);
      return VSK_ERR_INVALID_PARAM;
    }
    if (e->action >= VSK_ATTR_ACTION_DELETE_ARRAY) {
      TraceBadAction(words, fn, e);
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
          TraceWrongLength(words, fn, e);
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

}  // namespace vsk::attr

extern "C" vsk_status_t vsk_update_info_section(const vsk_attr_update_list_t* updates,
                                                uint16_t* bits_length, uint8_t** bits) {
  return vsk::attr::ApplyInfoSection(updates, bits_length, bits, vsk::attr::InfoWords::kClient,
                                     "vsk_update_info_section");
}
