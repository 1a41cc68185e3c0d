// vskctl sessions, vskctl session ID: a listing of the client sessions, and the library's
// dump of one session's snapshot.
//
// Both read through snapshots: the listing walks the client table one snapshot at a time
// (vsk_get_next_snapshot with a client filter, each step in a transaction of its own, with
// Progress over the walk), and the dump loads one session by its generic id
// (vsk_get_snapshot, client or service) and prints it with vsk_dump_snapshot, which writes
// through the trace hook. The tables open only for a daemon registered with orvd, so both
// commands register as "vskctl" in poll mode for their length (orvd's table of daemons
// shows it meanwhile); they write nothing.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <optional>

#include "ctl.h"
#include "platform/paths.h"
#include "progress.h"
#include "vsk/vsk.h"

namespace vskctl {
namespace {

constexpr vsk_session_id_t kMaxSessionId = 0x7FFFFFFFFFFFFFFFull;

struct SessionsOptions {
  uint64_t limit = 0;  // 0: all
};

// A registration with orvd for the length of a command. Poll mode: nothing runs behind
// the command's back, and the link is serviced by the reads themselves.
class Registration {
 public:
  bool Open() {
    ctx_ = orvd_init_handle();
    if (ctx_ == nullptr) {
      Failure("cannot make a daemon-link handle");
      return false;
    }
    orvd_set_trace_callback(ctx_, nullptr, LinkTrace);
    orvd_set_reg_type_poll(ctx_);
    vsk_status_t rc = orvd_register(ctx_);
    if (rc == VSK_OK) return true;
    Failure("cannot register with orvd at " +
            vsk::platform::RootedPath(vsk::platform::kOrvdSocket) + ": " + vsk_get_err_msg(rc) +
            " (" + std::to_string(rc) + ")");
    return false;
  }
  ~Registration() {
    if (ctx_ != nullptr) orvd_unregister(&ctx_);
  }

