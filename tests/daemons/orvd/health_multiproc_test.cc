// orvd as the owner of the store's health, over real processes: thread slots of dead
// processes, transactions and Berkeley DB internals left by SIGKILLed writers, a dead
// holder of the interface table's lock, the log's growth, a second orvd, hostile
// connections and the published table.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>
#include <vector>
#include <cstring>
#include <memory>

#include "health_helpers.h"
#include "libvsk/orvd_client/wire.h"
#include "libvsk/shared/intf_file.h"
#include "support/orvd_process.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

class OrvdHealthTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop(SIGKILL);
    VskTest::TearDown();
  }

  // Runs `fn` in `total` short-lived processes, `parallel` at a time. The number that
  // did not exit with 0.
  static int Churn(int total, int parallel, const std::function<int()>& fn) {
    int failed = 0;
    std::vector<pid_t> running;
    auto reap_one = [&] {
      int status = 0;
      pid_t pid = waitpid(-1, &status, 0);
      if (pid <= 0) return;
      running.erase(std::remove(running.begin(), running.end(), pid), running.end());
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
    };
    for (int i = 0; i < total; ++i) {
      while (static_cast<int>(running.size()) >= parallel) reap_one();
      pid_t pid = fork();
      if (pid == 0) _exit(fn());
      running.push_back(pid);
    }
    while (!running.empty()) reap_one();
    return failed;
  }

  OrvdProcess orvd_;
};

// Each lifetime joins the environment and leaves. Berkeley DB keeps a thread slot per
// process and reuses it only when the joiner can tell that its owner is dead; without
// that, the table of slots grows by one per lifetime until joining fails for good (after
// about 12,700 lifetimes). 2,000 lifetimes are far past the table's bound of 125 slots, so
// a table that does not reuse shows here without the long run to exhaustion (the soak
// runs that through full registrations). The lifetimes join as the replication daemon of
// a standby does, which opens the environment and no table, to keep each one cheap.
TEST_F(OrvdHealthTest, ThreadSlotsOfDeadProcessesAreReused) {
  ASSERT_TRUE(orvd_.Start());
  constexpr int kLifetimes = 2000;
  const int failed = Churn(kLifetimes, 2, [] {
    SetProgramName("lodexd");
    vsk_db_set_master(false);
    vsk_status_t rc = vsk_db_init(nullptr, false);
    vsk_db_close();
    return rc == VSK_OK ? 0 : 1;
  });
  EXPECT_EQ(failed, 0) << "of " << kLifetimes << " lifetimes";
  // A full registration still works, and the table of slots has stayed at its size.
  ChildResult after = RunInChild([] {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    if (PutRows(1, 1) != 0 || CheckRow(1) != 0) return 2;
    long blocks = ThreadBlocksAllocated();
    // Sized for 100 threads, with a quarter more as slack.
    return blocks > 0 && blocks <= 125 ? 0 : 3;
  });
  EXPECT_TRUE(after.Ok()) << after;
}

// A writer killed with a transaction open, outside the library: its locks go with the
// next failchk, so others write the same rows at their first attempt instead of waiting
// for the lock timeout, and no recovery is needed.
TEST_F(OrvdHealthTest, WriterKilledInATransactionLeavesNoLocks) {
  ASSERT_TRUE(orvd_.Start());
  ASSERT_TRUE(RunInChild([] {
                orvd_ctx_t* ctx = nullptr;
                return JoinAsClient(&ctx) == 0 && PutRows(1, 100) == 0 ? 0 : 1;
              }).Ok());
  Child writer;
  writer.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != 0) return 2;
    for (uint64_t id = 1; id <= 100; ++id) {
      if (PutRowIn(&txn, id, 32) != 0) return 3;  // other values, never committed
    }
    ch.Ready();
    for (;;) pause();
  });
  ASSERT_TRUE(writer.WaitReady());
  writer.Kill();
  writer.Wait();

  ChildResult others = RunInChild(
      [] {
        orvd_ctx_t* ctx = nullptr;
        if (JoinAsClient(&ctx) != 0) return 1;
        if (PutRows(50, 100) != 0) return 2;  // one attempt, over the dead one's rows
        for (uint64_t id = 1; id < 150; ++id) {
          if (CheckRow(id) != 0) return 3;
        }
        return orvd_unregister(&ctx) == 0 ? 0 : 4;
      },
      std::chrono::seconds(60));
  EXPECT_TRUE(others.Ok()) << others;
  // Two checks that began after the others were done have run and been published: a
  // death inside the store would have started a recovery by then.
  const long checks = OrvdProcess::HealthFigure("failchk_runs");
  EXPECT_GE(OrvdProcess::WaitForHealthFigure("failchk_runs", checks + 2), checks + 2);
  EXPECT_EQ(OrvdProcess::HealthFigure("recoveries"), 0);
}

