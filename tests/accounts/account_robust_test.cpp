// Sharing the account files with other tools and administrators: foreign and
// malformed lines, backups after a failed change, changes the snapshot cache
// must not miss, and readers beside a writer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tavo/error.h"
#include "tavo/group.h"
#include "tavo/user.h"
#include "temp_root.h"

namespace {

using tavo_test::TempRoot;

std::vector<std::string> MembersOf(const std::string& group) {
  TAVO_GROUP* g = nullptr;
  if (TAVOGroupGet(group.c_str(), &g) != 0) return {"<missing>"};
  std::vector<std::string> m(g->members, g->members + g->member_count);
  TAVOGroupFree(g);
  return m;
}

bool Change(const std::string& group, const std::vector<std::string>& add,
            const std::vector<std::string>& remove = {}) {
  SDK::Group* g = SDK::Group::LoadGroup(group);
  if (!g) return false;
  bool ok = true;
  for (const auto& a : add) ok = ok && g->AddMember(a);
  for (const auto& r : remove) ok = ok && g->RemoveMember(r);
  ok = ok && g->Save();
  SDK::Group::Release(g);
  return ok;
}

// The lines of `after` that are not in `before`, and those gone from it, sorted.
void Diff(const std::string& before, const std::string& after, std::vector<std::string>* added,
          std::vector<std::string>* gone) {
  auto lines = [](const std::string& s) {
    std::multiset<std::string> v;
    std::istringstream in(s);
    for (std::string l; std::getline(in, l);) v.insert(l);
    return v;
  };
  std::multiset<std::string> b = lines(before), a = lines(after);
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(*added));
  std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(*gone));
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
  root.Append("/etc/gshadow", "# gshadow comment\ncrlf:!::admin\r\nholes:!:admin:,,admin,,guest,\n"
                              "orphan:!::x\ndup:!::admin\nStaff:!::guest\nstaff:!::admin\n");
  ASSERT_EQ(0, chown(root.Path("/etc/gshadow").c_str(), 0, 42));
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");

  ASSERT_TRUE(Change("crlf", {"guest"}));
  ASSERT_TRUE(Change("holes", {}, {"admin"}));
  ASSERT_TRUE(Change("staff", {"guest"}));
  ASSERT_TRUE(Change("nogshadow", {"admin"}));
  ASSERT_TRUE(Change("twice", {}, {"admin"}));
  EXPECT_EQ(std::vector<std::string>{"guest"}, MembersOf("twice"));
  std::vector<std::string> added, gone;
  Diff(group, root.Read("/etc/group"), &added, &gone);
  EXPECT_EQ((std::vector<std::string>{"crlf:x:1302:admin,guest", "holes:x:1303:guest",
                                      "nogshadow:x:1308:admin", "staff:x:1307:admin,guest",
                                      "twice:x:1309:guest"}),
            added);
  EXPECT_EQ((std::vector<std::string>{"crlf:x:1302:admin\r", "holes:x:1303:,,admin,,guest,",
                                      "nogshadow:x:1308:", "staff:x:1307:admin",
                                      "twice:x:1309:admin,guest,admin"}),
            gone);
  added.clear();
  gone.clear();
  Diff(gshadow, root.Read("/etc/gshadow"), &added, &gone);
  EXPECT_EQ((std::vector<std::string>{"crlf:!::admin,guest", "holes:!:admin:guest",
                                      "nogshadow:!::admin", "staff:!::admin,guest",
                                      "twice:!::guest"}),
            added);
  EXPECT_EQ((std::vector<std::string>{"crlf:!::admin\r", "holes:!:admin:,,admin,,guest,",
                                      "staff:!::admin"}),
            gone);
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
  SDK::Group* g = SDK::Group::LoadGroup("holes");
  ASSERT_NE(nullptr, g);
  std::string name = "orphan";
  ASSERT_TRUE(g->SetName(name));
  ASSERT_TRUE(g->Save());
  SDK::Group::Release(g);
  const std::string gs = root.Read("/etc/gshadow");
  EXPECT_NE(std::string::npos, gs.find("\norphan:!:admin:guest\n"));
  EXPECT_EQ(gs.find("\norphan:"), gs.rfind("\norphan:"));
}

