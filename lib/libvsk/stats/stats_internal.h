// Helpers shared by the statistics sources: the store gate, a transaction guard, and the
// Berkeley DB descriptors the operations use.
//
// Everything here runs on the caller's thread, inside one call; nothing is kept.
#pragma once

#include <db.h>

#include <cstdint>
#include <cstdlib>

#include "libvsk/base/trace.h"
#include "libvsk/store/txn.h"
#include "vsk/libstats.h"
#include "vsk/store.h"

namespace vsk::stats {

// Names and opens the five tables in `env` (libstats_init_db).
int InitDb(DB_ENV* env);
// Closes them and frees the names (libstats_db_close).
int CloseDb();

// True when the store is usable. Otherwise traces "<caller>: bad vsk env ptr".
bool StoreUsable(const char* caller);

// The traces of an operation in a transaction of its own (RunInTxn).
struct TxnTexts {
  const char* name;           // the operation's name, first argument of the traces
  const char* op_failed;      // traced with (name, status) when the operation fails; may be null
  const char* commit_report;  // reported through the table handle when the commit fails
  const char* commit_failed;  // traced when the commit fails: with (name, status) if
  bool commit_named;          // commit_named, else with (status)
};

// Runs `op(txn)`, a table operation that returns a status, in a transaction of its own:
// committed when the operation succeeds, aborted otherwise. The status of the operation
// or of the commit comes back.
template <typename Op>
vsk_status_t RunInTxn(DB* table, const TxnTexts& texts, Op&& op) {
  vsk_db_txn_t block{};
  store::Txn txn(&block);
  vsk_status_t st = txn.Begin();
  if (st != VSK_OK) return st;
  st = op(block.txn);
  if (st != VSK_OK) {
    txn.Fail(st);
    if (texts.op_failed != nullptr) VSK_TRACE(texts.op_failed, texts.name, st);
    return st;
  }
  st = txn.Commit();
  if (st != VSK_OK && texts.commit_failed != nullptr) {
    table->errx(table, "%s", texts.commit_report);
    if (texts.commit_named) {
      VSK_TRACE(texts.commit_failed, texts.name, st);
    } else {
      VSK_TRACE(texts.commit_failed, st);
    }
  }
  return st;
}

// A descriptor of bytes that Berkeley DB reads.
inline DBT InDbt(const void* data, uint32_t size) {
  DBT d{};
  d.data = const_cast<void*>(data);
  d.size = size;
  return d;
}

// A descriptor that Berkeley DB fills with memory it allocates; freed with the object
// unless Release()d.
class MallocDbt {
 public:
  MallocDbt() { dbt_.flags = DB_DBT_MALLOC; }
  ~MallocDbt() { std::free(dbt_.data); }
  MallocDbt(const MallocDbt&) = delete;
  MallocDbt& operator=(const MallocDbt&) = delete;

  DBT* dbt() { return &dbt_; }
  const uint8_t* data() const { return static_cast<const uint8_t*>(dbt_.data); }
  uint32_t size() const { return dbt_.size; }
  void* Release() {
    void* p = dbt_.data;
    dbt_.data = nullptr;
    return p;
  }
  // Frees what the last read gave, before the next one.
  void Reset() {
    std::free(dbt_.data);
    dbt_.data = nullptr;
    dbt_.size = 0;
  }

 private:
  DBT dbt_{};
};

// A key built in the fixed key buffer of the module.
struct KeyBuffer {
  uint8_t bytes[LIBSTATS_KEY_BUFFER_SIZE] = {};
  uint32_t len = 0;
  DBT Dbt() const { return InDbt(bytes, len); }
};

}  // namespace vsk::stats
