// Reading groups and users: lookups ignoring case, system groups, paging,
// descriptions, expiry and administrator counts, password checks.
#include <crypt.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/group.h"
#include "tavo/szlist.h"
#include "tavo/testing.h"
#include "tavo/user.h"

namespace {

using tavo_test::TempRoot;

using Page = std::vector<std::string>;

// Collects the names of groups or users an enumeration reports.
template <typename Info>
int Collect(const Info* info, int, void* ctx) {
  static_cast<Page*>(ctx)->push_back(info->name);
  return 0;
}

TEST(GroupRead, FindsNamesIgnoringCaseAndPrefersExactSpelling) {
  TempRoot root;
  root.AddGroup("Ärzte", 1500, {"admin"});
  root.AddGroup("staff", 1501);
  root.AddGroup("Staff", 1502);
  TAVO_GROUP* g = nullptr;
  ASSERT_EQ(0, TAVOGroupGet("ärzte", &g));
  EXPECT_STREQ("Ärzte", g->name);
  EXPECT_EQ(1500u, g->gid);
  ASSERT_EQ(1, g->member_count);
  EXPECT_STREQ("admin", g->members[0]);
  EXPECT_EQ(nullptr, g->members[1]);
  TAVOGroupFree(g);
  ASSERT_EQ(0, TAVOGroupGet("Staff", &g));
  EXPECT_EQ(1502u, g->gid);
  TAVOGroupFree(g);
  ASSERT_EQ(0, TAVOGroupGet("STAFF", &g));
  EXPECT_STREQ("staff", g->name);
  TAVOGroupFree(g);
  // Descriptions are found the same way and may hold colons.
  root.SetDescription("staff", "Staff: all of them");
  char* desc = nullptr;
  unsigned size = 0;
  ASSERT_EQ(0, TAVOGroupDescGet("STAFF", &desc, &size));
  EXPECT_STREQ("Staff: all of them", desc);
  EXPECT_EQ(18u, size);
  free(desc);
  EXPECT_EQ(-1, TAVOGroupDescGet("nobody-here", &desc, &size));
  EXPECT_EQ(TAVO_ERR_NO_GROUP, TLIBCErrGet());
}

TEST(GroupRead, SystemGroupsAreHiddenButTheirNamesTaken) {
  TempRoot root;
  root.AddGroup("big", 70000);  // above GID_MAX: an ordinary group
  TAVO_GROUP* g = reinterpret_cast<TAVO_GROUP*>(1);
  EXPECT_EQ(-1, TAVOGroupGet("sudo", &g));
  EXPECT_EQ(nullptr, g);
  EXPECT_EQ(TAVO_ERR_NO_GROUP, TLIBCErrGet());
  EXPECT_EQ(-1, TAVOGroupGetByGID(27, &g));
  EXPECT_EQ(nullptr, SDK::Group::LoadGroup("sudo"));
  EXPECT_TRUE(SDK::Group::IsGroupExist("SUDO"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("nosuch"));
  ASSERT_EQ(0, TAVOGroupGetByGID(101, &g));  // built-in below GID_MIN
  EXPECT_STREQ("administrators", g->name);
  TAVOGroupFree(g);
  // No system group is counted or listed; nogroup (65534) is above GID_MAX.
  EXPECT_EQ(4, TAVOGroupTotalNum(TAVO_GROUP_LOCAL));
  Page page;
  EXPECT_EQ(4, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"administrators", "big", "nogroup", "users"}), page);
  // A login.defs that opens the system range still keeps root and sudo out.
  root.Write("/etc/login.defs", "GID_MIN 0\nGID_MAX 60000\n");
  EXPECT_EQ(nullptr, SDK::Group::LoadGroup("sudo"));
  EXPECT_EQ(-1, TAVOGroupGetByGID(0, &g));
}

