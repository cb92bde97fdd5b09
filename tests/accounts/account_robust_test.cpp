// Sharing the account files with other tools and administrators: foreign and
// malformed lines, changes the snapshot cache must not miss, and readers and
// writers side by side.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/group.h"
#include "tavo/user.h"

namespace {

using tavo_test::ChangeMembers;
using tavo_test::GroupPtr;
using tavo_test::MembersOf;
using tavo_test::TempRoot;

// The lines of `after` that are not in `before`, and those gone from it, sorted.
struct Changes {
  std::vector<std::string> added, gone;
};
Changes Diff(const std::string& before, const std::string& after) {
  auto lines = [](const std::string& s) {
    std::multiset<std::string> v;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);) v.insert(l);
    return v;
  };
  std::multiset<std::string> b = lines(before), a = lines(after);
  Changes c;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(c.added));
  std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(c.gone));
  return c;
}

const char kForeignGroup[] =
    "# managed by hand\n"
    "\n"
    "+\n"
    "-nisgroup\n"
    "+@netgroup::0:\n"
    "short:x:1300\n"
    "long:x:1301:a:b\n"
    "crlf:x:1302:admin\r\n"
    "holes:x:1303:,,admin,,guest,\n"
    "bytes\xff\xfe:x:1304:admin\n"
    "dup:x:1305:admin\n"
    "dup:x:50:\n"
    "samegid:x:1305:\n"
    "Staff:x:1306:guest\n"
    "staff:x:1307:admin\n"
    "nogshadow:x:1308:\n"
    "twice:x:1309:admin,guest,admin\n";

TEST(Foreign, ReadingForeignLinesMisreportsNothing) {
  TempRoot root;
  root.Append("/etc/group", kForeignGroup);
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("crlf"));
  EXPECT_EQ((std::vector<std::string>{"admin", "guest"}), MembersOf("holes"));
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("bytes\xff\xfe"));
  EXPECT_EQ(std::vector<std::string>{"guest"}, MembersOf("Staff"));
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("staff"));
  EXPECT_EQ(std::vector<std::string>{"<missing>"}, MembersOf("short"));
  EXPECT_EQ(std::vector<std::string>{"<missing>"}, MembersOf("long"));
  // A CRLF shadow line without the last field still gives its expiry date.
  root.Append("/etc/passwd", "cr:x:1500:100:CR user:/home/cr:/bin/sh\r\n");
  root.Append("/etc/shadow", "cr:$y$j9T$abc$def:19000:0:99999:7::1\r\n");
  SDK::User* u = SDK::User::LoadUser("cr");
  ASSERT_NE(nullptr, u);
  EXPECT_EQ("CR user", u->GetDesc());
  SDK::User::Release(u);
  EXPECT_NE(0, TAVOUserCheckExpired("cr"));
}

