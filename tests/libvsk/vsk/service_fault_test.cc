// The pass limits of the service operations, with deadlocks injected at their first
// table read: an update and a create give up after four passes, a removal keeps going.
#include <db.h>

#include "libvsk/base/fault.h"
#include "session_rows.h"
#include "vsk/service.h"

namespace vsk::test {
namespace {

class ServiceFaultTest : public EngineTest {
 protected:
  void TearDown() override {
    fault::DisarmAll();
    EngineTest::TearDown();
  }
};

TEST_F(ServiceFaultTest, DeadlocksAreRetriedUpToEachOperationsLimit) {
  AttrList attrs{{VSK_SESSION_STATE, U32(1)}};
  const uint64_t client = Create(attrs, false);
  vsk_session_id_t id = 0;
  ASSERT_EQ(vsk_create_service_session_by_client_id(client, "svc", nullptr, nullptr, &id), 0);
  UpdateList state;
  state.Replace(VSK_SESSION_STATE, U32(2));
  struct Case {
    const char* what;
    uint32_t deadlocks;
    vsk_status_t status;
    const char* retry_trace;  // one per failed pass
  } cases[] = {
      {"update", 3, 0, "vsk_update_service_session_internal: Failed to read service session"},
      {"update", 4, VSK_ERR_RETRY,
       "vsk_update_service_session_internal: Failed to read service session"},
      {"create", 3, 0,
       "vsk_create_service_session_by_client_id: Failed to read client session, err="},
      {"create", 4, VSK_ERR_RETRY,
       "vsk_create_service_session_by_client_id: Failed to read client session, err="},
      {"remove", 40, 0, "vsk_remove_service_session: Failed to read the service session"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.what) + " " + std::to_string(c.deadlocks));
    traces().Clear();
    // The first read of each pass is the service record (update, removal) or, behind
    // the new service's put, the client record (create).
    fault::Arm(fault::Kind::kDbGet, 1, DB_LOCK_DEADLOCK, c.deadlocks);
    vsk_session_id_t made = 0;
    vsk_status_t st =
        c.what == std::string("update") ? vsk_update_service_session(id, state.get())
        : c.what == std::string("create")
            ? vsk_create_service_session_by_client_id(client, "svc", nullptr, nullptr, &made)
            : vsk_remove_service_session(id);
    fault::DisarmAll();
    EXPECT_EQ(st, c.status) << traces().Dump();
    EXPECT_EQ(traces().CountContaining(c.retry_trace), static_cast<int>(c.deadlocks))
        << traces().Dump();
  }
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  ASSERT_EQ(vsk_db_get_client_session(&txn, &client, &rec, false), 0);
  EXPECT_EQ(rec->service_count, 1u) << "the create that got through; the removed one is gone";
  vsk_db_release_client_session(rec, true);
}

}  // namespace
}  // namespace vsk::test
