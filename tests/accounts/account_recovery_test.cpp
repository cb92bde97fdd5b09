// Members under their stored names, changes cut off after they were decided,
// and the group/gshadow check and repair.
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"
#include "tavo/group.h"
#include "tavo/store_check.h"
#include "tavo/testing.h"

namespace {

using tavo_test::ChangeMembers;
using tavo_test::GroupPtr;
using tavo_test::MembersOf;
using tavo_test::TempRoot;

bool Contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

// Temporary files left in etc/ and etc/tavo/, or a journal that still names
// a change (the journal file itself stays, cleared).
bool Leftovers(const TempRoot& root) {
  return TempRoot::Run("find " + root.Path("/etc") + " -name '.*.tavo.*' | grep -q .") == 0 ||
         TempRoot::Run("head -1 " + root.Path("/etc/.tavo-change") +
                       " 2>/dev/null | grep -qv '^tavo-change 0$'") == 0;
}

std::string LatestEvent() {
  Json::Value out;
  if (!tavo::EventLogList(0, 1, &out) || out["entries"].empty()) return "";
  return out["entries"][0]["event"].asString();
}

// Requests may spell a user in any case; the files must name the user as
// passwd does, or glibc and grpck do not see the membership.
TEST(StoredNames, MembersAreWrittenAsPasswdSpellsThem) {
  TempRoot root;
  root.AddUser("bob", 1100);
  root.AddUser("Carol", 1101);
  root.AddGroup("Staff", 1500, {"admin"});
  ASSERT_TRUE(ChangeMembers("staff", {"BOB", "carol", "stranger"}));
  GroupPtr created(SDK::Group::CreateGroup("fresh"));
  ASSERT_TRUE(created && created->AddMember("Bob") && created->Save());
  EXPECT_EQ((std::vector<std::string>{"bob"}), created->GetMembers());

  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nStaff:x:1500:admin,bob,Carol,stranger\n"));
  EXPECT_TRUE(Contains(root.Read("/etc/gshadow"), "\nStaff:!::admin,bob,Carol,stranger\n"));
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nfresh:x:1501:bob\n"));
  const std::string R = root.dir();
  const std::string nss = "NSS_WRAPPER_PASSWD=" + R + "/etc/passwd NSS_WRAPPER_GROUP=" + R +
                          "/etc/group LD_PRELOAD=libnss_wrapper.so ";
  EXPECT_EQ(0, TempRoot::Run(nss + "id -Gn bob | tr ' ' '\\n' | grep -qx Staff"));
  EXPECT_EQ(0, TempRoot::Run(nss + "id -Gn bob | tr ' ' '\\n' | grep -qx fresh"));
  EXPECT_EQ(0, TempRoot::Run(nss + "id -Gn Carol | tr ' ' '\\n' | grep -qx Staff"));
  // Removal by any spelling finds the stored one.
  ASSERT_TRUE(ChangeMembers("staff", {}, {"CAROL", "stranger"}));
  EXPECT_EQ((std::vector<std::string>{"admin", "bob"}), MembersOf("Staff"));
  EXPECT_EQ(0, root.Grpck());
}

// A change whose first rename fails is abandoned and answered as failed with
// the old files in place; a writer killed between its renames leaves a change
// that the next writer completes and records in the event log.
TEST(Recovery, ChangesDecidedAreCompletedAndReportedTruthfully) {
  TempRoot root;
  root.AddGroup("team", 1500, {"admin"});
  root.AddGroup("other", 1501);
  auto rename_to = [](const std::string& from, std::string to) {
    GroupPtr g(SDK::Group::LoadGroup(from));
    return g && g->SetName(to) && g->AddMember("guest") && g->SetDesc("d") && g->Save();
  };

  ASSERT_TRUE(rename_to("team", "crew"));
  // The first rename failing abandons the change: nothing changed.
  const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
  tavo::testing::FailNext("file.rename", TAVO_ERR_IO, 1);
  EXPECT_FALSE(rename_to("crew", "band"));
  EXPECT_EQ(TAVO_ERR_IO, TLIBCErrGet());
  EXPECT_EQ(group, root.Read("/etc/group"));
  EXPECT_EQ(gshadow, root.Read("/etc/gshadow"));
  EXPECT_FALSE(Leftovers(root));

  // A writer killed between its renames leaves group renamed, gshadow not.
  pid_t pid = fork();
  if (pid == 0) {
    setenv("TAVO_TEST_KILL_AT", "file.between", 1);
    rename_to("crew", "band");
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nband:x:1500:admin,guest\n"));
  EXPECT_EQ(gshadow, root.Read("/etc/gshadow"));
  tavo::StoreCheckResult found;
  ASSERT_TRUE(tavo::CheckAccountStore(false, "test", &found));
  ASSERT_EQ(3u, found.findings.size());  // and gshadow disagrees with group (crew, band)
  EXPECT_TRUE(Contains(found.findings[0], "cut off"));

  ASSERT_TRUE(ChangeMembers("other", {"admin"}));  // the next writer
  EXPECT_EQ("0x11800700", LatestEvent());
  EXPECT_EQ((std::vector<std::string>{"admin", "guest"}), MembersOf("band"));
  EXPECT_EQ((std::vector<std::string>{"admin"}), MembersOf("other"));
  EXPECT_EQ("band:d\n", root.Read("/etc/tavo/group_desc"));
  EXPECT_TRUE(Contains(root.Read("/etc/gshadow"), "\nband:!::admin,guest\n"));
  EXPECT_FALSE(Leftovers(root));
  EXPECT_EQ(0, root.Grpck());
}

// A journal whose target another program replaced after the crash keeps that
// newer file; stray temporary files of writers that died early are removed.
TEST(Recovery, NewerFilesWinAndStrayTemporaryFilesGo) {
  TempRoot root;
  root.AddGroup("team", 1500);
  const std::string tmp = root.Path("/etc/.group.tavo.abc123");
  root.Write("/etc/.group.tavo.abc123", "stale\n");
  root.Write("/etc/.gshadow.tavo.zzz999", "never decided\n");
  root.Write("/etc/.tavo-change",
             "tavo-change 1\n1 1 " + root.Path("/etc/group") + "\t" + tmp + "\n");
  const std::string group = root.Read("/etc/group");
  tavo::StoreCheckResult r;
  ASSERT_TRUE(tavo::RecoverAccountFiles("test", &r));
  EXPECT_EQ(group, root.Read("/etc/group"));
  EXPECT_EQ(2u, r.repairs.size());
  EXPECT_FALSE(Leftovers(root));
}

// A writer killed once its journal was synced, before any rename: the change
// was decided and recovery completes it. The same journal cut off while it
// was written (its entries no longer match their hash) decides nothing: the
// temporary files go and the files stay as they were.
TEST(Recovery, AJournalDecidesOnlyWhenWrittenWhole) {
  for (bool torn : {false, true}) {
    TempRoot root;
    root.AddGroup("team", 1500, {"admin"});
    const std::string group = root.Read("/etc/group"), gshadow = root.Read("/etc/gshadow");
    pid_t pid = fork();
    if (pid == 0) {
      setenv("TAVO_TEST_KILL_AT", "file.decided", 1);
      ChangeMembers("team", {"guest"});
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(group, root.Read("/etc/group"));
    std::string journal = root.Read("/etc/.tavo-change");
    ASSERT_EQ(0u, journal.find("tavo-change 2 "));
    if (torn) {  // gshadow's entry garbled; group's still reads as an entry
      const size_t second_end = journal.find('\n', journal.find('\n', journal.find('\n') + 1) + 1);
      journal[second_end - 1] = '#';
      root.Write("/etc/.tavo-change", journal);
    }
    tavo::StoreCheckResult found;
    ASSERT_TRUE(tavo::CheckAccountStore(false, "test", &found));
    ASSERT_FALSE(found.findings.empty());
    EXPECT_TRUE(Contains(found.findings[0], torn ? "journal was cut off" : "change was cut off"));
    tavo::StoreCheckResult r;
    ASSERT_TRUE(tavo::RecoverAccountFiles("test", &r));
    EXPECT_FALSE(Leftovers(root));
    if (torn) {
      EXPECT_EQ(group, root.Read("/etc/group"));
      EXPECT_EQ(gshadow, root.Read("/etc/gshadow"));
    } else {
      EXPECT_TRUE(Contains(root.Read("/etc/group"), "\nteam:x:1500:admin,guest\n"));
      EXPECT_TRUE(Contains(root.Read("/etc/gshadow"), "\nteam:!::admin,guest\n"));
      EXPECT_EQ("0x11800700", LatestEvent());
    }
    EXPECT_EQ(0, root.Grpck());
  }
}

// gshadow out of step with group, as a crash or a hand edit leaves it: the
// check names every disagreement, the repair fixes them keeping passwords and
// administrators, and grpck is then satisfied.
TEST(Repair, GshadowIsBroughtInStepWithGroup) {
  TempRoot root;
  root.AddGroup("both", 1500, {"admin"});
  root.Append("/etc/group", "nogs:x:1501:guest\n");
  root.Append("/etc/gshadow", "orphan:!::admin\n");
  std::string gs = root.Read("/etc/gshadow");
  const std::string line = "both:!::admin\n";
  gs.replace(gs.find(line), line.size(), "both:$6$pw:admin:admin,guest\n");
  root.Write("/etc/gshadow", gs);
  EXPECT_NE(0, root.Grpck());

  tavo::StoreCheckResult found;
  ASSERT_TRUE(tavo::CheckAccountStore(false, "test", &found));
  EXPECT_EQ(3u, found.findings.size());
  EXPECT_EQ(gs, root.Read("/etc/gshadow"));  // a check alone changes nothing

  tavo::StoreCheckResult fixed;
  ASSERT_TRUE(tavo::CheckAccountStore(true, "test", &fixed));
  EXPECT_EQ(3u, fixed.repairs.size());
  const std::string after = root.Read("/etc/gshadow");
  EXPECT_TRUE(Contains(after, "\nboth:$6$pw:admin:admin\n"));
  EXPECT_TRUE(Contains(after, "\nnogs:!::guest\n"));
  EXPECT_FALSE(Contains(after, "orphan"));
  EXPECT_EQ("0x11800701", LatestEvent());
  EXPECT_EQ(0, root.Grpck());
  tavo::StoreCheckResult again;
  ASSERT_TRUE(tavo::CheckAccountStore(false, "test", &again));
  EXPECT_TRUE(again.findings.empty());
}

}  // namespace