 private:
  orvd_ctx_t* ctx_ = nullptr;
};

// The first value of a client attribute. A read hands back the list's head, whose first
// word is the first value.
const vsk_attr_value_t* Attr(vsk_snapshot_handle* h, uint16_t type) {
  vsk_attr_value_t* head = nullptr;
  if (vsk_get_client_session_attr(h, type, &head) != VSK_OK || head == nullptr) return nullptr;
  return head->next;
}

std::optional<uint32_t> Number(vsk_snapshot_handle* h, uint16_t type) {
  const vsk_attr_value_t* v = Attr(h, type);
  if (v == nullptr || v->length < sizeof(uint32_t)) return std::nullopt;
  uint32_t n;
  std::memcpy(&n, v->value, sizeof n);
  return n;
}

// A text value; stored texts need not end in a NUL.
std::optional<std::string> Text(vsk_snapshot_handle* h, uint16_t type) {
  const vsk_attr_value_t* v = Attr(h, type);
  if (v == nullptr) return std::nullopt;
  const char* s = static_cast<const char*>(v->value);
  return std::string(s, strnlen(s, v->length));
}

template <typename T>
Json OrNull(const std::optional<T>& v) {
  return v ? Json(*v) : Json(nullptr);
}

template <typename T>
std::string OrDash(const std::optional<T>& v) {
  if (!v) return "-";
  if constexpr (std::is_same_v<T, std::string>) {
    return *v;
  } else {
    return std::to_string(*v);
  }
}

std::string Hex(const void* bytes, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  const auto* b = static_cast<const uint8_t*>(bytes);
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[b[i] >> 4];
    out += kDigits[b[i] & 15];
  }
  return out;
}

int ListSessions(const Globals& globals, const SessionsOptions& options) {
  vsk::shared::SegmentView view;
  if (!OpenSegment(&view, Need::kReady)) return kExitFailure;
  const uint32_t expected = view.Counters()[VSK_SUMMARY_COUNTER_TOTAL];
  Registration link;
  if (!link.Open()) return kExitFailure;

  vsk_snapshot_filter filter{};
  filter.flags = VSK_FILTER_CLIENT_SESSIONS;
  vsk_snapshot_handle h{};
  Json rows = Json::array();
  Progress progress(globals, "sessions", expected);
  if (!globals.json) {
    std::printf("%20s %6s %6s %4s %4s %-24s %-24s %s\n", "ID", "TYPE", "STATE", "IFL", "SVC",
                "INTERFACE", "UNDERLYING", "USER");
  }
  uint64_t count = 0;
  vsk_status_t rc = VSK_OK;
  while ((options.limit == 0 || count < options.limit) &&
         (rc = vsk_get_next_snapshot(&h, &filter, 0)) == VSK_OK) {
    progress.Step(++count);
    const vsk_client_session_t* rec =
        h.data != nullptr && h.data->client != nullptr ? h.data->client->record : nullptr;
    const uint32_t services = rec != nullptr ? rec->service_count : 0;
    auto type = Number(&h, VSK_CLIENT_SESSION_TYPE);
    auto state = Number(&h, VSK_SESSION_STATE);
    auto ifl_type = Number(&h, VSK_SESSION_IFL_TYPE);
    auto interface = Text(&h, VSK_INTERFACE_NAME);
    auto underlying = Text(&h, VSK_UNDERLYING_INTERFACE_NAME);
    auto user = Text(&h, VSK_USER_NAME);
    if (globals.json) {
      rows.push_back({{"id", h.client_session_id},
                      {"type", OrNull(type)},
                      {"state", OrNull(state)},
                      {"ifl_type", OrNull(ifl_type)},
                      {"services", services},
                      {"interface", OrNull(interface)},
                      {"underlying_interface", OrNull(underlying)},
                      {"user_name", OrNull(user)}});
    } else {
      std::printf("%20" PRIu64 " %6s %6s %4s %4u %-24s %-24s %s\n", h.client_session_id,
                  OrDash(type).c_str(), OrDash(state).c_str(), OrDash(ifl_type).c_str(), services,
                  OrDash(interface).c_str(), OrDash(underlying).c_str(), OrDash(user).c_str());
    }
  }
  const bool stopped = (options.limit == 0 || count < options.limit) && rc != VSK_ERR_NOT_FOUND;
  // Ends the walk; on a handle without one, a call with `done` would start a new walk.
  if (h.walk != nullptr) vsk_get_next_snapshot(&h, &filter, 1);
  vsk_free_snapshot_handle(&h);
  if (globals.json) PrintJson({{"root", RootText()}, {"count", count}, {"sessions", rows}});
  if (stopped) {
    return Failure("the walk of the client sessions stopped after " + std::to_string(count) + ": " +
                   vsk_get_err_msg(rc) + " (" + std::to_string(rc) + ")");
  }
  return kExitOk;
}

int DumpSession(const Globals& globals, const vsk_session_id_t& id) {
  vsk::shared::SegmentView view;
  if (!OpenSegment(&view, Need::kReady)) return kExitFailure;
  Registration link;
  if (!link.Open()) return kExitFailure;
  vsk_snapshot_handle h{};
  h.session_id = id;
  vsk_status_t rc = vsk_get_snapshot(&h);
  if (rc == VSK_ERR_NOT_FOUND) {
    return Failure("session " + std::to_string(id) + " does not exist on root " + RootText());
  }
  if (rc != VSK_OK) {
    return Failure("snapshot of session " + std::to_string(id) + ": " + vsk_get_err_msg(rc) + " (" +
                   std::to_string(rc) + ")");
  }
  if (!globals.json) {
    std::fflush(stdout);
    {
      RawTraces to_stdout(stdout);
      vsk_dump_snapshot(&h);
    }
    std::fflush(stdout);
    vsk_free_snapshot_handle(&h);
    return kExitOk;
  }
  char* dump = nullptr;
  size_t dump_size = 0;
  std::FILE* memory = open_memstream(&dump, &dump_size);
  if (memory != nullptr) {
    RawTraces to_memory(memory);
    vsk_dump_snapshot(&h);
  }
  if (memory != nullptr) std::fclose(memory);
  Json attrs = Json::array();
  const vsk_client_session_t* rec =
      h.data != nullptr && h.data->client != nullptr ? h.data->client->record : nullptr;
  for (const vsk_attr_t* a = rec != nullptr && rec->attrs != nullptr ? rec->attrs->first : nullptr;
       a != nullptr; a = a->next) {
    attrs.push_back({{"type", a->type}, {"length", a->length}, {"hex", Hex(a->value, a->length)}});
  }
  Json services = Json::array();
  for (uint16_t i = 0; h.service_ids != nullptr && i < h.service_count; ++i) {
    services.push_back(h.service_ids[i]);
  }
  PrintJson({{"root", RootText()},
             {"session_id", id},
             {"client_session_id", h.client_session_id},
             {"config_bits", Hex(h.config_bits, h.config_bits != nullptr ? h.config_bits_len : 0)},
             {"service_ids", services},
             {"attributes", attrs},
             {"dump", dump != nullptr ? std::string(dump, dump_size) : std::string()}});
  std::free(dump);
  vsk_free_snapshot_handle(&h);
  return kExitOk;
}

}  // namespace

void AddSessions(CLI::App& app, const Globals& globals, Action* action) {
  auto options = std::make_shared<SessionsOptions>();
  AddSubcommand(app, "sessions", "a listing of the client sessions (registers with orvd)", globals,
                action, ListSessions, options)
      ->add_option("--limit", options->limit, "stop after this many sessions");
  auto id = std::make_shared<vsk_session_id_t>(0);
  AddSubcommand(app, "session", "the dump of one session's snapshot (registers with orvd)", globals,
                action, DumpSession, id)
      ->add_option("id", *id, "session id, client or service (1 to 9223372036854775807)")
      ->required()
      ->check(CLI::Range(vsk_session_id_t{1}, kMaxSessionId));
}

}  // namespace vskctl
