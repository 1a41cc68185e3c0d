// The metrics endpoint (vskctl serve-metrics) scraped over loopback while other processes
// change what it exports, and beside clients that are slow, idle or malformed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <map>
#include <regex>
#include <set>
#include <thread>

#include "vskctl_fixture.h"

namespace vsk::test {
namespace {

using Clock = std::chrono::steady_clock;

// An exporter process on a free loopback port; it dies with the test (see Exec).
class Exporter {
 public:
  bool Start() {
    pid_ = Spawn(kVskctl,
                 {"serve-metrics", "--listen", "127.0.0.1:0", "--store-interval", "0.1",
                  "--client-timeout", "2"},
                 &out_, &err_);
    char line[256] = "";
    std::FILE* out = fdopen(out_, "r");
    if (out == nullptr || std::fgets(line, sizeof line, out) == nullptr) return false;
    std::cmatch m;
    if (!std::regex_search(line, m, std::regex(R"(on http://127\.0\.0\.1:(\d+)/metrics)")))
      return false;
    port_ = std::stoi(m[1]);
    return true;
  }
  // SIGTERM; the exit code.
  int Stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int port() const { return port_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  int port_ = 0;
};

int Connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval tv{30, 0};  // a stalled server fails the test instead of hanging it
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? fd : -1;
}

// Everything the server sends until it closes (or 30 s of silence).
std::string ReadAll(int fd) {
  std::string out;
  char buf[8192];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

std::string Request(int port, const std::string& raw) {
  int fd = Connect(port);
  (void)!write(fd, raw.data(), raw.size());
  std::string out = ReadAll(fd);
  close(fd);
  return out;
}

// A parsed exposition: sample values by "name{labels}", and every rule it broke.
struct Scrape {
  std::map<std::string, double> values;
  std::vector<std::string> errors;
  double operator[](const std::string& key) const {
    auto it = values.find(key);
    return it == values.end() ? -1 : it->second;
  }
};

Scrape ParseExposition(const std::string& response) {
  Scrape s;
  size_t body = response.find("\r\n\r\n");
  if (response.rfind("HTTP/1.1 200 OK\r\n", 0) != 0 || body == std::string::npos ||
      response.find("Content-Type: text/plain; version=0.0.4") == std::string::npos) {
    s.errors.push_back("not a 200 exposition: " + response.substr(0, 200));
    return s;
  }
  static const std::regex kHelp(R"(# HELP (vsk_[a-z0-9_]+) \S.*)");
  static const std::regex kType(R"(# TYPE (vsk_[a-z0-9_]+) (gauge|counter))");
  static const std::regex kSample(
      R"((vsk_[a-z0-9_]+)(\{[a-z_]+="[^"\\]*"(,[a-z_]+="[^"\\]*")*\})? (\S+))");
  std::set<std::string> families;
  std::string helped, typed;
  std::istringstream in(response.substr(body + 4));
  std::string line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_match(line, m, kHelp)) {
      if (!families.insert(m[1]).second) s.errors.push_back("family twice: " + line);
      helped = m[1];
      typed.clear();
    } else if (std::regex_match(line, m, kType)) {
      if (m[1] != helped) s.errors.push_back("TYPE without its HELP: " + line);
      if (m[2] == "counter" && !std::regex_search(line, std::regex("_total counter$"))) {
        s.errors.push_back("counter without _total: " + line);
      }
      typed = m[1];
    } else if (std::regex_match(line, m, kSample)) {
      if (m[1] != typed) s.errors.push_back("sample outside its family: " + line);
      const std::string text = m[4].str();
      char* end = nullptr;
      double v = std::strtod(text.c_str(), &end);
      if (*end != '\0') s.errors.push_back("bad value: " + line);
      s.values[m[1].str() + m[2].str()] = v;
    } else {
      s.errors.push_back("unparsable line: " + line);
    }
  }
  return s;
}

Scrape Get(int port) {
  return ParseExposition(
      Request(port, "GET /metrics HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n"));
}

class MetricsTest : public VskctlTest {};

TEST_F(MetricsTest, ScrapesFollowWhatOtherProcessesChange) {
  StartOrvd();
  Exporter exporter;
  ASSERT_TRUE(exporter.Start());
  Scrape first = Get(exporter.port());
  ASSERT_TRUE(first.errors.empty()) << ::testing::PrintToString(first.errors);
  EXPECT_EQ(first["vsk_shared_state_up"], 1);
  EXPECT_EQ(first["vsk_db_status"], 3);
  EXPECT_EQ(first["vsk_client_sessions"], 0);
  EXPECT_EQ(first["vsk_unit_pool_size{pool=\"interface_units\"}"], 262143);

  // Three processes count sessions in and out; every scrape meanwhile must parse and show
  // whole values.
  constexpr int kUp = 1000, kDown = 400, kWriters = 3;
  std::vector<std::unique_ptr<Child>> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(std::make_unique<Child>());
    writers.back()->Start([](Child::Channel&) {
      if (vsk_summary_counter_open() != 0) return 1;
      for (int i = 0; i < kUp; ++i) {
        vsk_summary_counter_increment_state(2, nullptr);
        vsk_summary_counter_increment_total(nullptr);
      }
      for (int i = 0; i < kDown; ++i) {
        vsk_summary_counter_decrement_state(2);
        vsk_summary_counter_decrement_total();
      }
      return 0;
    });
  }
  int scrapes_during = 0;
  for (auto& w : writers) {
    while (kill(w->pid(), 0) == 0 && scrapes_during < 50) {
      Scrape s = Get(exporter.port());
      ++scrapes_during;
      ASSERT_TRUE(s.errors.empty()) << ::testing::PrintToString(s.errors);
      EXPECT_LE(s["vsk_client_sessions"], kWriters * kUp);
      EXPECT_GE(s["vsk_client_sessions"], 0);
    }
    EXPECT_TRUE(w->Wait().Ok());
  }
  // A registered daemon takes units, adds interfaces and commits transactions.
  const double commits_before = Get(exporter.port())["vsk_bdb_transactions_committed_total"];
  ASSERT_TRUE(RunInChild([] {
                return AsRegisteredClient([] {
                  uint32_t unit;
                  for (int i = 0; i < 5; ++i) {
                    if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL) != 0) return 1;
                  }
                  for (const char* n : {"ae0.1", "ae0.2", "ae1", "ae2"}) {
                    if (vsk_db_interface_add(n, 3, 11, 0, 0) != 0) return 2;
                  }
                  return vsk_trigger_sync() == 0 && vsk_trigger_sync() == 0 ? 0 : 3;
                });
              }).Ok());
  Scrape after = Get(exporter.port());
  EXPECT_TRUE(after.errors.empty()) << ::testing::PrintToString(after.errors);
  EXPECT_EQ(after["vsk_client_sessions"], kWriters * (kUp - kDown));
  EXPECT_EQ(after["vsk_client_sessions_by_state{state=\"2\"}"], kWriters * (kUp - kDown));
  EXPECT_EQ(after["vsk_client_sessions_by_state{state=\"sum\"}"], kWriters * (kUp - kDown));
  EXPECT_EQ(after["vsk_unit_pool_used{pool=\"interface_units\"}"], 5);
  EXPECT_EQ(after["vsk_unit_pool_free{pool=\"interface_units\"}"], 262143 - 5);
  EXPECT_EQ(after["vsk_interface_table_interfaces"], 4);
  EXPECT_EQ(after["vsk_interface_table_uifl_sessions"], 4);
  EXPECT_EQ(after["vsk_exporter_scrapes_total"],
            first["vsk_exporter_scrapes_total"] + scrapes_during + 2);
  // The store figures come from the collector: wait for a probe after the commits.
  Scrape store;
  for (auto end = Clock::now() + std::chrono::seconds(30); Clock::now() < end;) {
    store = Get(exporter.port());
    if (store["vsk_bdb_transactions_committed_total"] > commits_before) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_GE(store["vsk_bdb_transactions_committed_total"], commits_before + 2);
  EXPECT_EQ(store["vsk_store_up"], 1);
  EXPECT_EQ(store["vsk_bdb_replication_role{role=\"master\"}"], 1);
  EXPECT_EQ(store["vsk_bdb_thread_slots_limit"], 100);
  EXPECT_EQ(exporter.Stop(), 0);
}

