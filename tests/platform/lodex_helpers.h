// Helpers of the replication queue's tests: sending and receiving through the public
// calls, the counters, and a second mapping of the queue as another process has it.
#pragma once

#include <pthread.h>
#include <sys/shm.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/lodex.h"
#include "support/harness.h"

namespace vsk::test {

using platform::LodexQueueHeader;
using platform::LodexRecordHeader;

class LodexTest : public VskTest {
 protected:
  void TearDown() override {
    lodex_release(0);
    VskTest::TearDown();
  }
};

inline DBT Dbt(const std::string& s) {
  DBT d{};
  d.data = const_cast<char*>(s.data());
  d.size = static_cast<uint32_t>(s.size());
  return d;
}

inline int Send(const std::string& control, const std::string& rec, uint32_t lsn_file = 1,
         uint32_t lsn_offset = 0, int envid = DB_EID_BROADCAST, uint32_t flags = 0) {
  DBT c = Dbt(control);
  DBT r = Dbt(rec);
  DB_LSN lsn{lsn_file, lsn_offset};
  return lodex_send(nullptr, &c, &r, &lsn, envid, flags);
}

struct Received {
  std::string control;
  std::string rec;
  lodex_msg_t msg{};
};

// 1 with a message, 0 when empty, the receive's failure otherwise.
inline int Receive(Received* out, uint32_t room = 1 << 16) {
  std::vector<char> buffer(room);
  int r = lodex_receive(&out->msg, buffer.data(), room);
  if (r == 1) {
    out->control.assign(static_cast<char*>(out->msg.control), out->msg.control_size);
    out->rec.assign(static_cast<char*>(out->msg.rec), out->msg.rec_size);
  }
  return r;
}

inline lodex_stats_t Stats() {
  lodex_stats_t s{};
  EXPECT_EQ(lodex_get_stats(&s), 0);
  return s;
}

// A second mapping of the queue, as another process would have it.
inline LodexQueueHeader* MapQueue() {
  int id = shmget(platform::LodexKey(), 0, 0);
  if (id < 0) return nullptr;
  void* p = shmat(id, nullptr, 0);
  return p == reinterpret_cast<void*>(-1) ? nullptr : static_cast<LodexQueueHeader*>(p);
}

}  // namespace vsk::test
