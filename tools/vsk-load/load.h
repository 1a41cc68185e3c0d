// What the parts of vsk-load share: the run's options, the board that the parent and its
// worker processes share through an anonymous shared mapping, the steps of one subscriber
// lifecycle with their latency samples, and the typical subscriber a worker creates.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "vsk/vsk.h"

namespace vsk::load {

inline constexpr int kMaxWorkers = 64;

struct Options {
  uint64_t sessions = 20000;  // lifecycles in all (0 with a duration: until it ends)
  double duration = 0;        // seconds; 0: run `sessions` lifecycles
  int workers = 0;            // 0: the number of cores
  uint64_t live = 1000;       // sessions held open at once, over all workers
  int setup_updates = 5;      // cached set-up updates per lifecycle
  bool activate = true;       // the update to state 2 (flush) after the set-up updates
  int snapshots = 1;          // snapshots per lifecycle
  int reads = 3;              // attribute reads after each snapshot
  uint64_t seed = 1;
  bool baseline = false;
  bool chaos = false;
  bool json = false;
  bool quiet = false;
  std::string self;  // this program, for the worker processes
  std::string orvd;  // the orvd program
};

// The steps of a lifecycle, in their order. Only the cached set-up update does no table work.
enum Step : int { kCreate, kSetup, kActivate, kSnapshot, kRemove, kSteps };
inline constexpr const char* kStepNames[kSteps] = {"create", "setup-update", "activate",
                                                   "snapshot+reads", "remove"};

// Reads `--mix`: a comma list of `step[=count]` naming the optional steps that run
// ("setup-update", "activate", "snapshot", "reads"); a step left out does not run. Create
// and removal always run. "" when it parsed, else what is wrong.
std::string ApplyMix(const std::string& mix, Options* o);

// Where each id of a line's list stands, as its worker last knew it. A worker marks a
// step as begun before its call and as done after it, so a worker killed inside a call
// leaves the step marked begun: then either outcome is right. The closing check compares
// the sessions of killed workers with this.
enum IdStage : uint8_t {
  kIdNone,
  kIdCreated,     // created: state 1, any user name written so far
  kIdActivating,  // activation begun: state 1 or 2
  kIdActive,      // activated: state 2 and the last set-up user name
  kIdRemoving,    // removal begun: gone, or as it was before the removal
  kIdRemoved,     // removed: gone
};

// Statuses after which a daemon waits and calls again: a deadlock victim or lock timeout,
// the store being recovered, orvd gone or not ready yet (the call registers again in
// passing once orvd is back), the interface table waiting for its rebuild.
bool Transient(vsk_status_t st);

// Latency samples in nanoseconds, per step, of one or more workers.
struct Samples {
  std::vector<uint32_t> ns[kSteps];
  void Add(const Samples& other);
};

enum Phase : uint32_t { kStarting, kRunning, kFinished, kFailed };

// One worker's line on the board. The worker writes, the parent reads (relaxed: figures
// for progress; the final ones are read after the worker has been reaped).
struct WorkerLine {
  std::atomic<uint32_t> phase;
  std::atomic<int32_t> pid;
  std::atomic<uint64_t> quota;    // lifecycles this worker line owes in all
  std::atomic<uint64_t> created;  // ids written to the line's id list
  std::atomic<uint64_t> done;     // lifecycles finished (removed)
  std::atomic<uint64_t> live;     // sessions of this line in the store right now
  std::atomic<uint64_t> errors;
  std::atomic<int32_t> first_error;  // the first failing status
  std::atomic<uint32_t> failed_step;
  std::atomic<uint32_t> kills;  // times a process of this line was killed (chaos)
  std::atomic<uint64_t> retries;    // calls repeated after a transient status
  std::atomic<uint64_t> uncertain;  // creates that failed transiently (may have committed)
  std::atomic<uint64_t> downs;      // times the store went down under this line's daemon
  std::atomic<uint64_t> redone;     // lifecycles whose set-up was redone after a down
};

struct Board {
  std::atomic<uint32_t> stop;  // set by the parent when a duration ends or on a signal
  std::atomic<uint32_t> orvd_kills;  // times orvd was killed and started again (chaos)
  std::atomic<uint32_t> ended_by_orvd;  // workers orvd ended, blocked in a given-up store
  WorkerLine lines[kMaxWorkers];
};

// The run's shared memory: the board, each line's list of created ids (ids_per_line
// entries per line) and beside it each id's IdStage, mapped before the workers fork so that
// every process sees it.
struct Shared {
  Board* board = nullptr;
  uint64_t* ids = nullptr;
  uint8_t* stages = nullptr;
  uint64_t ids_per_line = 0;
  size_t bytes = 0;
  bool Map(int workers, uint64_t ids_per_line);
  void Unmap();
  uint64_t* LineIds(int line) const { return ids + ids_per_line * static_cast<uint64_t>(line); }
  uint8_t* LineStages(int line) const {
    return stages + ids_per_line * static_cast<uint64_t>(line);
  }
};

// The typical subscriber of a set-up: about 30 attributes with its own interface name, an
// underlying interface shared by the worker's sessions, state 1 and an interface type;
// 5 dynamic entries; an authentication request of 5 attributes.
struct Subscriber {
  Subscriber();
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;
  // Names the subscriber `n` of worker `line` and relinks the lists.
  void Name(int line, uint64_t n);

