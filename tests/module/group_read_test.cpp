// TAVO.Core.Group list, get and admin_check on real roots.
#include "module/module_harness.h"
#include "tavo/testing.h"
#include "tavo/util.h"

namespace tavo_test {
namespace {

class GroupReadTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    root_->AddUser("alice", 1002, 100, "Alice");
    root_->AddGroup("staff", 1100, {"admin", "alice"});
    root_->AddGroup("Beta", 1200);
    root_->SetDescription("staff", "Staff people");
  }
  void JoinDomain() {
    root_->Write("/etc/tavo/domain", "DOM\n");
    root_->Write("/etc/tavo/domain_group", "DOM\\Sales:x:30000:\n");
  }
};

TEST_F(GroupReadTest, ListDefaultsToAllLocalGroupsByNameOnly) {
  Answer a = CallGroup("list", "{}");
  ASSERT_TRUE(a.success);
  EXPECT_EQ(Names(a.data["groups"]),
            (std::vector<std::string>{"administrators", "Beta", "nogroup", "staff", "users"}));
  EXPECT_EQ(a.data["total"], 5);
  EXPECT_EQ(a.data["offset"], 0);
  EXPECT_TRUE(JsonEq(a.data["groups"][3], Parse("{\"name\": \"staff\", \"description\": \"\"}")));
}

TEST_F(GroupReadTest, ListPagesAndFiltersWithMembership) {
  Answer a =
      CallGroup("list", "{\"offset\": 3, \"limit\": 2, \"name_only\": false, \"user\": \"alice\"}");
  ASSERT_TRUE(a.success);
  EXPECT_EQ(a.data["total"], 5);
  EXPECT_EQ(a.data["offset"], 3);
  EXPECT_TRUE(
      JsonEq(a.data["groups"], Parse("[{\"name\": \"staff\", \"description\": \"Staff people\","
                                     " \"gid\": 1100, \"is_member\": true},"
                                     " {\"name\": \"users\", \"description\": \"\", \"gid\": 100,"
                                     " \"is_member\": true}]")));
  a = CallGroup("list", "{\"substr\": \"TAF\", \"user\": \"admin\", \"limit\": 0}");
  EXPECT_EQ(a.data["total"], 1);
  EXPECT_TRUE(JsonEq(a.data["groups"], Parse("[]")));
  a = CallGroup("list", "{\"offset\": 9}");
  EXPECT_TRUE(JsonEq(a.data["groups"], Parse("[]")));
  EXPECT_EQ(a.data["offset"], 9);
}

TEST_F(GroupReadTest, ListRefusals) {
  // Offset and limit are tested before the type.
  EXPECT_EQ(CallGroup("list", "{\"offset\": -1, \"type\": \"x\"}").code, 3201);
  EXPECT_TRUE(Logged(7, "src/Group.cpp:235 Bad parameter (offset=-1,limit=-1)"));
  EXPECT_FALSE(Logged(7, "src/Group.cpp:263 Bad parameter (type='x')"));
  EXPECT_EQ(CallGroup("list", "{\"limit\": -2}").code, 3201);
  EXPECT_EQ(CallGroup("list", "{\"type\": \"LOCAL\"}").code, 3201);
  EXPECT_TRUE(Logged(7, "src/Group.cpp:263 Bad parameter (type='LOCAL')"));
  EXPECT_EQ(CallGroup("list", "{\"type\": \"ldap\", \"user\": \"alice\"}").code, 3214);
  EXPECT_EQ(CallGroup("list", "{\"type\": \"domain\"}").code, 3215);
  EXPECT_EQ(CallGroup("list", "{\"user\": \"DOM\\\\alice\"}").code, 3201);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:269 'user' filter is for local user/group only"));
  // Handler-level refusals carry no report even in debug mode.
  Answer a = CallGroup("list", "{\"limit\": -2, \"enable_param_debug\": true}");
  EXPECT_FALSE(a.success);
}

TEST_F(GroupReadTest, ListDirectoryGroups) {
  JoinDomain();
  Answer a = CallGroup("list", "{\"type\": \"domain\"}");
  ASSERT_TRUE(a.success);
  EXPECT_EQ(Names(a.data["groups"]), std::vector<std::string>{"DOM\\Sales"});
  EXPECT_EQ(CallGroup("list", "{\"type\": \"domain\", \"user\": \"alice\"}").code, 3201);
  // A rebuild under way (this process holds the pid file), then the marker.
  int holder = 0;
  std::string error;
  const int fd = tavo::HoldPidFile("/tmp/domain_group.pid", &holder, &error);
  ASSERT_GE(fd, 0) << error;
  EXPECT_EQ(CallGroup("list", "{\"type\": \"domain\"}").code, 3203);
  tavo::ReleasePidFile("/tmp/domain_group.pid", fd);
  EXPECT_TRUE(CallGroup("list", "{\"type\": \"domain\"}").success);
  root_->Write("/run/tavo/domain_updating", "");
  EXPECT_EQ(CallGroup("list", "{\"type\": \"domain\"}").code, 3203);
  root_->Write("/etc/tavo/ldap", "example.com\n");
  EXPECT_EQ(CallGroup("list", "{\"type\": \"ldap\"}").code, 3203);
}

