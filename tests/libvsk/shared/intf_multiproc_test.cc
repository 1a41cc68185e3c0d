// The interface table across real processes: growth seen by another process, a lock
// holder killed inside the table, the repair, and clients mapping the file.
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "intf_fixture.h"
#include "libvsk/store/view.h"
#include "platform/paths.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

constexpr int kGrowthNames = 1500;  // 150 KB of records: several growth steps

std::string Name(int i) { return "ge-0/0/" + std::to_string(i); }

// This process's store as a daemon in the ready state sees it.
void StoreReady() { vsk::store::ActivateContext()->state = VSK_ENV_READY; }

TEST_F(IntfTest, GrowthInOneProcessIsFollowedByAnother) {
  ASSERT_EQ(vsk_db_interface_add("first", 2, 1, 1, 4), 0);
  // A client daemon fills the table past its initial size.
  ChildResult grower = RunInChild([] {
    SetProgramName("vsk-client");
    if (MapAsClient() != 0) return 10;
    GlobalTraces().Clear();
    for (int i = 0; i < kGrowthNames; ++i) {
      if (vsk_db_interface_add(Name(i).c_str(), 2, 1000 + i, 1, i) != 0) return 11;
    }
    if (GlobalTraces().CountContaining("Increase mem size to ") < 2) return 12;
    if (!GlobalTraces().Contains("Truncating File")) return 13;
    return 0;
  });
  ASSERT_TRUE(grower.Ok()) << grower;
  // This process still maps the initial size; its next call remaps and finds everything.
  traces().Clear();
  ASSERT_EQ(State("first"), 4);
  EXPECT_EQ(traces().Count("OFFSET Changed"), 1);
  EXPECT_FALSE(traces().Contains("Truncating File")) << "following does not resize";
  for (int i = 0; i < kGrowthNames; ++i) {
    ASSERT_EQ(State(Name(i).c_str()), i) << Name(i);
    ASSERT_EQ(Clients(Name(i).c_str()), std::vector<vsk_session_id_t>{1000u + i});
  }
  // A daemon that maps only now starts at the initial size and follows at init.
  ChildResult late = RunInChild([] {
    if (MapAsClient() != 0) return 20;
    if (!GlobalTraces().Contains("OFFSET Changed")) return 21;
    return State(Name(kGrowthNames - 1).c_str()) == kGrowthNames - 1 ? 0 : 22;
  });
  EXPECT_TRUE(late.Ok()) << late;
}

// A client process that dies between lock and unlock of the table. Its pid.
pid_t KillAHolderInsideTheTable() {
  Child holder;
  holder.Start([](Child::Channel& ch) {
    vsk::shared::intf::TestSeam::Forget();
    if (vsk_db_secondary_init(false) != 0) return 1;
    if (vsk::shared::intf::TestSeam::Lock() != 0) return 2;
    ch.Ready();
    ch.WaitGo();  // never told: killed while holding the table
    return 3;
  });
  EXPECT_TRUE(holder.WaitReady());
  pid_t dead = holder.pid();
  holder.Kill(SIGKILL);
  ChildResult end = holder.Wait();
  EXPECT_EQ(end.signal, SIGKILL) << end;
  return dead;
}

TEST_F(IntfTest, HolderKilledInsideTheTableIsDetectedEverywhereAndRepaired) {
  ASSERT_EQ(vsk_db_interface_add("ae0", 2, 42, 1, 2), 0);
  pid_t dead = KillAHolderInsideTheTable();

  // Any other process's next call finds the dead holder.
  ChildResult other = RunInChild([] {
    SetProgramName("vsk-client");
    if (MapAsClient() != 0) return 10;
    StoreReady();
    if (vsk_db_interface_add("ae0", 2, 43, 0, 0) != VSK_ERR_SECONDARY_RECOVERY) return 11;
    if (vsk::store::View().state() != VSK_ENV_NEEDS_RECOVERY) return 12;
    if (!GlobalTraces().Contains("VSK SECONDARY TABLE NEEDS RECOVERY")) return 13;
    return 0;
  });
  EXPECT_TRUE(other.Ok()) << other;

  StoreReady();
  EXPECT_EQ(NumClients("ae0"), VSK_ERR_SECONDARY_RECOVERY);
  EXPECT_TRUE(traces().Contains("*** BAD *** LOCK was still open by pid " + std::to_string(dead)));
  EXPECT_EQ(vsk::store::View().state(), VSK_ENV_NEEDS_RECOVERY);
  // Until the repair every caller is refused; the semaphore itself is free.
  EXPECT_EQ(vsk_db_interface_remove("ae0", 2, 42), VSK_ERR_SECONDARY_RECOVERY);

  traces().Clear();
  ASSERT_EQ(vsk_failcheck(), 0) << traces().Dump();
  EXPECT_TRUE(
      traces().Contains("*** LOCK was still open by pid " + std::to_string(dead) + ", recover"));
  EXPECT_TRUE(traces().Contains("INIT MEMORY"));
  EXPECT_TRUE(traces().Contains("Recover Secondary Table"));
  EXPECT_EQ(*vsk_db_status, static_cast<uint32_t>(VSK_DB_STATUS_READY));
  // The table is usable again, here and in another process.
  EXPECT_EQ(vsk_db_interface_add("ae0", 2, 44, 0, 0), 0);
  ChildResult after = RunInChild([] {
    if (MapAsClient() != 0) return 20;
    return NumClients("ae0") == 1 ? 0 : 21;
  });
  EXPECT_TRUE(after.Ok()) << after;
  // With no dead holder failcheck only takes and gives back the lock.
  traces().Clear();
  EXPECT_EQ(vsk_failcheck(), 0);
  EXPECT_FALSE(traces().Contains("Recover Secondary Table"));
  EXPECT_EQ(NumClients("ae0"), 1);
}

