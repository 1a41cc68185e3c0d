// The table of registered daemons that orvd publishes for operators, tests and tools.
//
// orvd rewrites the whole file shortly after a change (through a rename, so a reader never
// sees half a table), one line per live registered connection:
//   name pid role recovery_complete issu_state connected replication_requests
// A row goes with its connection; a daemon that has left shows role 0 and connected 0
// until it closes the connection. Names hold no blanks or control characters, so each
// line splits into exactly these fields. Two connections of one program give two rows
// with the same name. A reader in another process sees a change a moment after the
// message that caused it, so waiting for a state goes through WaitForClientsRow.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vsk::orvd {

// Rooted like every path of the system.
inline constexpr const char kClientsTableFile[] = "/var/run/orvd_clients";

struct ClientsRow {
  int pid = 0;
  int role = 0;  // 3 master, 1 standby, 0 left
  int recovery_complete = 0;
  unsigned issu_state = 0;
  int connected = 0;
  unsigned replication_requests = 0;
};

// Writes one line of the table.
void WriteClientsRow(std::ostream& out, const std::string& name, const ClientsRow& row);

// The table as published now, in its order; empty when there is none.
std::vector<std::pair<std::string, ClientsRow>> ReadClientsRows();
// The same by daemon name (of two rows with one name, the later one).
std::map<std::string, ClientsRow> ReadClientsTable();

// Waits up to `timeout` for a row of `name` to satisfy `done`. True with the row in *row
// when one did; false with the last row seen (or a default one) otherwise.
bool WaitForClientsRow(const std::string& name, const std::function<bool(const ClientsRow&)>& done,
                       ClientsRow* row,
                       std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Waits up to `timeout` until no row of `name` is left. True when none is.
bool WaitForNoClientsRow(const std::string& name,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace vsk::orvd