TEST(GroupRead, PagesAreOrderedIgnoringCaseAndCountAllMatches) {
  TempRoot root;
  root.AddGroup("beta", 2000);
  root.AddGroup("Alpha", 2001);
  root.AddGroup("gamma-team", 2002);
  root.AddGroup("Team-Blue", 2003);
  Page page;
  EXPECT_EQ(7, TLIBGroupInfoEnumBySubstr(1, "", 2, 2, "", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"beta", "gamma-team"}), page);
  page.clear();
  EXPECT_EQ(2, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "TEAM", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"gamma-team", "Team-Blue"}), page);
  page.clear();
  EXPECT_EQ(1, TLIBGroupInfoEnumBySubstr(1, "", 0, 0, "Team", 0, Collect, &page));
  EXPECT_TRUE(page.empty());
  // A limit near the int range does not wrap around.
  EXPECT_EQ(2, TLIBGroupInfoEnumBySubstr(1, "", 1, 2147483647, "TEAM", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"Team-Blue"}), page);
  EXPECT_EQ(-1, TLIBGroupInfoEnumBySubstr(3, "", 0, -1, "", 1, Collect, &page));
}

// Reads the description of each listed group, and rewrites the description
// file after the first one, as another writer would in the middle of a listing.
struct DescsSeen {
  TempRoot* root;
  std::vector<std::string> descs;
};
int DescAndRewrite(const TLIB_GROUP_INFO* info, int, void* ctx) {
  DescsSeen* seen = static_cast<DescsSeen*>(ctx);
  char* desc = nullptr;
  unsigned size = 0;
  if (TAVOGroupDescGet(info->name, &desc, &size) != 0) return -1;
  seen->descs.push_back(desc);
  free(desc);
  seen->root->Write("/etc/tavo/group_desc", "alpha:changed\nbeta:changed\n");
  return 0;
}

TEST(GroupRead, AListingSeesOnePointInTimeAndTheNextSeesTheChange) {
  TempRoot root;
  root.AddGroup("alpha", 2000);
  root.AddGroup("beta", 2001);
  root.SetDescription("alpha", "first");
  root.SetDescription("beta", "second");
  DescsSeen seen{&root, {}};
  EXPECT_EQ(5, TLIBGroupInfoEnumBySubstr(1, "", 0, 2, "", 1, DescAndRewrite, &seen));
  EXPECT_EQ((std::vector<std::string>{"", "first"}), seen.descs);  // administrators, alpha
  seen.descs.clear();
  EXPECT_EQ(5, TLIBGroupInfoEnumBySubstr(1, "", 1, 2, "", 1, DescAndRewrite, &seen));
  EXPECT_EQ((std::vector<std::string>{"changed", "changed"}), seen.descs);
  // A new GID_MIN re-decides which groups a page holds.
  root.Write("/etc/login.defs", "GID_MIN 2001\nGID_MAX 60000\n");
  Page page;
  EXPECT_EQ(4, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"administrators", "beta", "nogroup", "users"}), page);
  EXPECT_EQ(4, TAVOGroupTotalNum(TAVO_GROUP_LOCAL));
}

// Tools write a whole new file elsewhere and rename it over the old one; the
// account folder then sees the file arrive and nothing else.
TEST(GroupRead, AGroupFileRenamedOverFromAnotherFolderIsReadAgain) {
  TempRoot root;
  root.AddGroup("team", 2000, {"admin"});
  EXPECT_EQ(std::vector<std::string>{"admin"}, tavo_test::MembersOf("team"));
  EXPECT_EQ(std::vector<std::string>{"admin"}, tavo_test::MembersOf("team"));  // kept now
  std::string text = root.Read("/etc/group");
  text.replace(text.find("\nteam:x:2000:admin\n"), 19, "\nteam:x:2000:admin,guest\n");
  ASSERT_EQ(0, TempRoot::Run("mkdir -p " + root.Path("/var/new")));
  root.Write("/var/new/group", text);
  ASSERT_EQ(0, rename(root.Path("/var/new/group").c_str(), root.Path("/etc/group").c_str()));
  EXPECT_EQ((std::vector<std::string>{"admin", "guest"}), tavo_test::MembersOf("team"));
}

