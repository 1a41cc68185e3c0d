// vskctl run as a real process, as an operator would, against shared state that real
// daemons (orvd and registered clients) have filled; JSON output parsed, texts checked.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "libvsk/shared/intf_layout.h"
#include "libvsk/shared/root_objects.h"
#include "vskctl_fixture.h"

namespace vsk::test {
namespace {

using nlohmann::json;

// What the filling daemon does, as session creation would count three sessions.
struct CountedSession {
  int32_t state;
  uint32_t type;
  int32_t ifl_type;
};
constexpr CountedSession kSessions[] = {{1, 1, 0}, {2, 4, 1}, {2, 0x2000, 7}};
// Bits 0, 7 and 18 in every session.
constexpr uint8_t kConfigBits[3] = {0x81, 0x00, 0x04};
// Slot -> value after the three.
const std::map<int, uint32_t> kExpectedSlots = {{0, 3},  {2, 1},  {3, 2},  {7, 3},  {9, 1},
                                                {11, 1}, {22, 1}, {23, 3}, {24, 1}, {25, 1},
                                                {27, 1}, {28, 3}, {35, 3}, {46, 3}};

struct IntfAdd {
  const char* name;
  uint32_t kind;
  vsk_session_id_t id;
  uint8_t set_state;
  uint32_t state;
};
constexpr IntfAdd kIntfAdds[] = {{"ge-0/0/0.100", 1, 0, 0, 0},
                                 {"ge-0/0/0.100", 1, 0, 0, 0},
                                 {"ge-0/0/0", 2, 7, 1, 4},
                                 {"ge-0/0/0", 2, 5, 0, 0},
                                 {"xe-1/2/3.7", 3, 9, 1, 2}};

int FillSharedState() {
  for (const CountedSession& s : kSessions) {
    if (vsk_summary_counter_increment_state(s.state, nullptr) != 0 ||
        vsk_summary_counter_increment_ifl_type(s.ifl_type, nullptr) != 0 ||
        vsk_summary_counter_increment_type(s.type, nullptr) != 0 ||
        vsk_summary_counter_increment_total(nullptr) != 0 ||
        vsk_summary_counter_increment_config_bits(kConfigBits, 3, nullptr) != 0) {
      return 1;
    }
  }
  uint32_t unit = 0;
  for (int i = 0; i < 3; ++i) {
    if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_IFL) != 0) return 2;
  }
  for (int i = 0; i < 2; ++i) {
    if (vsk_unit_allocate(&unit, VSK_UNIT_POOL_UID) != 0) return 3;
  }
  for (const IntfAdd& a : kIntfAdds) {
    if (vsk_db_interface_add(a.name, a.kind, a.id, a.set_state, a.state) != 0) return 4;
  }
  return vsk_trigger_sync() == 0 ? 0 : 5;
}

class VskctlListings : public VskctlTest {
 protected:
  // orvd up, a client that filled the shared state and stays registered.
  void SetUp() override {
    VskctlTest::SetUp();
    StartOrvd();
    client_.Start([](Child::Channel& ch) {
      return AsRegisteredClient([&ch] {
        int rc = FillSharedState();
        ch.Ready();
        ch.WaitGo();
        return rc;
      });
    });
    ASSERT_TRUE(client_.WaitReady());
  }
  void TearDown() override {
    client_.Go();
    EXPECT_TRUE(client_.Wait().Ok());
    VskctlTest::TearDown();
  }

  Child client_;
};

TEST_F(VskctlListings, CountersNameAll49SlotsWithTheirValues) {
  ToolResult r = RunTool({"--json", "counters"});
  ASSERT_EQ(r.code, 0) << r;
  json counters = r.Json()["counters"];
  ASSERT_EQ(counters.size(), 49u);
  std::set<std::string> names;
  for (const json& c : counters) {
    int slot = c["slot"];
    names.insert(c["name"].get<std::string>());
    auto it = kExpectedSlots.find(slot);
    EXPECT_EQ(c["value"].get<uint32_t>(), it == kExpectedSlots.end() ? 0u : it->second)
        << "slot " << slot << " " << c["name"];
  }
  EXPECT_EQ(names.size(), 49u) << "every slot has a name of its own";
  EXPECT_EQ(counters[0]["name"], "clients_total");
  EXPECT_EQ(counters[22]["name"], "type_bit_13_up");
  EXPECT_EQ(counters[48]["name"], "config_bit_other");

  r = RunTool({"counters", "--nonzero"});
  ASSERT_EQ(r.code, 0) << r;
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\n +0  total +clients_total +3\n)"))) << r;
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\n +46  config_bit +config_bit_18 +3\n)")));
  EXPECT_EQ(r.out.find("state_0"), std::string::npos) << "a zero counter is left out";
}