// Writers killed at random moments, most of them inside Berkeley DB holding its pages,
// mutexes and locks: after each kill the system serves again (a new client registers,
// writes and reads), and every row whose commit a writer saw is still there at the end.
TEST_F(OrvdHealthTest, WritersKilledInsideTheStoreAreRecoveredFrom) {
  ASSERT_TRUE(orvd_.Start());
  constexpr int kKills = 50;
  std::mt19937 rng(20240917);
  std::set<uint64_t> committed;
  auto until_serving = [] {
    // A fresh client registers (orvd may be recovering: it retries), writes and reads.
    return RunInChild(
        [] {
          const auto end = Clock::now() + std::chrono::seconds(60);
          const uint64_t probe = 900000000u + static_cast<uint64_t>(getpid());
          while (Clock::now() < end) {
            orvd_ctx_t* ctx = nullptr;
            if (JoinAsClient(&ctx) == 0 && PutRows(probe, 1) == 0 && CheckRow(probe) == 0) {
              return orvd_unregister(&ctx) == 0 ? 0 : 2;
            }
            orvd_unregister(&ctx);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
          }
          std::fprintf(stderr, "probe %d never served; its last traces:\n%s", getpid(),
                       GlobalTraces().Dump().substr(0, 20000).c_str());
          return 1;
        },
        std::chrono::seconds(90));
  };
  for (int k = 0; k < kKills; ++k) {
    int ids[2];
    ASSERT_EQ(pipe(ids), 0);
    const uint64_t base = static_cast<uint64_t>(k + 1) * 1000000u;
    Child writer;
    writer.Start([&](Child::Channel& ch) -> int {
      close(ids[0]);
      orvd_ctx_t* ctx = nullptr;
      while (JoinAsClient(&ctx) != 0) {
        orvd_unregister(&ctx);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      bool told = false;
      for (uint64_t id = base;; ++id) {
        if (PutRows(id, 1, 200) != 0) continue;
        (void)!write(ids[1], &id, sizeof id);  // after the commit returned
        if (!told) ch.Ready();
        told = true;
      }
    });
    close(ids[1]);
    ASSERT_TRUE(writer.WaitReady(std::chrono::seconds(60))) << "kill " << k;
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 20000));
    const long checks = OrvdProcess::HealthFigure("failchk_runs");
    const long recoveries = OrvdProcess::HealthFigure("recoveries");
    writer.Kill();
    writer.Wait();
    // A process that joins between a death inside the library and orvd's next check may
    // block on what the dead one held (Berkeley DB does not wake such waiters): the probe
    // comes after that check.
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < deadline && OrvdProcess::HealthFigure("failchk_runs") < checks + 2 &&
           OrvdProcess::HealthFigure("recoveries") == recoveries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    uint64_t id;
    while (read(ids[0], &id, sizeof id) == sizeof id) committed.insert(id);
    close(ids[0]);
    ChildResult serving = until_serving();
    ASSERT_TRUE(serving.Ok()) << "after kill " << k << ": " << serving;
  }
  ChildResult check = RunInChild(
      [&committed] {
        orvd_ctx_t* ctx = nullptr;
        if (JoinAsClient(&ctx) != 0) return 1;
        int lost = 0;
        for (uint64_t id : committed) lost += CheckRow(id, 200) != 0;
        return lost == 0 ? 0 : 2;
      },
      std::chrono::seconds(120));
  EXPECT_TRUE(check.Ok()) << check << " (" << committed.size() << " committed rows)";
  EXPECT_GE(OrvdProcess::HealthFigure("recoveries"), 1) << "no kill landed inside the store";
  kill(orvd_.pid(), SIGTERM);
  EXPECT_EQ(orvd_.WaitExit(std::chrono::seconds(30)), 0) << "orvd ends cleanly";
}

