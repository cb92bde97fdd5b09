// Module loading refusals and dispatch through loaded modules.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "api/dispatch.h"
#include "api/eventlog_api.h"
#include "api/module_loader.h"
#include "common/temp_root.h"

namespace tavo_server {
namespace {

std::string Mod(const std::string& name) {
  return std::string(TAVO_TEST_MODULE_DIR) + "/" + name + ".so";
}

TEST(ModuleLoaderTest, RefusesBrokenModulesNamingTheFile) {
  struct Case {
    const char* module;
    const char* reason;
  } cases[] = {
      {"nosym", "does not export GetAPITable"},
      {"nullrow", "row 1: null method name"},
      {"version0", "row 0: version 0"},
      {"endless", "no terminator row within 4096 rows"},
      {"repeat", "row 1 repeats TAVO.Test.Repeat v1 echo"},
      {"baddesc", "describes TAVO.Test.Desc v1 other, which its table does not have"},
      {"newabi",
       "built for platform ABI 99 (it needs libtavo.so.99), but this server provides ABI 1"},
  };
  for (const Case& c : cases) {
    ModuleSet set;
    Status s = set.LoadFile(Mod(c.module));
    ASSERT_FALSE(s.ok()) << c.module;
    EXPECT_NE(s.message().find(Mod(c.module)), std::string::npos) << s.message();
    EXPECT_NE(s.message().find(c.reason), std::string::npos) << s.message();
    EXPECT_EQ(set.MethodCount(), 0u) << c.module;
  }
  ModuleSet set;
  EXPECT_FALSE(set.LoadFile(std::string(TAVO_TEST_MODULE_DIR) + "/missing.so").ok());
}

TEST(ModuleLoaderTest, RefusesAMethodAnotherModuleClaims) {
  ModuleSet set;
  ASSERT_TRUE(set.LoadFile(Mod("good")).ok());
  Status s = set.LoadFile(Mod("duplicate"));
  ASSERT_FALSE(s.ok());
  EXPECT_NE(s.message().find("TAVO.Test v1 echo is already provided by " + Mod("good")),
            std::string::npos)
      << s.message();
  // Nothing of the refused module is served, not even its other rows.
  MethodEntry entry;
  EXPECT_EQ(set.Find("TAVO.Test.Other", 1, "echo", &entry), ModuleSet::Lookup::kNoApi);
  // The server's own API is claimed like a module's.
  ASSERT_TRUE(RegisterEventLogApi(&set).ok());
  EXPECT_FALSE(RegisterEventLogApi(&set).ok());
}

TEST(ModuleLoaderTest, FolderLoadFailsWholeOnOneBadModule) {
  tavo_test::TempRoot root;
  const std::string dir = root.Path("/modules");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  ModuleSet empty;
  int loaded = -1;
  ASSERT_TRUE(empty.LoadFolder(dir, &loaded).ok());
  EXPECT_EQ(loaded, 0);

  ASSERT_EQ(symlink(Mod("good").c_str(), (dir + "/a.so").c_str()), 0);
  ASSERT_EQ(symlink(Mod("version0").c_str(), (dir + "/b.so").c_str()), 0);
  ModuleSet set;
  Status s = set.LoadFolder(dir, &loaded);
  EXPECT_FALSE(s.ok());
  EXPECT_NE(s.message().find(dir + "/b.so"), std::string::npos) << s.message();
  unlink((dir + "/b.so").c_str());
  ModuleSet good;
  EXPECT_TRUE(good.LoadFolder(dir, &loaded).ok());
  EXPECT_EQ(loaded, 1);
  ASSERT_EQ(0, tavo_test::TempRoot::Run("rm -r " + dir));
  EXPECT_FALSE(good.LoadFolder(dir, &loaded).ok());
}

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(set_.LoadFile(Mod("good")).ok()); }
  CallResult Run(const std::string& api, int version, const std::string& method) {
    ApiCall call;
    call.api = api;
    call.version = version;
    call.method = method;
    call.params["x"] = 5;
    return Dispatch(set_, call, "alice");
  }
  ModuleSet set_;
};

TEST_F(DispatchTest, LookupTellsApiVersionAndMethodApart) {
  EXPECT_EQ(Run("TAVO.Nope", 1, "echo").lookup, ModuleSet::Lookup::kNoApi);
  EXPECT_EQ(Run("TAVO.Test", 2, "echo").lookup, ModuleSet::Lookup::kNoVersion);
  EXPECT_EQ(Run("TAVO.Test", 1, "nope").lookup, ModuleSet::Lookup::kNoMethod);
  Json::Value info = set_.Info();
  ASSERT_EQ(info["apis"].size(), 1u);
  EXPECT_EQ(info["apis"][0]["methods"][1].asString(), "throw_std");  // table order
}

TEST_F(DispatchTest, RunsWithTheRequestAccountSet) {
  CallResult r = Run("TAVO.Test", 1, "echo");
  ASSERT_EQ(r.lookup, ModuleSet::Lookup::kFound);
  EXPECT_EQ(r.code, 3200);
  EXPECT_TRUE(r.envelope["success"].asBool());
  EXPECT_EQ(r.envelope["data"]["params"]["x"].asInt(), 5);
  EXPECT_EQ(r.envelope["data"]["request_account"].asString(), "alice");
  EXPECT_EQ(r.envelope["data"]["thread_account"].asString(), "alice");
}

TEST_F(DispatchTest, ExceptionsAndUnwrittenAnswersBecome3299) {
  for (const char* method : {"throw_std", "throw_other", "silent"}) {
    CallResult r = Run("TAVO.Test", 1, method);
    EXPECT_EQ(r.code, 3299) << method;
    EXPECT_FALSE(r.envelope["success"].asBool()) << method;
    EXPECT_EQ(r.envelope["error"]["code"].asInt(), 3299) << method;
    EXPECT_FALSE(r.envelope.isMember("data")) << method;
  }
}

}  // namespace
}  // namespace tavo_server
