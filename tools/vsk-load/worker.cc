// A worker process: a session daemon like any other. It registers with orvd over the daemon
// link in poll mode (each session operation's check services the link), then runs its
// share of subscriber lifecycles:
//   create with the cache -> set-up updates that keep the state (slot only) ->
//   activate (state 2: the slot goes to the tables and is given up) ->
//   snapshot and attribute reads -> hold -> removal.
// It holds up to its share of the live sessions before it removes the oldest, so the store
// stays at the size asked for. Every id it is given goes to its line's id list on the board
// before the next step, with the stage it has committed (created, active, removed), so that
// a worker killed at any moment leaves behind it what the check must find.
// A store that goes down (orvd restarting, a recovery after a process died inside it) is
// waited out as a daemon waits it out: each call that meets a transient status is made
// again, and passes once the library has registered again in passing.
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <thread>

#include "load.h"

namespace vsk::load {
namespace {

using Clock = std::chrono::steady_clock;

// The library's last traces in this worker, printed when the worker fails.
constexpr int kTraceRing = 8;
std::string g_traces[kTraceRing];
int g_trace_count = 0;

void KeepTrace(void*, int, const char* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  g_traces[g_trace_count++ % kTraceRing] = text;
}

void PrintTraces(int index) {
  for (int i = std::max(0, g_trace_count - kTraceRing); i < g_trace_count; ++i)
    std::fprintf(stderr, "vsk-load: worker %d (pid %d) trace: %s\n", index, getpid(),
                 g_traces[i % kTraceRing].c_str());
}

uint32_t Ns(Clock::time_point start) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
  return ns > 0xFFFFFFFFll ? 0xFFFFFFFFu : static_cast<uint32_t>(ns);
}

// How long one call waits out a store that is down (orvd restarting, a recovery after a
// process died inside the store) before the worker gives up on it.
constexpr auto kTransientLimit = std::chrono::seconds(120);

// Bumped by the daemon link each time the store goes down under this process (the
// environment-change callback with null): cached set-up work may have gone with it.
std::atomic<uint64_t> g_downs{0};
WorkerLine* g_line = nullptr;

void OnEnvChange(struct __db_env* env) {
  if (env != nullptr) return;
  g_downs.fetch_add(1, std::memory_order_relaxed);
  if (g_line != nullptr) g_line->downs.fetch_add(1, std::memory_order_relaxed);
}

class Lifecycles {
 public:
  Lifecycles(const Options& o, WorkerLine& line, uint64_t* ids, uint8_t* stages, int index)
      : o_(o), line_(line), ids_(ids), stages_(stages), index_(index) {
    setup_.type = VSK_USER_NAME;
    setup_.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
    setup_list_ = {&setup_, &setup_.next};
    state_.type = VSK_SESSION_STATE;
    state_.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
    state_.new_value = &active_;
    state_.new_length = sizeof active_;
    state_list_ = {&state_, &state_.next};
  }

