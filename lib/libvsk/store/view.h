// View: the one read-only window on the store's process-wide state, for programs, tools,
// benchmarks and tests. Nothing outside the store reads its private context.
//
// A View reads the state when asked, not when made: it stays current across opens and
// closes. Every answer is what this process holds; before the first vsk_db_init there is
// no state (started() false, state() VSK_ENV_INIT, every handle null).
#pragma once

#include <db.h>
#include <sys/types.h>

#include <cstdint>

#include "libvsk/store/context.h"

namespace vsk::store {

class View {
 public:
  // True once vsk_db_init has run in this process.
  bool started() const { return Context() != nullptr; }
  int32_t state() const { return started() ? Context()->state : VSK_ENV_INIT; }
  DB_ENV* env() const { return Get(&StoreContext::dbenv); }
  DB* client_session_db() const { return Get(&StoreContext::client_session_db); }
  DB* service_session_db() const { return Get(&StoreContext::service_session_db); }
  DB* auth_request_db() const { return Get(&StoreContext::auth_request_db); }
  DB* auth_response_db() const { return Get(&StoreContext::auth_response_db); }
  DB* dynamic_config_db() const { return Get(&StoreContext::dynamic_config_db); }
  DB* app_private_db() const { return Get(&StoreContext::app_private_db); }
  // The application-defined table `id` (0 to 6), or null.
  DB* app_defined_db(int id) const {
    if (!started() || id < 0 || id >= VSK_APP_DEFINED_TABLES) return nullptr;
    return Context()->app_defined_db[id];
  }
  pid_t pid() const { return started() ? Context()->pid : 0; }
  orvd_ctx* link() const { return Get(&StoreContext::orvd_handle); }

 private:
  template <typename T>
  T* Get(T* StoreContext::*field) const {
    return started() ? Context()->*field : nullptr;
  }
};

}  // namespace vsk::store
