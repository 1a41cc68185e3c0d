// Bundled sessions created by several client daemons at once on one shared underlying
// interface, against a real orvd: every session takes the first client's dynamic id, the
// one shared dynamic record ends up holding every creator's changes exactly once, no
// bundled session has a record of its own, and the shared counts match a recount. A
// creator killed in the middle of its creates leaves the shared record holding exactly
// the creates that committed, and others go on creating on it.
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <string>

#include "bundle_rows.h"
#include "support/orvd_process.h"

namespace vsk::test {
namespace {

using BundleSystemTest = SessionSystemTest;

constexpr char kUifl[] = "ae7";

std::string Name(int worker, int i) {
  return "kelvo-w" + std::to_string(worker) + "-" + std::to_string(i);
}

// The shared dynamic record (id 1) as name -> value, with the number of its entries;
// *st tells whether it could be read.
std::map<std::string, std::string> SharedRecord(vsk_status_t* st, int* entries = nullptr) {
  vsk_db_txn_t txn{};
  uint64_t key = 1;
  vsk_dynamic_config_t* rec = nullptr;
  std::map<std::string, std::string> out;
  *st = vsk_db_get_dynamic_config(&txn, &key, &rec, false);
  vsk_dyn_attr_t* first = *st == VSK_OK ? rec->attrs->first : nullptr;
  for (vsk_dyn_attr_t* a = first; a != nullptr; a = a->next) {
    out[a->name] = std::string(static_cast<char*>(a->value), a->length);
    if (entries != nullptr) ++*entries;
  }
  vsk_db_release_dynamic_config(rec, true);
  return out;
}

TEST_F(BundleSystemTest, ConcurrentCreatorsShareOneDynamicRecord) {
  constexpr int kWorkers = 2, kEach = 120;
  ASSERT_TRUE(StartSystem());
  ChildResult first = AsClientDaemon([] {
    AttrList attrs{{VSK_USER_NAME, "first"}, {VSK_SESSION_STATE, U32(1)}};
    SharedOn(attrs, kUifl);
    DynList dyn{{"kelvo-base", "0"}};
    return CreateOn(0, attrs, &dyn) == 1 ? 0 : 1;
  });
  ASSERT_TRUE(first.Ok()) << first;

  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 100;
    std::vector<uint64_t> ids;
    for (int i = 0; i < kEach; ++i) {
      AttrList attrs{{VSK_SESSION_STATE, U32(i % 3)},
                     {VSK_INTERFACE_NAME, Text("ge-1/0/" + std::to_string(k))}};
      SharedOn(attrs, kUifl);
      DynList dyn{{Name(k, i), std::to_string(i)}};
      // A daemon repeats a create that lost its passes to the other creator's locks.
      vsk_status_t st = VSK_ERR_RETRY;
      uint64_t id = 0;
      for (int attempt = 0; attempt < 50 && st == VSK_ERR_RETRY; ++attempt) {
        id = CreateOn(0, attrs, &dyn, nullptr, i % 2 == 0, &st);
      }
      if (st != VSK_OK) return 1;
      ids.push_back(id);
    }
    vsk_close_internal();
    return WriteNumbers(ResultFile(k), ids) ? 0 : 2;
  }));
  std::vector<uint64_t> all;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint64_t id : ReadNumbers<uint64_t>(ResultFile(k))) all.push_back(id);
  }
  ASSERT_EQ(all.size(), size_t{kWorkers * kEach});

  // Exit codes: 1 a session with another dynamic id, 2 a record of its own, 3 the shared
  // record unreadable, 4 its names not each creator's once, 5 counts adrift.
  ChildResult check = AsClientDaemon([&all] {
    for (uint64_t id : all) {
      if (DynamicIdOf(id) != 1) return 1;
      if (RawDynamicRow(id) != "st" + std::to_string(DB_NOTFOUND)) return 2;
    }
    int entries = 0;
    vsk_status_t st = VSK_OK;
    std::map<std::string, std::string> got = SharedRecord(&st, &entries);
    if (st != VSK_OK) return 3;
    std::map<std::string, std::string> want{{"kelvo-base", "0"}};
    for (int k = 0; k < kWorkers; ++k) {
      for (int i = 0; i < kEach; ++i) want[Name(k, i)] = std::to_string(i);
    }
    if (got != want || entries != static_cast<int>(want.size())) return 4;
    return Drift().empty() ? 0 : 5;
  });
  EXPECT_TRUE(check.Ok()) << check;
}

