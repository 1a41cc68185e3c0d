// Service sessions between real processes: three client daemons add, update, activate and
// remove services on shared clients at once, and both sides of every link and the
// config-bit counters then agree with the tables; a process holding a client record's lock
// makes a create give up after its four passes and is outlasted by a removal.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "lock_holder.h"
#include "support/attr_lists.h"
#include "support/orvd_process.h"
#include "support/recount.h"
#include "vsk/service.h"

namespace vsk::test {
namespace {

constexpr int kClients = 4;

// Every service record as (service id -> client id), by a walk of the service table.
std::map<uint64_t, uint64_t> ServiceOwners(vsk_status_t* status) {
  std::map<uint64_t, uint64_t> owners;
  vsk_db_txn_t walk{};
  uint64_t current = 0, next = 0;
  for (;;) {
    vsk_session_key_t *key = nullptr, *ahead = nullptr;
    vsk_service_session_t* rec = nullptr;
    *status = vsk_db_iterate_service_session(&walk, current, next, 0, false, &key, &ahead, &rec,
                                             nullptr, 0);
    if (*status == VSK_OK) {
      current = key->id, next = ahead != nullptr ? ahead->id : 0;
      owners[current] = rec->client_id;
    }
    vsk_db_release_key_session_id(key, true), vsk_db_release_key_session_id(ahead, true);
    vsk_db_release_service_session(rec, true);
    if (*status != VSK_OK) break;
  }
  if (*status == VSK_ERR_NOT_FOUND) *status = VSK_OK;
  return owners;
}

// "" when every client lists exactly the services that name it, once each, and (when
// given) the services are `expected`; else what disagrees.
std::string LinkDifferences(const std::set<uint64_t>* expected) {
  vsk_status_t st;
  std::map<uint64_t, uint64_t> owners = ServiceOwners(&st);
  if (st != VSK_OK) return "service walk " + std::to_string(st);
  std::string out;
  std::set<uint64_t> listed;
  for (uint64_t client = 1; client <= kClients; ++client) {
    vsk_db_txn_t txn{};
    vsk_client_session_t* rec = nullptr;
    if (vsk_db_get_client_session(&txn, &client, &rec, false) != VSK_OK) return "client read";
    if (rec->service_count > 10) out += "client " + std::to_string(client) + " over 10; ";
    for (uint16_t i = 0; i < rec->service_count; ++i) {
      const uint64_t s = rec->service_ids[i];
      if (!listed.insert(s).second) out += "listed twice " + std::to_string(s) + "; ";
      auto it = owners.find(s);
      if (it == owners.end() || it->second != client)
        out += "client " + std::to_string(client) + " lists " + std::to_string(s) + "; ";
    }
    vsk_db_release_client_session(rec, true);
  }
  for (const auto& [s, client] : owners) {
    if (!listed.count(s)) out += "unlisted " + std::to_string(s) + "; ";
    if (expected != nullptr && !expected->count(s)) out += "unexpected " + std::to_string(s) + "; ";
  }
  if (expected != nullptr && owners.size() != expected->size())
    out += "count " + std::to_string(owners.size()) + "; ";
  return out;
}

// Clients 1..kClients in the tables, state 1. 0 or the failing step.
int MakeClients() {
  for (uint64_t i = 1; i <= kClients; ++i) {
    AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
    vsk_session_id_t id = 0;
    if (vsk_create_client_session(2, attrs.get(), nullptr, nullptr, &id) != 0 || id != i) return 1;
  }
  return 0;
}

// One random operation on the services in `mine` (kept in step with what committed):
// create on a random client (-6 there means "full" and counts as done), a config-bit
// change, activation of two, or removal. Its status.
vsk_status_t RandomStep(std::mt19937& rng, std::vector<uint64_t>& mine, int* created,
                        int* removed) {
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  const size_t what = mine.size() < 3 ? 0 : pick(10);
  if (what < 4) {
    vsk_session_id_t id = 0;
    vsk_status_t st =
        vsk_create_service_session_by_client_id(1 + pick(kClients), "svc", nullptr, nullptr, &id);
    if (st == 0) mine.push_back(id), ++*created;
    return st == VSK_ERR_INVALID_PARAM ? 0 : st;
  }
  if (what < 7) {
    UpdateList info;
    std::string mask(2, '\0');
    mask[pick(2)] = static_cast<char>(1 << pick(8));
    info.Add(VSK_INFO_ATTR, pick(2) ? VSK_ATTR_ACTION_SET_BITS : VSK_ATTR_ACTION_CLEAR_BITS, mask);
    return vsk_update_service_session_and_info(mine[pick(mine.size())], nullptr, info.get());
  }
  if (what < 8) {
    const vsk_session_id_t pair[] = {mine[pick(mine.size())], mine[pick(mine.size())]};
    return vsk_activate_service_sessions(pair, 2);
  }
  const size_t at = pick(mine.size());
  vsk_status_t st = vsk_remove_service_session(mine[at]);
  if (st == 0) mine.erase(mine.begin() + long(at)), ++*removed;
  return st;
}

using ServiceSystemTest = SessionSystemTest;

// Clients 1..4 live in the tables, shared by three workers that each keep their own
// services. Creates on one client queue on its record's write lock; a worker tolerates
// only "client full" and a lost deadlock (the pass limit is four, without sleep).
TEST_F(ServiceSystemTest, ConcurrentWorkersKeepBothSidesOfEveryLinkInStep) {
  constexpr int kWorkers = 3, kSteps = 400;
  ASSERT_TRUE(StartSystem());
  ChildResult made = AsClientDaemon(MakeClients);
  ASSERT_TRUE(made.Ok()) << made;
  ASSERT_TRUE(RunConcurrently(kWorkers, [this](int k) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 100;
    std::mt19937 rng(77 + k);
    std::vector<uint64_t> mine;
    int created = 0, removed = 0;
    for (int step = 0; step < kSteps; ++step) {
      vsk_status_t st = RandomStep(rng, mine, &created, &removed);
      if (st != 0 && st != VSK_ERR_RETRY) {
        std::fprintf(stderr, "worker %d step %d: %d\n", k, step, st);
        return 1;
      }
    }
    vsk_close_internal();
    if (created < 50 || removed < 20) return 2;
    return WriteNumbers(ResultFile(k), mine) ? 0 : 3;
  }));
  std::set<uint64_t> live;
  for (int k = 0; k < kWorkers; ++k) {
    for (uint64_t id : ReadNumbers<uint64_t>(ResultFile(k))) live.insert(id);
  }
  ChildResult check = AsClientDaemon([&live] {
    std::string links = LinkDifferences(&live);
    std::string drift = CountDifferences(RecountFromTables(), ReadSharedCounts());
    if (links.empty() && drift.empty() && RecountFromTables().services == live.size()) return 0;
    std::fprintf(stderr, "links: %s\ncounts: %s\n", links.c_str(), drift.c_str());
    return 1;
  });
  EXPECT_TRUE(check.Ok()) << check;
}

// Exit codes of the lock-holder cases: 0 as expected, else the check that failed.
int CreateUnderAHeldClient() {
  vsk_session_id_t id = 0;
  if (vsk_create_service_session_by_client_id(1, "svc", nullptr, nullptr, &id) != VSK_ERR_RETRY)
    return 1;
  const std::string fn = "vsk_create_service_session_by_client_id";
  if (GlobalTraces().CountContaining(fn + ": Failed to read client session, err=") != 4) return 2;
  if (GlobalTraces().Count(fn + ": Failed to create service session, err=" + vsk_get_err_msg(-4)) !=
      1)
    return 3;
  vsk_db_txn_t txn{};
  vsk_service_session_t* rec = nullptr;
  return id != 0 &&
                 vsk_db_get_service_session(&txn, &id, &rec, false, nullptr, 0) == VSK_ERR_NOT_FOUND
             ? 0
             : 4;
}

TEST_F(ServiceSystemTest, CreateGivesUpAfterFourPassesAndRemovalOutlastsTheHolder) {
  ASSERT_TRUE(StartSystem());
  ChildResult made = AsClientDaemon([] {
    AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
    vsk_session_id_t client = 0, service = 0;
    if (vsk_create_client_session(2, attrs.get(), nullptr, nullptr, &client) != 0 || client != 1)
      return 1;
    return vsk_create_service_session_by_client_id(1, "kept", nullptr, nullptr, &service) == 0 &&
                   service == 2
               ? 0
               : 2;
  });
  ASSERT_TRUE(made.Ok()) << made;
  ChildResult blocked = WhileRecordHeld(1, nullptr, 0, CreateUnderAHeldClient);
  EXPECT_TRUE(blocked.Ok()) << blocked;
  // The holder lets go after twelve failed passes of the removal, more than any other
  // operation waits.
  ChildResult removed = WhileRecordHeld(1, ": Failed to read client session 1, err=", 12, [] {
    if (vsk_remove_service_session(2) != 0) return 1;
    if (g_seen < 12) return 2;
    vsk_db_txn_t txn{};
    vsk_client_session_t* rec = nullptr;
    const uint64_t client = 1;
    if (vsk_db_get_client_session(&txn, &client, &rec, false) != 0) return 3;
    const bool empty = rec->service_count == 0 && rec->service_ids == nullptr;
    vsk_db_release_client_session(rec, true);
    return empty ? 0 : 4;
  });
  EXPECT_TRUE(removed.Ok()) << removed;
}

// ---- processes killed in the middle of service operations ------------------------------

// Workers creating, updating and removing services on clients 1..4 are SIGKILLed at
// random moments, many of them inside Berkeley DB. After each kill, once orvd has taken
// stock, every link is whole: a service and its place in its client's list commit or
// vanish together. At the end every service can still be removed.
TEST_F(VskTest, KilledServiceWorkersLeaveEveryLinkWhole) {
  constexpr int kKills = 12;
  OrvdProcess orvd;
  ASSERT_TRUE(orvd.Start());
  ChildResult made = RunInChild([] { return JoinRunningOrvd() == nullptr ? 1 : MakeClients(); });
  ASSERT_TRUE(made.Ok()) << made;
  // Checks the links (and, with `remove_all`, removes every service first); retried while
  // the store is recovering under the checker.
  auto check = [](bool remove_all) {
    return RunInChild(
        [remove_all] {
          if (JoinRunningOrvd() == nullptr) return 1;
          vsk_status_t st;
          std::set<uint64_t> none;
          if (remove_all) {
            for (const auto& [s, client] : ServiceOwners(&st)) {
              if (vsk_remove_service_session(s) != 0) return 2;
            }
          }
          std::string links = LinkDifferences(remove_all ? &none : nullptr);
          if (links.empty()) return 0;
          std::fprintf(stderr, "%s\n", links.c_str());
          return 3;
        },
        std::chrono::seconds(90));
  };
  std::mt19937 rng(4711);
  for (int k = 0; k < kKills; ++k) {
    Child worker;
    const unsigned seed = rng();
    worker.Start([seed](Child::Channel& ch) -> int {
      if (JoinRunningOrvd() == nullptr) return 1;
      std::mt19937 r(seed);
      // The services that earlier workers left are this one's to change and remove too.
      vsk_status_t st;
      std::vector<uint64_t> mine;
      for (const auto& [service, client] : ServiceOwners(&st)) mine.push_back(service);
      int created = 0, removed = 0;
      for (bool told = false;; told = true) {
        RandomStep(r, mine, &created, &removed);
        if (!told) ch.Ready();
      }
    });
    ASSERT_TRUE(worker.WaitReady(std::chrono::seconds(60))) << "kill " << k;
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 30000));
    const long checks = OrvdProcess::HealthFigure("failchk_runs");
    const long recoveries = OrvdProcess::HealthFigure("recoveries");
    worker.Kill();
    worker.Wait();
    // What the dead one held goes at orvd's next check (or recovery); a checker that came
    // earlier could wait on it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline &&
           OrvdProcess::HealthFigure("failchk_runs") < checks + 2 &&
           OrvdProcess::HealthFigure("recoveries") == recoveries) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // orvd must outlive every kill, whatever it had to recover.
    ASSERT_FALSE(ProcessEnded(orvd.pid()))
        << "orvd died handling kill " << k << " (its log is above)";
    ChildResult whole = check(false);
    ASSERT_FALSE(ProcessEnded(orvd.pid())) << "orvd died during the check after kill " << k;
    ASSERT_TRUE(whole.Ok()) << "after kill " << k << ": " << whole;
  }
  ChildResult emptied = check(true);
  EXPECT_FALSE(ProcessEnded(orvd.pid())) << "orvd died during the final removals";
  EXPECT_TRUE(emptied.Ok()) << emptied;
}

}  // namespace
}  // namespace vsk::test
