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

std::vector<std::pair<std::string, ClientsRow>> ReadClientsRows() {
  std::vector<std::pair<std::string, ClientsRow>> rows;
  std::ifstream in(platform::RootedPath(kClientsTableFile));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name;
    ClientsRow r;
    if (fields >> name >> r.pid >> r.role >> r.recovery_complete >> r.issu_state >>
        r.connected >> r.replication_requests) {
      rows.emplace_back(std::move(name), r);
    }
  }
  return rows;
}

std::map<std::string, ClientsRow> ReadClientsTable() {
  std::map<std::string, ClientsRow> rows;
  for (auto& [name, row] : ReadClientsRows()) rows[name] = row;
  return rows;
}

bool WaitForClientsRow(const std::string& name, const std::function<bool(const ClientsRow&)>& done,
                       ClientsRow* row, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    *row = ClientsRow{};
    for (const auto& [n, r] : ReadClientsRows()) {
      if (n != name) continue;
      *row = r;
      if (done(r)) return true;
    }
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool WaitForNoClientsRow(const std::string& name, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    bool found = false;
    for (const auto& [n, r] : ReadClientsRows()) found = found || n == name;
    if (!found) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace vsk::orvd
