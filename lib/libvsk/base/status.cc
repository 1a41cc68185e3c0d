// Status codes: the message table, the translation of raw values, and the trace hook
// with the two process-wide switches. Part of the base module: every layer uses these.
#include "vsk/status.h"

#include <db.h>

#include <iterator>

#include "libvsk/base/role.h"
#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"

namespace {

// Indexed by -status - 1. A status without a row (-18) has a null text.
constexpr const char* kMessages[] = {
    "session database unexpected fatal error",
    "out of memory",
    "session in database contains invalid data",
    "database dead locked or timeout, caller may retry",
    "data in session db is corrupted",
    "invalid parameter passed in vsk api",
    "session not found during the lookup or read, or caller requested attribute is not found",
    "when use VSK_ATTR_ACTION_ADD_OR_APPEND to add new attribute to session object, the "
    "attribute is already exist",
    "when use VSK_ATTR_ACTION_ADD_OR_REPLACE to replace existing attribute of session object, "
    "existing attribute not exist or value not match",
    "unit number pool run out of unit numbers",
    "session database is recovering",
    "session database is unavailable due to the db replication is not started yet",
    "session database is read only",
    "session database internal state is recovering",
    "session database replication is not supported in current platform",
    // Published text: the capital "Cannot" is part of it.
    "session database Cannot find array; need array identifying TLV; please set",
    "session database is not supported in current platform",
    nullptr,
    "session database has not started yet",
    "snapshot handle only; filtered by config bits",
    "session database needs secondary recovery",
    "session database summary counter error",
    "VSK shared mem block already in use",
    "VSK shared mem block too small for data",
    "orvd unexpected fatal error",
    "Failed to connect to ORVD",
    "ISSU in progress",
};
static_assert(std::size(kMessages) == 27, "27 rows, -1 to -27");

constexpr const char kOutOfTable[] = "vsk error code exceeds table size";

// Berkeley DB's reserved error range, which is traced on translation: every value from
// DB_BUFFER_SMALL's upper neighbour up to the end of the range. DB_BUFFER_SMALL (the
// range's lowest value) and DB_NOTFOUND (an ordinary result) are left untraced.
constexpr int kTracedLow = DB_BUFFER_SMALL + 1;
constexpr int kTracedHigh = -30801;

}  // namespace

extern "C" {

vsk_trace_cbk_t vsk_trace_cbk = nullptr;
bool vsk_debug = false;
bool vsk_in_panic = false;

}  // extern "C"

const char* vsk::base::ErrorText(vsk_status_t code) {
  if (code > 0 || code < -27) return kOutOfTable;
  if (code == 0) return nullptr;  // no row for success; callers ask for failures only
  return kMessages[-code - 1];
}

extern "C" const char* vsk_get_err_msg(vsk_status_t code) { return vsk::base::ErrorText(code); }

vsk_status_t vsk::base::TranslateError(int value) {
  if (value >= kTracedLow && value <= kTracedHigh && value != DB_NOTFOUND) {
    VSK_TRACE("%s\n", db_strerror(value));
  }
  switch (value) {
    case 0:
      return VSK_OK;
    case ENOMEM:
      return VSK_ERR_NOMEM;
    case DB_LOCK_DEADLOCK:
    case DB_LOCK_NOTGRANTED:
    case DB_REP_HANDLE_DEAD:
    case DB_REP_LOCKOUT:
      return VSK_ERR_RETRY;
    case DB_NOTFOUND:
      return VSK_ERR_NOT_FOUND;
    case DB_RUNRECOVERY:
      return VSK_ERR_RECOVERING;
    case DB_SECONDARY_BAD:
      return VSK_ERR_CORRUPT;
    default:
      break;
  }
  if (value < 1) return value;
  if (value == EACCES && !vsk::base::IsMaster()) return VSK_ERR_READ_ONLY;
  VSK_TRACE("VSK unknown error %d", value);
  return VSK_ERR_FATAL;
}

extern "C" {

vsk_status_t get_vsk_err(int value) { return vsk::base::TranslateError(value); }

void vsk_set_trace_cbk(vsk_trace_cbk_t fn) { vsk_trace_cbk = fn; }

void vsk_orvd_set_debug(int flag) { vsk_debug = static_cast<uint8_t>(flag) != 0; }

}  // extern "C"