TEST_F(GroupReadTest, ListFailuresAreNotTranslated) {
  tavo::testing::FailNext("group.enum", 0x1600);
  EXPECT_EQ(CallGroup("list", "{}").code, 3299);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:280 Failed to enum group [0x1600 "));
  tavo::testing::FailNext("group.desc", 0x1600);
  EXPECT_EQ(CallGroup("list", "{\"name_only\": false}").code, 3299);
  tavo::testing::FailNext("lock.handler", 0x0400);
  EXPECT_EQ(CallGroup("list", "{}").code, 3202);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:77 ShLock failed [0x0400 "));
}

TEST_F(GroupReadTest, GetAnswersStoredSpellingAndRequestTextInErrors) {
  JoinDomain();
  Answer a = CallGroup("get",
                       "{\"name\": [\"\", \"STAFF\", \"nope\", \"DOM\\\\sales\"],"
                       " \"gid\": [1100, 4242]}");
  ASSERT_TRUE(a.success);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:314 Bad name[0], skip it."));
  EXPECT_TRUE(
      JsonEq(a.data["groups"],
             Parse("[{\"name\": \"staff\", \"gid\": 1100, \"description\": \"Staff people\"},"
                   " {\"name\": \"DOM\\\\Sales\", \"gid\": 30000, \"description\": \"\"},"
                   " {\"name\": \"staff\", \"gid\": 1100, \"description\": \"Staff people\"}]")));
  EXPECT_TRUE(
      JsonEq(a.data["errors"],
             Parse("[{\"name\": \"nope\", \"code\": 3208}, {\"gid\": 4242, \"code\": 3208}]")));
  // One value and a one-element array answer the same; system groups stay hidden.
  EXPECT_EQ(CallGroup("get", "{\"name\": \"Beta\"}").data,
            CallGroup("get", "{\"name\": [\"Beta\"]}").data);
  EXPECT_TRUE(JsonEq(CallGroup("get", "{\"gid\": 27}").data["errors"][0]["gid"], 27));
  a = CallGroup("get", "{}");
  EXPECT_TRUE(a.success);
  EXPECT_TRUE(JsonEq(a.data, Json::Value(Json::objectValue)));
  EXPECT_TRUE(Logged(7, "src/Group.cpp:301 Nothing to be done"));
}

// Ids are unsigned: ones above the signed 32-bit range are answered as they are.
TEST_F(GroupReadTest, IdsAboveTheSignedRangeKeepTheirValue) {
  root_->Write("/etc/login.defs",
               "GID_MIN 1000\nGID_MAX 4100000000\nUID_MIN 1000\nUID_MAX 4294967294\n");
  root_->AddUser("huge", 4000000001u);
  root_->AddGroup("big", 4000000000u, {"huge"});
  Answer a = CallGroup("get", "{\"name\": \"big\"}");
  EXPECT_TRUE(JsonEq(a.data["groups"][0]["gid"], 4000000000u));
  a = CallGroup("list", "{\"name_only\": false, \"substr\": \"big\"}");
  EXPECT_TRUE(JsonEq(a.data["groups"][0]["gid"], 4000000000u));
  EXPECT_TRUE(JsonEq(CallGroup("set", "{\"name\": \"big\"}").data["gid"], 4000000000u));
  EXPECT_TRUE(JsonEq(CallGroup("create", "{\"name\": \"next\"}").data["gid"], 4000000001u));
  for (const char* group : {"big", "users"}) {  // two ways of listing members
    a = CallMember("list", std::string("{\"group\": \"") + group + "\", \"substr\": \"huge\"}");
    EXPECT_TRUE(JsonEq(a.data["users"][0]["uid"], 4000000001u)) << group;
  }
}

TEST_F(GroupReadTest, AdminCheckPassesNamesThroughAndResolvesGids) {
  Answer a = CallGroup("admin_check",
                       "{\"name\": [\"Administrators\", \"nope\"],"
                       " \"gid\": [101, 4242, 1100]}");
  ASSERT_TRUE(a.success);
  EXPECT_TRUE(JsonEq(a.data["groups"], Parse("[{\"name\": \"Administrators\", \"is_admin\": true},"
                                             " {\"name\": \"nope\", \"is_admin\": false},"
                                             " {\"name\": \"administrators\", \"is_admin\": true},"
                                             " {\"name\": \"staff\", \"is_admin\": false}]")));
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:548 Failed to fetch gid=4242 [0x1600 "));
  a = CallGroup("admin_check", "{\"name\": \"\"}");
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"groups\": []}")));
  EXPECT_TRUE(Logged(3, "src/Group.cpp:559 Bad name[0], skip it."));
  EXPECT_TRUE(JsonEq(CallGroup("admin_check", "{}").data, Json::Value(Json::objectValue)));
  EXPECT_TRUE(Logged(7, "src/Group.cpp:537 Nothing to be done"));
}

}  // namespace
}  // namespace tavo_test
