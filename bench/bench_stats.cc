// Statistics tables: the cost of the library's operations on full interface records over
// bare Berkeley DB doing the same table work, in one run.
//
//   write   libstats_write_iflstats_full_record   vs  txn_begin, DB->put of the encoded
//                                                     bytes, commit
//   read    libstats_get_iflstats_full_record     vs  txn_begin, DB->get (DB_RMW,
//           (then the sections are freed)             DB_DBT_MALLOC), commit, free
//   update  libstats_iflstats_full_update_record_in_db of a reply (two transactions: read,
//           then write)                           vs  one transaction with DB->get (DB_RMW)
//                                                     and DB->put of the encoded bytes
//   get-sum libstats_iflstats_full_op_using_sec_index(GET) over the 8 records of one
//           interface                             vs  a read-committed cursor walk
//                                                     (pget DB_SET, DB_NEXT_DUP) in a txn
//   encode / decode of the same record beside a memcpy of its bytes (no target).
//
// A typical record: the generic section, the output queue header and eight queue counters
// in both sets (3872 bytes). 256 records: 32 interfaces on 8 forwarding locations.
//
// Noise: a round times one pass of each side over every record; the order of library and
// raw alternates from round to round; figures are medians over the rounds, the ratio the
// median of per-round ratios with the middle half of the rounds as spread.
//
// Runs as the creating daemon on its own throwaway VSK_ROOT and removes the System V
// objects and the root at the end, also after SIGINT or SIGTERM.
#include <db.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "libvsk/orvd_ctx.h"
#include "libvsk/shared/root_objects.h"
#include "libvsk/stats/iflstats_full_codec.h"
#include "platform/paths.h"
#include "vsk/libstats.h"
#include "vsk/shared.h"
#include "vsk/store.h"

extern "C" char* __progname;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kInterfaces = 32;
constexpr int kLocations = 8;
constexpr int kRecords = kInterfaces * kLocations;
constexpr int kRounds = 15;
constexpr double kTargetRatio = 1.30;

volatile sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

char g_creator_name[] = "orvd";
orvd_ctx g_link{};
uint64_t g_sink = 0;

struct Entry {
  libstats_iflstats_full_t* record;  // the typical record, as a daemon holds it
  std::string key;                   // its primary key
  std::string value;                 // its encoded form, for the raw side
};

libstats_iflstats_full_t* TypicalRecord(uint32_t ifl, int loc) {
  auto* r =
      static_cast<libstats_iflstats_full_t*>(std::calloc(1, sizeof(libstats_iflstats_full_t)));
  r->ifl = ifl;
  std::string id = "fpc" + std::to_string(loc);
  r->loc_id_len = static_cast<uint16_t>(id.size());
  r->loc_id = static_cast<uint8_t*>(std::malloc(id.size()));
  std::memcpy(r->loc_id, id.data(), id.size());
  for (libstats_iflstats_full_set_t& s : r->stats) {
    s.generic.ifl = ifl;
    s.generic.ipackets = 1000u * ifl + loc;
    s.generic.ibytes = 64u * s.generic.ipackets;
    libstats_iflstats_full_set_version(&s.ts);
    s.gen_num = 7;
    s.q = static_cast<libstats_ifl_qhdr_t*>(std::calloc(1, sizeof(libstats_ifl_qhdr_t)));
    s.q->num_q = LIBSTATS_MAX_QUEUES;
    for (auto*& c : s.qcntr) {
      c = static_cast<libstats_ifl_qcntr_t*>(std::calloc(1, sizeof(libstats_ifl_qcntr_t)));
      c->output_packets = ifl;
    }
  }
  return r;
}

std::vector<Entry> MakeEntries() {
  std::vector<Entry> out;
  for (int i = 0; i < kInterfaces; ++i) {
    for (int loc = 0; loc < kLocations; ++loc) {
      Entry e;
      e.record = TypicalRecord(static_cast<uint32_t>(1000 + i), loc);
      e.key.assign(reinterpret_cast<char*>(&e.record->ifl), 4);
      e.key.append(reinterpret_cast<char*>(e.record->loc_id), e.record->loc_id_len);
      vsk::stats::Buffer buf;
      uint32_t len = 0;
      vsk::stats::EncodeIflstatsFull(*e.record, &buf, &len);
      e.value.assign(reinterpret_cast<char*>(buf.get()), len);
      out.push_back(std::move(e));
    }
  }
  return out;
}

