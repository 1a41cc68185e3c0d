// lodexd's core: see replicator.h.
#include "replicator.h"

#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/byte_reader.h"
#include "log.h"
#include "platform/lodex.h"
#include "vsk/store.h"

namespace lodexd {
namespace {

constexpr size_t kMaxBacklog = 8u << 20;
constexpr int kPumpBatch = 512;
constexpr int kPumpIdleMinUs = 50;
constexpr int kPumpIdleMaxUs = 2000;
constexpr timeval kTickInterval = {0, 100000};
constexpr auto kRegisterRetry = std::chrono::milliseconds(250);
constexpr auto kNudgeAfter = std::chrono::milliseconds(300);
constexpr auto kReportAtLeastEvery = std::chrono::seconds(1);
constexpr auto kStatusAtLeastEvery = std::chrono::seconds(1);
constexpr auto kErrorLogEvery = std::chrono::seconds(1);
constexpr uint32_t kQueueBytes = 1048576;
constexpr uint32_t kScaledQueueBytes = 5242880;
// The environment ids the store gives its transport: the master is 0, the standby 1. A
// message from the peer is handed to Berkeley DB as coming from the other id.
constexpr int kMasterEnvId = 0;
constexpr int kStandbyEnvId = 1;
// Log record type of a transaction commit in this Berkeley DB (DB___txn_regop); the high
// bit marks debug records.
constexpr uint32_t kTxnRegopRecord = 10;
constexpr uint32_t kDebugRecordFlag = 0x80000000u;
constexpr int kLastCommitWalk = 4096;

Replicator* g_self = nullptr;

void TraceSink(void*, int, const char* format, va_list args) { VLog(format, args); }

int64_t RealtimeMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

// The LSN of the last commit record in `env`'s log, looking back at most kLastCommitWalk
// records; 0/0 when none is found.
DB_LSN LastCommit(DB_ENV* env) {
  DB_LSN found{};
  DB_LOGC* cursor = nullptr;
  if (env->log_cursor(env, &cursor, 0) != 0) return found;
  DBT data{};
  data.flags = DB_DBT_REALLOC;
  DB_LSN lsn{};
  int ret = cursor->get(cursor, &lsn, &data, DB_LAST);
  for (int i = 0; ret == 0 && i < kLastCommitWalk; ++i) {
    uint32_t type = 0;
    vsk::base::ByteReader(data.data, data.size).Get(&type);
    if ((type & ~kDebugRecordFlag) == kTxnRegopRecord) {
      found = lsn;
      break;
    }
    ret = cursor->get(cursor, &lsn, &data, DB_PREV);
  }
  std::free(data.data);
  cursor->close(cursor, 0);
  return found;
}

uint32_t QueueBytes() { return vsk_db_support_scaling() ? kScaledQueueBytes : kQueueBytes; }

}  // namespace

Replicator::Replicator(evContext ev, Endpoint listen, Endpoint peer)
    : ev_(ev),
      base_(evGetBase(ev)),
      link_(base_, std::move(listen), std::move(peer), this),
      ack_(base_, [this](DB_LSN* out) { return LogEnd(out); }),
      buffer_(1u << 20) {}

Replicator::~Replicator() {
  Stop();
  if (pump_ev_ != nullptr) event_free(pump_ev_);
  if (tick_ev_ != nullptr) event_free(tick_ev_);
}

bool Replicator::Start() {
  g_self = this;
  status_.pid = getpid();
  // The queue exists before the store opens: lodexd drains it whatever the store does.
  if (lodex_init(nullptr, QueueBytes()) != 0) {
    Log("cannot attach the replication queue: %s", lodex_get_err_msg());
    return false;
  }
  if (!link_.Start() || !ack_.Start()) return false;
  pump_ev_ = evtimer_new(base_, OnPump, this);
  tick_ev_ = event_new(base_, -1, EV_PERSIST, OnTick, this);
  evtimer_add(pump_ev_, &kTickInterval);
  event_add(tick_ev_, &kTickInterval);
  Register();
  PublishStatus();
  return true;
}

void Replicator::Stop() {
  link_.DropAll();
  LeaveStore();
  lodex_release(0);
  if (g_self == this) g_self = nullptr;
}

// ---- the store --------------------------------------------------------------------------

void Replicator::OnEnvironment(DB_ENV* env) {
  if (g_self == nullptr) return;
  g_self->env_ = env;
  if (env == nullptr) g_self->store_lost_ = true;  // the next tick leaves and comes back
}

void Replicator::Register() {
  next_register_ = Clock::now() + kRegisterRetry;
  LeaveStore();
  handle_ = orvd_init_handle();
  if (handle_ == nullptr) return;
  orvd_set_trace_callback(handle_, nullptr, TraceSink);
  orvd_set_reg_type_event(handle_, &ev_);
  orvd_set_db_env_change_callback(handle_, OnEnvironment);
  vsk_status_t rc = orvd_register(handle_);
  if (rc != VSK_OK) {
    if (rc != last_register_status_) Log("cannot join the store yet: %d", rc);
    last_register_status_ = rc;
    orvd_unregister(&handle_);
    env_ = nullptr;
    return;
  }
  last_register_status_ = rc;
  vsk_db_get_dbenv(&env_);
  master_ = vsk_db_rep_is_master();
  store_lost_ = false;
  Log("joined the store as %s", master_ ? "master" : "standby");
  standby_ = StandbyPosition{};
  reported_ = StandbyPosition{};
  RefreshOwnPosition();
  if (master_ && link_.up()) Nudge("joined the store");
  UpdateAckState();
}

void Replicator::LeaveStore() {
  env_ = nullptr;
  if (handle_ != nullptr) orvd_unregister(&handle_);
  handle_ = nullptr;
}

bool Replicator::LogEnd(DB_LSN* out) const {
  if (env_ == nullptr) return false;
  DB_LOG_STAT* st = nullptr;
  if (env_->log_stat(env_, &st, 0) != 0) return false;
  out->file = st->st_cur_file;
  out->offset = st->st_cur_offset;
  std::free(st);
  return true;
}

void Replicator::RefreshOwnPosition() {
  if (env_ == nullptr) return;
  DB_LSN end{};
  if (LogEnd(&end)) status_.log_end = end;
  DB_REP_STAT* rs = nullptr;
  if (env_->rep_stat(env_, &rs, 0) == 0) {
    status_.gen = rs->st_gen;
    if (!master_) {
      status_.standby_gen = rs->st_gen;
      status_.standby_next = rs->st_next_lsn;
      status_.standby_ready = rs->st_startup_complete != 0;
    }
    std::free(rs);
  }
  if (!master_) status_.last_commit = LastCommit(env_);
}

// ---- the queue ----------------------------------------------------------------------------

void Replicator::OnPump(evutil_socket_t, short, void* arg) { static_cast<Replicator*>(arg)->Pump(); }

void Replicator::Pump() {
  int moved = 0;
  bool blocked = false;
  while (moved < kPumpBatch) {
    if (link_.up() && link_.Backlog() > kMaxBacklog) {  // invariant 1
      blocked = true;
      break;
    }
    lodex_msg_t m{};
    int r = lodex_receive(&m, buffer_.data(), static_cast<uint32_t>(buffer_.size()));
    if (r == -2) {
      buffer_.resize(size_t{m.control_size} + m.rec_size);
      continue;
    }
    if (r == -1) {  // a close of the store detached this process: attach again
      lodex_init(nullptr, QueueBytes());
      break;
    }
    if (r == 0) break;
    ++moved;
    if (!link_.up()) {
      ++status_.undelivered;
      continue;
    }
    FrameHeader h{};
    h.magic = kFrameMagic;
    h.kind = kRep;
    h.envid = m.envid;
    h.flags = m.flags;
    h.lsn_file = m.lsn.file;
    h.lsn_offset = m.lsn.offset;
    h.control_size = m.control_size;
    h.rec_size = m.rec_size;
    link_.Send(h, m.control, m.rec);
    ++status_.shipped;
    status_.shipped_bytes += sizeof h + m.control_size + m.rec_size;
  }
  // Busy: come back at once; blocked by the peer: shortly; idle: back off.
  int wait_us = 0;
  if (blocked) {
    wait_us = 1000;
  } else if (moved == 0) {
    pump_idle_us_ = pump_idle_us_ == 0 ? kPumpIdleMinUs : std::min(pump_idle_us_ * 2, kPumpIdleMaxUs);
    wait_us = pump_idle_us_;
  } else {
    pump_idle_us_ = 0;
  }
  timeval tv{0, wait_us};
  evtimer_add(pump_ev_, &tv);
}

// ---- the link -----------------------------------------------------------------------------

void Replicator::OnLinkUp() {
  ++status_.links;
  Log("link to the peer is up");
  standby_ = StandbyPosition{};
  reported_ = StandbyPosition{};
  if (master_ && env_ != nullptr) Nudge("link up");
  if (!master_) ReportPosition(true);
  UpdateAckState();
}

void Replicator::OnLinkDown() {
  Log("link to the peer is down");
  standby_ = StandbyPosition{};  // invariant 2
  UpdateAckState();
}

void Replicator::OnFrame(const FrameHeader& h, const uint8_t* control, const uint8_t* rec) {
  if (h.kind == kRep) {
    Apply(h, control, rec);
  } else if (h.kind == kProgress) {
    OnProgress(control, h.control_size);
  }
}

void Replicator::OnFramesDone() {
  if (!master_ && applied_since_report_) ReportPosition(false);
}

void Replicator::Apply(const FrameHeader& h, const uint8_t* control, const uint8_t* rec) {
  ++status_.received;
  if (env_ == nullptr || store_lost_) {
    ++status_.unapplied;
    return;
  }
  DBT c{};
  c.data = const_cast<uint8_t*>(control);
  c.size = h.control_size;
  DBT r{};
  r.data = const_cast<uint8_t*>(rec);
  r.size = h.rec_size;
  DB_LSN ret_lsn{};
  const int from = master_ ? kStandbyEnvId : kMasterEnvId;
  int ret = env_->rep_process_message(env_, &c, &r, from, &ret_lsn);
  applied_since_report_ = true;
  switch (ret) {
    case 0:
    case DB_REP_ISPERM:
    case DB_REP_NOTPERM:
    case DB_REP_IGNORE:
    case DB_REP_NEWSITE:
    case DB_REP_HOLDELECTION:  // roles come from the operator, never from elections
      return;
    default:
      break;
  }
  ++status_.rep_errors;
  if (Clock::now() - last_error_log_ >= kErrorLogEvery) {
    last_error_log_ = Clock::now();
    Log("replication message from the peer failed: %s%s", db_strerror(ret),
        ret == DB_REP_DUPMASTER ? " (both engines claim mastership)" : "");
  }
  if (ret == DB_RUNRECOVERY || vsk_in_panic) store_lost_ = true;
}

void Replicator::OnProgress(const uint8_t* control, uint32_t size) {
  ProgressBody p;
  vsk::base::ByteReader in(control, size);
  if (size != sizeof p || !in.Get(&p)) return;
  StandbyPosition now{true, p.ready != 0, p.gen, DB_LSN{p.next_file, p.next_offset}};
  if (!standby_.known || now.ready != standby_.ready || now.gen != standby_.gen ||
      vsk::platform::CompareLsn(now.next, standby_.next) != 0) {
    standby_moved_at_ = Clock::now();
  }
  standby_ = now;
  UpdateAckState();
}

void Replicator::ReportPosition(bool force) {
  applied_since_report_ = false;
  if (env_ == nullptr || master_ || !link_.up()) return;
  DB_REP_STAT* rs = nullptr;
  if (env_->rep_stat(env_, &rs, 0) != 0) return;
  StandbyPosition now{true, rs->st_startup_complete != 0, rs->st_gen, rs->st_next_lsn};
  std::free(rs);
  bool changed = !reported_.known || now.ready != reported_.ready || now.gen != reported_.gen ||
                 vsk::platform::CompareLsn(now.next, reported_.next) != 0;
  if (!changed && !force) return;
  ProgressBody body{now.gen, now.next.file, now.next.offset, now.ready ? 1u : 0u};
  FrameHeader h{};
  h.magic = kFrameMagic;
  h.kind = kProgress;
  h.control_size = sizeof body;
  link_.Send(h, &body, nullptr);
  reported_ = now;
  reported_at_ = Clock::now();
}

void Replicator::Nudge(const char* why) {
  if (env_ == nullptr || !master_ || !link_.up()) return;
  last_nudge_ = Clock::now();
  int ret = env_->rep_flush(env_);
  if (ret != 0) {
    Log("cannot re-send the last record (%s): %s", why, db_strerror(ret));
    return;
  }
  ++status_.nudges;
}

void Replicator::UpdateAckState() {
  bool can = master_ && env_ != nullptr && !store_lost_ && link_.up() && standby_.known &&
             standby_.ready && standby_.gen == status_.gen;
  ack_.SetCanAck(can);
  if (can) ack_.Advance(standby_.next);
}

// ---- housekeeping -------------------------------------------------------------------------

void Replicator::OnTick(evutil_socket_t, short, void* arg) { static_cast<Replicator*>(arg)->Tick(); }

void Replicator::Tick() {
  Clock::time_point now = Clock::now();
  if (store_lost_ && handle_ != nullptr) {
    Log("the store went down; leaving it");
    LeaveStore();
    UpdateAckState();
  }
  if (handle_ == nullptr && now >= next_register_) Register();
  RefreshOwnPosition();
  if (master_) {
    if (standby_.known) {
      status_.standby_ready = standby_.ready;
      status_.standby_gen = standby_.gen;
      status_.standby_next = standby_.next;
    }
    bool behind = !standby_.known || !standby_.ready || standby_.gen != status_.gen ||
                  vsk::platform::CompareLsn(standby_.next, status_.log_end) < 0;
    if (behind && now - standby_moved_at_ >= kNudgeAfter && now - last_nudge_ >= kNudgeAfter) {
      Nudge("standby behind");
    }
    UpdateAckState();
  } else {
    ReportPosition(now - reported_at_ >= kReportAtLeastEvery);
  }
  PublishStatus();
}

void Replicator::PublishStatus() {
  status_.master = master_;
  status_.env_open = env_ != nullptr && !store_lost_;
  status_.peer_up = link_.up();
  status_.in_sync = master_ && ack_.can_ack() &&
                    vsk::platform::CompareLsn(standby_.next, status_.log_end) >= 0;
  lodex_stats_t qs{};
  if (lodex_get_stats(&qs) == 0) status_.queue_dropped = qs.dropped_full + qs.dropped_busy;
  status_.ack_clients = ack_.clients();
  status_.ack_waiting = ack_.waiting();
  status_.ack_answered = ack_.answered();
  status_.updated_ms = 0;
  std::string text = vsk::platform::FormatLodexStatus(status_);
  Clock::time_point now = Clock::now();
  if (text == published_ && now - published_at_ < kStatusAtLeastEvery) return;
  published_ = text;
  published_at_ = now;
  status_.updated_ms = RealtimeMs();
  vsk::platform::WriteLodexStatus(status_);
}

}  // namespace lodexd