  // One lifecycle up to the hold; false on a failure (recorded on the board).
  bool Open(uint64_t n) {
    sub_.Name(index_, n);
    const vsk_create_options_t cache{0, 1, {0, 0}};
    vsk_session_ids_t ids{};
    vsk_status_t st = Timed(kCreate, [&] {
      return vsk_create_extended_client_session(kClientType, &sub_.attr_list, &sub_.auth_list,
                                                &sub_.dyn_list, &ids, &cache, nullptr);
    });
    if (st != VSK_OK) return Fail(kCreate, st);
    const uint64_t at = line_.created.load(std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(ids_[at]).store(ids.session_id, std::memory_order_relaxed);
    Stage(at, kIdCreated);
    line_.created.store(at + 1, std::memory_order_release);
    line_.live.fetch_add(1, std::memory_order_relaxed);
    const uint64_t id = ids.session_id;

    // Set-up updates live in the session's cache slot until the activation flushes them.
    // When the store went down meanwhile, the daemon makes them again before it activates.
    for (int round = 0;; ++round) {
      const uint64_t downs = g_downs.load(std::memory_order_relaxed);
      for (int i = 0; i < o_.setup_updates; ++i) {
        const char* user = kSetupUsers[i & 1];
        setup_.new_value = const_cast<char*>(user);
        setup_.new_length = static_cast<uint16_t>(std::strlen(user));
        st = Timed(kSetup, [&] { return vsk_update_client_session(id, &setup_list_); });
        if (st != VSK_OK) return Fail(kSetup, st);
      }
      if (o_.activate) {
        Stage(at, kIdActivating);
        st = Timed(kActivate, [&] { return vsk_update_client_session(id, &state_list_); });
        if (st != VSK_OK) return Fail(kActivate, st);
      }
      if (!o_.activate || g_downs.load(std::memory_order_relaxed) == downs || round > 100) break;
      line_.redone.fetch_add(1, std::memory_order_relaxed);
    }
    if (o_.activate) Stage(at, kIdActive);

    for (int s = 0; s < o_.snapshots; ++s) {
      st = Timed(kSnapshot, [&] { return ReadBack(id); });
      if (st != VSK_OK) return Fail(kSnapshot, st);
    }
    held_.push_back({id, at});
    return true;
  }

  // Removes the oldest held session. A removal repeated after a transient failure may find
  // the session gone: the first attempt committed before the store went down.
  bool CloseOldest() {
    const Held h = held_.front();
    held_.pop_front();
    bool repeated = false;
    Stage(h.at, kIdRemoving);
    vsk_status_t st = Timed(kRemove, [&] {
      vsk_status_t r = vsk_remove_client_session(h.id);
      if (repeated && r == VSK_ERR_NOT_FOUND) r = VSK_OK;
      repeated = true;
      return r;
    });
    if (st != VSK_OK) return Fail(kRemove, st);
    Stage(h.at, kIdRemoved);
    line_.live.fetch_sub(1, std::memory_order_relaxed);
    line_.done.fetch_add(1, std::memory_order_relaxed);
    return true;
  }

  size_t held() const { return held_.size(); }
  const Samples& samples() const { return samples_; }

 private:
  struct Held {
    uint64_t id;
    uint64_t at;  // its place in the line's id list
  };

  void Stage(uint64_t at, IdStage stage) {
    std::atomic_ref<uint8_t>(stages_[at]).store(stage, std::memory_order_release);
  }

  // Runs `op` as a daemon would: a transient status is waited out and the call made again.
  // The sample is of the call that succeeded.
  template <typename Op>
  vsk_status_t Timed(Step step, Op op) {
    const auto give_up = Clock::now() + kTransientLimit;
    for (;;) {
      const auto t = Clock::now();
      const vsk_status_t st = op();
      if (st == VSK_OK) {
        samples_.ns[step].push_back(Ns(t));
        return st;
      }
      if (!Transient(st) || Clock::now() > give_up) return st;
      // A create refused at the gate (orvd gone or not ready) wrote nothing; one that met a
      // store going down inside its transaction may have committed a session whose id this
      // worker never learns.
      const bool at_gate = st == VSK_ERR_NOT_STARTED || st == VSK_ERR_ORVD_FATAL ||
                           st == VSK_ERR_ORVD_CONNECT;
      if (step == kCreate && !at_gate) line_.uncertain.fetch_add(1, std::memory_order_relaxed);
      line_.retries.fetch_add(1, std::memory_order_relaxed);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  // The snapshot of the session and the reads a daemon makes of it. The last user name
  // written must come back, as must the interface name and a dynamic entry.
  vsk_status_t ReadBack(uint64_t id) {
    vsk_snapshot_handle h{};
    h.client_session_id = id;
    vsk_status_t st = vsk_get_snapshot(&h);
    const std::string want_user = UserAfterSetup(sub_, o_.setup_updates);
    for (int i = 0; st == VSK_OK && i < o_.reads; ++i) {
      vsk_attr_value_t* out = nullptr;
      std::string want;
      switch (i % 3) {
        case 0:
          st = vsk_get_client_session_attr(&h, VSK_USER_NAME, &out);
          want = want_user;
          break;
        case 1:
          st = vsk_get_client_session_attr(&h, VSK_INTERFACE_NAME, &out);
          want.assign(sub_.ifl, std::strlen(sub_.ifl) + 1);
          break;
        default:
          st = vsk_get_dynamic_config_attr(&h, id, kPolicyName, &out);
          want = sub_.values[sub_.values.size() - 4];
          break;
      }
      if (st != VSK_OK) break;
      const vsk_attr_value_t* v = out != nullptr ? out->next : nullptr;
      if (v == nullptr || std::string(static_cast<const char*>(v->value), v->length) != want)
        st = VSK_ERR_FATAL;  // a read that does not give back what was written
    }
    vsk_free_snapshot_handle(&h);
    return st;
  }

  bool Fail(Step step, vsk_status_t st) {
    if (line_.errors.fetch_add(1, std::memory_order_relaxed) == 0) {
      line_.first_error.store(st, std::memory_order_relaxed);
      line_.failed_step.store(step, std::memory_order_relaxed);
    }
    return false;
  }

  const Options& o_;
  WorkerLine& line_;
  uint64_t* ids_;
  uint8_t* stages_;
  int index_;
  Subscriber sub_;
  Samples samples_;
  std::deque<Held> held_;
  vsk_attr_update_t setup_{}, state_{};
  vsk_attr_update_list_t setup_list_{}, state_list_{};
  uint32_t active_ = 2;
};

}  // namespace

int RunWorker(const Options& o, Shared& shared, int index, const std::string& samples_path) {
  WorkerLine& line = shared.board->lines[index];
  g_line = &line;
  orvd_ctx_t* ctx = nullptr;
  vsk_status_t st = JoinStore(&ctx, KeepTrace, OnEnvChange,
                              static_cast<int>(kTransientLimit.count()));
  if (st != 0) {
    line.first_error.store(st, std::memory_order_relaxed);
    line.phase.store(kFailed, std::memory_order_relaxed);
    PrintTraces(index);
    orvd_unregister(&ctx);
    return 1;
  }
  line.phase.store(kRunning, std::memory_order_relaxed);

  const uint64_t quota = line.quota.load(std::memory_order_relaxed);
  const uint64_t hold = std::max<uint64_t>(1, o.live / static_cast<uint64_t>(o.workers));
  Lifecycles run(o, line, shared.LineIds(index), shared.LineStages(index), index);
  bool ok = true;
  // A replacement of a killed worker carries on from where the line stands.
  for (uint64_t n = line.created.load(std::memory_order_acquire);
       ok && n < quota && !shared.board->stop.load(std::memory_order_relaxed); ++n) {
    ok = run.Open(n);
    while (ok && run.held() > hold) ok = run.CloseOldest();
  }
  while (ok && run.held() > 0) ok = run.CloseOldest();

  if (!ok) PrintTraces(index);
  bool written = WriteSamples(samples_path, run.samples());
  st = orvd_unregister(&ctx);
  line.phase.store(ok && written && st == 0 ? kFinished : kFailed, std::memory_order_relaxed);
  return ok && written && st == 0 ? 0 : 1;
}

}  // namespace vsk::load