TEST_F(MetricsTest, SlowIdleAndMalformedClientsDoNotStallIt) {
  Exporter exporter;
  ASSERT_TRUE(exporter.Start());
  const int port = exporter.port();
  struct Bad {
    const char* what;
    std::string bytes;
  };
  const Bad bad[] = {
      {"idle", ""},
      {"half a request line", "GET /metr"},
      {"half the headers", "GET /metrics HTTP/1.1\r\nHost: t\r\nX-Slow: "},
      {"not HTTP", std::string("\x16\x03\x01\x02\x00\xff\xfe garbage\r\n\r\n", 20)},
      {"headers past the limit",
       "GET /metrics HTTP/1.1\r\n" + std::string(20000, 'a') + "\r\n\r\n"},
      {"a body", "POST /metrics HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"},
      {"pipelined and never read",
       [] {
         std::string r;
         for (int i = 0; i < 300; ++i) r += "GET /metrics HTTP/1.1\r\nHost: t\r\n\r\n";
         return r;
       }()},
  };
  std::vector<int> fds;
  for (const Bad& b : bad) {
    int fd = Connect(port);
    ASSERT_GE(fd, 0) << b.what;
    int small = 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    if (!b.bytes.empty()) (void)!send(fd, b.bytes.data(), b.bytes.size(), MSG_NOSIGNAL);
    fds.push_back(fd);
  }
  // With every one of them still connected, a plain scrape is answered.
  Scrape s = Get(port);
  EXPECT_TRUE(s.errors.empty()) << ::testing::PrintToString(s.errors);
  EXPECT_EQ(s["vsk_shared_state_up"], 0) << "no store on this root";
  EXPECT_EQ(s["vsk_interface_table_up"], 0);
  std::string other = Request(port, "GET /other HTTP/1.1\r\nHost: t\r\n\r\n");
  EXPECT_EQ(other.rfind("HTTP/1.1 404", 0), 0u) << other;
  // The server ends each of them: an error answer or a close, never silence.
  for (size_t i = 0; i + 1 < fds.size(); ++i) {
    std::string answer = ReadAll(fds[i]);
    bool refused = answer.rfind("HTTP/1.1 4", 0) == 0 || answer.rfind("HTTP/1.1 5", 0) == 0;
    EXPECT_TRUE(answer.empty() || refused) << bad[i].what << ": " << answer;
    close(fds[i]);
  }
  close(fds.back());
  EXPECT_TRUE(Get(port).errors.empty());
  EXPECT_EQ(exporter.Stop(), 0);
}

}  // namespace
}  // namespace vsk::test
