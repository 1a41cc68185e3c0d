// The closing check of a run, made in the parent as one more daemon once every worker is
// gone and orvd has been restarted, so that it checks the state that orvd's recovery walk
// rebuilt (summary counters, interface table, id generator, unit pool):
//   - every id handed out was unique;
//   - every summary counter, interface count, unit and cache slot equals the recount from
//     the tables, first with the sessions that killed workers left, then without them;
//   - every session a killed worker had created is in the store and reads back as that
//     worker wrote it (interface name, user name, state and a dynamic entry, by how far the
//     worker had got; a step cut short by the kill may have happened or not); one it had
//     removed is not there;
//   - a session in no id list may only come from a create cut short by a kill or repeated
//     after the store went down; it must be readable too;
//   - after the leftovers are removed, the tables hold no session and a sample of the ids
//     has no row, slot or private data left.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "libvsk/vsk/recount.h"
#include "load.h"

namespace vsk::load {
namespace {

constexpr size_t kLeftBehindSample = 20000;
constexpr int kJoinLimit = 120;  // seconds for orvd to answer the checker
// Calls that meet a store busy with a recovery or a deadlock are repeated this often.
constexpr int kTransientRetries = 200;

void DropTrace(void*, int, const char*, va_list) {}

std::string Line(const std::string& text) { return text + "\n"; }

// Where an id came from: its worker line, its place in the line's list and its stage.
struct Origin {
  int line;
  uint64_t n;
  IdStage stage;
};

// The first value of `type` in the loaded snapshot, as bytes; `found` false when missing.
std::string Value(vsk_snapshot_handle* h, uint16_t type, bool* found) {
  vsk_attr_value_t* out = nullptr;
  *found = vsk_get_client_session_attr(h, type, &out) == VSK_OK && out != nullptr &&
           out->next != nullptr;
  return *found ? std::string(static_cast<const char*>(out->next->value), out->next->length)
                : std::string();
}

vsk_status_t Load(vsk_snapshot_handle* h, uint64_t id) {
  auto get = [&] {
    *h = vsk_snapshot_handle{};
    h->client_session_id = id;
    return vsk_get_snapshot(h);
  };
  vsk_status_t st = get();
  for (int i = 0; i < kTransientRetries && Transient(st); ++i) {
    vsk_free_snapshot_handle(h);
    st = get();
  }
  return st;
}

// A session in no id list: it must load as a snapshot with an interface name.
bool Readable(uint64_t id) {
  vsk_snapshot_handle h{};
  vsk_status_t st = Load(&h, id);
  bool found = false;
  if (st == VSK_OK) Value(&h, VSK_INTERFACE_NAME, &found);
  vsk_free_snapshot_handle(&h);
  return found;
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

vsk_status_t Remove(uint64_t id) {
  vsk_status_t st = vsk_remove_client_session(id);
  for (int i = 0; i < kTransientRetries && Transient(st); ++i) st = vsk_remove_client_session(id);
  return st;
}

// Reads back what killed workers committed and removes every session left in the store.
std::string RemoveLeftovers(const Options& o, const std::unordered_map<uint64_t, Origin>& origin,
                            uint64_t allowance, uint64_t* leftovers) {
  std::string out;
  const vsk::recount::SessionCounts before = vsk::recount::RecountFromTables();
  if (before.status != VSK_OK)
    return Line("walk of the client table: " + std::to_string(before.status));
  // Created and not (possibly) removed: it must be there.
  for (const auto& [id, from] : origin) {
    if (from.stage >= kIdCreated && from.stage <= kIdActive && !before.sessions.count(id)) {
      out += Line("session " + std::to_string(id) + " that worker " + std::to_string(from.line) +
                  " committed is not in the store");
    }
  }
  uint64_t unlisted = 0;
  *leftovers = before.sessions.size();
  for (uint64_t id : before.sessions) {
    auto it = origin.find(id);
    if (!o.chaos) {
      out += Line("session " + std::to_string(id) + " is still in the store");
      continue;
    }
    if (it == origin.end()) {
      ++unlisted;
      if (!Readable(id)) out += Line("session " + std::to_string(id) + " cannot be read");
    } else if (it->second.stage == kIdRemoved || it->second.stage == kIdNone) {
      out += Line("session " + std::to_string(id) + " that worker " +
                  std::to_string(it->second.line) + " removed is still in the store");
    } else {
      // A removal cut short leaves the session as the lifecycle had left it.
      IdStage stage = it->second.stage;
      if (stage == kIdRemoving) stage = o.activate ? kIdActive : kIdCreated;
      out += CompareSession(o, id, it->second.line, it->second.n, stage);
    }
    vsk_status_t st = Remove(id);
    if (st != VSK_OK)
      out += Line("removal of session " + std::to_string(id) + ": " + std::to_string(st));
  }
  if (unlisted > allowance) {
    out += Line(std::to_string(unlisted) + " sessions are in no worker's id list, more than the " +
                std::to_string(allowance) + " creates that kills or a down store can have cut short");
  }
  return out;
}

// Cache slots that name a session with no table row. The library never reclaims them: a
// create killed after it took its slot and before its commit leaves one, as does a removal
// killed between its commit and the slot's release. Any other is a fault. They are freed
// here as an operator would, once counted.
std::string FreeOrphanSlots(const std::unordered_map<uint64_t, Origin>& origin,
                            uint64_t allowance, uint64_t* freed) {
  const vsk::recount::SessionCounts tables = vsk::recount::RecountFromTables();
  const vsk::recount::SessionCounts shared = vsk::recount::ReadSharedCounts();
  std::string out;
  uint64_t cut_short = 0;
  for (uint64_t id : shared.slot_sessions) {
    if (tables.sessions.count(id)) continue;
    auto it = origin.find(id);
    if (it == origin.end()) {
      ++cut_short;
    } else if (it->second.stage != kIdRemoving) {
      out += Line("session " + std::to_string(id) + " of worker " +
                  std::to_string(it->second.line) + " has a cache slot and no table row (step " +
                  std::to_string(it->second.stage) + ")");
    }
    vsk_clear_session_in_shm(id, vsk_snap_get_shared_memory_ptr());
    ++*freed;
  }
  if (cut_short > allowance) {
    out += Line(std::to_string(cut_short) + " cache slots name sessions that were never " +
                "created, more than the " + std::to_string(allowance) + " creates cut short");
  }
  return out;
}

}  // namespace

std::string CompareSession(const Options& o, uint64_t id, int line, uint64_t n, IdStage stage) {
  const std::string who = "session " + std::to_string(id) + " (worker " + std::to_string(line) +
                          ", subscriber " + std::to_string(n) + ")";
  vsk_snapshot_handle h{};
  vsk_status_t st = Load(&h, id);
  if (st != VSK_OK) {
    vsk_free_snapshot_handle(&h);
    return Line(who + " cannot be read: " + std::to_string(st));
  }
  Subscriber sub;
  sub.Name(line, n);
  std::string out;
  bool found = false;
  const std::string ifl = Value(&h, VSK_INTERFACE_NAME, &found);
  if (ifl != std::string(sub.ifl, std::strlen(sub.ifl) + 1))
    out += Line(who + ": interface name \"" + ifl.c_str() + "\", written \"" + sub.ifl + "\"");
  std::string state = Value(&h, VSK_SESSION_STATE, &found);
  uint32_t have_state = 0;
  if (state.size() == 4) std::memcpy(&have_state, state.data(), 4);
  const bool state_ok = stage == kIdActivating ? have_state == 1 || have_state == 2
                                              : have_state == (stage == kIdActive ? 2u : 1u);
  if (!state_ok)
    out += Line(who + ": state " + std::to_string(have_state) + " after the worker's step " +
                std::to_string(stage));
  // An activated session holds the last set-up user name; one still in its set-up may show
  // any user name that was written to it so far (its cache slot is the current copy).
  const std::string user = Value(&h, VSK_USER_NAME, &found);
  bool user_ok = user == UserAfterSetup(sub, o.setup_updates);
  if (stage != kIdActive) {
    user_ok = user == sub.user;
    for (int i = 0; i < std::min(o.setup_updates, 2); ++i) user_ok = user_ok || user == kSetupUsers[i];
  }
  if (!user_ok) out += Line(who + ": user name \"" + user + "\" was never written");
  vsk_attr_value_t* dyn = nullptr;
  st = vsk_get_dynamic_config_attr(&h, id, kPolicyName, &dyn);
  const vsk_attr_value_t* v = st == VSK_OK && dyn != nullptr ? dyn->next : nullptr;
  if (v == nullptr ||
      std::string(static_cast<const char*>(v->value), v->length) !=
          sub.values[sub.values.size() - 4])
    out += Line(who + ": dynamic entry " + kPolicyName + " differs (" + std::to_string(st) + ")");
  vsk_free_snapshot_handle(&h);
  return out;
}

std::string CheckLiveCounts() {
  const vsk::recount::SessionCounts tables = vsk::recount::RecountFromTables();
  if (tables.status != VSK_OK)
    return Line("walk of the client table: " + std::to_string(tables.status));
  vsk::recount::SessionCounts shared = vsk::recount::ReadSharedCounts();
  // Slots that name no session are left by cut-short creates and removals; the check after
  // orvd's restart accounts for them (FreeOrphanSlots).
  for (uint64_t id : shared.slot_sessions) shared.slots_in_use -= !tables.sessions.count(id);
  return vsk::recount::CountDifferences(tables, shared);
}

std::string CheckStore(const Options& o, const Shared& shared, int workers, uint64_t* leftovers) {
  *leftovers = 0;
  std::vector<uint64_t> ids;
  std::unordered_map<uint64_t, Origin> origin;
  uint64_t allowance = 0;
  for (int w = 0; w < workers; ++w) {
    const WorkerLine& line = shared.board->lines[w];
    const uint64_t n = std::min(line.created.load(), shared.ids_per_line);
    for (uint64_t i = 0; i < n; ++i) {
      ids.push_back(shared.LineIds(w)[i]);
      origin[ids.back()] = {w, i, static_cast<IdStage>(shared.LineStages(w)[i])};
    }
    allowance += line.kills.load() + line.uncertain.load();
  }
  std::string out = CheckIds(ids);

  orvd_ctx_t* ctx = nullptr;
  vsk_status_t st = JoinStore(&ctx, DropTrace, nullptr, kJoinLimit);
  if (st != 0) return out + Line("the checker cannot register with orvd: " + std::to_string(st));
  uint64_t orphans = 0;
  out += FreeOrphanSlots(origin, allowance, &orphans);
  if (orphans != 0 && !o.json)
    std::fprintf(stderr, "vsk-load: %llu cache slots of cut-short creates or removals freed\n",
                 static_cast<unsigned long long>(orphans));
  // The state orvd rebuilt, while the leftovers are still in it.
  std::string rebuilt = CheckLiveCounts();
  if (!rebuilt.empty()) out += Line("after orvd's recovery walk:") + rebuilt;
  out += RemoveLeftovers(o, origin, allowance, leftovers);

  const vsk::recount::SessionCounts tables = vsk::recount::RecountFromTables();
  const vsk::recount::SessionCounts shared_counts = vsk::recount::ReadSharedCounts();
  std::string removed = vsk::recount::CountDifferences(tables, shared_counts);
  if (!removed.empty()) out += Line("after the leftovers were removed:") + removed;
  if (!tables.sessions.empty())
    out += Line(std::to_string(tables.sessions.size()) + " sessions left in the client table");
  const size_t step = std::max<size_t>(1, ids.size() / kLeftBehindSample);
  for (size_t i = 0; i < ids.size(); i += step) {
    std::string left = vsk::recount::LeftBehind(ids[i], ids[i]);
    if (!left.empty()) out += Line("session " + std::to_string(ids[i]) + " left: " + left);
  }
  st = orvd_unregister(&ctx);
  if (st != 0) out += Line("orvd_unregister: " + std::to_string(st));
  return out;
}

}  // namespace vsk::load