  std::vector<std::string> values;
  std::vector<vsk_attr_t> attrs, auth;
  std::vector<vsk_dyn_attr_t> dynamic;
  vsk_attr_list_t attr_list{}, auth_list{};
  vsk_dyn_attr_list_t dyn_list{};
  char ifl[40] = {};
  char uifl[40] = {};
  char user[48] = {};
};
inline constexpr uint32_t kClientType = 2;
// The user names that the set-up updates write in turn (the first one first).
inline constexpr const char* kSetupUsers[2] = {"subscriber-a@isp.example",
                                               "subscriber-b@isp.example"};
// The user name a session holds once `setup_updates` updates were made on `sub`.
std::string UserAfterSetup(const Subscriber& sub, int setup_updates);
inline constexpr char kPolicyName[] = "kelvo-cos-policy";

// Worker processes: the library's lifecycles, or the same table operations on a raw
// Berkeley DB environment (`raw_home`). Each returns its exit code and writes its samples
// to `samples_path`.
int RunWorker(const Options& o, Shared& shared, int line, const std::string& samples_path);
int RunRawWorker(const Options& o, Shared& shared, int line, const std::string& raw_home,
                 const std::string& samples_path);
// Sets up the raw environment and its tables as the store sets up its own (no replication).
bool CreateRawEnvironment(const std::string& home, std::string* error);

bool WriteSamples(const std::string& path, const Samples& s);
bool ReadSamples(const std::string& path, Samples* s);

// Registers as a poll-mode daemon, trying again while orvd is not (yet) ready or the store
// fails under the open, up to `limit` seconds; 0 or the last status. `trace` receives the library's traces, and
// `env_change` (may be null) each new environment handle and null when the store goes down.
vsk_status_t JoinStore(orvd_ctx_t** ctx, orvd_trace_fn_t trace,
                       orvd_db_env_change_cbk_t env_change, int limit);

// What is wrong with session `id`, made as subscriber `n` of worker `line`, against what its
// worker committed (`stage`): "" when it reads back as written.
std::string CompareSession(const Options& o, uint64_t id, int line, uint64_t n, IdStage stage);

// The closing check, in the parent once the workers are gone and orvd has been restarted
// (its recovery walk rebuilt the shared state): registers with orvd, compares every summary
// counter and interface count with a recount of the tables, reads back the sessions that
// killed workers left and compares them with what was committed, removes them, and compares
// again. "" when all holds, else one line per difference.
std::string CheckStore(const Options& o, const Shared& shared, int workers, uint64_t* leftovers);
// The counters of the live store, before the restart: "" when they equal the recount.
std::string CheckLiveCounts();

// Figures of one phase (library or raw) for the end table.
struct PhaseFigures {
  double seconds = 0;
  uint64_t lifecycles = 0;
  Samples samples;
};
void PrintTable(const Options& o, int workers, const PhaseFigures& lib, const PhaseFigures* raw,
                const std::string& oracle, uint64_t leftovers);

}  // namespace vsk::load
