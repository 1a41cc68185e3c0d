// Snapshots across real processes: never torn while another process rewrites and removes
// sessions; walks that resume by key across inserts and deletes made between their steps
// (and a walker killed between steps holds nothing); the cache read by vsk_get_snapshot
// and the search, and never by walks.
#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <set>

#include "session_fixture.h"
#include "snapshot_rows.h"

namespace vsk::test {
namespace {

const vsk_create_options_t kCache{0, 1, {0, 0}};

vsk_snapshot_filter ClientWalk() {
  vsk_snapshot_filter f{};
  f.flags = VSK_FILTER_CLIENT_SESSIONS;
  return f;
}

class SnapshotSystemTest : public SessionSystemTest {};

// Rows 10..14 whose user name and dynamic value are rewritten together in one transaction;
// row 14 also goes and comes back. A snapshot must always show the pair of one commit.
TEST_F(SnapshotSystemTest, SnapshotsAndWalksNeverSeeATornSession) {
  ASSERT_TRUE(StartSystem());
  auto put = [](uint64_t id, int version) {
    std::string v = "v" + std::to_string(version);
    AttrList attrs{{VSK_USER_NAME, Text(v.c_str())}};
    DynList dyn{{"kelvo-v", Text(v.c_str())}};
    return PutSession({id, &attrs, &dyn});
  };
  ChildResult setup = AsClientDaemon([&put] {
    for (uint64_t id = 10; id <= 14; ++id) {
      if (put(id, 0) != 0) return 1;
    }
    return 0;
  });
  ASSERT_TRUE(setup.Ok()) << setup;
  // A snapshot's pair: 0 when the client and dynamic values agree, 1 when torn.
  auto torn = [](vsk_snapshot_handle* h) {
    return ClientValue(h, VSK_USER_NAME) != DynamicValue(h, 0, "kelvo-v") ? 1 : 0;
  };
  // The writer runs until the reader is done; the flag lives in memory both children share.
  auto* reader_done =
      static_cast<std::atomic<int>*>(mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(reader_done, MAP_FAILED);
  new (reader_done) std::atomic<int>(0);
  bool ok = RunConcurrently(2, [&put, &torn, reader_done](int k) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 100;
    int rc = 0;
    if (k == 0) {
      for (int i = 1; i <= 20000 && reader_done->load() == 0; ++i) {
        for (uint64_t id = 10; id <= 13; ++id) put(id, i);
        if (i % 7 == 0) DeleteSession(14);
        if (i % 7 == 1) put(14, i);
      }
    } else {
      int loaded = 0;
      std::set<std::string> versions;
      // At least 400 reads, and on until the writer has shown five versions: on a loaded
      // machine the writer may be scheduled late, which says nothing about tearing.
      for (int i = 0; rc == 0 && (i < 400 || (versions.size() < 5 && i < 200000)); ++i) {
        vsk_snapshot_handle h{};
        h.client_session_id = 10 + static_cast<uint64_t>(i % 5);
        vsk_status_t st = vsk_get_snapshot(&h);
        if (st == 0) {
          ++loaded;
          versions.insert(ClientValue(&h, VSK_USER_NAME));
          rc = torn(&h);
        } else if (st != -7 && st != -4) {
          rc = 2;
        }
        vsk_free_snapshot_handle(&h);
        if (i % 40 != 0) continue;
        vsk_snapshot_filter f = ClientWalk();
        while ((st = vsk_get_next_snapshot(&h, &f, 0)) == 0 && rc == 0) {
          ++loaded;
          rc = torn(&h) != 0 ? 3 : 0;
        }
        if (st != -7 && st != 0 && st != -4) rc = 4;
        vsk_get_next_snapshot(&h, &f, 1);
        vsk_free_snapshot_handle(&h);
      }
      reader_done->store(1);
      // The writer must have been at work while this process read.
      if (rc == 0 && loaded < 100) rc = 5;
      if (rc == 0 && versions.size() < 5) rc = 6;
    }
    vsk_close_internal();
    return rc;
  });
  munmap(reader_done, sizeof(std::atomic<int>));
  EXPECT_TRUE(ok);
}

// A walk stops after its first step; meanwhile a second walker is killed between steps,
// and a third process inserts behind and ahead of the walk and deletes its next key. The
// walk then sees what its keys say it must.
TEST_F(SnapshotSystemTest, WalksResumeByKeyAcrossChangesAndAKilledWalkerHoldsNothing) {
  ASSERT_TRUE(StartSystem());
  AttrList a{{VSK_USER_NAME, Text("u")}};
  ChildResult setup = AsClientDaemon([&a] {
    for (uint64_t id : {10, 20, 30, 40, 50}) {
      if (PutSession({id, &a}) != 0) return 1;
    }
    return 0;
  });
  ASSERT_TRUE(setup.Ok()) << setup;
  auto walker = [](Child::Channel& ch, bool resume) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 100;
    vsk_snapshot_filter f = ClientWalk();
    vsk_snapshot_handle h{};
    if (vsk_get_next_snapshot(&h, &f, 0) != 0 || h.current_key != 10 || h.next_key != 20) return 1;
    ch.Ready();
    if (!ch.WaitGo() || !resume) return 0;
    std::vector<uint64_t> seen;
    vsk_status_t st;
    while ((st = vsk_get_next_snapshot(&h, &f, 0)) == 0) seen.push_back(h.current_key);
    vsk_get_next_snapshot(&h, &f, 1);
    vsk_free_snapshot_handle(&h);
    vsk_close_internal();
    // 5 is behind the walk, 20 and 50 are gone, 15 and 35 are ahead of it.
    return st == -7 && seen == std::vector<uint64_t>{15, 30, 35, 40} ? 0 : 2;
  };
  Child resumed, killed;
  resumed.Start([&walker](Child::Channel& ch) { return walker(ch, true); });
  ASSERT_TRUE(resumed.WaitReady());
  killed.Start([&walker](Child::Channel& ch) { return walker(ch, false); });
  ASSERT_TRUE(killed.WaitReady());
  killed.Kill(SIGKILL);
  killed.Wait();
  ChildResult change = AsClientDaemon([&a] {
    if (PutSession({5, &a}) != 0 || PutSession({15, &a}) != 0 || PutSession({35, &a}) != 0)
      return 1;
    return DeleteSession(20) == 0 && DeleteSession(50) == 0 ? 0 : 2;
  });
  ASSERT_TRUE(change.Ok()) << change;
  resumed.Go();
  ChildResult r = resumed.Wait();
  EXPECT_TRUE(r.Ok()) << r;
}

// A cached session changed in its slot only: vsk_get_snapshot, the light read and the
// present-state read see the slot; a search reads the table record with the slot's dynamic
// configuration; a walk reads the tables alone.
TEST_F(SnapshotSystemTest, CachedSessionsAreReadFromTheCacheByGetsAndSearchesNeverByWalks) {
  ASSERT_TRUE(StartSystem());
  ChildResult writer = AsClientDaemon([] {
    AttrList attrs{{VSK_USER_NAME, Text("carol")}, {VSK_SESSION_STATE, U32(1)}};
    DynList dyn{{"kelvo-a", "1"}};
    vsk_session_ids_t ids{};
    if (vsk_create_extended_client_session(2, attrs.get(), nullptr, dyn.get(), &ids, &kCache,
                                           nullptr) != 0)
      return 1;
    UpdateList up;
    up.Replace(VSK_USER_NAME, Text("dave"));
    if (vsk_update_session_data_in_shm(ids.session_id, up.get(), nullptr) != 0) return 2;
    if (vsk_put_dynamic_data_in_shm("kelvo-slot", 1, "s", 0, ids.session_id) != 0) return 3;
    return ids.session_id == 1 ? 0 : 4;
  });
  ASSERT_TRUE(writer.Ok()) << writer;
  ChildResult reader = AsClientDaemon([] {
    vsk_snapshot_handle h{};
    h.client_session_id = 1;
    if (vsk_get_snapshot(&h) != 0 || h.use_shm == 0) return 1;
    if (ClientValue(&h, VSK_USER_NAME) != Text("dave") || DynamicValue(&h, 0, "kelvo-slot") != "s")
      return 2;
    vsk_free_snapshot_handle(&h);
    vsk_snapshot_handle light{};
    light.client_session_id = 1;
    light.flags = VSK_HANDLE_FLAG_ATTRS_ONLY;
    if (vsk_get_snapshot(&light) != 0 || ClientValue(&light, VSK_USER_NAME) != Text("dave"))
      return 3;
    vsk_free_snapshot_handle(&light);
    static std::string searched;
    vsk_snapshot_filter f = ClientWalk();
    if (vsk_search_session(
            [](vsk_snapshot_handle* s) {
              searched = ClientValue(s, VSK_USER_NAME) + "/" + DynamicValue(s, 0, "kelvo-slot");
              // The present state comes from the slot whatever the snapshot holds.
              vsk_attr_value_t* out = nullptr;
              uint16_t len = 0;
              void* value = nullptr;
              if (vsk_get_client_session_attr_shm(s, VSK_USER_NAME, &out, &len, &value) != 0 ||
                  out != nullptr || std::string(static_cast<char*>(value), len) != Text("dave"))
                searched += "/bad";
              return 0;
            },
            &f) != 0)
      return 4;
    if (searched != Text("carol") + "/s") return 5;
    vsk_snapshot_handle w{};
    if (vsk_get_next_snapshot(&w, &f, 0) != 0 || w.use_shm != 0) return 6;
    if (ClientValue(&w, VSK_USER_NAME) != Text("carol") ||
        DynamicValue(&w, 0, "kelvo-slot") != "st-7")
      return 7;
    vsk_get_next_snapshot(&w, &f, 1);
    vsk_free_snapshot_handle(&w);
    return 0;
  });
  EXPECT_TRUE(reader.Ok()) << reader;
}

}  // namespace
}  // namespace vsk::test
