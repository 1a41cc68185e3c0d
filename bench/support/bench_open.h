// Opens the shared state and the store as the creating daemon on the master, as the
// benchmarks run: this process is `orvd`, with no socket. With `rebuild`, the derived state
// is rebuilt too (status word ready), as session operations need.
#pragma once

#include "libvsk/orvd_ctx.h"
#include "platform/paths.h"
#include "vsk/intf.h"
#include "vsk/shared.h"
#include "vsk/store.h"

extern "C" char* __progname;  // the library tells the creating daemon by this name

namespace vsk::bench {

inline vsk_status_t OpenAsCreator(orvd_ctx* link, bool rebuild) {
  static char creator_name[] = "orvd";
  if (!vsk::platform::MakeSystemDirs()) return VSK_ERR_FATAL;
  __progname = creator_name;
  if (vsk_open_internal(true) != 0) return VSK_ERR_FATAL;
  link->fd = -1;
  link->is_orvd = true;
  vsk_db_set_master(true);
  vsk_status_t st = vsk_db_init(link, true);
  if (rebuild && st == VSK_OK) st = vsk_db_secondary_init(true);
  if (rebuild && st == VSK_OK) st = vsk_db_secondary_recover();
  return st;
}

}  // namespace vsk::bench
