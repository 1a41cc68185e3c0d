// What the acts of the demo share: the rows that act 1 writes and act 2 reads back from
// another process, the codec of those raw rows, and the acts themselves.
#pragma once

#include <cstdint>
#include <string>

#include "libvsk/orvd_client/clients_table.h"
#include "vsk/session.h"
#include "vsk/status.h"

namespace vsk::demo {

// Raw rows of an application-defined table (the daemons' own tables, which hold no
// sessions): a 12-byte key, the row's id and a tag, and text bytes as the value (no
// terminator is stored). Their ids lie far above the ids the shared generator hands out
// to a fresh root, so they never meet the real session of act 1.
struct RawRow {
  uint64_t id;
  const char* value;
};
inline constexpr RawRow kRawRows[] = {
    {900001, "raw row 1: written through dyn_db_put"},
    {900002, "raw row 2: same transaction as row 1"},
    {900003, "raw row 3: committed with rows 1 and 2"},
};
// An id that act 1 never writes: reading it must give "not found".
inline constexpr uint64_t kMissingId = 900099;

// The client process's program name (its argv[0]), under which orvd lists it.
inline constexpr char kClientName[] = "vsk-demo";

// The one real client session of act 1.
inline constexpr char kUserName[] = "alice@isp.example";
inline constexpr char kInterfaceName[] = "demo0.1073741824";
inline constexpr uint32_t kClientType = 1;

// The application-defined table of the raw rows, by table id and name. Each process that
// reads or writes it defines it once (the first definition of an id stands).
inline constexpr int16_t kRawTableId = 1;
inline constexpr char kRawTableName[] = "vsk-demo-raw-rows";
vsk_status_t DefineRawTable();

// Writes and reads a raw row through the generic table layer (dyn_db_put / dyn_db_get) on
// the process's raw-row table. Reads return the value's bytes.
vsk_status_t PutRawRows(const RawRow* rows, int count);
vsk_status_t GetRawRow(uint64_t id, std::string* value);
// Reads every row of kRawRows back and prints each; false (after printing why) on the
// first status or value that is not what act 1 wrote.
bool ReadBackRawRows();
// Reads the client session `id` and prints its attributes; false unless it holds exactly
// what act 1 stored.
bool ReadBackSession(vsk_session_id_t id);

// Act 1, in this process, as the creating daemon. On success *session_id is the id under
// which the client session was stored.
bool RunCreator(vsk_session_id_t* session_id);
// Act 2: orvd and a client process (this program at `self`, with --client).
bool RunDaemons(const std::string& self, vsk_session_id_t session_id);
// The client process of act 2; returns its exit code.
int RunClient(vsk_session_id_t session_id);

// The root's System V objects: removes those whose keys the library derives from the key
// files under `root`, prints what went, then checks that no object carrying those keys is
// left. 0 when nothing of the root remains, 1 otherwise (with the reason printed).
int RemoveRootObjects(const std::string& root);

// Prints one row of orvd's published table of daemons.
void SayOrvdRow(const std::string& name, const orvd::ClientsRow& row);

// Name of an environment state, for the transcript.
const char* StateName(int state);

}  // namespace vsk::demo
