// The interface-table tests' fixture: a fresh root with the shared regions created as
// `orvd` creates them and an empty interface table mapped; helpers that read the table
// through the public interface.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "libvsk/shared/intf_file.h"
#include "libvsk/shared/uid_table.h"
#include "support/harness.h"
#include "vsk/intf.h"
#include "vsk/shared.h"

namespace vsk::test {

class IntfTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    AsOrvd();
    // No store here: the rebuild's UID step has no table to read.
    vsk::shared::UidTestSeam::SkipRecovery(true);
    ASSERT_EQ(vsk_open_internal(true), 0) << traces().Dump();
    ASSERT_EQ(vsk_db_secondary_init(true), 0) << traces().Dump();
    traces().Clear();
  }

  // As a daemon that attaches: forget the inherited mapping and map as a client.
  static int MapAsClient() {
    vsk::shared::intf::TestSeam::Forget();
    return vsk_db_secondary_init(false);
  }

  static std::vector<vsk_session_id_t> Clients(const char* name, vsk_status_t* rc = nullptr) {
    uint32_t count = 0;
    vsk_session_id_t* ids = nullptr;
    vsk_status_t s = vsk_db_get_clients_by_uifl(name, &count, &ids);
    if (rc != nullptr) *rc = s;
    std::vector<vsk_session_id_t> out;
    if (s == 0) {
      out.assign(ids, ids + count);
      std::free(ids);
    }
    return out;
  }

  static int NumClients(const char* name) {
    uint32_t count = 99;
    vsk_status_t rc = vsk_db_get_num_clients_on_uifl(name, &count);
    return rc == 0 ? static_cast<int>(count) : rc;
  }

  // The state of `name`, or the status when it has none.
  static int64_t State(const char* name) {
    uint32_t state = 0;
    vsk_status_t rc = vsk_db_interface_get_state(name, &state);
    return rc == 0 ? static_cast<int64_t>(state) : rc;
  }

  static void SetTotal(uint32_t n) { vsk_summary_counter[VSK_SUMMARY_COUNTER_TOTAL] = n; }
};

}  // namespace vsk::test
