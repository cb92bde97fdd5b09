// TAVO.Core.Group.Member list, add, remove and admin_check.
#include "module/module_harness.h"
#include "tavo/handler.h"
#include "tavo/testing.h"

namespace tavo_test {
namespace {

class MemberTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    root_->AddUser("alice", 1002, 100, "Alice");
    root_->AddUser("bob", 1003, 100, "Bob");
    root_->AddUser("carol", 1004, 100, "Carol", "1");  // expired long ago
    root_->AddGroup("staff", 1100, {"admin", "alice", "ghost", "BOB"});
    root_->Write("/etc/tavo/domain", "DOM\n");
    root_->Write("/etc/tavo/domain_group", "DOM\\Sales:x:30000:\n");
  }
  // The user lock must be free again after every member operation.
  void ExpectUserLockFree() {
    int fd = -1;
    EXPECT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", true, &fd));
    ServerFormHandler::UnlockFile(fd);
  }
  // Makes "admin" an expired account, so that it does not count as a valid
  // administrator.
  void ExpireAdmin() {
    std::string shadow = root_->Read("/etc/shadow");
    size_t at = shadow.find("admin:");
    shadow.replace(at, shadow.find('\n', at) - at, "admin:!:19000:0:99999:7:::");
    root_->Write("/etc/shadow", shadow);
  }
};

TEST_F(MemberTest, ListOfUsersIsPagedByThePlatform) {
  Answer a = CallMember("list", "{\"group\": \"users\", \"offset\": 1, \"limit\": 2}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(JsonEq(a.data["users"],
                     Parse("[{\"name\": \"alice\", \"uid\": 1002, \"description\": \"Alice\"},"
                           " {\"name\": \"bob\", \"uid\": 1003, \"description\": \"Bob\"}]")));
  EXPECT_EQ(a.data["total"], 5);
  EXPECT_EQ(a.data["offset"], 1);
  EXPECT_EQ(Names(CallMember("list", "{\"gid\": 100, \"substr\": \"O\"}").data["users"]),
            (std::vector<std::string>{"bob", "carol"}));
  a = CallMember("list", "{\"group\": \"USERS\", \"ingroup\": false, \"offset\": 3}");
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"users\": [], \"total\": 0, \"offset\": 3}")));
  ExpectUserLockFree();
}

TEST_F(MemberTest, ListOfOtherGroupsUsesThePagingRule) {
  // "ghost" is no user: counted, but listed nowhere. Spelling comes from passwd.
  // A page whose end lies beyond the largest int holds everything from the offset on.
  struct Case {
    const char* params;
    std::vector<std::string> names;
    int total;
  } cases[] = {
      {"", {"admin", "alice", "bob"}, 4},
      {R"(, "offset": 1, "limit": 2)", {"alice"}, 4},
      {R"(, "offset": 1, "limit": 2147483647)", {"alice", "bob"}, 4},
      {R"(, "ingroup": false, "offset": 1, "limit": 2147483647)", {"guest"}, 2},
      {R"(, "substr": "b", "limit": 0)", {}, 1},
      {R"(, "ingroup": "false")", {"carol", "guest"}, 2},
      {R"(, "ingroup": false, "substr": "GU")", {"guest"}, 1},
  };
  for (const Case& c : cases) {
    Answer a = CallMember("list", std::string(R"({"group": "staff")") + c.params + "}");
    ASSERT_TRUE(a.success) << c.params;
    EXPECT_EQ(Names(a.data["users"]), c.names) << c.params;
    EXPECT_EQ(a.data["total"], c.total) << c.params;
  }
  EXPECT_TRUE(Logged(3, "src/Group.cpp:596 User 'ghost' no exists, skip it"));
}

