// See metrics.h. Metric names follow Prometheus' conventions: a "vsk_" prefix, base units
// in the name (bytes, seconds), "_total" on counters; the summary counters are gauges,
// since sessions come and go.
#include "metrics.h"

#include <map>

#include "counter_names.h"
#include "exposition.h"
#include "libvsk/shared/intf_view.h"

namespace vskctl {

void StoreCollector::Start() {
  std::lock_guard<std::mutex> lock(mu_);
  if (thread_.joinable()) return;
  stop_ = false;
  ended_ = false;
  thread_ = std::thread([this] { Loop(); });
}

bool StoreCollector::Stop() {
  std::unique_lock<std::mutex> lock(mu_);
  stop_ = true;
  wake_.notify_all();
  if (!thread_.joinable()) return true;
  if (!wake_.wait_for(lock, std::chrono::seconds(2), [this] { return ended_; })) {
    thread_.detach();
    return false;
  }
  lock.unlock();
  thread_.join();
  return true;
}

StoreCollector::Result StoreCollector::Latest() const {
  std::lock_guard<std::mutex> lock(mu_);
  return latest_;
}

void StoreCollector::Loop() {
  std::unique_lock<std::mutex> lock(mu_);
  while (!stop_) {
    lock.unlock();
    Result r;
    vsk::store::EnvError error;
    r.ok = vsk::store::ProbeEnvironment(&r.figures, &error, &r.error);
    r.at = std::chrono::steady_clock::now();
    lock.lock();
    r.probes = latest_.probes + 1;
    r.failures = latest_.failures + (r.ok ? 0 : 1);
    latest_ = std::move(r);
    wake_.wait_for(lock, period_, [this] { return stop_; });
  }
  ended_ = true;
  wake_.notify_all();
}

namespace {

// The summary counters, one family per group.
void AddCounters(Exposition& e, const std::array<uint32_t, VSK_SUMMARY_COUNTER_SLOTS>& v) {
  struct Group {
    const char* group;
    const char* name;
    const char* label;
    const char* help;
  };
  static constexpr Group kGroups[] = {
      {"state", "vsk_client_sessions_by_state", "state",
       "Client sessions by session state (\"sum\" is the sum slot of the group)."},
      {"type", "vsk_client_sessions_by_type", "type",
       "Client sessions by client type: type 0, or the highest set bit of the type."},
      {"ifl_type", "vsk_client_sessions_by_ifl_type", "ifl_type",
       "Client sessions by interface type."},
      {"config_bit", "vsk_sessions_by_config_bit", "bit",
       "Sessions by configuration bit set in their record."},
  };
  e.Gauge("vsk_client_sessions", "All client sessions (summary counter slot 0).", v[0]);
  for (const Group& g : kGroups) {
    e.Family(g.name, "gauge", g.help);
    for (const CounterSlot& s : CounterSlots()) {
      if (s.group == g.group) e.Sample(uint64_t{v[s.slot]}, {{g.label, s.key}});
    }
  }
}

void AddPools(Exposition& e, const vsk::shared::SegmentView& seg) {
  static constexpr std::pair<uint32_t, const char*> kPools[] = {
      {VSK_UNIT_POOL_IFL, "interface_units"}, {VSK_UNIT_POOL_UID, "uid_numbers"}};
  vsk::shared::PoolUsage usage[2] = {seg.Pool(kPools[0].first), seg.Pool(kPools[1].first)};
  auto family = [&](const char* name, const char* help, auto field) {
    e.Family(name, "gauge", help);
    for (size_t i = 0; i < 2; ++i)
      e.Sample(uint64_t{usage[i].*field}, {{"pool", kPools[i].second}});
  };
  family("vsk_unit_pool_size", "Entries of the unit pool.", &vsk::shared::PoolUsage::size);
  family("vsk_unit_pool_used", "Units in use.", &vsk::shared::PoolUsage::used);
  family("vsk_unit_pool_free", "Units free.", &vsk::shared::PoolUsage::free);
}

void AddInterfaceTable(Exposition& e) {
  namespace intf = vsk::shared::intf;
  intf::InterfaceTable table;
  std::string error;
  bool ok = intf::ReadInterfaceTable(intf::Locking::kNone, &table, &error);
  e.Gauge("vsk_interface_table_up", "1 when the interface table could be read.", ok ? 1 : 0);
  if (!ok) return;
  uint64_t ifl = 0;
  uint64_t uifl = 0;
  for (const auto& i : table.interfaces) {
    ifl += static_cast<uint32_t>(i.ifl_count);
    uifl += static_cast<uint32_t>(i.uifl_count);
  }
  e.Gauge("vsk_interface_table_bytes", "Size of the interface table's file.",
          static_cast<uint64_t>(static_cast<uint32_t>(table.file_size)));
  e.Gauge("vsk_interface_table_heap_bytes", "Bytes of the file's heap in use, header included.",
          table.heap_top);
  e.Gauge("vsk_interface_table_interfaces", "Interfaces in the table.", table.interfaces.size());
  e.Gauge("vsk_interface_table_ifl_sessions",
          "Sessions counted on their own interface, summed over the table.", ifl);
  e.Gauge("vsk_interface_table_uifl_sessions",
          "Sessions counted on an underlying interface, summed over the table.", uifl);
  e.Gauge("vsk_interface_table_damaged",
          "1 when the last read of the table found links it could not follow.",
          table.damage.empty() ? 0 : 1);
}

void AddStore(Exposition& e, const StoreCollector::Result& r) {
  e.Counter("vsk_store_probes_total", "Probes of the Berkeley DB environment made.", r.probes);
  e.Counter("vsk_store_probe_failures_total", "Probes that could not join the environment.",
            r.failures);
  e.Gauge("vsk_store_up", "1 when the last probe joined the environment.", r.ok ? 1 : 0);
  if (r.probes == 0) return;
  e.Family("vsk_store_probe_age_seconds", "gauge", "Age of the Berkeley DB figures below.");
  e.Sample(std::chrono::duration<double>(std::chrono::steady_clock::now() - r.at).count());
  if (!r.ok) return;
  const vsk::store::EnvFigures& f = r.figures;
  e.Gauge("vsk_bdb_transactions_active", "Transactions active.", f.txn_active);
  e.Gauge("vsk_bdb_transactions_limit", "Transactions the environment allows at once.",
          f.txn_limit);
  e.Counter("vsk_bdb_transactions_begun_total", "Transactions begun.", f.txn_begins);
  e.Counter("vsk_bdb_transactions_committed_total", "Transactions committed.", f.txn_commits);
  e.Counter("vsk_bdb_transactions_aborted_total", "Transactions aborted.", f.txn_aborts);
  e.Gauge("vsk_bdb_locks", "Locks held.", f.locks);
  e.Gauge("vsk_bdb_locks_limit", "Locks the environment allows.", f.locks_limit);
  e.Gauge("vsk_bdb_lockers", "Lockers in use.", f.lockers);
  e.Gauge("vsk_bdb_lockers_limit", "Lockers the environment allows.", f.lockers_limit);
  e.Counter("vsk_bdb_lock_waits_total", "Lock requests that had to wait.", f.lock_waits);
  e.Counter("vsk_bdb_deadlocks_total", "Deadlocks broken.", f.deadlocks);
  e.Counter("vsk_bdb_lock_timeouts_total", "Lock waits that timed out.", f.lock_timeouts);
  e.Counter("vsk_bdb_txn_timeouts_total", "Transactions that timed out.", f.txn_timeouts);
  e.Gauge("vsk_bdb_thread_slots", "Thread slots allocated in the environment.", f.thread_slots);
  e.Gauge("vsk_bdb_thread_slots_limit", "Thread slots configured.", f.thread_slots_limit);
  e.Gauge("vsk_bdb_thread_slots_dead", "Thread slots of processes that are gone.",
          f.thread_slots_dead);
  e.Gauge("vsk_bdb_log_files", "Log files in the environment's home.", f.log_files);
  e.Gauge("vsk_bdb_log_bytes", "Bytes of log files on disk.", f.log_bytes);
  e.Gauge("vsk_bdb_data_bytes", "Bytes of the table files on disk.", f.data_bytes);
  e.Counter("vsk_bdb_cache_hits_total", "Pages found in the cache.", f.cache_hits);
  e.Counter("vsk_bdb_cache_misses_total", "Pages not found in the cache.", f.cache_misses);
  e.Family("vsk_bdb_replication_role", "gauge",
           "1 for the environment's replication role (none, master, client).");
  for (const char* role : {"none", "master", "client"}) {
    e.Sample(uint64_t{f.rep_role == role ? 1u : 0u}, {{"role", role}});
  }
}

}  // namespace

std::string MetricsSource::Render() {
  Exposition e;
  e.Counter("vsk_exporter_scrapes_total", "Scrapes of this endpoint, this one included.",
            ++scrapes_);
  if (segment_.attached() && !segment_.Current()) segment_.Close();
  if (!segment_.attached()) segment_.Open();
  e.Gauge("vsk_shared_state_up", "1 when the main shared segment is attached.",
          segment_.attached() ? 1 : 0);
  if (segment_.attached()) {
    e.Gauge("vsk_db_status", "The shared status word: 0 none, 1 opened, 2 recovering, 3 ready.",
            segment_.DbStatus());
    e.Gauge("vsk_last_session_id", "The last session id handed out.", segment_.LastSessionId());
    AddCounters(e, segment_.Counters());
    AddPools(e, segment_);
  }
  AddInterfaceTable(e);
  AddStore(e, store_.Latest());
  return e.text();
}

}  // namespace vskctl
