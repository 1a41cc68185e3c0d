// See txn_registry.h.
#include "libvsk/store/txn_registry.h"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace vsk::store {
namespace {

struct LiveTxn {
  const vsk_db_txn_t* owner;
  DB_TXN* parent;
};

std::mutex g_mu;
// Never destroyed: a daemon's exit handlers may still end transactions.
auto* g_live = new std::unordered_map<DB_TXN*, LiveTxn>;

}  // namespace

void RegisterTxn(DB_TXN* txn, const vsk_db_txn_t* owner, DB_TXN* parent) {
  std::lock_guard<std::mutex> lock(g_mu);
  (*g_live)[txn] = LiveTxn{owner, parent};
}

bool TxnLive(DB_TXN* txn) {
  std::lock_guard<std::mutex> lock(g_mu);
  return g_live->count(txn) != 0;
}

bool TxnOwnedBy(DB_TXN* txn, const vsk_db_txn_t* owner) {
  std::lock_guard<std::mutex> lock(g_mu);
  auto it = g_live->find(txn);
  return it != g_live->end() && it->second.owner == owner;
}

void ForgetTxn(DB_TXN* txn) {
  std::lock_guard<std::mutex> lock(g_mu);
  // Children end with their parent; nesting is shallow and rare, so a walk per level of
  // nesting over the few live transactions is cheap.
  std::vector<DB_TXN*> gone{txn};
  for (size_t i = 0; i < gone.size(); ++i) {
    g_live->erase(gone[i]);
    for (const auto& [handle, live] : *g_live) {
      if (live.parent == gone[i]) gone.push_back(handle);
    }
  }
}

void ForgetAllTxns() {
  std::lock_guard<std::mutex> lock(g_mu);
  g_live->clear();
}

}  // namespace vsk::store