TEST_F(MemberTest, ListFailures) {
  EXPECT_EQ(CallMember("list", "{\"group\": \"staff\", \"offset\": -1}").code, 3201);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:633 Bad parameter (offset=-1,limit=-1)"));
  EXPECT_EQ(CallMember("list", "{\"group\": \"dom\\\\sales\"}").code, 3213);
  EXPECT_EQ(CallMember("list", "{\"group\": \"nope\"}").code, 3208);
  tavo::testing::FailNext("lock.file", 0x0400);
  EXPECT_EQ(CallMember("list", "{\"group\": \"staff\"}").code, 3202);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:91 LockFile(/tmp/userlock) failed [0x0400 "));
  tavo::testing::FailNext("user.infoenum", 0x1800);
  EXPECT_EQ(CallMember("list", "{\"group\": \"users\"}").code, 3205);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:657 TLIBUserInfoEnum failed [0x1800 "));
  tavo::testing::FailNext("user.enum", 0x1800);
  EXPECT_EQ(
      CallMember("list", "{\"group\": \"staff\", \"ingroup\": false, \"substr\": \"a\"}").code,
      3205);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:702 TLIBUserEnumBySubstr failed [0x1800 "));
  tavo::testing::FailNext("user.enum", 0x1800);
  EXPECT_EQ(CallMember("list", "{\"group\": \"staff\", \"ingroup\": false}").code, 3205);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:696 TLIBUserEnum failed [0x1800 "));
  tavo::testing::FailNext("szlist.alloc", 0x0100);
  EXPECT_EQ(CallMember("list", "{\"group\": \"staff\", \"ingroup\": false}").code, 3299);
  tavo::testing::FailNext("szlist.alloc", 0x0100);
  EXPECT_EQ(
      CallMember("list", "{\"group\": \"staff\", \"ingroup\": false, \"substr\": \"a\"}").code,
      3299);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:691 TLIBCSzListAlloc failed [0x0100 "));
  // A member whose name cannot be upper-cased is not counted.
  tavo::testing::FailNext("user.upper", 0x0300);
  Answer a = CallMember("list", "{\"group\": \"staff\", \"substr\": \"a\"}");
  EXPECT_EQ(Names(a.data["users"]), std::vector<std::string>{"alice"});
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:615 TLIBCUnicodeUTF8StrUpper failed [0x0300 "));
  ExpectUserLockFree();
}

TEST_F(MemberTest, AddByNameAndUid) {
  Answer a = CallMember("add",
                        "{\"group\": \"staff\", \"name\": [\"carol\", \"nobody2\", \"x@dom\","
                        " \"alice\"], \"uid\": [1003, 1001, 9999]}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(JsonEq(a.data, Json::Value(Json::objectValue)));
  EXPECT_EQ(GroupLine("staff"), "staff:x:1100:admin,alice,ghost,BOB,carol,guest");
  EXPECT_EQ(Events(),
            (std::vector<std::string>{"0x11800800 staff carol", "0x11800800 staff guest"}));
  EXPECT_EQ(Reloads(), std::vector<std::string>{"8"});
  // Only existing members: saved, success, nothing logged, no reload.
  EXPECT_TRUE(CallMember("add", "{\"gid\": 1100, \"name\": \"ALICE\"}").success);
  EXPECT_EQ(Events().size(), 2u);
  EXPECT_EQ(Reloads().size(), 1u);
  ExpectUserLockFree();
}

TEST_F(MemberTest, AddRefusals) {
  Answer a = CallMember("add", "{\"group\": \"Administrators\", \"name\": [\"Guest\", \"bob\"]}");
  ASSERT_TRUE(a.success);
  EXPECT_TRUE(Logged(3, "src/Group.cpp:783 You can't add Guest to administrators."));
  EXPECT_EQ(GroupLine("administrators"), "administrators:x:101:admin,bob");
  EXPECT_EQ(CallMember("add", "{\"group\": \"Users\", \"name\": \"bob\"}").code, 3216);
  EXPECT_EQ(CallMember("add", "{\"group\": \"DOM\\\\Sales\", \"name\": \"bob\"}").code, 3213);
  tavo::testing::FailNext("group.save", 0x0500);
  EXPECT_EQ(CallMember("add", "{\"group\": \"staff\", \"name\": \"carol\"}").code, 3299);
  EXPECT_TRUE(LoggedPrefix(3, "src/Group.cpp:792 Failed to save 'staff' [0x0500 "));
  // Users that cannot be read are skipped as unknown ones are: saved, success.
  const std::string passwd = root_->Read("/etc/passwd");
  ASSERT_EQ(0, tavo_test::TempRoot::Run("rm " + root_->Path("/etc/passwd") + " && mkdir " +
                                        root_->Path("/etc/passwd")));
  EXPECT_EQ(CallMember("add", "{\"group\": \"staff\", \"name\": \"carol\"}").code, 3200);
  ASSERT_EQ(0, tavo_test::TempRoot::Run("rmdir " + root_->Path("/etc/passwd")));
  root_->Write("/etc/passwd", passwd);
  EXPECT_EQ(GroupLine("staff"), "staff:x:1100:admin,alice,ghost,BOB");
  // Nothing to do: answered before any lock.
  tavo::testing::FailNext("lock.handler", 0x0400);
  EXPECT_TRUE(CallMember("add", "{\"group\": \"staff\", \"name\": []}").success);
  EXPECT_TRUE(Logged(7, "src/Group.cpp:746 Nothing to be done"));
  EXPECT_EQ(Events().size(), 1u);
  ExpectUserLockFree();
}

// The account tools may store "users" in another letter case; its members
// stay fixed all the same, and listing it still lists every user.
TEST_F(MemberTest, UsersStaysFixedInAnyLetterCase) {
  for (const char* file : {"/etc/group", "/etc/gshadow"}) {
    std::string text = root_->Read(file);
    text.replace(text.find("\nusers:"), 7, "\nUsers:");
    root_->Write(file, text);
  }
  EXPECT_EQ(CallMember("add", "{\"group\": \"USERS\", \"name\": \"bob\"}").code, 3216);
  EXPECT_EQ(CallMember("remove", "{\"group\": \"Users\", \"name\": \"bob\"}").code, 3216);
  EXPECT_EQ(GroupLine("Users"), "Users:x:100:");
  Answer list = CallMember("list", "{\"group\": \"users\"}");
  ASSERT_TRUE(list.success);
  EXPECT_EQ(list.data["users"].size(), 5u);  // admin, guest, alice, bob, carol
}

TEST_F(MemberTest, RemoveKeepsAValidAdministrator) {
  ExpireAdmin();
  ASSERT_TRUE(
      CallMember("add",
                 "{\"group\": \"administrators\", \"name\": [\"alice\", \"bob\", \"carol\"]}")
          .success);
  // alice and bob are the only valid administrators: both may not go, and the
  // expired carol's removal is dropped with the rest.
  EXPECT_EQ(CallMember("remove",
                       "{\"group\": \"administrators\", \"name\": [\"carol\", \"alice\", \"bob\"]}")
                .code,
            3210);
  EXPECT_EQ(GroupLine("administrators"), "administrators:x:101:admin,alice,bob,carol");
  Answer a = CallMember(
      "remove", "{\"group\": \"administrators\", \"name\": [\"alice\", \"Admin\"], \"uid\": 1004}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(Logged(3, "src/Group.cpp:869 You can't remove Admin from administrators."));
  EXPECT_EQ(GroupLine("administrators"), "administrators:x:101:admin,bob");
  std::vector<std::string> events = Events();
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[3], "0x11800801 administrators carol");  // immediate removals first
  EXPECT_EQ(events[4], "0x11800801 administrators alice");
  ExpectUserLockFree();
}

TEST_F(MemberTest, RemoveFromOtherGroups) {
  Answer a =
      CallMember("remove", "{\"group\": \"staff\", \"name\": [\"admin\", \"carol\", \"bob\"]}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_EQ(GroupLine("staff"), "staff:x:1100:alice,ghost");
  EXPECT_EQ(Events(), (std::vector<std::string>{"0x11800801 staff admin", "0x11800801 staff bob"}));
  EXPECT_EQ(Reloads(), std::vector<std::string>{"8"});
  EXPECT_EQ(CallMember("remove", "{\"group\": \"users\", \"name\": \"bob\"}").code, 3216);
  EXPECT_EQ(CallMember("remove", "{\"group\": \"DOM\\\\Sales\", \"name\": \"bob\"}").code, 3213);
  // A failed administrator count refuses every removal, in any group.
  tavo::testing::FailNext("admin.count", 0x0800);
  EXPECT_EQ(CallMember("remove", "{\"group\": \"staff\", \"name\": \"alice\"}").code, 3210);
  EXPECT_TRUE(
      LoggedPrefix(3, "src/Group.cpp:826 Fail to get number of valid local admin [0x0800 "));
  tavo::testing::FailNext("admin.count", 0x0800);
  EXPECT_TRUE(CallMember("remove", "{\"group\": \"staff\"}").success);
  EXPECT_TRUE(Logged(7, "src/Group.cpp:832 Nothing to be done"));
  EXPECT_EQ(GroupLine("staff"), "staff:x:1100:alice,ghost");
  ExpectUserLockFree();
}

TEST_F(MemberTest, AdminCheck) {
  Answer a =
      CallMember("admin_check", "{\"name\": [\"ADMIN\", \"nope\"], \"uid\": [1000, 1002, 9999]}");
  ASSERT_TRUE(a.success) << a.code;
  EXPECT_TRUE(JsonEq(a.data["users"], Parse("[{\"name\": \"ADMIN\", \"is_admin\": true},"
                                            " {\"name\": \"nope\", \"is_admin\": false},"
                                            " {\"name\": \"admin\", \"is_admin\": true},"
                                            " {\"name\": \"alice\", \"is_admin\": false}]")));
  EXPECT_TRUE(
      JsonEq(CallMember("admin_check", "{\"uid\": [9999]}").data, Parse("{\"users\": []}")));
  EXPECT_TRUE(JsonEq(CallMember("admin_check", "{}").data, Json::Value(Json::objectValue)));
  EXPECT_TRUE(Logged(7, "src/Group.cpp:921 Nothing to be done"));
  tavo::testing::FailNext("lock.file", 0x0400);
  EXPECT_EQ(CallMember("admin_check", "{\"name\": \"admin\"}").code, 3202);
  ExpectUserLockFree();
}

}  // namespace
}  // namespace tavo_test
