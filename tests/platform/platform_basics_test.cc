// Root relocation, the program-name test, the routing engine's role and the platform's
// model id.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "platform/hwframe.h"
#include "platform/paths.h"
#include "platform/product_info.h"
#include "platform/progname.h"
#include "support/harness.h"
#include "vsk/product_info.h"
#include "vsk/store.h"

namespace vsk::test {
namespace {

class PlatformTest : public VskTest {};

TEST_F(PlatformTest, PathsFollowRoot) {
  EXPECT_EQ(platform::RootedPath("/mfs/var/vsk/"), root() + "/mfs/var/vsk/");
  char buf[16];
  size_t need = platform::RootedPath("/mfs/var/tmp/vsk_shmem", buf, sizeof buf);
  EXPECT_EQ(need, root().size() + 22);
  EXPECT_EQ(std::string(buf), (root() + "/mfs/var/tmp/vsk_shmem").substr(0, 15));
  setenv("VSK_ROOT", (root() + "///").c_str(), 1);
  EXPECT_EQ(platform::RootedPath("/var/run/x"), root() + "/var/run/x");
  unsetenv("VSK_ROOT");
  EXPECT_EQ(platform::RootedPath("/mfs/var/vsk/"), "/mfs/var/vsk/");
  EXPECT_EQ(platform::SemaphoreKey(), 8888);
  setenv("VSK_ROOT", root().c_str(), 1);
}

TEST_F(PlatformTest, SemaphoreKeyIsPerRoot) {
  key_t mine = platform::SemaphoreKey();
  ASSERT_NE(mine, -1);
  EXPECT_NE(mine, 8888);
  std::string other = root() + "/other";
  setenv("VSK_ROOT", other.c_str(), 1);
  EXPECT_EQ(platform::SemaphoreKey(), -1) << "no key file under that root";
  ASSERT_TRUE(platform::MakeDirs(other + "/mfs/var/tmp"));
  std::ofstream(other + "/mfs/var/tmp/vsk_shmem").close();
  key_t theirs = platform::SemaphoreKey();
  EXPECT_NE(theirs, -1);
  EXPECT_NE(theirs, mine);
  setenv("VSK_ROOT", root().c_str(), 1);
}

TEST_F(PlatformTest, OrvdIsRecognisedByFirstFourCharacters) {
  for (auto [name, orvd] : {std::pair{"orvd", true}, std::pair{"orvdx-helper", true},
                            std::pair{"orv", false}, std::pair{"xorvd", false}}) {
    ScopedProgramName as(name);
    EXPECT_EQ(platform::IsOrvdProgram(), orvd) << name;
  }
}

TEST_F(PlatformTest, ModelTableHas71ModelsThreeScaling) {
  auto models = platform::SupportedModels();
  EXPECT_EQ(models.size(), 71u);
  int scaling = 0;
  for (size_t i = 0; i < models.size(); ++i) {
    if (i > 0) {
      EXPECT_LT(models[i - 1].model_id, models[i].model_id);
    }
    scaling += models[i].scaling;
    EXPECT_TRUE(platform::FindModel(models[i].model_id).has_value());
  }
  EXPECT_EQ(scaling, 3);
  EXPECT_FALSE(platform::FindModel(2100).has_value());
  EXPECT_FALSE(platform::FindModel(2324).has_value());
}

TEST_F(PlatformTest, DefaultModelRunsTheStore) {
  unsetenv("VSK_MODEL_ID");
  platform::ResetProductInfo();
  ASSERT_NE(product_info_data(), nullptr);
  EXPECT_EQ(product_info_data()->model_id, platform::kDefaultModelId);
  EXPECT_TRUE(vsk_db_supported());
  EXPECT_TRUE(vsk_db_rep_supported());
  EXPECT_FALSE(vsk_db_support_scaling());
}

TEST_F(PlatformTest, DeploymentSelectsModel) {
  setenv("VSK_MODEL_ID", "2322", 1);
  platform::ResetProductInfo();
  EXPECT_TRUE(vsk_db_supported());
  EXPECT_TRUE(vsk_db_support_scaling());

  setenv("VSK_MODEL_ID", "1999", 1);
  platform::ResetProductInfo();
  ASSERT_NE(product_info_data(), nullptr);
  EXPECT_FALSE(vsk_db_supported());
  EXPECT_FALSE(vsk_db_rep_supported());
  EXPECT_FALSE(vsk_db_support_scaling());

  setenv("VSK_MODEL_ID", "none", 1);
  platform::ResetProductInfo();
  EXPECT_EQ(product_info_data(), nullptr);
  EXPECT_FALSE(vsk_db_supported());

  setenv("VSK_MODEL_ID", "12abc", 1);
  platform::ResetProductInfo();
  EXPECT_EQ(product_info_data(), nullptr) << "a malformed id is no record";
  unsetenv("VSK_MODEL_ID");
}

TEST_F(PlatformTest, ProgramSetRecordWins) {
  setenv("VSK_MODEL_ID", "none", 1);
  platform::ResetProductInfo();
  product_info_t own{};
  own.model_id = 2323;
  product_infop = &own;
  EXPECT_TRUE(vsk_db_supported());
  EXPECT_TRUE(vsk_db_support_scaling());
  product_infop = nullptr;
  EXPECT_FALSE(vsk_db_supported());
  unsetenv("VSK_MODEL_ID");
}

TEST_F(PlatformTest, RoleFollowsTheDeploymentVariable) {
  struct Case {
    const char* value;  // null: unset
    bool master;
  } cases[] = {{nullptr, true}, {"standby", false}, {"master", true}, {"stand-by", true}};
  for (const Case& c : cases) {
    if (c.value == nullptr) {
      unsetenv("VSK_RE_ROLE");
    } else {
      setenv("VSK_RE_ROLE", c.value, 1);
    }
    EXPECT_EQ(hwframe_is_vc_or_single_re_protocol_master(), c.master)
        << (c.value != nullptr ? c.value : "unset");
  }
  unsetenv("VSK_RE_ROLE");
}

}  // namespace
}  // namespace vsk::test