TEST(GroupRead, DomainAndDirectoryLists) {
  TempRoot root;
  root.Write("/etc/tavo/domain_group", "CORP\\Sales:x:300001:CORP\\ann\nOTHER\\ops:x:300002:\n");
  system(("mkdir -p " + root.Path("/usr/tavo/etc/private")).c_str());
  root.Write("/usr/tavo/etc/private/ldap_group", "dev@example.org:x:400001:bob\n");
  Page page;
  EXPECT_EQ(1, TLIBGroupInfoEnumBySubstr(2, "corp", 0, -1, "", 1, Collect, &page));
  EXPECT_EQ((std::vector<std::string>{"CORP\\Sales"}), page);
  EXPECT_EQ(2, TAVOGroupTotalNum(TAVO_GROUP_DOMAIN));
  TAVO_GROUP* g = nullptr;
  ASSERT_EQ(0, TAVOGroupGet("DEV@example.org", &g));
  EXPECT_EQ(TAVO_GROUP_LDAP, g->kind);
  TAVOGroupFree(g);
  char* desc = nullptr;
  unsigned size = 7;
  ASSERT_EQ(0, TAVOGroupDescGet("corp\\sales", &desc, &size));
  EXPECT_STREQ("", desc);
  EXPECT_EQ(0u, size);
  free(desc);
  tavo_test::GroupPtr grp(SDK::Group::LoadGroup("CORP\\Sales"));
  ASSERT_NE(nullptr, grp);
  EXPECT_TRUE(grp->AddMember("x"));
  EXPECT_FALSE(grp->Save());  // directory groups are never changed
}

// A callback that fails in a platform call of its own.
int FailingDesc(const TLIB_GROUP_INFO*, int, void*) {
  char* buf = nullptr;
  unsigned size = 0;
  return TAVOGroupDescGet("no such group", &buf, &size);
}
int FailingPlain(const TLIB_GROUP_INFO*, int index, void*) { return index == 1 ? -1 : 0; }

TEST(GroupRead, EnumerationFailsWithTheCallbacksError) {
  TempRoot root;
  EXPECT_EQ(-1, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, FailingDesc, nullptr));
  EXPECT_EQ(TAVO_ERR_NO_GROUP, TLIBCErrGet());
  EXPECT_EQ(-1, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, FailingPlain, nullptr));
  EXPECT_EQ(TAVO_ERR_FAULT, TLIBCErrGet());
  tavo::testing::FailNext("group.enum", TAVO_ERR_IO);
  EXPECT_EQ(-1, TLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, Collect, nullptr));
  EXPECT_EQ(TAVO_ERR_IO, TLIBCErrGet());
}