// A process killed holding the interface table's lock: every operation in every process
// got -21 until orvd noticed and rebuilt the table.
TEST_F(OrvdHealthTest, InterfaceTableOfADeadLockHolderIsRebuilt) {
  ASSERT_TRUE(orvd_.Start());
  Child holder;
  holder.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    if (shared::intf::TestSeam::Lock() != 0) return 2;
    ch.Ready();
    for (;;) pause();
  });
  ASSERT_TRUE(holder.WaitReady());
  holder.Kill();
  holder.Wait();
  ChildResult user = RunInChild(
      [] {
        orvd_ctx_t* ctx = nullptr;
        if (JoinAsClient(&ctx) != 0) return 1;
        const auto end = Clock::now() + std::chrono::seconds(30);
        vsk_status_t rc = -1;
        while (Clock::now() < end) {
          rc = vsk_db_interface_add("ge-0/0/0.1", 3, 77, false, 0);
          if (rc != VSK_ERR_SECONDARY_RECOVERY) break;  // -21 until the rebuild
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        uint32_t count = 0;
        if (rc != 0 || vsk_db_get_num_clients_on_uifl("ge-0/0/0.1", &count) != 0) return 2;
        return count == 1 ? 0 : 3;
      },
      std::chrono::seconds(60));
  EXPECT_TRUE(user.Ok()) << user;
  // The table is usable again while the rebuild is still finishing; orvd counts the
  // repair when it has finished and publishes it at that tick.
  EXPECT_GE(OrvdProcess::WaitForHealthFigure("interface_repairs", 1), 1);
}

// The log is checkpointed and trimmed by orvd: with log files of 1 MiB, 12 MiB of writes
// made while another process keeps a transaction open stay as long as it is open (recovery
// needs them); once it commits they go soon, not a minute later (Berkeley DB's own
// thresholds count only what was logged since the last checkpoint, which could not cover
// them), leaving no more than the kept files and the one being written; and a restart
// (which recovers from what is left) finds every row.
TEST_F(OrvdHealthTest, LogIsCheckpointedAndTrimmed) {
  std::ofstream(Path("/mfs/var/vsk/DB_CONFIG")) << "set_lg_max 1048576\n";
  ASSERT_TRUE(orvd_.Start());
  constexpr int kRows = 3000;
  constexpr uint32_t kSize = 4000;
  // The open transaction writes to a table of its own: it holds no page the writes need.
  constexpr int16_t kHeldTable = 2;
  constexpr uint64_t kHeldRow = 7;
  Child holder;
  holder.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0 || vsk_db_app_define(kHeldTable, "health-held") != 0) return 1;
    vsk_db_txn_t txn{};
    if (vsk_db_start_txn(&txn) != 0 || PutRowIn(&txn, kHeldRow, 64, kHeldTable) != 0) return 2;
    ch.Ready();
    if (!ch.WaitGo()) return 3;
    if (vsk_db_end_txn(&txn) != 0) return 4;
    return orvd_unregister(&ctx) == 0 ? 0 : 5;
  });
  ASSERT_TRUE(holder.WaitReady());
  ASSERT_TRUE(RunInChild(
                  [] {
                    orvd_ctx_t* ctx = nullptr;
                    if (JoinAsClient(&ctx) != 0) return 1;
                    for (int i = 0; i < kRows; i += 10) {
                      if (PutRows(static_cast<uint64_t>(i), 10, kSize) != 0) return 2;
                    }
                    return orvd_unregister(&ctx) == 0 ? 0 : 3;
                  },
                  std::chrono::seconds(120))
                  .Ok());
  auto log_files = [this] {
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator(Path("/mfs/var/vsk/"))) {
      n += e.path().filename().string().rfind("log.", 0) == 0;
    }
    return n;
  };
  // A checkpoint written while the transaction is open removes nothing it needs.
  ASSERT_GE(OrvdProcess::WaitForHealthFigure("checkpoints", 1), 1);
  EXPECT_GE(log_files(), 12) << "the open transaction's log was kept";
  holder.Go();
  ASSERT_TRUE(holder.Wait().Ok());

  // Well short of the minute after which a checkpoint would come anyway.
  const auto end = Clock::now() + std::chrono::seconds(30);
  while (Clock::now() < end && (OrvdProcess::HealthFigure("log_files_removed") < 8 || log_files() > 4)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_LE(log_files(), 4) << "three kept, one being written";
  EXPECT_GE(OrvdProcess::HealthFigure("log_files_removed"), 8);

  ASSERT_EQ(orvd_.Stop(SIGTERM), 0);
  ASSERT_TRUE(orvd_.Start());
  ChildResult reader = RunInChild(
      [] {
        orvd_ctx_t* ctx = nullptr;
        if (JoinAsClient(&ctx) != 0) return 1;
        for (int i = 0; i < kRows; ++i) {
          if (CheckRow(static_cast<uint64_t>(i), kSize) != 0) return 2;
        }
        if (vsk_db_app_define(kHeldTable, "health-held") != 0) return 3;
        return CheckRow(kHeldRow, 64, kHeldTable) == 0 ? 0 : 4;
      },
      std::chrono::seconds(120));
  EXPECT_TRUE(reader.Ok()) << reader;
}

