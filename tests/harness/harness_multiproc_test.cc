// The harness itself: a test process that dies, however it dies, leaves no root, no System
// V object and no process behind.
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "libvsk/shared/root_objects.h"
#include "platform/lodex.h"
#include "support/harness.h"
#include "vsk/shared.h"

namespace vsk::test {
namespace {

// A test's fixture, set up by hand in a process that stands for a test process.
class StandIn : public VskTest {
 public:
  void TestBody() override {}
  void Start() { SetUp(); }
  using VskTest::Path;
};

// An object the stand-in made: its id and key, as the kernel lists them.
struct Object {
  bool semaphore;
  int id;
  key_t key;
};

bool Exists(const Object& o) {
  if (o.semaphore) {
    semid_ds ds{};
    return semctl(o.id, 0, IPC_STAT, &ds) == 0 && ds.sem_perm.__key == o.key;
  }
  shmid_ds ds{};
  return shmctl(o.id, IPC_STAT, &ds) == 0 && ds.shm_perm.__key == o.key;
}

// True once `pid` has ended (gone or a zombie waiting for its reaper).
bool Ended(pid_t pid) {
  for (int i = 0; i < 500; ++i) {
    if (ProcessEnded(pid)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

enum class Death { kKilled, kAborted, kTerminated, kExited };

class HarnessTest : public VskTest {
 protected:
  // Starts a stand-in test process that makes its root, every System V object of a root
  // and a child process of its own, writes them to a report, and then ends as `death` says.
  void StartStandIn(Child& standin, Death death) {
    std::string report = Path("/report");
    standin.Start([report, death](Child::Channel& ch) {
      StandIn test;
      test.Start();
      SetProgramName("orvd");
      if (vsk_open_internal(true) != 0 || lodex_init(nullptr, 4096) != 0) return 10;
      Child grandchild;
      grandchild.Start([](Child::Channel&) {
        for (;;) pause();  // deaf to its parent's pipe: only the kernel may end it
        return 0;
      });
      std::ofstream out(report);
      out << test.Path("") << ' ' << grandchild.pid() << '\n';
      for (const auto& o : shared::RootObjects()) {
        out << o.semaphore << ' ' << shared::LookupRootObject(o) << ' ' << o.key << '\n';
      }
      out.close();
      ch.Ready();
      ch.WaitGo();
      if (death == Death::kAborted) std::abort();
      if (death == Death::kExited) std::exit(3);  // a test that exits in its middle
      return 0;
    });
    ASSERT_TRUE(standin.WaitReady());
    std::ifstream in(report);
    in >> standin_root_ >> grandchild_;
    Object o{};
    while (in >> o.semaphore >> o.id >> o.key) objects_.push_back(o);
    ASSERT_EQ(objects_.size(), 4u) << "two segments, the semaphore set and the queue";
    for (const Object& made : objects_) ASSERT_TRUE(Exists(made));
  }

  void TearDown() override {
    if (grandchild_ > 0) kill(grandchild_, SIGKILL);  // when a check above failed
    VskTest::TearDown();
  }

  bool NothingLeft() {
    bool left = std::filesystem::exists(standin_root_);
    for (const Object& o : objects_) left = left || Exists(o);
    return !left;
  }

  std::string standin_root_;
  pid_t grandchild_ = -1;
  std::vector<Object> objects_;
};

TEST_F(HarnessTest, ADyingTestProcessCleansUpItsRootObjectsAndChildren) {
  for (Death death : {Death::kAborted, Death::kTerminated, Death::kExited}) {
    SCOPED_TRACE(static_cast<int>(death));
    objects_.clear();
    Child standin;
    ASSERT_NO_FATAL_FAILURE(StartStandIn(standin, death));
    if (death == Death::kTerminated) {
      standin.Kill(SIGTERM);
    } else {
      standin.Go();
    }
    ChildResult end = standin.Wait();
    EXPECT_FALSE(end.Ok()) << end;
    EXPECT_TRUE(Ended(grandchild_)) << "a child of the test process outlived it";
    EXPECT_TRUE(NothingLeft()) << standin_root_;
  }
}

TEST_F(HarnessTest, TheSweepRemovesWhatAKilledTestProcessLeft) {
  Child standin;
  ASSERT_NO_FATAL_FAILURE(StartStandIn(standin, Death::kKilled));
  standin.Kill(SIGKILL);
  standin.Wait();
  EXPECT_TRUE(Ended(grandchild_)) << "a child of the test process outlived it";
  ASSERT_TRUE(std::filesystem::exists(standin_root_)) << "SIGKILL leaves no time to clean";
  // A live test's root is not touched by the sweep.
  SweepStaleRoots();
  EXPECT_TRUE(NothingLeft()) << standin_root_;
  EXPECT_TRUE(std::filesystem::exists(root()));
}

// Another test process's sweep may run while a root's owner record is being written; a
// record it cannot read yet (empty, half written) never makes a fresh root look stale.
TEST_F(HarnessTest, TheSweepLeavesAFreshRootWhoseOwnerRecordIsUnreadable) {
  for (const char* record : {"", "12"}) {
    SCOPED_TRACE(record);
    char tmpl[sizeof kRootPattern];
    std::memcpy(tmpl, kRootPattern, sizeof tmpl);
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string fresh = tmpl;
    std::ofstream(fresh + "/.owner") << record;
    SweepStaleRoots();
    EXPECT_TRUE(std::filesystem::exists(fresh));
    std::filesystem::remove_all(fresh);
  }
}

}  // namespace
}  // namespace vsk::test
