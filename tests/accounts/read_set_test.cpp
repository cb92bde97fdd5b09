// The files a read scope looked at, as the snapshots it saw: what decides
// whether an answer made from them may be given again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "common/temp_root.h"
#include "tavo/directory.h"
#include "tavo/group.h"
#include "tavo/handler.h"
#include "tavo/read_scope.h"
#include "tavo/user.h"
#include "tavo/util.h"
#include "tavo/wait_notice.h"

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

// What another program changes while a request waits for a lock is what
// the request reads once it holds it.
TEST(ReadScope, ALockTakenInTheScopeShowsTheFilesAsTheyAreAfterIt) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  tavo::ReadScope scope;
  const int before = ReadPage();
  ASSERT_GT(before, 0);
  root.AddGroup("beta", 1501);
  EXPECT_EQ(before, ReadPage()) << "one view until a lock is taken";
  ServerFormHandler handler("/tmp/grouplock");
  ASSERT_TRUE(handler.ShLock());
  EXPECT_EQ(before + 1, ReadPage()) << "the handler lock";
  root.AddGroup("gamma", 1502);
  int fd = -1;
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", false, &fd));
  EXPECT_EQ(before + 2, ReadPage()) << "a lock file";
  ServerFormHandler::UnlockFile(fd);
  root.AddGroup("delta", 1503);
  ASSERT_TRUE(tavo_test::ChangeMembers("alpha", {"guest"}));  // takes the account locks
  EXPECT_EQ(before + 3, ReadPage()) << "the account locks";
}

// The module's claim is not enough: what else the call did decides.
TEST(ReadSet, NoneWhenTheCallReadMoreThanTheAccountFilesOrTookALockToChange) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  root.AddUser("carol", 1010, 100, "", "40000");  // expires on a day the clock decides
  auto marked = [](const std::function<void()>& also) {
    tavo::ReadScope scope;
    EXPECT_GT(ReadPage(), 0);
    also();
    TavoAnswerReusable();
    return scope.Reads() != nullptr;
  };
  EXPECT_TRUE(marked([] {}));
  EXPECT_FALSE(marked([] { TLIBCFileExist("/etc/tavo/ldap"); })) << "a file outside the snapshots";
  EXPECT_FALSE(marked([] { TLIBCReadPidFile("/tmp/domain_group.pid"); })) << "a pid file";
  EXPECT_FALSE(marked([] { TAVOLDAPIsBinded(0); })) << "a directory's state";
  EXPECT_FALSE(marked([] { TAVOUserCheckExpired("carol"); })) << "the clock";
  EXPECT_FALSE(marked([] {
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ExLock());
  })) << "an exclusive lock";
  EXPECT_TRUE(marked([] {
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ShLock());
  })) << "a shared lock";
}

// A thread that makes calls itself is told, once, before a step that may
// wait, and never for a read of files already in memory.
TEST(WaitNotice, ToldBeforeWhatMayWaitNeverForFilesInMemory) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  root.AddUser("carol", 1010, 100, "", "40000");
  ASSERT_GT(ReadPage(), 0);
  TAVOUserCheckExpired("carol");  // every file read once
  auto count = [](void* n) { ++*static_cast<int*>(n); };
  auto told = [&](const std::function<void()>& step) {
    int n = 0;
    tavo::WaitNotice notice(count, &n);
    step();
    step();
    return n;
  };
  auto shared = [] {
    ServerFormHandler h("/tmp/grouplock");
    return h.ShLock();
  };
  EXPECT_EQ(0, told([] { ReadPage(); })) << "a page of files in memory";
  EXPECT_EQ(0, told([] { TAVOUserCheckExpired("carol"); })) << "the clock";
  EXPECT_EQ(0, told([&] { EXPECT_TRUE(shared()); })) << "a shared lock nobody holds";
  EXPECT_EQ(1, told([] {
              ServerFormHandler h("/tmp/grouplock");
              EXPECT_TRUE(h.ExLock());
            }))
      << "an exclusive lock";
  EXPECT_EQ(1, told([] { ASSERT_TRUE(tavo_test::ChangeMembers("alpha", {"admin"})); }))
      << "the account locks";
  EXPECT_EQ(1, told([] { TLIBCFileExist("/etc/tavo/ldap"); })) << "a file outside the snapshots";
  bool changed = false;
  EXPECT_EQ(1, told([&] {
              if (!changed) root.AddGroup("beta", 1501);
              changed = true;
              ReadPage();
            }))
      << "a changed file, read from disk";
  {
    const int fd = open(root.Path("/run/tavo/grouplock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, flock(fd, LOCK_EX));  // another writer
    setenv("TAVO_LOCK_TIMEOUT_MS", "30", 1);
    EXPECT_EQ(1, told([&] { EXPECT_FALSE(shared()); })) << "a lock another holds";
    unsetenv("TAVO_LOCK_TIMEOUT_MS");
    close(fd);
  }
  // A long call made from memory counts as one that waits; a page does not.
  std::string many;
  for (int i = 0; i < 3000; ++i)
    many += "bulk" + std::to_string(i) + ":x:" + std::to_string(20000 + i) + ":\n";
  root.Append("/etc/group", many);
  auto every = [] {
    auto none = [](const TLIB_GROUP_INFO*, int, void*) { return 0; };
    return TLIBGroupInfoEnumBySubstr(TAVO_GROUP_LOCAL, "", 0, -1, "", 1, none, nullptr);
  };
  ASSERT_GT(every(), 3000);
  EXPECT_EQ(0, told([] { ReadPage(); })) << "a page of 50";
  EXPECT_EQ(1, told([&] { every(); })) << "every group";
  // Notices nest: the innermost is told, and the outer one again after it.
  int outer = 0, inner = 0;
  {
    tavo::WaitNotice a(count, &outer);
    {
      tavo::WaitNotice b(count, &inner);
      tavo::NoticeWait();
    }
    tavo::NoticeWait();
  }
  tavo::NoticeWait();  // none in force
  EXPECT_EQ(1, inner);
  EXPECT_EQ(1, outer);
}

// A kept answer is given under the locks its call took, or not at all.
TEST(ReadSet, CheckTakesTheCallsLocksAndIsBusyWhileAnotherHoldsOne) {
  tavo_test::TempRoot root;
  root.AddGroup("alpha", 1500, {"admin"});
  std::shared_ptr<const tavo::ReadSet> set;
  {
    tavo::ReadScope scope;
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ShLock());
    ASSERT_GT(ReadPage(), 0);
    TavoAnswerReusable();
    set = scope.Reads();
  }
  ASSERT_TRUE(set);
  auto check = [&] {
    tavo::ReadScope scope;
    return set->Check();
  };
  EXPECT_EQ(tavo::ReadSet::Reuse::kCurrent, check());
  {
    const int fd = open(root.Path("/run/tavo/grouplock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, flock(fd, LOCK_EX));  // another writer
    EXPECT_EQ(tavo::ReadSet::Reuse::kBusy, check());
    close(fd);
  }
  EXPECT_EQ(tavo::ReadSet::Reuse::kCurrent, check());
  root.AddGroup("beta", 1501);
  EXPECT_EQ(tavo::ReadSet::Reuse::kStale, check());
}

}  // namespace