// One pass over every entry; false on the first failure (printed).
using Pass = std::function<bool(std::vector<Entry>&)>;

DBT Dbt(std::string& bytes) {
  DBT d{};
  d.data = bytes.data();
  d.size = static_cast<uint32_t>(bytes.size());
  return d;
}

bool RawTxn(DB_ENV* env, const std::function<int(DB_TXN*)>& body) {
  DB_TXN* txn = nullptr;
  int ret = env->txn_begin(env, nullptr, &txn, 0);
  if (ret == 0) ret = body(txn);
  if (ret == 0) return txn->commit(txn, 0) == 0;
  if (txn != nullptr) txn->abort(txn);
  std::fprintf(stderr, "raw: %s\n", db_strerror(ret));
  return false;
}

bool LibWrite(std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    vsk_status_t st = libstats_write_iflstats_full_record(e.record);
    if (st != VSK_OK) return std::fprintf(stderr, "write: %d\n", st), false;
  }
  return true;
}

bool RawWrite(DB_ENV* env, DB* db, std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    bool ok = RawTxn(env, [&](DB_TXN* txn) {
      DBT k = Dbt(e.key);
      DBT v = Dbt(e.value);
      return db->put(db, txn, &k, &v, 0);
    });
    if (!ok) return false;
  }
  return true;
}

bool LibRead(std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    libstats_iflstats_full_t r{};
    r.ifl = e.record->ifl;
    r.loc_id_len = e.record->loc_id_len;
    r.loc_id = e.record->loc_id;
    vsk_status_t st = libstats_get_iflstats_full_record(&r);
    g_sink += r.stats[LS_CURRENT].generic.ipackets;
    libstats_free_iflstats_full_all(&r);
    if (st != VSK_OK) return std::fprintf(stderr, "read: %d\n", st), false;
  }
  return true;
}

bool RawRead(DB_ENV* env, DB* db, std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    bool ok = RawTxn(env, [&](DB_TXN* txn) {
      DBT k = Dbt(e.key);
      DBT v{};
      v.flags = DB_DBT_MALLOC;
      int ret = db->get(db, txn, &k, &v, DB_RMW);
      if (ret == 0) g_sink += static_cast<uint8_t*>(v.data)[20];
      std::free(v.data);
      return ret;
    });
    if (!ok) return false;
  }
  return true;
}

// Each record's LS_CURRENT as the forwarding engine's next reply: counters that grow.
bool LibUpdate(std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    libstats_iflstats_full_set_t& reply = e.record->stats[LS_CURRENT];
    reply.generic.ipackets += 10;
    reply.generic.ibytes += 640;
    vsk_status_t st = libstats_iflstats_full_update_record_in_db(
        e.record->ifl, &reply, e.record->loc_id, e.record->loc_id_len, 0);
    if (st != VSK_OK) return std::fprintf(stderr, "update: %d\n", st), false;
  }
  return true;
}

bool RawUpdate(DB_ENV* env, DB* db, std::vector<Entry>& entries) {
  for (Entry& e : entries) {
    bool ok = RawTxn(env, [&](DB_TXN* txn) {
      DBT k = Dbt(e.key);
      DBT old{};
      old.flags = DB_DBT_MALLOC;
      int ret = db->get(db, txn, &k, &old, DB_RMW);
      std::free(old.data);
      if (ret != 0) return ret;
      DBT v = Dbt(e.value);
      return db->put(db, txn, &k, &v, 0);
    });
    if (!ok) return false;
  }
  return true;
}

