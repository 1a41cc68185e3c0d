// A worker process: a session daemon like any other. It registers with orvd over the daemon
// link in poll mode (each session operation's check services the link), then runs its
// share of subscriber lifecycles:
//   create with the cache -> set-up updates that keep the state (slot only) ->
//   activate (state 2: the slot goes to the tables and is given up) ->
//   snapshot and attribute reads -> hold -> removal.
// It holds up to its share of the live sessions before it removes the oldest, so the store
// stays at the size asked for. Every id it is given goes to its line's id list on the board
// before the next step, so that a worker killed at any moment leaves its ids behind it.
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>

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

class Lifecycles {
 public:
  Lifecycles(const Options& o, WorkerLine& line, uint64_t* ids, int index)
      : o_(o), line_(line), ids_(ids), index_(index) {
    user_a_ = "subscriber-a@isp.example";
    user_b_ = "subscriber-b@isp.example";
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
    auto t = Clock::now();
    vsk_status_t st = vsk_create_extended_client_session(
        kClientType, &sub_.attr_list, &sub_.auth_list, &sub_.dyn_list, &ids, &cache, nullptr);
    if (st != VSK_OK) return Fail(kCreate, st);
    samples_.ns[kCreate].push_back(Ns(t));
    const uint64_t count = line_.created.load(std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(ids_[count]).store(ids.session_id, std::memory_order_relaxed);
    line_.created.store(count + 1, std::memory_order_release);
    line_.live.fetch_add(1, std::memory_order_relaxed);
    const uint64_t id = ids.session_id;

    for (int i = 0; i < o_.setup_updates; ++i) {
      const std::string& user = (i & 1) ? user_b_ : user_a_;
      setup_.new_value = const_cast<char*>(user.data());
      setup_.new_length = static_cast<uint16_t>(user.size());
      t = Clock::now();
      st = vsk_update_client_session(id, &setup_list_);
      if (st != VSK_OK) return Fail(kSetup, st);
      samples_.ns[kSetup].push_back(Ns(t));
    }
    t = Clock::now();
    st = vsk_update_client_session(id, &state_list_);
    if (st != VSK_OK) return Fail(kActivate, st);
    samples_.ns[kActivate].push_back(Ns(t));

    t = Clock::now();
    st = ReadBack(id);
    if (st != VSK_OK) return Fail(kSnapshot, st);
    samples_.ns[kSnapshot].push_back(Ns(t));
    held_.push_back(id);
    return true;
  }

  // Removes the oldest held session.
  bool CloseOldest() {
    const uint64_t id = held_.front();
    held_.pop_front();
    auto t = Clock::now();
    vsk_status_t st = vsk_remove_client_session(id);
    if (st != VSK_OK) return Fail(kRemove, st);
    samples_.ns[kRemove].push_back(Ns(t));
    line_.live.fetch_sub(1, std::memory_order_relaxed);
    line_.done.fetch_add(1, std::memory_order_relaxed);
    return true;
  }

  size_t held() const { return held_.size(); }
  const Samples& samples() const { return samples_; }

 private:
  // The snapshot of the session and the reads a daemon makes of it. The last user name
  // written must come back, as must the interface name and a dynamic entry.
  vsk_status_t ReadBack(uint64_t id) {
    vsk_snapshot_handle h{};
    h.client_session_id = id;
    vsk_status_t st = vsk_get_snapshot(&h);
    const std::string& user = (o_.setup_updates & 1) ? user_a_ : user_b_;
    const std::string want_user = o_.setup_updates == 0 ? std::string(sub_.user) : user;
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
  int index_;
  Subscriber sub_;
  Samples samples_;
  std::deque<uint64_t> held_;
  std::string user_a_, user_b_;
  vsk_attr_update_t setup_{}, state_{};
  vsk_attr_update_list_t setup_list_{}, state_list_{};
  uint32_t active_ = 2;
};

}  // namespace

int RunWorker(const Options& o, Shared& shared, int index, const std::string& samples_path) {
  WorkerLine& line = shared.board->lines[index];
  orvd_ctx_t* ctx = orvd_init_handle();
  if (ctx == nullptr) return 1;
  vsk_status_t st = orvd_set_trace_callback(ctx, nullptr, KeepTrace);
  if (st == 0) st = orvd_set_reg_type_poll(ctx);
  if (st == 0) st = orvd_register(ctx);
  if (st == 0) st = vsk_db_check();
  if (st == 0) st = orvd_send_recovery_complete(ctx);
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
  Lifecycles run(o, line, shared.LineIds(index), index);
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
