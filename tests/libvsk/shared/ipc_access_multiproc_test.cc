// Who may use the semaphore set and the two segments: 0666 by default, 0660 for one group
// when the creating daemon runs with VSK_IPC_GROUP, in which case it also narrows objects
// it finds from an earlier run. Each case runs in a fresh process (the semaphore set's id
// is kept for a process's life).
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <string>

#include "libvsk/shared/root_objects.h"
#include "shared_fixture.h"

namespace vsk::test {
namespace {

class IpcAccessTest : public SharedTest {
 protected:
  void TearDown() override {
    unsetenv("VSK_IPC_GROUP");
    SharedTest::TearDown();
  }

  // Opens as the creator in a child with `group` (null: unset) in its environment.
  static ChildResult OpenAsCreatorWith(const char* group) {
    return RunInChild([group] {
      if (group != nullptr) setenv("VSK_IPC_GROUP", group, 1);
      SetProgramName("orvd");
      int rc = vsk_open_internal(true);
      vsk_close_internal();
      return rc == 0 ? 0 : 1;
    });
  }

  // Mode bits and group of every segment and semaphore set of the root; false if fewer
  // than the three objects exist.
  static bool Permissions(std::vector<std::pair<int, gid_t>>* out) {
    out->clear();
    for (const auto& [key, id] : shared::ObjectsKeyedBy("shm", shared::RootKeyFiles())) {
      shmid_ds ds{};
      if (shmctl(id, IPC_STAT, &ds) == 0) out->emplace_back(ds.shm_perm.mode & 0777, ds.shm_perm.gid);
    }
    for (const auto& [key, id] : shared::ObjectsKeyedBy("sem", shared::RootKeyFiles())) {
      semid_ds ds{};
      if (semctl(id, 0, IPC_STAT, &ds) == 0) out->emplace_back(ds.sem_perm.mode & 0777, ds.sem_perm.gid);
    }
    return out->size() >= 3;
  }
};

TEST_F(IpcAccessTest, DefaultIsOpenAndAGroupClosesIt) {
  struct Case {
    const char* group;  // VSK_IPC_GROUP, or null for unset
    int mode;
    gid_t gid;          // checked when restricted
  } cases[] = {
      {nullptr, 0666, 0},
      {"4242", 0660, 4242},
      {"root", 0660, 0},
      {"", 0666, 0},  // empty counts as unset
  };
  for (const Case& c : cases) {
    RemoveSysvObjectsFor(shared::RootKeyFiles());
    ChildResult r = OpenAsCreatorWith(c.group);
    ASSERT_TRUE(r.Ok()) << (c.group ? c.group : "unset") << ": " << r;
    std::vector<std::pair<int, gid_t>> perms;
    ASSERT_TRUE(Permissions(&perms));
    for (const auto& [mode, gid] : perms) {
      EXPECT_EQ(mode, c.mode) << (c.group ? c.group : "unset");
      if (c.mode == 0660) {
        EXPECT_EQ(gid, c.gid) << c.group;
      }
    }
  }
}

TEST_F(IpcAccessTest, CreatorNarrowsObjectsItFindsAndRefusesAnUnknownGroup) {
  ASSERT_TRUE(OpenAsCreatorWith(nullptr).Ok());
  std::vector<std::pair<int, gid_t>> perms;
  ASSERT_TRUE(Permissions(&perms));
  EXPECT_EQ(perms[0].first, 0666);

  ASSERT_TRUE(OpenAsCreatorWith("4343").Ok()) << "a restart with the option";
  ASSERT_TRUE(Permissions(&perms));
  for (const auto& [mode, gid] : perms) {
    EXPECT_EQ(mode, 0660);
    EXPECT_EQ(gid, 4343u);
  }
  // A client needs no setting and leaves the objects as they are.
  ASSERT_TRUE(RunInChild([] { return vsk_open_internal(false) == 0 ? 0 : 1; }).Ok());

  ChildResult unknown = RunInChild([] {
    setenv("VSK_IPC_GROUP", "no-such-group-for-vsk", 1);
    SetProgramName("orvd");
    int rc = vsk_open_internal(true);
    bool traced = GlobalTraces().CountContaining("VSK_IPC_GROUP names no group") > 0;
    vsk_close_internal();
    return rc == -1 && traced ? 0 : 1;
  });
  EXPECT_TRUE(unknown.Ok()) << unknown;
}

}  // namespace
}  // namespace vsk::test
