// Act 1: the store in this process, opened the way the creating daemon opens it.
//
// The library tells the creating daemon by its program name (the first four characters
// are "orvd"). This act takes that name for the rest of the process, opens the shared
// state (vsk_open_internal with create) and the store (vsk_db_init as orvd on the master),
// writes and reads, and closes everything again, so that the real orvd of act 2 can open
// the same root with recovery. It does not register over the daemon link: the store gets
// the link handle as the link leaves it for orvd itself, which holds no socket.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "demo.h"
#include "libvsk/orvd_ctx.h"
#include "libvsk/store/view.h"
#include "platform/paths.h"
#include "platform/progname.h"
#include "transcript.h"
#include "vsk/attr.h"
#include "vsk/shared.h"
#include "vsk/store.h"
#include "vsk/tables.h"

extern "C" char* __progname;  // the C library's program name, which the library reads

namespace vsk::demo {
namespace {

char g_creator_name[] = "orvd";

// The link handle of act 1. Static: the store keeps a pointer to it until
// vsk_db_reset_orvd_handle.
orvd_ctx g_link{};

// Undoes what act 1 opened, whatever step it stopped at.
struct CloseOnExit {
  ~CloseOnExit() {
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
  }
};

vsk_status_t StoreClientSession(vsk_session_id_t id) {
  uint32_t type = kClientType;
  vsk_attr_t attrs[3] = {
      {VSK_USER_NAME, static_cast<uint16_t>(std::strlen(kUserName)), const_cast<char*>(kUserName),
       nullptr},
      {VSK_INTERFACE_NAME, static_cast<uint16_t>(std::strlen(kInterfaceName)),
       const_cast<char*>(kInterfaceName), nullptr},
      {VSK_CLIENT_SESSION_TYPE, sizeof(type), &type, nullptr},
  };
  vsk_attr_list_t list;
  vsk_attr_list_init(&list);
  for (vsk_attr_t& a : attrs) vsk_attr_list_append(&list, &a);
  vsk_client_session_t rec{};
  rec.attrs = &list;
  rec.dynamic_id = id;  // the session keeps its own dynamic configuration

  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (!Check("vsk_db_start_txn", st)) return st;
  st = vsk_db_put_client_session(&txn, &id, &rec);
  if (!Check("vsk_db_put_client_session id " + std::to_string(id), st)) {
    vsk_db_abort_txn(&txn, st);
    return st;
  }
  st = vsk_db_end_txn(&txn);
  Check("vsk_db_end_txn (commit)", st);
  return st;
}

// The store's files after the close, largest first.
void ListStoreFiles() {
  namespace fs = std::filesystem;
  std::vector<std::pair<uintmax_t, std::string>> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(platform::RootedPath(platform::kStoreHome), ec)) {
    if (entry.is_regular_file(ec)) {
      files.emplace_back(entry.file_size(ec), entry.path().filename().string());
    }
  }
  std::sort(files.rbegin(), files.rend());
  Say("store files in %s:", platform::kStoreHome);
  for (const auto& [size, name] : files) Say("  %-22s %10ju bytes", name.c_str(), size);
}

}  // namespace

const char* StateName(int state) {
  static const char* const kNames[] = {"INIT",        "OPENED",  "REPLICATING",   "NOT_REPLICATED",
                                       "TABLES_OPEN", "CLOSING", "CLOSED",        "READY",
                                       "PANIC",       "DOWN",    "NEEDS_RECOVERY"};
  if (state < 0 || state >= static_cast<int>(std::size(kNames))) return "unknown";
  return kNames[state];
}

bool RunCreator(vsk_session_id_t* session_id) {
  ClearTraces();
  vsk_set_trace_cbk(TraceSink);
  __progname = g_creator_name;
  Say("program name is now \"%s\": the library treats this process as the creator: %s",
      platform::ProgramName(), platform::IsOrvdProgram() ? "yes" : "no");
  if (!platform::IsOrvdProgram()) return Fail("the program name did not take");
  if (!vsk_db_supported()) {
    return Check("vsk_db_supported (platform model id)", VSK_ERR_UNSUPPORTED);
  }

  CloseOnExit close_on_exit;
  if (!Check("vsk_open_internal(create): key files, segments, ids", vsk_open_internal(true))) {
    return false;
  }
  Say("status word %u (1 = opened), last session id %llu", *vsk_db_status,
      static_cast<unsigned long long>(vsk_id_get_last()));

  g_link.fd = -1;
  g_link.is_orvd = true;
  vsk_db_set_master(true);
  if (!Check("vsk_db_init(orvd, master): environment, tables", vsk_db_init(&g_link, true))) {
    return false;
  }
  Say("store state %d (%s)", store::View().state(), StateName(store::View().state()));

  Say("raw rows into an application-defined table, one transaction:");
  if (DefineRawTable() != VSK_OK) return false;
  if (PutRawRows(kRawRows, static_cast<int>(std::size(kRawRows))) != VSK_OK) return false;
  Say("raw rows read back:");
  if (!ReadBackRawRows()) return false;

  Say("one client session through the session tables:");
  vsk_session_id_t id = 0;
  if (!Check("vsk_id_generate (shared id generator)", vsk_id_generate(&id))) return false;
  Say("new session id %llu", static_cast<unsigned long long>(id));
  if (StoreClientSession(id) != VSK_OK) return false;
  if (!ReadBackSession(id)) return false;

  if (!Check("vsk_db_close", vsk_db_close())) return false;
  const store::View store;
  Say("store state %d (%s), environment handle %s", store.state(), StateName(store.state()),
      store.env() == nullptr ? "released" : "STILL SET");
  if (store.state() != VSK_ENV_CLOSED || store.env() != nullptr) {
    return Fail("the store did not end closed");
  }
  vsk_close_internal();
  Say("shared regions detached (status word pointer %s); the segments stay for act 2",
      vsk_db_status == nullptr ? "cleared" : "STILL SET");
  ListStoreFiles();
  *session_id = id;
  return true;
}

}  // namespace vsk::demo