TEST(Foreign, WritesKeepEveryForeignLine) {
  TempRoot root;
  root.Append("/etc/group", kForeignGroup);
  root.Append("/etc/gshadow",
              "# gshadow comment\ncrlf:!::admin\r\nholes:!:admin:,,admin,,guest,\n"
              "orphan:!::x\ndup:!::admin\nStaff:!::guest\nstaff:!::admin\n");
  ASSERT_EQ(0, chown(root.Path("/etc/gshadow").c_str(), 0, 42));
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");

  ASSERT_TRUE(ChangeMembers("crlf", {"guest"}));
  ASSERT_TRUE(ChangeMembers("holes", {}, {"admin"}));
  ASSERT_TRUE(ChangeMembers("staff", {"guest"}));
  ASSERT_TRUE(ChangeMembers("nogshadow", {"admin"}));
  ASSERT_TRUE(ChangeMembers("twice", {}, {"admin"}));
  EXPECT_EQ(std::vector<std::string>{"guest"}, MembersOf("twice"));
  Changes d = Diff(group, root.Read("/etc/group"));
  EXPECT_EQ((std::vector<std::string>{"crlf:x:1302:admin,guest", "holes:x:1303:guest",
                                      "nogshadow:x:1308:admin", "staff:x:1307:admin,guest",
                                      "twice:x:1309:guest"}),
            d.added);
  EXPECT_EQ((std::vector<std::string>{"crlf:x:1302:admin\r", "holes:x:1303:,,admin,,guest,",
                                      "nogshadow:x:1308:", "staff:x:1307:admin",
                                      "twice:x:1309:admin,guest,admin"}),
            d.gone);
  d = Diff(gshadow, root.Read("/etc/gshadow"));
  EXPECT_EQ(
      (std::vector<std::string>{"crlf:!::admin,guest", "holes:!:admin:guest", "nogshadow:!::admin",
                                "staff:!::admin,guest", "twice:!::guest"}),
      d.added);
  EXPECT_EQ((std::vector<std::string>{"crlf:!::admin\r", "holes:!:admin:,,admin,,guest,",
                                      "staff:!::admin"}),
            d.gone);
  struct stat st;
  ASSERT_EQ(0, stat(root.Path("/etc/gshadow").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  EXPECT_EQ(42u, st.st_gid);

  // Deleting "dup" removes the reachable group's line only, not the system
  // group of the same name, whose gshadow line stays with it.
  const char* names[] = {"dup"};
  EXPECT_EQ(1, TAVOGroupDelete(names, 1));
  const std::string after = root.Read("/etc/group");
  EXPECT_EQ(std::string::npos, after.find("dup:x:1305:admin\n"));
  EXPECT_NE(std::string::npos, after.find("dup:x:50:\n"));
  EXPECT_NE(std::string::npos, root.Read("/etc/gshadow").find("dup:!::admin\n"));
  EXPECT_NE(std::string::npos, after.find("samegid:x:1305:\n"));

  // A rename onto the name of a gshadow line without a group takes that line's
  // place instead of adding a second one.
  GroupPtr g(SDK::Group::LoadGroup("holes"));
  std::string name = "orphan";
  ASSERT_TRUE(g && g->SetName(name) && g->Save());
  const std::string gs = root.Read("/etc/gshadow");
  EXPECT_NE(std::string::npos, gs.find("\norphan:!:admin:guest\n"));
  EXPECT_EQ(gs.find("\norphan:"), gs.rfind("\norphan:"));

  // The name of a line that does not parse stays taken.
  GroupPtr created(SDK::Group::CreateGroup("SHORT"));
  ASSERT_TRUE(created);
  EXPECT_FALSE(created->Save());
  EXPECT_EQ(TAVO_ERR_EXISTS, TLIBCErrGet());
}

// Another program rewrites a file in place with the same size at once, many
// times within one tick of a coarse file clock (same inode, size and times):
// the next read must not answer from the old snapshot.
TEST(Snapshot, SameSizeRewritesInPlaceAndRenamesAreSeen) {
  TempRoot root;
  root.AddGroup("flip", 1500, {"admin"});
  const std::string base = root.Read("/etc/group");
  for (int i = 0; i < 200; ++i) {
    const std::string who = i % 2 ? "guest" : "nobdy";
    root.Write("/etc/group", base.substr(0, base.size() - 6) + who + "\n");
    ASSERT_EQ(std::vector<std::string>{who}, MembersOf("flip")) << "round " << i;
  }
  // Truncated in place, then replaced by rename.
  root.Write("/etc/group", "");
  EXPECT_EQ(std::vector<std::string>{"<missing>"}, MembersOf("flip"));
  root.Write("/etc/group.new", base);
  ASSERT_EQ(0, rename(root.Path("/etc/group.new").c_str(), root.Path("/etc/group").c_str()));
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("flip"));
}

// Unchanged files are answered from their folder's change count, without
// a stat: a folder put in place of the account folder must be seen, and so
// must a change made by a forked child that read the files too (sharing the
// parent's event queue, it would take the parent's events).
TEST(Snapshot, AReplacedFolderAndAChildsChangeAreSeen) {
  TempRoot root;
  root.AddGroup("flip", 1500, {"admin"});
  ASSERT_EQ(std::vector<std::string>{"admin"}, MembersOf("flip"));
  const std::string etc = root.Path("/etc");
  ASSERT_EQ(0, rename(etc.c_str(), (etc + ".old").c_str()));
  std::filesystem::copy(etc + ".old", etc, std::filesystem::copy_options::recursive);
  const std::string base = root.Read("/etc/group");
  root.Write("/etc/group", base.substr(0, base.size() - 6) + "guest\n");
  EXPECT_EQ(std::vector<std::string>{"guest"}, MembersOf("flip"));
  root.Write("/etc/group", base.substr(0, base.size() - 6) + "other\n");  // watched there too
  EXPECT_EQ(std::vector<std::string>{"other"}, MembersOf("flip"));

  pid_t child = fork();
  if (child == 0) {
    root.Write("/etc/group", base.substr(0, base.size() - 6) + "nobdy\n");
    _exit(MembersOf("flip") == std::vector<std::string>{"nobdy"} ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(std::vector<std::string>{"nobdy"}, MembersOf("flip"));
}

// At the top of the GID range, (gid_t)-1 is never given out.
TEST(Gid, TopOfTheRangeIsNeverMinusOne) {
  TempRoot root;
  root.Write("/etc/login.defs", "GID_MIN 4294967290\nGID_MAX 4294967295\n");
  root.AddGroup("top", 4294967294u);
  GroupPtr g(SDK::Group::CreateGroup("next"));
  ASSERT_TRUE(g && g->Save());
  EXPECT_EQ(4294967290u, g->GetGID());
}

int CountGroup(const TLIB_GROUP_INFO*, int, void* ctx) {
  ++*static_cast<int*>(ctx);
  return 0;
}

// The server's worker threads read while other threads write: every read sees
// a whole file, writers to one group lose no update, the files stay consistent.
TEST(Concurrency, ReadersBesideWriters) {
  TempRoot root;
  for (int i = 0; i < 50; ++i) root.AddGroup("g" + std::to_string(i), 1500 + i, {"admin"});
  root.AddGroup("shared", 1600);
  auto user = [](int w, int k) { return "u" + std::to_string(w) + "_" + std::to_string(k); };
  for (int w = 0; w < 4; ++w)
    for (int k = 0; k < 8; ++k) root.AddUser(user(w, k), 2000 + w * 10 + k);
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int r = 0; r < 3; ++r) {
    threads.emplace_back([&] {
      size_t last = 0;  // members of "shared" are only added: the count never drops
      while (!done) {
        int seen = 0;
        int total =
            TLIBGroupInfoEnumBySubstr(TAVO_GROUP_LOCAL, "", 0, -1, "", 0, CountGroup, &seen);
        if (total < 53 || seen != total) ++bad;
        if (MembersOf("g7") != std::vector<std::string>{"admin"}) ++bad;
        std::vector<std::string> shared = MembersOf("shared");
        if (shared.size() < last || shared == std::vector<std::string>{"<missing>"}) ++bad;
        last = shared.size();
        char* desc = nullptr;
        if (TAVOGroupDescGet("administrators", &desc, nullptr) != 0) ++bad;
        free(desc);
      }
    });
  }
  for (int w = 0; w < 4; ++w) {
    threads.emplace_back([&, w] {
      for (int k = 0; k < 8; ++k) {
        std::string name = "w" + user(w, k);
        GroupPtr g(SDK::Group::CreateGroup(name));
        if (!g || !g->SetDesc("d") || !g->AddMember("guest") || !g->Save()) ++bad;
        if (!ChangeMembers("shared", {user(w, k)})) ++bad;
        const std::string other = "g" + std::to_string(20 + w);
        if (!ChangeMembers(other, {"guest"}) || !ChangeMembers(other, {}, {"guest"})) ++bad;
        const char* names[] = {name.c_str()};
        if (TAVOGroupDelete(names, 1) != 1) ++bad;
      }
    });
  }
  for (size_t i = 3; i < threads.size(); ++i) threads[i].join();
  done = true;
  for (size_t i = 0; i < 3; ++i) threads[i].join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ(32u, MembersOf("shared").size());
  EXPECT_EQ(0, root.Grpck());
}

}  // namespace