// A client that reaches the table while orvd's repair rebuilds it, started the moment the
// file has been formatted anew.
Child* g_late_client = nullptr;

void StartClientDuringTheRebuild(void*, int, const char* format, ...) {
  if (std::strcmp(format, "INIT MEMORY") != 0 || g_late_client->pid() > 0) return;
  g_late_client->Start([](Child::Channel&) { return vsk_db_interface_add("late", 2, 7, 0, 0); });
  // Until the client has either done its add or is waiting for the table.
  int set = semget(platform::SemaphoreKey(), 0, 0);
  for (int i = 0; i < 5000 && !ProcessEnded(g_late_client->pid()); ++i) {
    if (semctl(set, VSK_LOCK_HEAP, GETNCNT) > 0) return;
    usleep(1000);
  }
}

TEST_F(IntfTest, AClientWaitsWhileTheRepairRebuildsTheTable) {
  KillAHolderInsideTheTable();
  Child client;
  g_late_client = &client;
  vsk_set_trace_cbk(StartClientDuringTheRebuild);
  EXPECT_EQ(vsk_failcheck(), 0);
  vsk_set_trace_cbk(CaptureTrace);
  ASSERT_GT(client.pid(), 0) << "the repair did not format the file";
  ChildResult r = client.Wait();
  EXPECT_TRUE(r.Ok()) << r;
  // Had it gone in before the rebuild's reset, its session would be lost.
  EXPECT_EQ(NumClients("late"), 1);
}

TEST_F(IntfTest, HolderKilledDuringALongRunOfOperations) {
  Child worker;
  worker.Start([](Child::Channel& ch) {
    if (MapAsClient() != 0) return 1;
    ch.Ready();
    for (int i = 0;; ++i) {  // until killed: most of its time is inside the lock
      vsk_db_interface_add(Name(i % 5000).c_str(), 2, static_cast<vsk_session_id_t>(i), 0, 0);
    }
  });
  ASSERT_TRUE(worker.WaitReady());
  usleep(200 * 1000);
  worker.Kill(SIGKILL);
  worker.Wait();
  // Whether it died inside the lock or between calls, the table answers consistently:
  // either -21 for everyone until the repair, or a working table.
  StoreReady();
  vsk_status_t rc = vsk_db_interface_add("probe", 1, 1, 0, 0);
  ASSERT_TRUE(rc == 0 || rc == VSK_ERR_SECONDARY_RECOVERY) << rc;
  ASSERT_EQ(vsk_failcheck(), 0);
  EXPECT_EQ(vsk_db_interface_add("probe", 1, 2, 1, 8), 0);
  EXPECT_EQ(State("probe"), 8);
}

TEST_F(IntfTest, ClientInitNeedsTheFileAndCallsNeedInit) {
  ChildResult r = RunInChild([] {
    vsk::shared::intf::TestSeam::Forget();
    GlobalTraces().Clear();
    if (vsk_db_interface_add("a", 1, 1, 0, 0) != VSK_ERR_FATAL) return 1;
    if (!GlobalTraces().Contains("Please init API before calling")) return 2;
    if (vsk_db_secondary_recover() != VSK_ERR_FATAL) return 3;
    std::string path = platform::RootedPath(platform::kInterfaceDir) + "vsk_intf.db";
    if (unlink(path.c_str()) != 0) return 4;
    if (vsk_db_secondary_init(false) != VSK_ERR_NOMEM) return 5;
    if (!GlobalTraces().Contains("Failed to open file vsk_intf.db, No such file or directory"))
      return 6;
    // A file that is being formatted (still empty) is refused, not mapped past its end.
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return 7;
    std::fclose(f);
    if (vsk_db_secondary_init(false) != VSK_ERR_NOMEM) return 8;
    if (!GlobalTraces().Contains("Failed mmap")) return 9;
    return vsk_db_get_num_clients_on_uifl("a", nullptr) == VSK_ERR_INVALID_PARAM ? 0 : 10;
  });
  EXPECT_TRUE(r.Ok()) << r;
}

}  // namespace
}  // namespace vsk::test
