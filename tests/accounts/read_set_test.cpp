// The files a read scope looked at, as the snapshots it saw: what decides
// whether an answer made from them may be given again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tavo/group.h"
#include "tavo/read_scope.h"
#include "temp_root.h"

namespace {

// What a page of groups with descriptions reads.
int ReadPage() {
  auto add = [](const TLIB_GROUP_INFO* g, int, void*) {
    char* desc = nullptr;
    unsigned size = 0;
    const int r = TAVOGroupDescGet(g->name, &desc, &size);
    free(desc);
    return r;
  };
  return TLIBGroupInfoEnumBySubstr(TAVO_GROUP_LOCAL, "", 0, 50, "", 1, add, nullptr);
}

// The read set of a page whose answer was marked reusable.
std::shared_ptr<const tavo::ReadSet> PageReads() {
  tavo::ReadScope scope;
  EXPECT_GT(ReadPage(), 0);
  TavoAnswerReusable();
  return scope.Reads();
}

bool Current(const tavo::ReadSet& set) {
  tavo::ReadScope scope;
  return set.Current();
}

TEST(ReadSet, StaysCurrentUntilAnyFileOfThePageChangesWhoeverChangesIt) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  root.AddGroup("beta", 1501, {"guest"});
  root.SetDescription("alpha", "first");

  auto set = PageReads();
  ASSERT_TRUE(set);
  EXPECT_GE(set->size(), 3u);  // group, descriptions, login.defs
  EXPECT_TRUE(Current(*set));
  EXPECT_TRUE(Current(*set));  // looking does not change it

  // Another program's changes: a description; the group file in place, at
  // the same size and at once; the GID range.
  root.SetDescription("beta", "second");
  EXPECT_FALSE(Current(*set)) << "description added";
  set = PageReads();
  std::string text = root.Read("/etc/group");
  text.replace(text.find("\nbeta:"), 6, "\nbetA:");
  root.Write("/etc/group", text);
  EXPECT_FALSE(Current(*set)) << "group file rewritten in place";
  set = PageReads();
  const std::string defs = root.Read("/etc/login.defs");
  std::string narrower = defs;
  narrower.replace(narrower.find("GID_MIN 1000"), 12, "GID_MIN 1501");
  root.Write("/etc/login.defs", narrower);
  EXPECT_FALSE(Current(*set)) << "GID range";
  root.Write("/etc/login.defs", defs);

  // A change made by this process.
  set = PageReads();
  ASSERT_TRUE(tavo_test::ChangeMembers("alpha", {"guest"}));
  EXPECT_FALSE(Current(*set)) << "member added here";
  set = PageReads();
  EXPECT_TRUE(Current(*set));
  {
    tavo_test::TempRoot other;  // another root: the same paths mean nothing
    EXPECT_FALSE(Current(*set)) << "root switched";
  }
}

TEST(ReadSet, OnlyAnOutermostScopeMarkedReusableWithoutAWriteGivesOne) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  TavoAnswerReusable();  // outside any scope: no effect on the next one
  {
    tavo::ReadScope scope;
    ASSERT_GT(ReadPage(), 0);
    EXPECT_FALSE(scope.Reads()) << "not marked";
  }
  {
    tavo::ReadScope scope;
    ASSERT_GT(ReadPage(), 0);
    ASSERT_TRUE(tavo_test::ChangeMembers("alpha", {"guest"}));
    TavoAnswerReusable();
    EXPECT_FALSE(scope.Reads()) << "a write in the scope";
  }
  {
    tavo::ReadScope outer;
    tavo::ReadScope inner;
    ASSERT_GT(ReadPage(), 0);
    TavoAnswerReusable();
    EXPECT_FALSE(inner.Reads()) << "a nested scope";
    EXPECT_FALSE(outer.Reads()) << "the inner scope still lives";
  }
  {
    tavo::ReadScope scope;
    ASSERT_GT(ReadPage(), 0);
    TavoAnswerReusable();
    EXPECT_TRUE(scope.Reads());
  }
}

}  // namespace
