// Writing groups: creation, GID allocation, renames with descriptions,
// membership changes, deletion rules, refused names and failed writes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/group.h"
#include "tavo/testing.h"

namespace {

using tavo_test::GroupPtr;
using tavo_test::TempRoot;

bool Contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

unsigned CreateSaved(const std::string& name, const std::string& desc = "") {
  GroupPtr g(SDK::Group::CreateGroup(name));
  return g && g->SetDesc(desc) && g->Save() ? g->GetGID() : 0;
}

// Loads `group`, renames it to `name`, and saves.
bool RenameSaved(const std::string& group, std::string name) {
  GroupPtr g(SDK::Group::LoadGroup(group));
  return g && g->SetName(name) && g->Save();
}

TEST(GroupWrite, CreateAllocatesGidsLikeTheAccountTools) {
  TempRoot root;
  root.AddGroup("high", 1200);
  EXPECT_EQ(1201u, CreateSaved("one", "first group"));
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\none:x:1201:\n"));
  EXPECT_TRUE(Contains(root.Read("/etc/gshadow"), "\none:!::\n"));
  EXPECT_EQ("one:first group\n", root.Read("/etc/tavo/group_desc"));
  // Past GID_MAX the lowest free GID is used; with none left, LIMIT.
  root.Write("/etc/login.defs", "GID_MIN 1200\nGID_MAX 1202\n");
  EXPECT_EQ(1202u, CreateSaved("two"));
  EXPECT_EQ(0u, CreateSaved("three"));
  EXPECT_EQ(TAVO_ERR_LIMIT, TLIBCErrGet());
  EXPECT_FALSE(SDK::Group::IsGroupExist("three"));
}

// Member lookups stay right while the object's member list changes.
TEST(GroupWrite, MemberLookupsFollowChangesInMemory) {
  TempRoot root;
  root.AddGroup("team", 1400, {"xa", "Yb", "zc"});
  GroupPtr g(SDK::Group::LoadGroup("team"));
  ASSERT_TRUE(g);
  EXPECT_TRUE(g->IsMember("yb"));
  EXPECT_FALSE(g->IsMember("y"));
  ASSERT_TRUE(g->RemoveMember("XA"));
  EXPECT_FALSE(g->IsMember("xa"));
  EXPECT_TRUE(g->IsMember("ZC"));
  ASSERT_TRUE(g->AddMember("wd"));
  EXPECT_TRUE(g->IsMember("WD"));
  ASSERT_TRUE(g->RemoveMember("yb"));
  EXPECT_FALSE(g->RemoveMember("yb"));
  EXPECT_EQ((std::vector<std::string>{"zc", "wd"}), g->GetMembers());
  // Letters beyond ASCII match ignoring case too; a name is no prefix.
  ASSERT_TRUE(g->AddMember("Ärzte"));
  EXPECT_TRUE(g->IsMember("ärzte"));
  EXPECT_TRUE(g->IsMember("ÄRZTE"));
  EXPECT_FALSE(g->IsMember("ärzt"));
  EXPECT_FALSE(g->IsMember("W"));
}

// A member is written under the user's own spelling as etc/passwd has it
// when the group is saved, also for a user that appeared after the member
// was added.
TEST(GroupWrite, SaveSpellsAddedMembersAsEtcPasswdDoesThen) {
  TempRoot root;
  root.AddGroup("team", 1400, {"admin"});
  GroupPtr g(SDK::Group::LoadGroup("team"));
  ASSERT_TRUE(g);
  ASSERT_TRUE(g->AddMember("BOB"));  // no such user yet
  root.AddUser("bob", 1020);
  ASSERT_TRUE(g->Save());
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nteam:x:1400:admin,bob\n"));
}

TEST(GroupWrite, RenameMovesDescriptionAndKeepsGshadowInStep) {
  TempRoot root;
  root.AddGroup("staff", 1500, {"admin"});
  root.SetDescription("staff", "old text");
  GroupPtr g(SDK::Group::LoadGroup("STAFF"));
  ASSERT_NE(nullptr, g);
  EXPECT_EQ("old text", g->GetDesc());
  std::string name = "Personal";
  EXPECT_TRUE(g->SetName(name));
  EXPECT_TRUE(g->AddMember("guest"));
  ASSERT_TRUE(g->Save());
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nPersonal:x:1500:admin,guest\n"));
  EXPECT_TRUE(Contains(root.Read("/etc/gshadow"), "\nPersonal:!::admin,guest\n"));
  EXPECT_EQ("Personal:old text\n", root.Read("/etc/tavo/group_desc"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("staff"));
  // A change of case alone is a rename of its own.
  ASSERT_TRUE(RenameSaved("personal", "PERSONAL"));
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nPERSONAL:x:1500:admin,guest\n"));
  EXPECT_EQ("PERSONAL:old text\n", root.Read("/etc/tavo/group_desc"));
  // Clearing the description removes its line; backups are kept.
  g.reset(SDK::Group::LoadGroup("personal"));
  ASSERT_TRUE(g->SetDesc("") && g->Save());
  EXPECT_EQ("", root.Read("/etc/tavo/group_desc"));
  EXPECT_TRUE(Contains(root.Read("/etc/group-"), "\nPersonal:x:1500:admin,guest\n"));
}

// A rename and a new description replace the group's own lines in each file
// and nothing else: comments, CRLF lines, other groups' lines stay byte for
// byte (the changed lines are written anew, without a CR); a gshadow line
// left for a gone group of the new name goes, and the
// description line moves with the name. A description alone leaves group and
// gshadow as they are.
TEST(GroupWrite, RenameAndDescriptionTouchOnlyTheirLines) {
  TempRoot root;
  root.Append("/etc/group", "# keep me\r\nteam:x:1500:admin\r\nother:x:1501:guest\nbroken\n");
  root.Append("/etc/gshadow", "crew:!::old\r\n# note\nteam:$6$pw:admin:admin\r\nother:!::guest\n");
  root.Write("/etc/tavo/group_desc", "# descriptions\nother:theirs\r\nteam:ours\ncrew:stale\n");
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  auto replaced = [](std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    return at == std::string::npos ? text + "<" + from + " missing>"
                                   : text.replace(at, from.size(), to);
  };
  GroupPtr g(SDK::Group::LoadGroup("team"));
  ASSERT_TRUE(g);
  std::string name = "crew";
  ASSERT_TRUE(g->SetName(name) && g->AddMember("guest") && g->Save());
  EXPECT_EQ(replaced(group, "team:x:1500:admin\r\n", "crew:x:1500:admin,guest\n"),
            root.Read("/etc/group"));
  EXPECT_EQ(replaced(replaced(gshadow, "crew:!::old\r\n", ""), "team:$6$pw:admin:admin\r\n",
                     "crew:$6$pw:admin:admin,guest\n"),
            root.Read("/etc/gshadow"));
  EXPECT_EQ("# descriptions\nother:theirs\r\ncrew:ours\n", root.Read("/etc/tavo/group_desc"));

  const std::string group2 = root.Read("/etc/group"), gshadow2 = root.Read("/etc/gshadow");
  g.reset(SDK::Group::LoadGroup("CREW"));
  ASSERT_TRUE(g && g->SetDesc("new text") && g->Save());
  EXPECT_EQ(group2, root.Read("/etc/group"));
  EXPECT_EQ(gshadow2, root.Read("/etc/gshadow"));
  EXPECT_EQ("# descriptions\nother:theirs\r\ncrew:new text\n", root.Read("/etc/tavo/group_desc"));
  // A rename onto a line that does not parse, or onto another group, is refused.
  EXPECT_FALSE(RenameSaved("crew", "BROKEN"));
  EXPECT_EQ(TAVO_ERR_EXISTS, TLIBCErrGet());
  EXPECT_FALSE(RenameSaved("crew", "Other"));
  EXPECT_EQ(TAVO_ERR_EXISTS, TLIBCErrGet());
  EXPECT_EQ(group2, root.Read("/etc/group"));
}

TEST(GroupWrite, SaveKeepsOtherWritersChangesAndNoticesDeletion) {
  TempRoot root;
  root.AddGroup("team", 1500, {"admin"});
  GroupPtr g(SDK::Group::LoadGroup("team"));
  ASSERT_NE(nullptr, g);
  // Meanwhile another program adds "guest" to the same group.
  root.Write("/etc/group", root.Read("/etc/group") + "other:x:1501:\n");
  std::string text = root.Read("/etc/group");
  text.replace(text.find("team:x:1500:admin"), 17, "team:x:1500:admin,guest");
  root.Write("/etc/group", text);
  EXPECT_TRUE(g->RemoveMember("ADMIN"));
  EXPECT_TRUE(g->AddMember("GUEST"));  // added meanwhile by the other program: kept once
  ASSERT_TRUE(g->Save());
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nteam:x:1500:guest\n"));
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nother:x:1501:\n"));
  const char* names[] = {"team"};
  EXPECT_EQ(1, TAVOGroupDelete(names, 1));
  EXPECT_TRUE(g->AddMember("admin"));
  EXPECT_FALSE(g->Save());
  EXPECT_EQ(TAVO_ERR_NO_GROUP, TLIBCErrGet());
}

TEST(GroupWrite, DeletionRefusesBuiltinsSystemAndPrimaryGroups) {
  TempRoot root;
  root.AddGroup("plain", 1500);
  root.AddGroup("primary", 1501);
  root.AddGroup("other", 1502);
  root.SetDescription("plain", "bye");
  root.AddUser("pat", 1005, 1501);
  const char* names[] = {"PLAIN", "primary", "users", "administrators", "sudo", "nosuch", "plain"};
  EXPECT_EQ(1, TAVOGroupDelete(names, 7));
  EXPECT_FALSE(SDK::Group::IsGroupExist("plain"));
  for (const char* kept : {"primary", "users", "administrators", "sudo", "other"})
    EXPECT_TRUE(SDK::Group::IsGroupExist(kept)) << kept;
  EXPECT_FALSE(Contains(root.Read("/etc/gshadow"), "plain:"));
  EXPECT_EQ("", root.Read("/etc/tavo/group_desc"));
  EXPECT_EQ(0, TAVOGroupDelete(names, 0));
}

// A deletion removes the deleted groups' lines and nothing else: a line of
// the same name with another GID stays, and then so do the name's gshadow and
// description lines; comments, CRLF lines and a last line without a newline
// stay byte for byte.
TEST(GroupWrite, DeletionRemovesOnlyItsLines) {
  TempRoot root;
  root.Append("/etc/group",
              "# keep\r\ngone:x:1500:admin\r\nshared:x:1501:\nshared:x:999:\nlast:x:1502:");
  root.Append("/etc/gshadow", "gone:!::admin\r\n# note\nshared:!::\nlast:!::");
  root.Write("/etc/tavo/group_desc", "shared:s\r\ngone:g\nlast:l");
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  const char* names[] = {"GONE", "shared", "last"};
  EXPECT_EQ(3, TAVOGroupDelete(names, 3));
  std::string g = group;
  g.erase(g.find("gone:x:1500:admin\r\n"), 19);
  g.erase(g.find("shared:x:1501:\n"), 15);
  g.erase(g.find("last:x:1502:"));
  EXPECT_EQ(g, root.Read("/etc/group"));
  std::string gs = gshadow;
  gs.erase(gs.find("gone:!::admin\r\n"), 15);
  gs.erase(gs.find("last:!::"));
  EXPECT_EQ(gs, root.Read("/etc/gshadow"));
  EXPECT_EQ("shared:s\r\n", root.Read("/etc/tavo/group_desc"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("gone"));
  EXPECT_TRUE(SDK::Group::IsGroupExist("shared"));  // the system line of that name
}

// Names that may not be stored, as a new group and as a rename target.
TEST(GroupWrite, RefusedNamesNeverReachTheFiles) {
  TempRoot root;
  root.AddGroup("taken", 1500);
  root.AddGroup("victim", 1501);
  const std::string before = root.Read("/etc/group");
  struct Case {
    std::string name;
    int create_error;
  };
  const std::vector<Case> cases = {
      {"a:b", TAVO_ERR_BAD_VALUE},       {"line\nbreak", TAVO_ERR_BAD_VALUE},
      {"x,y", TAVO_ERR_BAD_VALUE},       {std::string(33, 'a'), TAVO_ERR_BAD_VALUE},
      {"two words", TAVO_ERR_BAD_VALUE}, {"-dash", TAVO_ERR_BAD_VALUE},
      {"12345", TAVO_ERR_BAD_VALUE},     {"a/b", TAVO_ERR_BAD_VALUE},
      {"bad\xff", TAVO_ERR_BAD_VALUE},   {"", TAVO_ERR_BAD_VALUE},
      {"..", TAVO_ERR_RESERVED},         {"Users", TAVO_ERR_RESERVED},
      {"SUDO", TAVO_ERR_RESERVED},       {"shadow", TAVO_ERR_RESERVED},
      {"TAKEN", TAVO_ERR_EXISTS},
  };
  for (const Case& c : cases) {
    TLIBCErrClear();
    EXPECT_EQ(nullptr, SDK::Group::CreateGroup(c.name)) << c.name;
    EXPECT_EQ(c.create_error, TLIBCErrGet()) << c.name;
    GroupPtr g(SDK::Group::LoadGroup("victim"));
    ASSERT_NE(nullptr, g);
    std::string name = c.name;
    EXPECT_FALSE(g->SetName(name)) << c.name;
    EXPECT_FALSE(g->Save()) << c.name;
    EXPECT_EQ(c.create_error, TLIBCErrGet()) << c.name;
  }
  // The built-ins keep their names; only the letter case may change.
  for (const char* builtin : {"administrators", "users"}) {
    EXPECT_FALSE(RenameSaved(builtin, "renamed")) << builtin;
    EXPECT_EQ(TAVO_ERR_RESERVED, TLIBCErrGet()) << builtin;
  }
  EXPECT_EQ(before, root.Read("/etc/group"));
  EXPECT_NE(0u, CreateSaved(std::string(32, 'b')));
  // Descriptions with control characters or too long are refused as well.
  GroupPtr g(SDK::Group::LoadGroup("victim"));
  EXPECT_FALSE(g->SetDesc("two\nlines"));
  EXPECT_FALSE(g->Save());
  EXPECT_EQ(TAVO_ERR_BAD_VALUE, TLIBCErrGet());
  g.reset(SDK::Group::LoadGroup("victim"));
  EXPECT_FALSE(g->SetDesc(std::string(257, 'd')));
  EXPECT_TRUE(g->SetDesc(std::string(256, 'd')));
}

// A change of several files that fails before it is decided (a full disk, or
// the third file, whose folder cannot be made) leaves every file in place;
// backups never hold the change that failed, and no temporary or lock file is
// left.
TEST(GroupWrite, FailedWritesLeaveTheOldFilesIntact) {
  for (const char* point : {"file.write", "no desc folder"}) {
    TempRoot root;
    root.AddGroup("team", 1500, {"admin"});
    const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
    const std::string group_bak_before = root.Read("/etc/group-");
    const std::string gshadow_bak_before = root.Read("/etc/gshadow-");
    struct stat before, after;
    ASSERT_EQ(0, stat(root.Path("/etc/group").c_str(), &before));
    GroupPtr g(SDK::Group::LoadGroup("team"));
    std::string name = "renamed";
    ASSERT_TRUE(g && g->SetName(name) && g->SetDesc("text"));
    const bool fault = std::string(point).compare(0, 5, "file.") == 0;
    const std::string desc_dir = root.Path("/etc/tavo");
    if (fault) {
      tavo::testing::FailNext(point, TAVO_ERR_IO);
    } else {  // a file where the description's folder belongs
      ASSERT_EQ(0, TempRoot::Run("rm -rf " + desc_dir + " && touch " + desc_dir));
    }
    EXPECT_FALSE(g->Save()) << point;
    ASSERT_EQ(0, stat(root.Path("/etc/group").c_str(), &after));
    if (fault) {
      EXPECT_EQ(TAVO_ERR_IO, TLIBCErrGet()) << point;
      EXPECT_EQ("", root.Read("/etc/tavo/group_desc")) << point;
      EXPECT_EQ(before.st_ino, after.st_ino) << point;  // never replaced
    }
    EXPECT_EQ(group, root.Read("/etc/group")) << point;
    EXPECT_EQ(gshadow, root.Read("/etc/gshadow")) << point;
    // A change that never happened makes no backup.
    EXPECT_EQ(group_bak_before, root.Read("/etc/group-")) << point;
    EXPECT_EQ(gshadow_bak_before, root.Read("/etc/gshadow-")) << point;
    EXPECT_EQ(std::vector<std::string>{"<missing>"}, tavo_test::MembersOf("renamed")) << point;
    EXPECT_NE(0, TempRoot::Run("ls -A " + root.Path("/etc") +
                               " | grep -v '^\\.pwd\\.lock$' | grep -q '\\.tavo\\|\\.lock$'"))
        << point;
  }
}

}  // namespace

namespace {

// Loads `group`, changes its members, saves.
bool ChangeMembersSaved(const std::string& group, const std::vector<std::string>& add,
                        const std::vector<std::string>& remove) {
  GroupPtr g(SDK::Group::LoadGroup(group));
  if (!g) return false;
  for (const std::string& a : add) g->AddMember(a);
  for (const std::string& r : remove) g->RemoveMember(r);
  return g->Save();
}

}  // namespace

// Each change writes over the spare (the backup before the last one) instead
// of a new file. Over a run of changes that grow and shrink the files, every
// file holds exactly its new content, the backup exactly the content before
// the change, and a spare with a second name (an administrator's hard link)
// is never written over.
TEST(GroupWrite, ChangesWrittenOverTheSpareKeepFilesAndBackupsExact) {
  TempRoot root;
  for (const char* user : {"ann", "bob", "cyd"}) root.AddUser(user, 1001 + (user[0] - 'a'));
  root.AddGroup("team", 1500, {"admin"});
  const std::string spare = root.Path("/etc/.group.tavo-spare");
  const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> steps = {
      {{"ann", "bob", "cyd"}, {}},  // grows
      {{}, {"ann", "bob"}},         // shrinks below the spare's length
      {{"bob"}, {"cyd"}},          {{"ann", "cyd"}, {}},
      {{}, {"ann", "bob", "cyd"}}, {{"ann"}, {}}};
  std::string hard_link;  // made once a spare exists
  std::string linked_content;
  for (size_t i = 0; i < steps.size(); ++i) {
    const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
    ASSERT_TRUE(ChangeMembersSaved("team", steps[i].first, steps[i].second)) << i;
    EXPECT_EQ(group, root.Read("/etc/group-")) << i;
    EXPECT_EQ(gshadow, root.Read("/etc/gshadow-")) << i;
    GroupPtr g(SDK::Group::LoadGroup("team"));
    ASSERT_TRUE(g);
    std::string expect = "team:x:1500:";
    for (const std::string& m : g->GetMembers()) expect += m + ",";
    expect.back() = '\n';
    EXPECT_TRUE(Contains(root.Read("/etc/group"), "\n" + expect)) << i << ": " << expect;
    EXPECT_EQ(0, root.Grpck()) << i;
    struct stat cur, bak, spa;
    ASSERT_EQ(0, stat(root.Path("/etc/group").c_str(), &cur));
    ASSERT_EQ(0, stat(root.Path("/etc/group-").c_str(), &bak));
    if (stat(spare.c_str(), &spa) == 0) {
      EXPECT_NE(cur.st_ino, spa.st_ino) << i;
      EXPECT_NE(bak.st_ino, spa.st_ino) << i;
      if (hard_link.empty()) {
        hard_link = root.Path("/etc/kept-by-admin");
        ASSERT_EQ(0, link(spare.c_str(), hard_link.c_str()));
        linked_content = root.Read("/etc/kept-by-admin");
      }
    }
  }
  ASSERT_FALSE(hard_link.empty()) << "no change left a spare";
  EXPECT_EQ(linked_content, root.Read("/etc/kept-by-admin"));
  EXPECT_NE(0, TempRoot::Run("ls -A " + root.Path("/etc") +
                             " | grep -v '^\\.pwd\\.lock$' | grep -q '\\.tavo\\.\\|\\.lock$'"));
}

// Save re-checks, on the files as they are under the locks, what callers
// counted before: a valid administrator stays, and maxgroups holds.
TEST(GroupWrite, SaveKeepsAValidAdministratorAndTheGroupLimit) {
  TempRoot root;
  root.AddUser("ann", 1001);
  root.AddUser("old", 1002, 100, "", "1");  // expired long ago
  ASSERT_TRUE(ChangeMembersSaved("administrators", {"ann", "old"}, {}));
  // A stale object (loaded when admin was still listed) cannot take away
  // the last valid one either.
  GroupPtr stale(SDK::Group::LoadGroup("administrators"));
  ASSERT_TRUE(stale);
  ASSERT_TRUE(ChangeMembersSaved("administrators", {}, {"admin"}));
  ASSERT_TRUE(stale->RemoveMember("ANN"));
  EXPECT_FALSE(stale->Save());
  EXPECT_EQ(TAVO_ERR_NO_USER, TLIBCErrGet());
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nadministrators:x:101:ann,old\n"));
  // Expired members go; the valid one stays until another is there.
  EXPECT_TRUE(ChangeMembersSaved("administrators", {}, {"old"}));
  EXPECT_FALSE(ChangeMembersSaved("administrators", {}, {"ann"}));
  EXPECT_TRUE(ChangeMembersSaved("administrators", {"admin"}, {"ann"}));
  // Other groups may lose every member.
  root.AddGroup("team", 1300, {"ann"});
  EXPECT_TRUE(ChangeMembersSaved("team", {}, {"ann"}));

  // maxgroups counts the local groups, as TAVOGroupTotalNum(1) does.
  const int groups = TAVOGroupTotalNum(1);
  ASSERT_GT(groups, 0);
  root.Write("/etc/tavo/tavo.conf", "maxgroups = " + std::to_string(groups + 1) + "\n");
  EXPECT_NE(0u, CreateSaved("second"));
  EXPECT_EQ(0u, CreateSaved("third"));
  EXPECT_EQ(TAVO_ERR_LIMIT, TLIBCErrGet());
  EXPECT_FALSE(SDK::Group::IsGroupExist("third"));
  EXPECT_TRUE(ChangeMembersSaved("second", {"ann"}, {}));  // changes stay allowed at the limit
}

// A new group's lines go on lines of their own after a last line without a
// newline, which stays as it was.
TEST(GroupWrite, CreationAfterALastLineWithoutNewline) {
  TempRoot root;
  root.Write("/etc/group", root.Read("/etc/group") + "team:x:1600:admin");
  root.Write("/etc/gshadow", root.Read("/etc/gshadow") + "team:!::admin");
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  const unsigned gid = CreateSaved("crew");
  ASSERT_NE(0u, gid);
  EXPECT_EQ(group + "\ncrew:x:" + std::to_string(gid) + ":\n", root.Read("/etc/group"));
  EXPECT_EQ(gshadow + "\ncrew:!::\n", root.Read("/etc/gshadow"));
}

// A save with nothing to change leaves both files byte for byte, even lines
// a rewrite would tidy (a short gshadow line, no final newline).
TEST(GroupWrite, UnchangedSaveLeavesUntidyLinesAlone) {
  TempRoot root;
  root.Write("/etc/group", root.Read("/etc/group") + "team:x:1600:admin");
  root.Write("/etc/gshadow", root.Read("/etc/gshadow") + "team:!\n");
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  GroupPtr g(SDK::Group::LoadGroup("team"));
  ASSERT_TRUE(g);
  EXPECT_TRUE(g->AddMember("ADMIN"));  // already there
  ASSERT_TRUE(g->Save());
  EXPECT_EQ(group, root.Read("/etc/group"));
  EXPECT_EQ(gshadow, root.Read("/etc/gshadow"));
}