// A failed change of several files puts every file back; the backups never
// hold the change that failed, and no temporary or lock file is left.
TEST(FailedWrite, RollbackKeepsBackupsAndLeavesNoFiles) {
  TempRoot root;
  root.AddGroup("team", 1500, {"admin"});
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  // The description's folder cannot be created: the third file fails.
  ASSERT_EQ(0, TempRoot::Run("rm -rf " + root.Path("/etc/tavo") + " && touch " +
                             root.Path("/etc/tavo")));
  SDK::Group* g = SDK::Group::LoadGroup("team");
  ASSERT_NE(nullptr, g);
  std::string name = "renamed";
  ASSERT_TRUE(g->SetName(name));
  ASSERT_TRUE(g->SetDesc("text"));
  EXPECT_FALSE(g->Save());
  SDK::Group::Release(g);
  EXPECT_EQ(group, root.Read("/etc/group"));
  EXPECT_EQ(gshadow, root.Read("/etc/gshadow"));
  // The backups hold the old files, never the change that failed.
  EXPECT_EQ(group, root.Read("/etc/group-"));
  EXPECT_EQ(gshadow, root.Read("/etc/gshadow-"));
  EXPECT_EQ(std::vector<std::string>{"<missing>"}, MembersOf("renamed"));
  EXPECT_NE(0, TempRoot::Run("ls -A " + root.Path("/etc") +
                             " | grep -v '^\\.pwd\\.lock$' | grep -q '\\.tavo\\|\\.lock$'"));
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

// At the top of the GID range, (gid_t)-1 is never given out.
TEST(Gid, TopOfTheRangeIsNeverMinusOne) {
  TempRoot root;
  root.Write("/etc/login.defs", "GID_MIN 4294967290\nGID_MAX 4294967295\n");
  root.AddGroup("top", 4294967294u);
  SDK::Group* g = SDK::Group::CreateGroup("next");
  ASSERT_NE(nullptr, g);
  ASSERT_TRUE(g->Save());
  EXPECT_EQ(4294967290u, g->GetGID());
  SDK::Group::Release(g);
}

int CountGroup(const TLIB_GROUP_INFO*, int, void* ctx) {
  ++*static_cast<int*>(ctx);
  return 0;
}

// The server's worker threads read while other threads write: every read
// sees a whole file, and the files stay consistent.
TEST(Concurrency, ReadersBesideWriters) {
  TempRoot root;
  for (int i = 0; i < 50; ++i) root.AddGroup("g" + std::to_string(i), 1500 + i, {"admin"});
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int r = 0; r < 3; ++r) {
    threads.emplace_back([&] {
      while (!done) {
        int seen = 0;
        int total =
            TLIBGroupInfoEnumBySubstr(TAVO_GROUP_LOCAL, "", 0, -1, "", 0, CountGroup, &seen);
        if (total < 52 || seen != total) ++bad;
        if (MembersOf("g7") != std::vector<std::string>{"admin"}) ++bad;
        char* desc = nullptr;
        if (TAVOGroupDescGet("administrators", &desc, nullptr) != 0) ++bad;
        free(desc);
      }
    });
  }
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int k = 0; k < 15; ++k) {
        std::string name = "w" + std::to_string(w) + "_" + std::to_string(k);
        SDK::Group* g = SDK::Group::CreateGroup(name);
        if (!g || !g->SetDesc("d") || !g->AddMember("guest") || !g->Save()) ++bad;
        SDK::Group::Release(g);
        if (!Change("g" + std::to_string(20 + w), {"guest"}, {})) ++bad;
        if (!Change("g" + std::to_string(20 + w), {}, {"guest"})) ++bad;
        const char* names[] = {name.c_str()};
        if (TAVOGroupDelete(names, 1) != 1) ++bad;
      }
    });
  }
  for (size_t i = 3; i < threads.size(); ++i) threads[i].join();
  done = true;
  for (size_t i = 0; i < 3; ++i) threads[i].join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ(0, TempRoot::Run("grpck -r -R " + root.dir() + " >/dev/null 2>&1"));
}

}  // namespace