// A second orvd on a live root says so and exits 1; the first keeps its socket, its store
// and its clients.
TEST_F(OrvdHealthTest, SecondOrvdSaysSoAndLeavesTheFirstAlone) {
  ASSERT_TRUE(orvd_.Start());
  Child client;
  client.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    ch.Ready();
    if (!ch.WaitGo()) return 2;
    if (vsk_db_check() != 0 || PutRows(7, 1) != 0) return 3;
    if (GlobalTraces().CountContaining("Closing communication") != 0) return 4;
    return orvd_unregister(&ctx) == 0 ? 0 : 5;
  });
  ASSERT_TRUE(client.WaitReady());

  const std::string log = Path("/second-orvd.log");
  pid_t second = OrvdProcess::Spawn({log, 0});
  ChildResult ended;
  int status = 0;
  for (int i = 0; i < 3000 && waitpid(second, &status, WNOHANG) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (waitpid(second, &status, WNOHANG) == 0) {
    kill(second, SIGKILL);
    waitpid(second, &status, 0);
    FAIL() << "the second orvd kept running";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  std::ifstream in(log);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("another orvd (pid " + std::to_string(orvd_.pid()) + ")"),
            std::string::npos)
      << text;

  struct stat st;
  EXPECT_EQ(stat(Path("/var/run/orvd_server_communication").c_str(), &st), 0);
  client.Go();
  ChildResult r = client.Wait();
  EXPECT_TRUE(r.Ok()) << r;
  EXPECT_TRUE(RunInChild([] {
                orvd_ctx_t* ctx = nullptr;
                return JoinAsClient(&ctx) == 0 && CheckRow(7) == 0 ? 0 : 1;
              }).Ok());
  EXPECT_EQ(OrvdProcess::HealthFigure("recoveries"), 0);
}

