// The closing check of a run, made in the parent as one more daemon once every worker is
// gone:
//   - every id handed out was unique;
//   - a session left in the store belongs to a worker that was killed (chaos): it must be
//     readable, and is then removed as its daemon would have removed it; a session that
//     is in no id list may only come from a create cut short by a kill;
//   - afterwards the tables hold no session, a sample of the ids has no row, slot or
//     private data left, and every summary counter, interface count, unit and cache slot
//     equals the recount from the tables (all zero).
#include <algorithm>
#include <cstdarg>
#include <string>
#include <vector>

#include "libvsk/vsk/recount.h"
#include "load.h"

namespace vsk::load {
namespace {

constexpr size_t kLeftBehindSample = 20000;

void DropTrace(void*, int, const char*, va_list) {}

std::string Line(const std::string& text) { return text + "\n"; }

// A leftover of a killed worker: it must load as a snapshot with its interface name.
bool Readable(uint64_t id) {
  vsk_snapshot_handle h{};
  h.client_session_id = id;
  vsk_status_t st = vsk_get_snapshot(&h);
  vsk_attr_value_t* out = nullptr;
  if (st == VSK_OK) st = vsk_get_client_session_attr(&h, VSK_INTERFACE_NAME, &out);
  const bool ok = st == VSK_OK && out != nullptr && out->next != nullptr;
  vsk_free_snapshot_handle(&h);
  return ok;
}

std::string CheckIds(const std::vector<uint64_t>& ids) {
  std::vector<uint64_t> sorted = ids;
  std::sort(sorted.begin(), sorted.end());
  auto dup = std::adjacent_find(sorted.begin(), sorted.end());
  if (std::find(sorted.begin(), sorted.end(), 0) != sorted.end())
    return Line("a worker recorded the id 0");
  if (dup != sorted.end()) return Line("id " + std::to_string(*dup) + " was handed out twice");
  return {};
}

std::string RemoveLeftovers(const Options& o, const std::vector<uint64_t>& ids, uint32_t kills,
                            uint64_t* leftovers) {
  std::string out;
  const vsk::recount::SessionCounts before = vsk::recount::RecountFromTables();
  if (before.status != VSK_OK)
    return Line("walk of the client table: " + std::to_string(before.status));
  std::vector<uint64_t> sorted = ids;
  std::sort(sorted.begin(), sorted.end());
  uint64_t unlisted = 0;
  *leftovers = before.sessions.size();
  for (uint64_t id : before.sessions) {
    const bool listed = std::binary_search(sorted.begin(), sorted.end(), id);
    if (!o.chaos) {
      out += Line("session " + std::to_string(id) + " is still in the store");
      continue;
    }
    if (!listed) ++unlisted;
    if (!Readable(id))
      out += Line("session " + std::to_string(id) + " of a killed worker cannot be read");
    vsk_status_t st = vsk_remove_client_session(id);
    if (st != VSK_OK)
      out += Line("removal of session " + std::to_string(id) + ": " + std::to_string(st));
  }
  if (unlisted > kills) {
    out += Line(std::to_string(unlisted) + " sessions are in no worker's id list, more than the " +
                std::to_string(kills) + " creates that kills can have cut short");
  }
  return out;
}

}  // namespace

std::string CheckStore(const Options& o, const Shared& shared, int workers, uint64_t* leftovers) {
  *leftovers = 0;
  std::vector<uint64_t> ids;
  uint32_t kills = 0;
  for (int w = 0; w < workers; ++w) {
    const WorkerLine& line = shared.board->lines[w];
    const uint64_t n = std::min(line.created.load(), shared.ids_per_line);
    ids.insert(ids.end(), shared.LineIds(w), shared.LineIds(w) + n);
    kills += line.kills.load();
  }
  std::string out = CheckIds(ids);

  orvd_ctx_t* ctx = orvd_init_handle();
  if (ctx == nullptr) return out + Line("orvd_init_handle: out of memory");
  vsk_status_t st = orvd_set_trace_callback(ctx, nullptr, DropTrace);
  if (st == 0) st = orvd_set_reg_type_poll(ctx);
  if (st == 0) st = orvd_register(ctx);
  if (st == 0) st = vsk_db_check();
  if (st != 0) {
    orvd_unregister(&ctx);
    return out + Line("the checker cannot register with orvd: " + std::to_string(st));
  }
  out += RemoveLeftovers(o, ids, kills, leftovers);

  const vsk::recount::SessionCounts tables = vsk::recount::RecountFromTables();
  const vsk::recount::SessionCounts shared_counts = vsk::recount::ReadSharedCounts();
  out += vsk::recount::CountDifferences(tables, shared_counts);
  if (!tables.sessions.empty())
    out += Line(std::to_string(tables.sessions.size()) + " sessions left in the client table");
  const size_t step = std::max<size_t>(1, ids.size() / kLeftBehindSample);
  for (size_t i = 0; i < ids.size(); i += step) {
    std::string left = vsk::recount::LeftBehind(ids[i], ids[i]);
    if (!left.empty()) out += Line("session " + std::to_string(ids[i]) + " left: " + left);
  }
  orvd_send_recovery_complete(ctx);
  st = orvd_unregister(&ctx);
  if (st != 0) out += Line("orvd_unregister: " + std::to_string(st));
  return out;
}

}  // namespace vsk::load