TEST(UserRead, LocalUsersExpiryAndAdministrators) {
  TempRoot root;
  long today = static_cast<long>(time(nullptr) / 86400);
  root.AddUser("Zoe", 1002, 100, "Zoe Z");
  root.AddUser("old", 1003, 100, "", std::to_string(today - 1));
  root.AddUser("future", 1004, 100, "", std::to_string(today + 30));
  root.AddUser("daemon2", 500);  // system account
  root.Write("/etc/group",
             "root:x:0:\nusers:x:100:\nadministrators:x:101:admin,guest,old,future,daemon2,gone\n");
  EXPECT_EQ(0, TAVOUserCheckExpired("admin"));
  EXPECT_NE(0, TAVOUserCheckExpired("guest"));  // locked with "!"
  EXPECT_NE(0, TAVOUserCheckExpired("OLD"));
  EXPECT_EQ(0, TAVOUserCheckExpired("future"));
  EXPECT_NE(0, TAVOUserCheckExpired("daemon2"));
  EXPECT_EQ(TAVO_ERR_NO_USER, TLIBCErrGet());
  EXPECT_EQ(2, TAVOGroupTotalValidLocalAdmin());  // admin, future
  EXPECT_EQ(1, TLIBGroupIsAdminGroupMem("ADMIN", 0));
  EXPECT_EQ(0, TLIBGroupIsAdminGroupMem("zoe", 0));
  EXPECT_EQ(1, TAVOGroupIsAdminGroup("Administrators"));
  EXPECT_EQ(0, TAVOGroupIsAdminGroup("users"));

  SDK::User* u = SDK::User::LoadUser("zoe");
  ASSERT_NE(nullptr, u);
  EXPECT_EQ("Zoe", u->GetName());
  EXPECT_EQ(1002u, u->GetUID());
  EXPECT_EQ("Zoe Z", u->GetDesc());
  SDK::User::Release(u);
  EXPECT_EQ(nullptr, SDK::User::LoadUser("nobody"));
  EXPECT_EQ(nullptr, SDK::User::LoadUser(500));
  EXPECT_FALSE(SDK::User::IsUserExist("root"));

  TLIBC_SZLIST* list = TLIBCSzListAlloc(1);
  ASSERT_NE(nullptr, list);
  EXPECT_EQ(5, TLIBUserEnum(&list, 1, 0));
  ASSERT_EQ(5, list->count);
  EXPECT_STREQ("admin", list->items[0]);
  EXPECT_STREQ("Zoe", list->items[4]);
  EXPECT_EQ(1, TLIBUserEnumBySubstr(&list, 1, 0, "UTU", 1));
  EXPECT_STREQ("future", list->items[5]);
  TLIBCSzListFree(list);

  Page rows;
  EXPECT_EQ(5, TLIBUserInfoEnum(1, 0, 3, 5, Collect, &rows));
  EXPECT_EQ((Page{"old", "Zoe"}), rows);

  // No valid administrator at all is reported with an error.
  root.Write("/etc/group", "users:x:100:\nadministrators:x:101:guest\n");
  TLIBCErrClear();
  EXPECT_EQ(0, TAVOGroupTotalValidLocalAdmin());
  EXPECT_EQ(TAVO_ERR_NO_USER, TLIBCErrGet());
  tavo::testing::FailNext("admin.count", TAVO_ERR_IO);
  EXPECT_EQ(0, TAVOGroupTotalValidLocalAdmin());
  EXPECT_EQ(TAVO_ERR_IO, TLIBCErrGet());
}

TEST(UserRead, PasswordCheck) {
  TempRoot root;
  std::string hash = crypt("s3cret", "$6$abcdefgh$");
  root.AddUser("carol", 1010, 100, "", "", hash);
  root.AddUser("locked", 1011, 100, "", "", "!" + hash);
  EXPECT_EQ(1, TAVOUserCheckPassword("carol", "s3cret"));
  EXPECT_EQ(0, TAVOUserCheckPassword("carol", "s3cret!"));
  EXPECT_EQ(0, TAVOUserCheckPassword("locked", "s3cret"));
  EXPECT_EQ(0, TAVOUserCheckPassword("nobody-at-all", "x"));
  EXPECT_EQ(0, TAVOUserCheckPassword("root", ""));  // "*" hash
}

TEST(SzList, GrowsAndRefusesBadArguments) {
  TLIBC_SZLIST* list = TLIBCSzListAlloc(0);
  ASSERT_NE(nullptr, list);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(0, TLIBCSzListAdd(&list, std::to_string(i).c_str()));
  EXPECT_EQ(100, list->count);
  EXPECT_STREQ("99", list->items[99]);
  TLIBCSzListFree(list);
  EXPECT_EQ(nullptr, TLIBCSzListAlloc(-1));
  EXPECT_EQ(TAVO_ERR_ARGUMENT, TLIBCErrGet());
  tavo::testing::FailNext("szlist.alloc", TAVO_ERR_NOMEM);
  EXPECT_EQ(nullptr, TLIBCSzListAlloc(4));
  EXPECT_EQ(TAVO_ERR_NOMEM, TLIBCErrGet());
}

}  // namespace
