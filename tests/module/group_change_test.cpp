// TAVO.Core.Group create, set and delete: answers, account files, event log,
// reload hooks and log lines.
#include <unistd.h>

#include <utility>

#include "module/module_harness.h"
#include "tavo/handler.h"
#include "tavo/testing.h"

namespace tavo_test {
namespace {

class GroupChangeTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    root_->AddUser("alice", 1002, 100, "Alice");
    root_->AddGroup("staff", 1100, {"alice"});
    root_->AddGroup("alpha", 1201);
    root_->SetDescription("staff", "Staff people");
  }
  int GroupCount() { return CallGroup("list", "{}").data["total"].asInt(); }
};

TEST_F(GroupChangeTest, CreateWritesGroupEventAndReload) {
  Answer a = CallGroup("create", "{\"name\": \"Team\", \"description\": \"The team\"}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_EQ(a.data["name"], "Team");
  const unsigned gid = a.data["gid"].asUInt();
  EXPECT_GE(gid, 1000u);
  EXPECT_EQ(GroupLine("Team"), "Team:x:" + std::to_string(gid) + ":");
  EXPECT_EQ(CallGroup("get", "{\"name\": \"team\"}").data["groups"][0]["description"], "The team");
  EXPECT_EQ(Events(), std::vector<std::string>{"0x11800601 Team"});
  EXPECT_EQ(Reloads(), std::vector<std::string>{"8"});
  // Without a description the group gets an empty one.
  ASSERT_TRUE(CallGroup("create", "{\"name\": \"Other\"}").success);
  EXPECT_EQ(CallGroup("get", "{\"name\": \"Other\"}").data["groups"][0]["description"], "");
}

TEST_F(GroupChangeTest, CreateRefusals) {
  // An empty name is the handler's own refusal: no report even in debug mode.
  EXPECT_EQ(CallGroup("create", "{\"name\": \"\", \"enable_param_debug\": true}").code, 3201);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"STAFF\"}").code, 3206);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"sudo\"}").code, 3206);
  tavo::testing::FailNext("lock.handler", 0x0400);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"x1\"}").code, 3202);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:67 ExLock failed [0x0400 "));
  tavo::testing::FailNext("group.save", 0x1900);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"x2\"}").code, 3209);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:503 Failed to save 'x2' [0x1900 "));
  EXPECT_EQ(GroupLine("x2"), "");
  EXPECT_TRUE(Events().empty());
  EXPECT_TRUE(Reloads().empty());
}

// A save can still fail after the module's own checks (another writer took
// the name meanwhile, a full disk, ...): each platform error has its answer.
TEST_F(GroupChangeTest, SaveFailuresAreTranslatedOneByOne) {
  const std::pair<int, int> table[] = {{0x1700, 3206}, {0xB700, 3207}, {0x0300, 3211},
                                       {0x0400, 3202}, {0x1600, 3208}, {0x1800, 3205},
                                       {0x1900, 3209}, {0x0500, 3299}, {0x0100, 3299}};
  for (const auto& [platform, api] : table) {
    tavo::testing::FailNext("group.save", platform);
    EXPECT_EQ(CallGroup("create", "{\"name\": \"raced\"}").code, api) << std::hex << platform;
    tavo::testing::FailNext("group.save", platform);
    EXPECT_EQ(CallMember("add", "{\"group\": \"staff\", \"name\": \"admin\"}").code, api)
        << std::hex << platform;
  }
  EXPECT_EQ(GroupLine("raced"), "");
}

TEST_F(GroupChangeTest, CreateHonoursTheGroupLimit) {
  const int count = GroupCount();
  root_->Write("/etc/tavo/tavo.conf", "maxgroups = " + std::to_string(count + 1) + "\n");
  EXPECT_TRUE(CallGroup("create", "{\"name\": \"last\"}").success);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"one_more\"}").code, 3209);
  // Exactly at the limit the handler refuses on its own count, before the lock.
  tavo::testing::FailNext("lock.handler", 0x0400);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"one_more\"}").code, 3209);
  root_->Write("/etc/tavo/tavo.conf", "maxgroups = many\n");
  EXPECT_EQ(CallGroup("create", "{\"name\": \"none\"}").code, 3209);
  // The limit is tested before the lock is taken.
  tavo::testing::FailNext("lock.handler", 0x0400);
  EXPECT_EQ(CallGroup("create", "{\"name\": \"none\"}").code, 3209);
  EXPECT_EQ(GroupLine("one_more"), "");
}

TEST_F(GroupChangeTest, SetRenamesAndDescribes) {
  Answer a =
      CallGroup("set", "{\"name\": \"STAFF\", \"new_name\": \"crew\", \"description\": \"\"}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"name\": \"crew\", \"gid\": 1100}")));
  EXPECT_EQ(GroupLine("crew"), "crew:x:1100:alice");
  EXPECT_EQ(GroupLine("staff"), "");
  EXPECT_EQ(Events(), (std::vector<std::string>{"0x11800602 staff crew", "0x11800603 staff"}));
  EXPECT_EQ(Reloads(), std::vector<std::string>{"8"});
  // A change of case alone is a rename without the existence test.
  a = CallGroup("set", "{\"gid\": 1100, \"new_name\": \"Crew\"}");
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"name\": \"Crew\", \"gid\": 1100}")));
  // Nothing changed: saved, answered, but no event and no reload.
  a = CallGroup("set", "{\"name\": \"Crew\", \"new_name\": \"Crew\"}");
  EXPECT_TRUE(a.success);
  EXPECT_EQ(Events().size(), 3u);
  EXPECT_EQ(Reloads().size(), 2u);
}

