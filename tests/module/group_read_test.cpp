// TAVO.Core.Group list, get and admin_check on real roots.
#include "module_harness.h"
#include "tavo/testing.h"

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
  static std::vector<std::string> Names(const Json::Value& list) {
    std::vector<std::string> names;
    for (const Json::Value& entry : list) names.push_back(entry["name"].asString());
    return names;
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
  Answer a = CallGroup("list", "{\"offset\": 3, \"limit\": 2, \"name_only\": false, \"user\": \"alice\"}");
  ASSERT_TRUE(a.success);
  EXPECT_EQ(a.data["total"], 5);
  EXPECT_EQ(a.data["offset"], 3);
  EXPECT_TRUE(JsonEq(a.data["groups"], Parse("[{\"name\": \"staff\", \"description\": \"Staff people\","
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
  root_->Write("/tmp/domain_group.pid", "4242\n");
  EXPECT_EQ(CallGroup("list", "{\"type\": \"domain\"}").code, 3203);
  root_->Write("/tmp/domain_group.pid", "");
  root_->Write("/tmp/domain_updating", "");
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
  Answer a = CallGroup("get", "{\"name\": [\"\", \"STAFF\", \"nope\", \"DOM\\\\sales\"],"
                              " \"gid\": [1100, 4242]}");
  ASSERT_TRUE(a.success);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:314 Bad name[0], skip it."));
  EXPECT_TRUE(JsonEq(a.data["groups"],
            Parse("[{\"name\": \"staff\", \"gid\": 1100, \"description\": \"Staff people\"},"
                  " {\"name\": \"DOM\\\\Sales\", \"gid\": 30000, \"description\": \"\"},"
                  " {\"name\": \"staff\", \"gid\": 1100, \"description\": \"Staff people\"}]")));
  EXPECT_TRUE(JsonEq(a.data["errors"],
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

// Ids are unsigned integers, counts, offsets and codes signed ones; the text a
// client sees hides the difference, the answer's JSON values do not.
TEST_F(GroupReadTest, IdsAreUnsignedCountsAndCodesSigned) {
  Answer a = CallGroup("get", "{\"name\": \"staff\", \"gid\": 4242}");
  EXPECT_EQ(a.data["groups"][0]["gid"].type(), Json::uintValue);
  EXPECT_EQ(a.data["errors"][0]["gid"].type(), Json::uintValue);
  EXPECT_EQ(a.data["errors"][0]["code"].type(), Json::intValue);
  a = CallGroup("list", "{\"name_only\": false}");
  EXPECT_EQ(a.data["groups"][0]["gid"].type(), Json::uintValue);
  EXPECT_EQ(a.data["offset"].type(), Json::intValue);
  EXPECT_EQ(a.data["total"].type(), Json::intValue);
  for (const char* group : {"staff", "users"}) {
    a = CallMember("list", std::string("{\"group\": \"") + group + "\"}");
    ASSERT_FALSE(a.data["users"].empty()) << group;
    EXPECT_EQ(a.data["users"][0]["uid"].type(), Json::uintValue) << group;
    EXPECT_EQ(a.data["total"].type(), Json::intValue) << group;
    EXPECT_EQ(a.data["offset"].type(), Json::intValue) << group;
  }
  a = CallGroup("set", "{\"name\": \"Beta\"}");
  EXPECT_EQ(a.data["gid"].type(), Json::uintValue);
  a = CallGroup("create", "{\"name\": \"Gamma\"}");
  EXPECT_EQ(a.data["gid"].type(), Json::uintValue);
  a = CallGroup("delete", "{\"name\": \"users\"}");
  EXPECT_EQ(a.data["errors"][0]["code"].type(), Json::intValue);
}

TEST_F(GroupReadTest, AdminCheckPassesNamesThroughAndResolvesGids) {
  Answer a = CallGroup("admin_check", "{\"name\": [\"Administrators\", \"nope\"],"
                                      " \"gid\": [101, 4242, 1100]}");
  ASSERT_TRUE(a.success);
  EXPECT_TRUE(JsonEq(a.data["groups"],
            Parse("[{\"name\": \"Administrators\", \"is_admin\": true},"
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
