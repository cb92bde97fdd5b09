// Working beside the system's account tools and other writers: tools' changes
// are seen at once, our files pass grpck and glibc reads them, concurrent
// writer processes and gpasswd lose no update, locks time out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/group.h"

namespace {

using tavo_test::GroupPtr;
using tavo_test::MembersOf;
using tavo_test::TempRoot;

bool AddAndSave(const std::string& group, const std::string& user) {
  return tavo_test::ChangeMembers(group, {user});
}

// Forks a process that adds `prefix`0 .. `prefix`<count-1> to "shared", one
// save each.
pid_t ForkAdder(const std::string& prefix, int count) {
  pid_t pid = fork();
  if (pid == 0) {
    bool ok = true;
    for (int k = 0; k < count; ++k) ok = AddAndSave("shared", prefix + std::to_string(k)) && ok;
    _exit(ok ? 0 : 1);
  }
  return pid;
}

bool ExitedCleanly(pid_t pid) {
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && !WEXITSTATUS(status);
}

TEST(Interop, ToolsAndPlatformReadEachOthersWrites) {
  TempRoot root;
  const std::string R = root.dir();
  ASSERT_EQ(0, TempRoot::Run("groupadd -P " + R + " Toolgroup"));
  ASSERT_EQ(0, TempRoot::Run("gpasswd -Q " + R + " -a admin Toolgroup >/dev/null"));
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("toolgroup"));

  GroupPtr g(SDK::Group::CreateGroup("ours"));
  ASSERT_NE(nullptr, g);
  ASSERT_TRUE(g->AddMember("guest") && g->SetDesc("made here") && g->Save());
  const std::string gid = std::to_string(g->GetGID());
  ASSERT_TRUE(AddAndSave("toolgroup", "guest"));
  EXPECT_EQ(0, root.Grpck());

  std::string getent = "NSS_WRAPPER_PASSWD=" + R + "/etc/passwd NSS_WRAPPER_GROUP=" + R +
                       "/etc/group LD_PRELOAD=libnss_wrapper.so getent group ";
  EXPECT_EQ(0, TempRoot::Run(getent + "ours | grep -qx 'ours:x:" + gid + ":guest'"));
  EXPECT_EQ(0, TempRoot::Run(getent + "Toolgroup | grep -q ':admin,guest$'"));

  ASSERT_EQ(0, TempRoot::Run("groupmod -P " + R + " -n Renamed ours"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("ours"));
  EXPECT_TRUE(SDK::Group::IsGroupExist("RENAMED"));
  ASSERT_EQ(0, TempRoot::Run("groupdel -P " + R + " Renamed"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("renamed"));

  const char* names[] = {"toolgroup"};
  EXPECT_EQ(1, TAVOGroupDelete(names, 1));
  EXPECT_EQ(0, root.Grpck());
}

TEST(Interop, ProcessesAndGpasswdLoseNoUpdate) {
  TempRoot root;
  root.AddGroup("shared", 1500);
  for (int k = 0; k < 5; ++k) root.AddUser("tool" + std::to_string(k), 1100 + k);
  for (int k = 0; k < 15; ++k)
    root.AddUser("p" + std::to_string(k / 5) + "_" + std::to_string(k % 5), 1200 + k);
  for (int k = 0; k < 10; ++k) root.AddUser("q" + std::to_string(k), 1300 + k);
  // A change by the account tools between our load and our save is kept.
  GroupPtr g(SDK::Group::LoadGroup("shared"));
  ASSERT_NE(nullptr, g);
  ASSERT_EQ(0, TempRoot::Run("gpasswd -Q " + root.dir() + " -a admin shared >/dev/null"));
  ASSERT_TRUE(g->AddMember("guest") && g->Save());
  EXPECT_EQ((std::vector<std::string>{"admin", "guest"}), MembersOf("shared"));

  std::vector<pid_t> kids;
  for (int p = 0; p < 3; ++p) kids.push_back(ForkAdder("p" + std::to_string(p) + "_", 5));
  for (pid_t pid : kids) EXPECT_TRUE(ExitedCleanly(pid));
  EXPECT_EQ(17u, MembersOf("shared").size()) << root.Read("/etc/group");

  // gpasswd running while other processes save: gpasswd takes the locks only
  // after it has read the group, so it may overwrite what was saved in that
  // window; what gpasswd writes must never be lost by our saves.
  pid_t pid = ForkAdder("q", 10);
  for (int k = 0; k < 5; ++k)
    EXPECT_EQ(0, TempRoot::Run("gpasswd -Q " + root.dir() + " -a tool" + std::to_string(k) +
                               " shared >/dev/null"));
  EXPECT_TRUE(ExitedCleanly(pid));
  std::vector<std::string> members = MembersOf("shared");
  for (int k = 0; k < 5; ++k)
    EXPECT_TRUE(std::count(members.begin(), members.end(), "tool" + std::to_string(k))) << k;
  EXPECT_EQ(0, root.Grpck());
}

// Holds a lock in a child process until the child is killed: an fcntl lock on
// `path` ("pwd"), or the lock file `path` holding the child's pid ("group").
pid_t HoldInChild(const std::string& what, const std::string& path) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    const bool pwd = what == "pwd";
    int fd = open(path.c_str(), pwd ? O_RDWR | O_CREAT : O_WRONLY | O_CREAT | O_EXCL, 0600);
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    const std::string pid_text = std::to_string(getpid());
    bool held = fd >= 0 && (pwd ? fcntl(fd, F_SETLK, &fl) == 0
                                : write(fd, pid_text.data(), pid_text.size()) > 0);
    if (!held || write(ready[1], "1", 1) != 1) _exit(1);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char c;
  if (read(ready[0], &c, 1) != 1) pid = -1;
  close(ready[0]);
  return pid;
}

// A held lock fails a save after the bounded wait. Once its holder is gone (the
// kernel drops an fcntl lock; a lock file still names the gone process) the
// same save succeeds, and the stale lock file is cleared.
TEST(Interop, HeldLocksTimeOutAndStaleLocksAreCleared) {
  TempRoot root;
  root.AddGroup("team", 1500);
  setenv("TAVO_LOCK_TIMEOUT_MS", "300", 1);
  for (const char* what : {"pwd", "group"}) {
    std::string path = root.Path(std::string(what) == "pwd" ? "/etc/.pwd.lock" : "/etc/group.lock");
    pid_t pid = HoldInChild(what, path);
    ASSERT_GT(pid, 0);
    GroupPtr g(SDK::Group::LoadGroup("team"));
    ASSERT_TRUE(g->AddMember("admin"));
    EXPECT_FALSE(g->Save()) << what;
    EXPECT_EQ(TAVO_ERR_LOCK, TLIBCErrGet()) << what;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_TRUE(g->Save()) << what;
  }
  unsetenv("TAVO_LOCK_TIMEOUT_MS");
  EXPECT_NE(0, access(root.Path("/etc/group.lock").c_str(), F_OK));
}

}  // namespace
