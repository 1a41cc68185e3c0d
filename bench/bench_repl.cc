// Replication's cost and speed, in one run on two throwaway roots (a master and a standby,
// each with its own orvd and lodexd, linked over loopback):
//  - the master's commit rate (one client session put per transaction) with a live
//    standby, beside the same load with no standby (lodexd drains and counts), beside raw
//    Berkeley DB with replication on and a transport that does nothing; the ratio of live
//    to no-op cost per commit is printed against the target of 1.3;
//  - the standby's lag, from the master's commit to the standby's apply (the standby's
//    next expected LSN passing the commit's end of log), at p50 and p99;
//  - acknowledgement round trips per second through the channel (vsk_ack_request).
// Passes alternate (raw, then the store) round by round; figures are medians over rounds
// with the spread (min..max). Nothing is asserted.
#include <db.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/shared/root_objects.h"
#include "platform/hwframe.h"
#include "platform/lodex_status.h"
#include "platform/paths.h"
#include "vsk/vsk.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 7;
constexpr int kTxnsPerPass = 3000;
constexpr int kLagEvery = 16;  // every 16th commit is timed to the standby
constexpr int kLagSlots = kRounds * kTxnsPerPass / kLagEvery + 16;
constexpr double kTargetRatio = 1.3;
constexpr int kPacedRate = 1000;  // txn/s of the pass that times the standby's lag

int64_t MonoNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

double Quantile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(q * (v.size() - 1))];
}

// Shared between the bench's processes (made before they fork).
struct Shared {
  std::atomic<int> lag_count;
  std::atomic<int> lag_seen;  // the watcher's progress through the slots
  std::atomic<bool> stop_watch;
  DB_LSN lag_lsn[kLagSlots];
  int64_t lag_commit_ns[kLagSlots];
  int64_t lag_apply_ns[kLagSlots];
  double pass_rate;  // txn/s of the last store pass
  double ack_rate;
};
Shared* g = nullptr;

struct Root {
  std::string dir;
  pid_t orvd = -1, lodexd = -1;
};

pid_t Spawn(const Root& r, const char* prog, std::vector<std::string> args) {
  pid_t pid = fork();
  if (pid == 0) {
    setenv("VSK_ROOT", r.dir.c_str(), 1);
    std::string log = r.dir + "/var/log/" + std::filesystem::path(prog).filename().string() + ".log";
    FILE* f = std::freopen(log.c_str(), "a", stderr);
    (void)f;
    std::vector<char*> argv{const_cast<char*>(prog)};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(prog, argv.data());
    _exit(127);
  }
  return pid;
}

void Stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  pid = -1;
}

void MakeRoot(Root* r, bool master) {
  char tmpl[] = "/tmp/vsk-bench-repl.XXXXXX";
  r->dir = mkdtemp(tmpl);
  setenv("VSK_ROOT", r->dir.c_str(), 1);
  vsk::platform::MakeSystemDirs();
  for (const auto& f : vsk::shared::RootKeyFiles()) std::ofstream(f, std::ios::app).close();
  vsk::platform::WriteRoleFile(master);
}

void CleanRoot(Root* r) {
  Stop(r->lodexd);
  Stop(r->orvd);
  setenv("VSK_ROOT", r->dir.c_str(), 1);
  vsk::shared::RemoveAllRootObjects();
  std::filesystem::remove_all(r->dir);
}

vsk::platform::LodexStatus StatusOf(const Root& r) {
  setenv("VSK_ROOT", r.dir.c_str(), 1);
  vsk::platform::LodexStatus s;
  vsk::platform::ReadLodexStatus(&s);
  return s;
}