class BundleKillTest : public VskTest {
 protected:
  void TearDown() override {
    orvd_.Stop(SIGKILL);
    VskTest::TearDown();
  }
  OrvdProcess orvd_;
};

// A creator killed wherever the signal lands among its bundled creates (inside a
// transaction that holds the shared record's page, or between two) leaves that record
// with exactly the changes of the creates that committed; the create it was in may or may
// not have reached its commit.
TEST_F(BundleKillTest, CreatorKilledMidWayLeavesOnlyCommittedChanges) {
  ASSERT_TRUE(orvd_.Start());
  ChildResult first = RunInChild([] {
    AttrList attrs{{VSK_USER_NAME, "first"}};
    SharedOn(attrs, kUifl);
    DynList dyn{{"kelvo-base", "0"}};
    return JoinRunningOrvd() != nullptr && CreateOn(0, attrs, &dyn) == 1 ? 0 : 1;
  });
  ASSERT_TRUE(first.Ok()) << first;
  // The creator notes each create before it starts ("T") and how it ended ("C" or "F").
  const std::string done_file = root() + "/committed";
  Child creator;
  creator.Start([&done_file](Child::Channel& ch) {
    if (JoinRunningOrvd() == nullptr) return 1;
    std::ofstream done(done_file);
    for (int i = 0; i < 100000; ++i) {
      AttrList attrs;
      SharedOn(attrs, kUifl);
      DynList dyn{{Name(0, i), "v"}};
      done << "T " << Name(0, i) << std::endl;
      vsk_status_t st = 0;
      CreateOn(0, attrs, &dyn, nullptr, false, &st);
      done << (st == 0 ? "C " : "F ") << Name(0, i) << " " << st << std::endl;
      if (i == 20) ch.Ready();
    }
    return 2;
  });
  ASSERT_TRUE(creator.WaitReady());
  creator.Kill();
  creator.Wait();
  std::set<std::string> committed;
  std::string in_flight;
  std::ifstream in(done_file);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("C ", 0) == 0) committed.insert(line.substr(2, line.find(' ', 2) - 2));
    if (line.rfind("T ", 0) == 0) in_flight = line.substr(2);
  }
  ASSERT_GE(committed.size(), 20u) << traces().Dump();

  const std::string names_file = root() + "/names";
  // A fresh creator per attempt, while orvd releases the dead one's locks or recovers
  // the environment: exit 10 asks for another attempt.
  ChildResult after;
  for (int attempt = 0; attempt < 60; ++attempt) {
    after = RunInChild(
        [&] {
          if (JoinRunningOrvd() == nullptr) return 10;
          AttrList attrs;
          SharedOn(attrs, kUifl);
          DynList dyn{{"kelvo-after", "v"}};
          vsk_status_t st = 0;
          CreateOn(0, attrs, &dyn, nullptr, false, &st);
          if (st != VSK_OK) return 10;
          std::map<std::string, std::string> names = SharedRecord(&st);
          names.erase("kelvo-base");
          if (st != VSK_OK || names.erase("kelvo-after") != 1) return 1;
          names.erase(in_flight);  // committed or not: the kill may fall after the commit
          std::ofstream out(names_file);
          for (const auto& [n, v] : names) out << n << "\n";
          return out ? 0 : 2;
        },
        std::chrono::seconds(60));
    if (!after.exited || after.code != 10) break;
    usleep(100 * 1000);
  }
  ASSERT_TRUE(after.Ok()) << after;
  std::set<std::string> names;
  std::ifstream names_in(names_file);
  for (std::string line; std::getline(names_in, line);) names.insert(line);
  committed.erase(in_flight);
  EXPECT_EQ(names, committed);
}

}  // namespace
}  // namespace vsk::test
