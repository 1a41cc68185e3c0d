// vsk-load as operators run it: the real program, the real orvd and worker processes on a
// test root. A small run must pass its closing check with exact call counts; a session
// that the run did not make must make the check fail, with the session named.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "support/attr_lists.h"
#include "support/harness.h"
#include "support/orvd_process.h"
#include "vsk/vsk.h"

namespace vsk::test {
namespace {

struct LoadRun {
  int code = -1;
  std::string out;
};

LoadRun RunLoad(const std::string& args) {
  LoadRun r;
  const std::string cmd = std::string(VSK_BINARY_DIR "/tools/vsk-load ") + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// The JSON document of a run that passed its check; discarded when there is none.
nlohmann::json PassedRun(const LoadRun& r) {
  const size_t at = r.out.find('{');
  if (r.code != 0 || at == std::string::npos) return nlohmann::json::value_t::discarded;
  nlohmann::json j = nlohmann::json::parse(r.out.substr(at), nullptr, false);
  if (j.is_discarded() || j["oracle"] != "ok") return nlohmann::json::value_t::discarded;
  return j;
}

class LoadTest : public VskTest {};

TEST_F(LoadTest, SmallRunPassesTheCheckWithEveryCallCounted) {
  LoadRun r = RunLoad(
      "--workers 2 --sessions 2000 --live 200 --setup-updates 5 --reads 3 --json --baseline");
  ASSERT_EQ(r.code, 0) << r.out;
  nlohmann::json j = nlohmann::json::parse(r.out.substr(r.out.find('{')), nullptr, false);
  ASSERT_FALSE(j.is_discarded()) << r.out;
  EXPECT_EQ(j["oracle"], "ok");
  EXPECT_EQ(j["lifecycles"], 2000);
  EXPECT_EQ(j["leftovers_removed"], 0);
  const struct {
    const char* step;
    int calls;
  } kCalls[] = {{"create", 2000},
                {"setup-update", 10000},
                {"activate", 2000},
                {"snapshot+reads", 2000},
                {"remove", 2000}};
  for (const auto& c : kCalls) {
    EXPECT_EQ(j["steps"][c.step]["calls"], c.calls) << c.step;
    EXPECT_GT(j["steps"][c.step]["p999_us"].get<double>(), 0) << c.step;
    // The raw replay makes the same table operations, and none for the slot-only update.
    const bool slot_only = std::string(c.step) == "setup-update";
    EXPECT_EQ(j["steps"][c.step]["raw"]["calls"], slot_only ? 0 : c.calls) << c.step;
    EXPECT_EQ(j["steps"][c.step]["ratio"].is_null(), slot_only) << c.step;
    EXPECT_EQ(j["steps"][c.step]["ratio_p50"].is_null(), slot_only) << c.step;
  }
  EXPECT_EQ(j["raw"]["lifecycles"], 2000);
  EXPECT_GT(j["lifecycle_ratio_p50"].get<double>(), 0);
  EXPECT_GT(j["lifecycles_per_second"].get<double>(), 0);
}

// A run for a time rather than a count stops by itself and leaves nothing behind.
TEST_F(LoadTest, DurationRunEndsAndPassesTheCheck) {
  LoadRun r = RunLoad("--workers 2 --duration 1 --live 50 --json");
  nlohmann::json j = PassedRun(r);
  ASSERT_FALSE(j.is_discarded()) << r.out;
  EXPECT_GT(j["lifecycles"].get<uint64_t>(), 0u);
  EXPECT_EQ(j["steps"]["remove"]["calls"], j["lifecycles"]);
}

// Chaos: workers killed with SIGKILL at random and orvd killed once and started again. The
// other workers wait the store out, and the check, made against what orvd's recovery walk
// rebuilt, holds; the killed workers' sessions read back as written.
TEST_F(LoadTest, ChaosKillsWorkersAndOrvdAndTheCheckHolds) {
  LoadRun r = RunLoad("--workers 2 --sessions 600 --live 100 --chaos --seed 3 --json");
  ASSERT_FALSE(PassedRun(r).is_discarded()) << r.out;
  unsigned killed = 0, orvd_kills = 0;
  const size_t at = r.out.find("vsk-load: chaos: ");
  ASSERT_NE(at, std::string::npos) << r.out;
  ASSERT_EQ(std::sscanf(r.out.c_str() + at, "vsk-load: chaos: %u workers killed (%*u of them by "
                        "orvd), orvd killed %u times", &killed, &orvd_kills), 2) << r.out;
  EXPECT_GT(killed, 0u) << r.out;
  EXPECT_EQ(orvd_kills, 1u) << r.out;
}

// --mix chooses the steps between create and removal, and how often each runs.
TEST_F(LoadTest, MixChoosesTheSteps) {
  const struct {
    const char* mix;
    int setup, activate, snapshot;  // calls per lifecycle
  } kMixes[] = {{"setup-update=2,snapshot=2,reads=1", 2, 0, 2},
                {"setup-update=1,activate,snapshot=1,reads=3", 1, 1, 1}};
  for (const auto& m : kMixes) {
    LoadRun r = RunLoad(std::string("--workers 2 --sessions 200 --live 30 --json --mix ") + m.mix);
    nlohmann::json j = PassedRun(r);
    ASSERT_FALSE(j.is_discarded()) << m.mix << ": " << r.out;
    EXPECT_EQ(j["steps"]["create"]["calls"], 200) << m.mix;
    EXPECT_EQ(j["steps"]["setup-update"]["calls"], 200 * m.setup) << m.mix;
    EXPECT_EQ(j["steps"]["activate"]["calls"], 200 * m.activate) << m.mix;
    EXPECT_EQ(j["steps"]["snapshot+reads"]["calls"], 200 * m.snapshot) << m.mix;
    EXPECT_EQ(j["steps"]["remove"]["calls"], 200) << m.mix;
  }
  for (const char* bad : {"reads=2", "fly", "setup-update=x", "activate=2", "snapshot=-1"}) {
    LoadRun r = RunLoad(std::string("--workers 1 --sessions 10 --mix ") + bad);
    EXPECT_EQ(r.code, 2) << bad << ": " << r.out;
    EXPECT_NE(r.out.find("--mix"), std::string::npos) << bad << ": " << r.out;
  }
}

// Options out of range are refused before anything starts.
TEST_F(LoadTest, BadOptionsAreRefusedWithUsage) {
  for (const char* args : {"--workers 0", "--workers 65", "--sessions 0", "--live 0",
                           "--duration -1", "--setup-updates -1", "--sessions x"}) {
    LoadRun r = RunLoad(args);
    EXPECT_NE(r.code, 0) << args;
    EXPECT_EQ(r.out.find("oracle"), std::string::npos) << args << ": " << r.out;
  }
}

// A session left on the root by an earlier daemon is one the run did not make: the check
// must name it and the run must fail.
TEST_F(LoadTest, ASessionTheRunDidNotMakeFailsTheCheck) {
  OrvdProcess orvd;
  ASSERT_TRUE(orvd.Start());
  ChildResult made = RunInChild([] {
    orvd_ctx_t* ctx = orvd_init_handle();
    if (ctx == nullptr || orvd_set_reg_type_poll(ctx) != 0 || orvd_register(ctx) != 0) return 10;
    AttrList attrs;
    attrs.Add(VSK_INTERFACE_NAME, std::string("stray0.1") + '\0');
    vsk_session_id_t id = 0;
    vsk_status_t st = vsk_create_client_session(2, attrs.get(), nullptr, nullptr, &id);
    orvd_unregister(&ctx);
    return st == 0 ? 0 : 11;
  });
  ASSERT_TRUE(made.Ok()) << made;
  ASSERT_EQ(orvd.Stop(), 0);

  LoadRun r = RunLoad("--workers 2 --sessions 200 --live 20 --quiet");
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_NE(r.out.find("oracle: MISMATCH"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("is still in the store"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace vsk::test