template <typename Pred>
bool WaitStatus(const Root& r, Pred p, int seconds = 60) {
  auto end = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < end) {
    if (p(StatusOf(r))) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// Registers as a client daemon of `root` (retrying), runs fn, leaves.
template <typename Fn>
int AsClient(const Root& root, Fn fn) {
  setenv("VSK_ROOT", root.dir.c_str(), 1);
  orvd_ctx_t* h = nullptr;
  for (int i = 0; i < 600; ++i) {
    h = orvd_init_handle();
    orvd_set_reg_type_poll(h);
    if (orvd_register(h) == VSK_OK) break;
    orvd_unregister(&h);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (h == nullptr) return 1;
  int rc = fn();
  orvd_unregister(&h);
  return rc;
}

template <typename Fn>
int InChild(Fn fn) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// One pass of the store load: kTxnsPerPass client session puts, one per transaction.
// Every kLagEvery-th commit is timed (with the end of log after it) when `time_lag`.
int StorePass(uint64_t first_id, bool time_lag, int pace_per_s = 0) {
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  char user[16] = "bench-user-000";
  uint32_t type = 1;
  vsk_attr_t attrs[2] = {{VSK_USER_NAME, sizeof user, user, nullptr},
                         {VSK_CLIENT_SESSION_TYPE, sizeof type, &type, nullptr}};
  vsk_attr_list_t list;
  vsk_attr_list_init(&list);
  for (auto& a : attrs) vsk_attr_list_append(&list, &a);
  vsk_client_session_t rec{};
  rec.attrs = &list;
  int64_t start = MonoNs();
  for (int i = 0; i < kTxnsPerPass; ++i) {
    vsk_session_id_t id = first_id + i;
    rec.dynamic_id = id;
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != VSK_OK) return 2;
    if (vsk_db_put_client_session(&txn, &id, &rec) != VSK_OK) return 3;
    if (vsk_db_end_txn(&txn) != VSK_OK) return 4;
    if (pace_per_s > 0) {
      int64_t due = start + int64_t{i + 1} * 1000000000 / pace_per_s;
      while (MonoNs() < due) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    if (time_lag && i % kLagEvery == 0) {
      int slot = g->lag_count.load();
      if (slot < kLagSlots) {
        DB_LOG_STAT* st = nullptr;
        env->log_stat(env, &st, 0);
        g->lag_lsn[slot] = DB_LSN{st->st_cur_file, st->st_cur_offset};
        std::free(st);
        g->lag_commit_ns[slot] = MonoNs();
        g->lag_count.store(slot + 1);
      }
    }
  }
  g->pass_rate = kTxnsPerPass / ((MonoNs() - start) / 1e9);
  return 0;
}

// Watches the standby's next expected LSN and stamps each timed commit when it is applied.
int WatchStandby(const Root& standby) {
  return AsClient(standby, [] {
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    while (!g->stop_watch.load()) {
      int seen = g->lag_seen.load();
      if (seen >= g->lag_count.load()) {
        std::this_thread::sleep_for(std::chrono::microseconds(20));
        continue;
      }
      DB_REP_STAT* rs = nullptr;
      if (env->rep_stat(env, &rs, 0) != 0) continue;
      DB_LSN next = rs->st_next_lsn;
      std::free(rs);
      int64_t now = MonoNs();
      while (seen < g->lag_count.load() &&
             vsk::platform::CompareLsn(next, g->lag_lsn[seen]) >= 0) {
        g->lag_apply_ns[seen++] = now;
      }
      g->lag_seen.store(seen);
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return 0;
  });
}

// Raw Berkeley DB with replication on and a transport that drops everything.
int NoopSend(DB_ENV*, const DBT*, const DBT*, const DB_LSN*, int, u_int32_t) { return 0; }

struct RawStore {
  DB_ENV* env = nullptr;
  DB* db = nullptr;
  std::string dir;
  bool Open() {
    char tmpl[] = "/tmp/vsk-bench-raw.XXXXXX";
    dir = mkdtemp(tmpl);
    db_env_create(&env, 0);
    env->set_cachesize(env, 0, 1048576, 0);
    env->set_lg_bsize(env, 64000);
    env->set_flags(env, DB_TXN_NOSYNC, 1);
    env->rep_set_transport(env, 0, NoopSend);
    if (env->open(env, dir.c_str(),
                  DB_CREATE | DB_RECOVER | DB_THREAD | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL |
                      DB_INIT_REP | DB_INIT_TXN,
                  0) != 0) {
      return false;
    }
    if (env->rep_start(env, nullptr, DB_REP_MASTER) != 0) return false;
    db_create(&db, env, 0);
    return db->open(db, nullptr, "raw.db", nullptr, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT | DB_THREAD, 0) == 0;
  }
  double Pass(uint64_t first_id) {
    char value[48] = {};
    int64_t start = MonoNs();
    for (int i = 0; i < kTxnsPerPass; ++i) {
      uint64_t id = first_id + i;
      DB_TXN* txn = nullptr;
      env->txn_begin(env, nullptr, &txn, 0);
      DBT k{}, v{};
      k.data = &id;
      k.size = sizeof id;
      v.data = value;
      v.size = sizeof value;
      db->put(db, txn, &k, &v, 0);
      txn->commit(txn, 0);
    }
    return kTxnsPerPass / ((MonoNs() - start) / 1e9);
  }
  void Close() {
    if (db) db->close(db, 0);
    if (env) env->close(env, 0);
    std::filesystem::remove_all(dir);
  }
};

std::vector<uint32_t> g_ack_answers;
void OnAck(uint32_t, uint32_t, int status) {
  if (status == VSK_ACK_POSITIVE) g_ack_answers.push_back(1);
}

// Acknowledgement round trips per second: requests kept flowing for two seconds.
int AckPass(const Root& master) {
  setenv("VSK_ROOT", master.dir.c_str(), 1);
  evContext ev{};
  evCreate(&ev);
  vsk_ack_app_context_t app{ev};
  vsk_ack_register(&app, nullptr, OnAck);
  auto end = Clock::now() + std::chrono::seconds(10);
  while (vsk_ack_request(0, 0) != VSK_ACK_ACCEPTED && Clock::now() < end) evDispatchOnce(ev, 10);
  while (g_ack_answers.empty() && Clock::now() < end) evDispatchOnce(ev, 10);
  g_ack_answers.clear();
  size_t asked = 0;
  int64_t start = MonoNs();
  end = Clock::now() + std::chrono::seconds(2);
  while (Clock::now() < end) {
    while (asked - g_ack_answers.size() < 3000 && vsk_ack_request(1, 1) == VSK_ACK_ACCEPTED) ++asked;
    evDispatchOnce(ev, 1);
  }
  g->ack_rate = g_ack_answers.size() / ((MonoNs() - start) / 1e9);
  return 0;
}

void Print(const char* what, const std::vector<double>& v, const char* unit) {
  std::printf("%-44s %10.0f %s  (%.0f..%.0f)\n", what, Quantile(v, 0.5), unit,
              *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end()));
}

}  // namespace

int main() {
  g = static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (g) Shared{};
  signal(SIGPIPE, SIG_IGN);
  const std::string bin = std::filesystem::canonical("/proc/self/exe").parent_path().parent_path();
  const std::string orvd = bin + "/daemons/orvd", lodexd = bin + "/daemons/lodexd";
  Root m, s;
  MakeRoot(&m, true);
  MakeRoot(&s, false);
  const std::string pm = "127.0.0.1:47931", ps = "127.0.0.1:47932";
  m.orvd = Spawn(m, orvd.c_str(), {"--foreground", "--stderr"});
  s.orvd = Spawn(s, orvd.c_str(), {"--foreground", "--stderr"});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  m.lodexd = Spawn(m, lodexd.c_str(), {"--foreground", "--stderr", "--listen", pm, "--peer", ps});
  s.lodexd = Spawn(s, lodexd.c_str(), {"--foreground", "--stderr", "--listen", ps, "--peer", pm});
  bool ready = WaitStatus(m, [](const auto& st) { return st.master && st.in_sync; });
  RawStore raw;
  if (!ready || !raw.Open()) {
    std::fprintf(stderr, "bench_repl: the pair or the raw store did not come up\n");
    CleanRoot(&m);
    CleanRoot(&s);
    return 1;
  }
  pid_t watcher = fork();
  if (watcher == 0) _exit(WatchStandby(s));

  std::vector<double> raw_rate, live_rate, alone_rate, live_ratio;
  uint64_t next_id = 1;
  for (int r = 0; r < kRounds; ++r) {
    bool raw_first = r % 2 == 0;
    double rr = 0, lr = 0;
    for (int k = 0; k < 2; ++k) {
      if ((k == 0) == raw_first) {
        rr = raw.Pass(next_id);
      } else {
        g->pass_rate = 0;
        if (InChild([&] { return AsClient(m, [&] { return StorePass(next_id, false); }); }) != 0) {
          std::fprintf(stderr, "bench_repl: a store pass failed\n");
        }
        lr = g->pass_rate;
      }
    }
    next_id += kTxnsPerPass;
    raw_rate.push_back(rr);
    live_rate.push_back(lr);
    live_ratio.push_back(rr / lr);
  }
  // The standby applies with its log synced at each commit: at full speed it falls behind.
  // Its lag is timed once it has caught up, under a paced load it can follow.
  auto catch_up_start = Clock::now();
  WaitStatus(m, [](const auto& st) { return st.in_sync; }, 120);
  double catch_up_s = std::chrono::duration<double>(Clock::now() - catch_up_start).count();
  InChild([&] { return AsClient(m, [&] { return StorePass(next_id, true, kPacedRate); }); });
  next_id += kTxnsPerPass;
  WaitStatus(m, [](const auto& st) { return st.in_sync; }, 60);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  g->stop_watch.store(true);
  waitpid(watcher, nullptr, 0);
  std::vector<double> lag_us;
  for (int i = 0; i < g->lag_seen.load(); ++i) {
    lag_us.push_back((g->lag_apply_ns[i] - g->lag_commit_ns[i]) / 1e3);
  }
  InChild([&] { return AckPass(m); });
  double ack_rate = g->ack_rate;

  // The same load with no standby: its lodexd stops, the master's drains and counts.
  Stop(s.lodexd);
  std::vector<double> alone_ratio;
  for (int r = 0; r < kRounds; ++r) {
    double rr = raw.Pass(next_id);
    g->pass_rate = 0;
    InChild([&] { return AsClient(m, [&] { return StorePass(next_id + 1000000, false); }); });
    next_id += kTxnsPerPass;
    alone_rate.push_back(g->pass_rate);
    alone_ratio.push_back(rr / g->pass_rate);
  }
  vsk::platform::LodexStatus ms = StatusOf(m);

  std::printf("bench_repl: %d rounds of %d commits (one client session put per transaction)\n",
              kRounds, kTxnsPerPass);
  Print("raw Berkeley DB, no-op transport", raw_rate, "txn/s");
  Print("store, live standby", live_rate, "txn/s");
  Print("store, no standby", alone_rate, "txn/s");
  std::printf("%-44s %10.2f x    (target <= %.1f)\n", "cost with live standby / no-op cost",
              Quantile(live_ratio, 0.5), kTargetRatio);
  std::printf("%-44s %10.2f x\n", "cost with no standby / no-op cost", Quantile(alone_ratio, 0.5));
  if (!lag_us.empty()) {
    std::printf("%-44s %10.0f us (p99 %.0f us, %zu samples at %d txn/s)\n",
                "standby lag, commit to apply, p50", Quantile(lag_us, 0.5),
                Quantile(lag_us, 0.99), lag_us.size(), kPacedRate);
  }
  std::printf("%-44s %10.1f s\n", "standby catch-up after the full-speed rounds", catch_up_s);
  std::printf("%-44s %10.0f /s\n", "acknowledgement round trips", ack_rate);
  std::printf("%-44s shipped %llu, undelivered %llu, queue drops %llu, nudges %llu\n",
              "master lodexd", static_cast<unsigned long long>(ms.shipped),
              static_cast<unsigned long long>(ms.undelivered),
              static_cast<unsigned long long>(ms.queue_dropped),
              static_cast<unsigned long long>(ms.nudges));
  raw.Close();
  CleanRoot(&m);
  CleanRoot(&s);
  return 0;
}
