// See clients_table.h.
#include "libvsk/orvd_client/clients_table.h"

#include <fstream>
#include <sstream>
#include <thread>

#include "platform/paths.h"

namespace vsk::orvd {

void WriteClientsRow(std::ostream& out, const std::string& name, const ClientsRow& row) {
  out << name << ' ' << row.pid << ' ' << row.role << ' ' << row.recovery_complete << ' '
      << row.issu_state << ' ' << row.connected << ' ' << row.replication_requests << '\n';
}

std::map<std::string, ClientsRow> ReadClientsTable() {
  std::map<std::string, ClientsRow> rows;
  std::ifstream in(platform::RootedPath(kClientsTableFile));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name;
    ClientsRow r;
    if (fields >> name >> r.pid >> r.role >> r.recovery_complete >> r.issu_state >>
        r.connected >> r.replication_requests) {
      rows[name] = r;
    }
  }
  return rows;
}

bool WaitForClientsRow(const std::string& name, const std::function<bool(const ClientsRow&)>& done,
                       ClientsRow* row, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto rows = ReadClientsTable();
    auto it = rows.find(name);
    *row = it != rows.end() ? it->second : ClientsRow{};
    if (it != rows.end() && done(*row)) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace vsk::orvd