// A flood of connections that each send one message and never register: orvd keeps
// within its descriptors (a connection limit below them), drops the flood's connections
// once they have had their time to register, keeps its log short, and a real client gets
// in behind the flood.
TEST_F(OrvdHealthTest, ConnectionFloodIsCappedAndReaped) {
  const std::string log = Path("/orvd.log");
  ASSERT_TRUE(orvd_.Start({log, 128}));
  constexpr int kFlooders = 40;
  std::vector<std::unique_ptr<Child>> flooders;
  for (int k = 0; k < kFlooders; ++k) {
    flooders.push_back(std::make_unique<Child>());
    flooders.back()->Start([this](Child::Channel& ch) {
      std::vector<int> fds;
      for (int i = 0; i < 4; ++i) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::string path = Path("/var/run/orvd_server_communication");
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
          close(fd);
          continue;
        }
        uint32_t msg = orvd::ORVD_MSG_RECOVERY_COMPLETE;  // one message, no registration
        (void)!send(fd, &msg, sizeof msg, MSG_NOSIGNAL);
        fds.push_back(fd);
      }
      ch.Ready();
      ch.WaitGo();
      return 0;
    });
  }
  for (auto& f : flooders) ASSERT_TRUE(f->WaitReady());
  ChildResult client = RunInChild(
      [] {
        const auto end = Clock::now() + std::chrono::seconds(40);
        while (Clock::now() < end) {
          orvd_ctx_t* ctx = nullptr;
          if (JoinAsClient(&ctx, 10000) == 0 && PutRows(5, 1) == 0) return 0;
          orvd_unregister(&ctx);
        }
        return 1;
      },
      std::chrono::seconds(60));
  EXPECT_TRUE(client.Ok()) << client;
  for (auto& f : flooders) f->Go();
  for (auto& f : flooders) f->Wait();
  // Connections still open when their flooder ended are dropped as orvd reads their end,
  // and counted in the figures of its next tick.
  EXPECT_GE(OrvdProcess::WaitForHealthFigure("dropped", 64), 64) << "the flood was reaped";
  std::ifstream in(log);
  int lines = 0, accept_lines = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    accept_lines += line.find("accept") != std::string::npos;
  }
  EXPECT_LT(accept_lines, 50);
  EXPECT_LT(lines, 2000);
}

// The published table: one row per live registered connection, whatever the history; a
// connection touches only its own row; a pid that is not the peer's is refused; a name
// cannot forge a row.
TEST_F(OrvdHealthTest, PublishedTableHasOneCleanRowPerConnection) {
  ASSERT_TRUE(orvd_.Start());
  auto connect_raw = [this] {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = Path("/var/run/orvd_server_communication");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    return fd;
  };
  // Sends a registration (role 0: leaving) and returns the answer's flags, -1 for none.
  auto send_register = [](int fd, const std::string& name, int pid, uint8_t role) {
    orvd::RegisterMsg msg{};
    msg.type = orvd::ORVD_MSG_REGISTER;
    std::memcpy(msg.program, name.data(), std::min(name.size(), sizeof msg.program - 1));
    msg.pid = pid;
    msg.role = role;
    EXPECT_EQ(send(fd, &msg, sizeof msg, 0), static_cast<ssize_t>(sizeof msg));
    if (role == orvd::kRoleLeaving) return 0;
    orvd::RegisterAckMsg ack{};
    if (recv(fd, &ack, sizeof ack, MSG_WAITALL) != static_cast<ssize_t>(sizeof ack)) return -1;
    return static_cast<int>(ack.flags);
  };

  // History does not stay: 2000 daemons came and went.
  for (int i = 0; i < 2000; ++i) {
    int fd = connect_raw();
    ASSERT_EQ(send_register(fd, "passing-" + std::to_string(i), getpid(), orvd::kRoleMaster),
              orvd::kAckAccepted);
    close(fd);
  }
  int victim = connect_raw();
  ASSERT_EQ(send_register(victim, "victimd", getpid(), orvd::kRoleMaster), orvd::kAckAccepted);
  int forger = connect_raw();
  EXPECT_EQ(send_register(forger, "forged", getpid() + 1, orvd::kRoleMaster), 0)
      << "a pid that is not the peer's is refused";
  send_register(forger, "victimd", getpid(), orvd::kRoleLeaving);  // not its row
  int newline = connect_raw();
  ASSERT_EQ(send_register(newline, "evil\nfaked 1 3 1 0 1 0", getpid(), orvd::kRoleMaster),
            orvd::kAckAccepted);

  OrvdTableRow row;
  ASSERT_TRUE(orvd::WaitForClientsRow("evil?faked?1?3?1?0?1?0", [](const OrvdTableRow&) { return true; }, &row));
  auto rows = orvd::ReadClientsRows();
  EXPECT_EQ(rows.size(), 2u) << "only the live registered connections";
  auto table = OrvdProcess::Table();
  EXPECT_EQ(table["victimd"].connected, 1) << "another connection's leave did not touch it";
  EXPECT_EQ(table["victimd"].role, 3);
  EXPECT_EQ(table.count("forged"), 0u);
  EXPECT_EQ(table.count("faked"), 0u);
  close(victim);
  close(forger);
  close(newline);
  EXPECT_TRUE(orvd::WaitForNoClientsRow("victimd"));
}