bool LibGetSum(std::vector<Entry>&) {
  for (int i = 0; i < kInterfaces; ++i) {
    uint32_t count = 0;
    libstats_iflstats_full_t* sum = nullptr;
    vsk_status_t st = libstats_iflstats_full_op_using_sec_index(
        static_cast<uint32_t>(1000 + i), LIBSTATS_OP_GET, &count, &sum, nullptr, nullptr);
    if (sum != nullptr) g_sink += sum->stats[LS_CURRENT].generic.ipackets;
    libstats_free_iflstats_full_all(sum);
    libstats_free_iflstats_full_record(sum);
    if (st != VSK_OK || count != kLocations) {
      return std::fprintf(stderr, "get-sum: %d, %u records\n", st, count), false;
    }
  }
  return true;
}

bool RawGetSum(DB_ENV* env, DB* secondary, std::vector<Entry>&) {
  for (int i = 0; i < kInterfaces; ++i) {
    uint32_t ifl = static_cast<uint32_t>(1000 + i);
    int found = 0;
    bool ok = RawTxn(env, [&](DB_TXN* txn) {
      DBC* c = nullptr;
      int ret = secondary->cursor(secondary, txn, &c, DB_READ_COMMITTED);
      if (ret != 0) return ret;
      DBT k{};
      k.data = &ifl;
      k.size = sizeof(ifl);
      DBT pk{}, v{};
      for (uint32_t op = DB_SET; c->pget(c, &k, &pk, &v, op) == 0; op = DB_NEXT_DUP) {
        g_sink += static_cast<uint8_t*>(v.data)[20];
        ++found;
      }
      return c->close(c);
    });
    if (!ok || found != kLocations) return false;
  }
  return true;
}

double Quantile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  double at = q * static_cast<double>(v.size() - 1);
  size_t lo = static_cast<size_t>(at);
  size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

struct Pair {
  const char* name;
  Pass lib, raw;
  double target;  // 0: none
  double ops_per_pass;
  int repeats;  // passes per timing, about a tenth of a second each
  std::vector<double> lib_rate, raw_rate, ratio;
};