TEST_F(VskctlListings, PoolsShowTheAllocatorsDumpAndUsage) {
  ToolResult r = RunTool({"pools", "--type", "0"});
  ASSERT_EQ(r.code, 0) << r;
  EXPECT_EQ(r.out,
            "pool 0 interface_units: size 262143, used 3, free 262140, first unit 1073741824, "
            "listed\n"
            "unit number allocator {\nmax unit number = 262143\nhead = 3\ntail = 262142\n"
            "master = 1\nallocated = {\n0\n1\n2\n}\n}\n");

  r = RunTool({"pools", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  json pools = r.Json()["pools"];
  ASSERT_EQ(pools.size(), 2u);
  EXPECT_EQ(pools[0]["used"], 3);
  EXPECT_EQ(pools[0]["free"], 262140);
  EXPECT_EQ(pools[0]["allocated"], json::array({0, 1, 2}));
  EXPECT_EQ(pools[1]["name"], "uid_numbers");
  EXPECT_EQ(pools[1]["first_unit"], 1000);
  EXPECT_EQ(pools[1]["used"], 2);
  EXPECT_EQ(pools[1]["state"], "listed");
}

TEST_F(VskctlListings, InterfacesListCountsStateAndSessions) {
  ToolResult r = RunTool({"interfaces", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  json doc = r.Json();
  EXPECT_TRUE(doc["damage"].is_null());
  EXPECT_EQ(doc["interface_count"], 3);
  json expected = json::parse(R"([
    {"name":"ge-0/0/0","ifl_count":0,"uifl_count":2,"state":4,"sessions":[5,7]},
    {"name":"ge-0/0/0.100","ifl_count":2,"uifl_count":0,"state":0,"sessions":[]},
    {"name":"xe-1/2/3.7","ifl_count":1,"uifl_count":1,"state":2,"sessions":[9]}])");
  EXPECT_EQ(doc["interfaces"], expected);

  r = RunTool({"interfaces", "--sessions", "--name", "ge-0/0/0"});
  ASSERT_EQ(r.code, 0) << r;
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\nge-0/0/0 +0 +2 +4 5 7\n$)"))) << r;
  r = RunTool({"interfaces", "--name", "nowhere"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("interface nowhere is not in the table"), std::string::npos) << r;
}

TEST_F(VskctlListings, DaemonsAndStoreShowTheLiveSystem) {
  ToolResult r = RunTool({"daemons", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  json row;
  const json daemons = r.Json()["daemons"];
  for (const json& d : daemons) {
    if (d["name"] == "vsk-client") row = d;
  }
  ASSERT_FALSE(row.is_null()) << r;
  EXPECT_EQ(row["pid"], client_.pid());
  EXPECT_EQ(row["role"], "master");
  EXPECT_EQ(row["connected"], true);
  r = RunTool({"daemons"});
  EXPECT_TRUE(std::regex_search(
      r.out, std::regex("\nvsk-client +" + std::to_string(client_.pid()) + " master +no ")))
      << r;

  r = RunTool({"store", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  json s = r.Json();
  EXPECT_EQ(s["role"], "master");
  EXPECT_EQ(s["shared_state"]["status_name"], "ready");
  EXPECT_EQ(s["orvd"]["socket_present"], true);
  json env = s["environment"];
  EXPECT_EQ(env["available"], true);
  EXPECT_EQ(env["state"], "open");
  EXPECT_EQ(env["replication"]["role"], "master");
  EXPECT_EQ(env["thread_slots"]["limit"], 100);
  EXPECT_EQ(env["locks"]["limit"], 4096);
  EXPECT_EQ(env["lockers"]["limit"], 4096);
  EXPECT_GT(env["transactions"]["commits"].get<uint64_t>(), 0u);
  EXPECT_GE(env["log"]["files"].get<int>(), 1);
  EXPECT_GT(env["data_bytes"].get<uint64_t>(), 0u);
  r = RunTool({"store"});
  EXPECT_EQ(r.code, 0) << r;
  EXPECT_NE(r.out.find("shared state     ready (status word 3)"), std::string::npos) << r;
}

// Sessions made by the library's own create call, listed by a walk and dumped one by one.
TEST_F(VskctlTest, SessionsAreListedAndDumped) {
  StartOrvd();
  struct Made {
    const char* user;
    uint32_t type;
    uint32_t state;
    const char* ifl;
  };
  static constexpr Made kMade[] = {{"ann@isp", 1, 1, "ge-0/0/1.10"},
                                   {"bob@isp", 4, 2, "ge-0/0/1.11"},
                                   {"cy@isp", 1, 2, "ge-0/0/2.5"}};
  ASSERT_TRUE(RunInChild([] {
                return AsRegisteredClient([] {
                  for (const Made& m : kMade) {
                    uint32_t state = m.state;
                    vsk_attr_t attrs[3] = {
                        {VSK_USER_NAME, static_cast<uint16_t>(std::strlen(m.user)),
                         const_cast<char*>(m.user), nullptr},
                        {VSK_INTERFACE_NAME, static_cast<uint16_t>(std::strlen(m.ifl)),
                         const_cast<char*>(m.ifl), nullptr},
                        {VSK_SESSION_STATE, sizeof state, &state, nullptr}};
                    vsk_attr_list_t list;
                    vsk_attr_list_init(&list);
                    for (vsk_attr_t& a : attrs) vsk_attr_list_append(&list, &a);
                    vsk_session_id_t id = 0;
                    if (vsk_create_client_session(m.type, &list, nullptr, nullptr, &id) != 0) {
                      return 1;
                    }
                  }
                  return 0;
                });
              }).Ok());
  ToolResult r = RunTool({"sessions", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  const json rows = r.Json()["sessions"];
  ASSERT_EQ(rows.size(), 3u) << r;
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(rows[i]["user_name"], kMade[i].user);
    EXPECT_EQ(rows[i]["type"], kMade[i].type);
    EXPECT_EQ(rows[i]["state"], kMade[i].state);
    EXPECT_EQ(rows[i]["interface"], kMade[i].ifl);
    EXPECT_TRUE(rows[i]["underlying_interface"].is_null());
  }
  const std::string bob = std::to_string(rows[1]["id"].get<uint64_t>());
  r = RunTool({"sessions"});
  EXPECT_TRUE(std::regex_search(
      r.out, std::regex("\n +" + bob + " +4 +2 +- +0 ge-0/0/1\\.11 +- +bob@isp\n")))
      << r;
  r = RunTool({"sessions", "--limit", "2", "--json"});
  EXPECT_EQ(r.Json()["count"], 2);

  r = RunTool({"session", bob});
  ASSERT_EQ(r.code, 0) << r;
  // The library's dump, byte for byte but for the login time that create adds first (an
  // attribute the dump does not name, printed without a line end).
  EXPECT_TRUE(std::regex_match(
      r.out, std::regex("Client session " + bob +
                        " \\{\nSession attributes \\{\nunknown session attribute 15 = (\\d+ )+"
                        "client_session_type=4\nuser name=bob@isp\ninterface name=ge-0/0/1\\.11\n"
                        "client session state=2\nDynamic default configuration \\{\n\\}\n"
                        "Service sessions \\{\n\\}\n\\}\n")))
      << r;
  r = RunTool({"session", bob, "--json"});
  ASSERT_EQ(r.code, 0) << r;
  json doc = r.Json();
  EXPECT_EQ(doc["client_session_id"].get<uint64_t>(), std::stoull(bob));
  EXPECT_EQ(doc["attributes"][2], json({{"type", 17}, {"length", 7}, {"hex", "626f6240697370"}}));
  EXPECT_EQ(doc["dump"].get<std::string>().rfind("Client session " + bob + " {\n", 0), 0u);
  r = RunTool({"session", "999999"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("session 999999 does not exist"), std::string::npos) << r;
}

// A root with no usable store: the failing object is named, the exit code is 1, nothing
// is created, and no listing reaches stdout.
TEST_F(VskctlTest, RefusesRootsWithoutAUsableStore) {
  struct Case {
    const char* what;
    std::function<void()> setup;
    std::vector<std::string> commands;
    std::string message;
  };
  const Case cases[] = {
      {"no key file",
       [this] { unlink(Path(platform::kShmKeyFile).c_str()); },
       {"counters", "pools", "interfaces", "store", "sessions"},
       "vsk_shmem is missing"},
      {"nothing started",
       nullptr,
       {"counters", "pools", "interfaces", "sessions"},
       "does not exist"},
      {"nothing started", nullptr, {"daemons"}, "orvd_clients does not exist"},
      {"nothing started", nullptr, {"store"}, "store environment"},
      {"segment of another size",
       [] { ASSERT_NE(shmget(shared::RootObjects().front().key, 4096, IPC_CREAT | 0600), -1); },
       {"counters", "pools", "interfaces", "store", "sessions"},
       "made by another version"},
      // orvd made the store, then the status word went back to "recovering" (orvd is
      // stopped first: a live orvd would soon rebuild it).
      {"store recovering",
       [this] {
         StartOrvd();
         orvd_.Stop();
         ASSERT_TRUE(RunInChild([] {
                       if (vsk_open_internal(false) != 0) return 1;
                       *vsk_db_status = VSK_DB_STATUS_RECOVERING;
                       vsk_close_internal();
                       return 0;
                     }).Ok());
       },
       {"counters", "pools", "interfaces", "store", "sessions"},
       "not ready: its status word is 2 (recovering)"},
      {"orvd stopped",
       [this] {
         StartOrvd();
         orvd_.Stop();
       },
       {"sessions"},
       "cannot register with orvd at"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    SetUp();
    if (c.setup) c.setup();
    auto before = std::distance(std::filesystem::recursive_directory_iterator(root()),
                                std::filesystem::recursive_directory_iterator());
    for (const std::string& cmd : c.commands) {
      for (bool as_json : {false, true}) {
        std::vector<std::string> args = {cmd};
        if (as_json) args.push_back("--json");
        ToolResult r = RunTool(args);
        EXPECT_EQ(r.code, 1) << cmd << "\n" << r;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << cmd << "\n" << r;
        if (cmd != "store") {
          EXPECT_EQ(r.out, "") << cmd;
        }
      }
    }
    EXPECT_EQ(before, std::distance(std::filesystem::recursive_directory_iterator(root()),
                                    std::filesystem::recursive_directory_iterator()))
        << "a reader created files under the root";
  }
}

TEST_F(VskctlTest, UsageErrorsExitTwoAndMissingReadsSaySo) {
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string err;
  };
  const Case cases[] = {
      {{}, 2, "A subcommand is required"},
      {{"bogus"}, 2, ""},
      {{"--nope", "counters"}, 2, ""},
      {{"session", "0"}, 2, "not in range"},
      {{"session", "x"}, 2, ""},
      {{"pools", "--type", "2"}, 2, ""},
      {{"serve-metrics", "--listen", "nonsense"}, 2, "HOST:PORT"},
      {{"--help"}, 0, ""},
      {{"--root", "/nonexistent/root", "counters"}, 1, "root /nonexistent/root is not a directory"},
  };
  for (const Case& c : cases) {
    ToolResult r = RunTool(c.args);
    EXPECT_EQ(r.code, c.code) << r;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r;
  }
}

// Faults in the interface table: a holder that died inside it, and damaged files. The
// reader reports each, exits 1, never crashes, and changes nothing.
TEST_F(VskctlTest, InterfaceTableFaultsAreReportedNotRepaired) {
  StartOrvd();
  ASSERT_TRUE(AddInterfacesAsClient("ge-0/0/", 40, 3));
  // A holder dies inside the table while orvd is down, so that nothing repairs it.
  orvd_.Stop();
  ChildResult dead = RunInChild([] {
    if (vsk_lock_init(false) != 0 || vsk_db_secondary_init(false) != 0) return 1;
    if (shared::intf::TestSeam::Lock() != 0) return 2;
    raise(SIGKILL);
    return 3;
  });
  ASSERT_EQ(dead.signal, SIGKILL) << dead;
  const std::string file = Path("/mfs/var/vsk/shmem/vsk_intf.db");
  auto read_file = [&] {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const std::string original = read_file();
  ToolResult r = RunTool({"interfaces", "--json"});
  EXPECT_EQ(r.code, 1) << r;
  EXPECT_EQ(r.Json()["interface_count"], 40);
  EXPECT_NE(r.err.find("was left locked by pid"), std::string::npos) << r;
  EXPECT_EQ(read_file(), original) << "the reader must leave the dead holder's mark for orvd";

  using shared::intf::FileHeader;
  using shared::intf::InterfaceRecord;
  const uint32_t root_node = reinterpret_cast<const FileHeader*>(original.data())->interfaces.root;
  struct Damage {
    const char* what;
    std::function<void(std::string*)> apply;
    std::string message;
  };
  auto put32 = [](std::string* b, size_t at, uint32_t v) { std::memcpy(b->data() + at, &v, 4); };
  const Damage damages[] = {
      {"root outside the file",
       [&](std::string* b) { put32(b, offsetof(FileHeader, interfaces), 0x7ffffff0); }, "outside"},
      {"left link to itself",
       [&](std::string* b) { put32(b, root_node + offsetof(SHGenAVLNode, left), root_node); },
       "deeper"},
      {"right link to itself",
       [&](std::string* b) { put32(b, root_node + offsetof(SHGenAVLNode, right), root_node); },
       "more nodes than"},
      {"node of another record",
       [&](std::string* b) { put32(b, root_node + offsetof(SHGenAVLNode, data), root_node - 60); },
       "does not belong"},
      {"never formatted", [](std::string* b) { (*b)[0] = 0; }, "not formatted"},
      {"cut inside the header", [](std::string* b) { b->resize(20); }, "shorter than its header"},
  };
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.what);
    std::string bytes = original;
    put32(&bytes, offsetof(FileHeader, lock_pid), 0);
    d.apply(&bytes);
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    for (const char* lock : {"--no-lock", "--sessions"}) {
      r = RunTool({"interfaces", lock});
      EXPECT_EQ(r.code, 1) << r;
      EXPECT_NE(r.err.find(d.message), std::string::npos) << r;
    }
  }
}

// A long walk shows progress on a terminal, and none when piped or asked not to; the
// listing is the same either way.
TEST_F(VskctlTest, ProgressOnlyOnATerminal) {
  StartOrvd();
  ASSERT_TRUE(AddInterfacesAsClient("pp0.", 300, 1));
  ToolResult piped = RunTool({"interfaces"});
  ASSERT_EQ(piped.code, 0) << piped;
  EXPECT_EQ(piped.err, "");
  ToolResult tty = RunOnTerminal({"interfaces"});
  ASSERT_EQ(tty.code, 0) << tty;
  EXPECT_NE(tty.out.find("\r\033[Kinterfaces 1/300 (0%)"), std::string::npos) << tty.out;
  EXPECT_NE(tty.out.find("pp0.299"), std::string::npos);
  ToolResult quiet = RunOnTerminal({"--no-progress", "interfaces"});
  EXPECT_EQ(quiet.out.find("interfaces 1/300"), std::string::npos) << quiet.out;
  // The terminal turns each "\n" into "\r\n"; otherwise it shows exactly the piped listing.
  EXPECT_EQ(std::regex_replace(quiet.out, std::regex("\r\n"), "\n"), piped.out);
}

// The store the demo leaves behind (with --keep), read as a new user would.
TEST_F(VskctlTest, ReadsTheStoreTheDemoLeaves) {
  ToolResult demo = RunTool({"--keep"}, VSK_BINARY_DIR "/tools/vsk-demo");
  ASSERT_EQ(demo.code, 0) << demo;
  ToolResult r = RunTool({"store", "--json"});
  EXPECT_EQ(r.code, 0) << r;
  json env = r.Json()["environment"];
  EXPECT_GT(env["transactions"]["commits"].get<uint64_t>(), 0u);
  EXPECT_GT(env["data_bytes"].get<uint64_t>(), 0u);
  for (const char* cmd : {"counters", "pools", "interfaces"}) {
    r = RunTool({cmd, "--json"});
    EXPECT_EQ(r.code, 0) << cmd << "\n" << r;
    EXPECT_NO_THROW(r.Json()) << cmd;
  }
  // The session reads need orvd: start it again on the demo's store.
  StartOrvd();
  r = RunTool({"sessions", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  const json sessions = r.Json()["sessions"];
  ASSERT_EQ(sessions.size(), 1u) << r;
  EXPECT_EQ(sessions[0]["user_name"], "alice@isp.example");
  EXPECT_EQ(sessions[0]["type"], 1);
  r = RunTool({"session", std::to_string(sessions[0]["id"].get<uint64_t>())});
  EXPECT_EQ(r.code, 0) << r;
  EXPECT_NE(r.out.find("Session attributes {\nuser name=alice@isp.example\n"), std::string::npos)
      << r;
  // Nobody is registered once vskctl has left (orvd publishes that a moment later): no row
  // may show as connected.
  OrvdProcess::WaitForRow("vskctl", [](const OrvdTableRow& row) { return row.connected == 0; });
  r = RunTool({"daemons", "--json"});
  ASSERT_EQ(r.code, 0) << r;
  const json daemons = r.Json()["daemons"];
  for (const json& d : daemons) EXPECT_EQ(d["connected"], false) << d;
}

}  // namespace
}  // namespace vsk::test