Child::Channel* g_blocking_channel = nullptr;

// A comparison that never returns once armed: the process then sits inside Berkeley DB
// with a page of the store's file pinned, latched and locked, where a SIGKILL leaves them
// to nobody.
int BlockingCompare(DB*, const DBT* a, const DBT* b) {
  if (g_blocking_channel != nullptr) {
    g_blocking_channel->Ready();
    for (;;) pause();
  }
  int n = std::memcmp(a->data, b->data, std::min(a->size, b->size));
  return n != 0 ? n : static_cast<int>(a->size) - static_cast<int>(b->size);
}

// A process dies inside the store holding one of its pages: a client that leaves right
// after, and orvd told to stop, both end (the close of a table does not wait for that
// page; orvd does not close what it cannot close cleanly); the next orvd recovers the
// store with every committed row.
TEST_F(OrvdHealthTest, ShutdownEndsWithAProcessDeadInsideTheStore) {
  ASSERT_TRUE(orvd_.Start());
  ASSERT_TRUE(RunInChild([] {
                orvd_ctx_t* ctx = nullptr;
                return JoinAsClient(&ctx) == 0 && PutRows(1, 50) == 0 ? 0 : 1;
              }).Ok());
  Child victim;
  victim.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    DB* db = nullptr;
    if (db_create(&db, env, 0) != 0 || db->set_bt_compare(db, BlockingCompare) != 0 ||
        db->open(db, nullptr, "vsk.db", "blocker", DB_BTREE,
                 DB_CREATE | DB_AUTO_COMMIT | DB_THREAD, 0) != 0) {
      return 2;
    }
    // The second put of one transaction finds the page the first made dirty.
    DB_TXN* txn = nullptr;
    if (env->txn_begin(env, nullptr, &txn, 0) != 0) return 3;
    for (uint32_t k : {1u, 2u}) {
      if (k == 2) g_blocking_channel = &ch;
      DBT key{}, value{};
      key.data = value.data = &k;
      key.size = value.size = sizeof k;
      db->put(db, txn, &key, &value, 0);
    }
    return 4;
  });
  ASSERT_TRUE(victim.WaitReady());
  // A client that wrote (its handle has pages to flush) leaves while the dead one's page
  // is still pinned, before orvd can have looked.
  Child leaver;
  leaver.Start([](Child::Channel& ch) {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0 || PutRows(100, 1) != 0) return 1;
    ch.Ready();
    ch.WaitGo();
    orvd_unregister(&ctx);
    return 0;
  });
  ASSERT_TRUE(leaver.WaitReady());
  victim.Kill();
  victim.Wait();
  leaver.Go();
  ChildResult left = leaver.Wait(std::chrono::seconds(30));
  EXPECT_FALSE(left.timed_out) << "the close of a client did not return";
  kill(orvd_.pid(), SIGTERM);
  int code = orvd_.WaitExit(std::chrono::seconds(30));
  EXPECT_NE(code, -2) << "orvd did not end";
  ASSERT_TRUE(orvd_.Start());
  ChildResult reader = RunInChild([] {
    orvd_ctx_t* ctx = nullptr;
    if (JoinAsClient(&ctx) != 0) return 1;
    for (uint64_t id = 1; id <= 50; ++id) {
      if (CheckRow(id) != 0) return 2;
    }
    return 0;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
}

}  // namespace
}  // namespace vsk::test