double Time(const Pass& pass, std::vector<Entry>& entries, int repeats) {
  auto start = Clock::now();
  for (int r = 0; r < repeats; ++r) {
    if (!pass(entries)) return -1;
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool Measure(std::vector<Pair>& pairs, std::vector<Entry>& entries) {
  for (int round = 0; round <= kRounds && !g_stop; ++round) {
    for (Pair& p : pairs) {
      bool lib_first = round % 2 == 0;
      double first = Time(lib_first ? p.lib : p.raw, entries, p.repeats);
      double second = Time(lib_first ? p.raw : p.lib, entries, p.repeats);
      if (first < 0 || second < 0) return false;
      if (round == 0) continue;  // warms the cache and the log
      double lib = lib_first ? first : second;
      double raw = lib_first ? second : first;
      double ops = p.ops_per_pass * p.repeats;
      p.lib_rate.push_back(ops / lib);
      p.raw_rate.push_back(ops / raw);
      p.ratio.push_back(lib / raw);
    }
  }
  return !g_stop;
}

void Print(const std::vector<Pair>& pairs) {
  std::printf(
      "| operation | library ops/s | baseline ops/s | cost ratio (spread) | target | met |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const Pair& p : pairs) {
    double ratio = Quantile(p.ratio, 0.5);
    char target[32] = "-";
    if (p.target > 0) std::snprintf(target, sizeof target, "<= %.2f", p.target);
    std::printf("| %s | %.0f | %.0f | %.3f (%.3f..%.3f) | %s | %s |\n", p.name,
                Quantile(p.lib_rate, 0.5), Quantile(p.raw_rate, 0.5), ratio,
                Quantile(p.ratio, 0.25), Quantile(p.ratio, 0.75), target,
                p.target <= 0 ? "-" : (ratio <= p.target ? "yes" : "NO"));
  }
}

vsk_status_t OpenStore() {
  if (!vsk::platform::MakeSystemDirs()) return VSK_ERR_FATAL;
  __progname = g_creator_name;
  if (vsk_open_internal(true) != 0) return VSK_ERR_FATAL;
  g_link.fd = -1;
  g_link.is_orvd = true;
  vsk_db_set_master(true);
  return vsk_db_init(&g_link, true);
}

int Run() {
  std::vector<Entry> entries = MakeEntries();
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  DB* db = g_stats.iflstats_full_db;
  const libstats_iflstats_full_t& typical = *entries[0].record;
  const std::string& bytes = entries[0].value;
  std::vector<uint8_t> target(bytes.size());

  std::vector<Pair> pairs;
  pairs.push_back({"write (vs DB->put in a txn)",
                   LibWrite,
                   [&](std::vector<Entry>& e) { return RawWrite(env, db, e); },
                   kTargetRatio,
                   kRecords,
                   4,
                   {},
                   {},
                   {}});
  pairs.push_back({"read (vs DB->get DB_RMW in a txn)",
                   LibRead,
                   [&](std::vector<Entry>& e) { return RawRead(env, db, e); },
                   kTargetRatio,
                   kRecords,
                   100,
                   {},
                   {},
                   {}});
  pairs.push_back({"update (vs DB->get DB_RMW + DB->put in a txn)",
                   LibUpdate,
                   [&](std::vector<Entry>& e) { return RawUpdate(env, db, e); },
                   kTargetRatio,
                   kRecords,
                   3,
                   {},
                   {},
                   {}});
  pairs.push_back(
      {"get-sum of 8 by interface (vs cursor walk)",
       LibGetSum,
       [&](std::vector<Entry>& e) { return RawGetSum(env, g_stats.iflstats_full_sec_db, e); },
       kTargetRatio,
       kInterfaces,
       30,
       {},
       {},
       {}});
  constexpr int kCodecOps = 2000;
  pairs.push_back({"encode (vs memcpy)",
                   [&](std::vector<Entry>&) {
                     for (int i = 0; i < kCodecOps; ++i) {
                       vsk::stats::Buffer buf;
                       uint32_t len = 0;
                       vsk::stats::EncodeIflstatsFull(typical, &buf, &len);
                       g_sink += buf.get()[len - 1];
                     }
                     return true;
                   },
                   [&](std::vector<Entry>&) {
                     for (int i = 0; i < kCodecOps; ++i) {
                       std::memcpy(target.data(), bytes.data(), bytes.size());
                       asm volatile("" : : "r"(target.data()) : "memory");
                     }
                     return true;
                   },
                   0,
                   kCodecOps,
                   20,
                   {},
                   {},
                   {}});
  pairs.push_back({"decode + free (vs memcpy)",
                   [&](std::vector<Entry>&) {
                     for (int i = 0; i < kCodecOps; ++i) {
                       libstats_iflstats_full_t r{};
                       vsk::stats::DecodeIflstatsFull(
                           reinterpret_cast<const uint8_t*>(bytes.data()),
                           static_cast<uint32_t>(bytes.size()), &r);
                       g_sink += r.stats[LS_CLEARED].qcntr[7]->output_packets;
                       libstats_free_iflstats_full_all(&r);
                     }
                     return true;
                   },
                   pairs.back().raw,
                   0,
                   kCodecOps,
                   20,
                   {},
                   {},
                   {}});
  if (LibWrite(entries) == false || !Measure(pairs, entries)) {
    std::fprintf(stderr, g_stop ? "interrupted\n" : "a pass failed\n");
    return 1;
  }
  std::printf(
      "full interface statistics records of %zu bytes, %d records (%d interfaces x %d "
      "locations)\n",
      bytes.size(), kRecords, kInterfaces, kLocations);
  std::printf("medians of %d rounds, library and baseline passes alternating in order\n\n",
              kRounds);
  Print(pairs);
  for (Entry& e : entries) {
    libstats_free_iflstats_full_all(e.record);
    libstats_free_iflstats_full_record(e.record);
  }
  return 0;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/vsk-bench.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  std::string root = tmpl;
  setenv("VSK_ROOT", root.c_str(), 1);
  setenv("VSK_RE_ROLE", "master", 1);
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  int code = 1;
  vsk_status_t st = OpenStore();
  if (st != VSK_OK) {
    std::fprintf(stderr, "cannot open the store: %d (%s)\n", st, vsk_get_err_msg(st));
  } else {
    code = Run();
  }
  vsk_close_internal();
  vsk_db_reset_orvd_handle();
  vsk::shared::RemoveAllRootObjects();
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return code;
}