TEST_F(GroupChangeTest, SetRefusals) {
  // "users" is refused before any lookup, even for a missing target.
  EXPECT_EQ(CallGroup("set", "{\"name\": \"nope\", \"new_name\": \"Users\"}").code, 3207);
  EXPECT_EQ(CallGroup("set", "{\"name\": \"staff\", \"new_name\": \"ALPHA\"}").code, 3206);
  EXPECT_EQ(CallGroup("set", "{\"name\": \"staff\", \"new_name\": \"root\"}").code, 3206);
  EXPECT_EQ(CallGroup("set", "{\"name\": \"nope\"}").code, 3208);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:165 Failed to load 'nope'"));
  EXPECT_EQ(CallGroup("set", "{\"gid\": 4242}").code, 3208);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:158 Failed to fetch gid=4242 [0x1600 "));
  EXPECT_EQ(CallGroup("set", "{\"name\": \"staff\", \"new_name\": \"a:b\"}").code, 3211);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:379 Failed to save 'staff'->'a:b' [0x0300 "));
  EXPECT_EQ(GroupLine("staff"), "staff:x:1100:alice");
  EXPECT_TRUE(Events().empty());
}

TEST_F(GroupChangeTest, DeleteReportsGroupsThatRemain) {
  Answer a =
      CallGroup("delete", "{\"name\": [\"staff\", \"users\", \"\"], \"gid\": [1201, 4242, 1100]}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"errors\": [{\"name\": \"users\", \"code\": 3212}]}")));
  EXPECT_TRUE(Logged(3, "src/Group.cpp:432 Bad name[2], skip it."));
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:442 Failed to fetch gid=4242 [0x1600 "));
  EXPECT_EQ(GroupLine("staff"), "");
  EXPECT_EQ(GroupLine("alpha"), "");
  EXPECT_NE(GroupLine("users"), "");
  // staff was listed twice (by name and by gid): two entries.
  EXPECT_EQ(Events(),
            (std::vector<std::string>{"0x11800600 staff", "0x11800600 alpha", "0x11800600 staff"}));
  EXPECT_EQ(Reloads(), std::vector<std::string>{"8"});
}

TEST_F(GroupChangeTest, DeleteWithNothingDeleted) {
  EXPECT_TRUE(JsonEq(CallGroup("delete", "{\"name\": \"\"}").data, Json::Value(Json::objectValue)));
  EXPECT_TRUE(JsonEq(CallGroup("delete", "{\"gid\": 4242}").data, Json::Value(Json::objectValue)));
  EXPECT_EQ(CallGroup("delete", "{\"name\": \"sudo\"}").data["errors"][0]["code"], 3212);
  EXPECT_TRUE(CallGroup("delete", "{}").success);
  EXPECT_TRUE(Logged(7, "src/Group.cpp:415 Nothing to be done"));
  tavo::testing::FailNext("group.delete", 0x0500);
  EXPECT_EQ(CallGroup("delete", "{\"name\": \"staff\"}").code, 3299);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:451 Failed to delete 1 groups [0x0500 "));
  EXPECT_NE(GroupLine("staff"), "");
  EXPECT_TRUE(Events().empty());
  EXPECT_TRUE(Reloads().empty());
}

// A writer waits for the handler lock on /tmp/grouplock, then gives up.
TEST_F(GroupChangeTest, HeldGroupLockRefusesWriters) {
  int fd = -1;
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/grouplock", true, &fd));
  EXPECT_EQ(CallGroup("create", "{\"name\": \"late\"}").code, 3202);
  EXPECT_EQ(CallGroup("list", "{}").code, 3202);
  ServerFormHandler::UnlockFile(fd);
  EXPECT_TRUE(CallGroup("create", "{\"name\": \"late\"}").success);
}

// A group made by groupadd is renamed and filled through the module while
// gpasswd changes it too; the files stay clean for the tools.
TEST_F(GroupChangeTest, WorksWithTheSystemAccountTools) {
  if (geteuid() != 0) GTEST_SKIP() << "the account tools' -P/-Q/-R options need root";
  const std::string dir = root_->dir();
  ASSERT_EQ(TempRoot::Run("groupadd -P " + dir + " -g 1500 fromtool"), 0);
  Answer a = CallGroup("set", "{\"name\": \"FromTool\", \"new_name\": \"tooled\"}");
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"name\": \"tooled\", \"gid\": 1500}")));
  ASSERT_TRUE(CallMember("add", "{\"group\": \"tooled\", \"name\": \"alice\"}").success);
  ASSERT_EQ(TempRoot::Run("gpasswd -Q " + dir + " -a guest tooled >/dev/null"), 0);
  EXPECT_EQ(CallMember("list", "{\"gid\": 1500}").data["total"], 2);
  EXPECT_EQ(root_->Grpck(), 0);
}

}  // namespace
}  // namespace tavo_test
