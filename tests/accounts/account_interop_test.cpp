// Working beside the system's account tools and other writers: tools' changes
// are seen at once, our files pass grpck and glibc reads them, concurrent
// writers (threads, processes, gpasswd) lose no update, locks time out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tavo/error.h"
#include "tavo/group.h"
#include "temp_root.h"

namespace {

using tavo_test::TempRoot;

std::vector<std::string> MembersOf(const std::string& group) {
  SDK::Group* g = SDK::Group::LoadGroup(group);
  if (!g) return {};
  std::vector<std::string> m = g->GetMembers();
  SDK::Group::Release(g);
  std::sort(m.begin(), m.end());
  return m;
}

bool AddAndSave(const std::string& group, const std::string& user) {
  SDK::Group* g = SDK::Group::LoadGroup(group);
  if (!g) return false;
  bool ok = g->AddMember(user) && g->Save();
  SDK::Group::Release(g);
  return ok;
}

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) { setenv(name, value, 1); }
  ~ScopedEnv() { unsetenv(name_); }

 private:
  const char* name_;
};

TEST(Interop, ToolsAndPlatformReadEachOthersWrites) {
  TempRoot root;
  const std::string R = root.dir();
  ASSERT_EQ(0, TempRoot::Run("groupadd -P " + R + " Toolgroup"));
  ASSERT_EQ(0, TempRoot::Run("gpasswd -Q " + R + " -a admin Toolgroup >/dev/null"));
  EXPECT_EQ(std::vector<std::string>{"admin"}, MembersOf("toolgroup"));

  SDK::Group* g = SDK::Group::CreateGroup("ours");
  ASSERT_NE(nullptr, g);
  ASSERT_TRUE(g->AddMember("guest"));
  ASSERT_TRUE(g->SetDesc("made here"));
  ASSERT_TRUE(g->Save());
  const unsigned gid = g->GetGID();
  SDK::Group::Release(g);
  ASSERT_TRUE(AddAndSave("toolgroup", "guest"));
  EXPECT_EQ(0, TempRoot::Run("grpck -r -R " + R + " >/dev/null 2>&1"));

  std::string getent = "NSS_WRAPPER_PASSWD=" + R + "/etc/passwd NSS_WRAPPER_GROUP=" + R +
                       "/etc/group LD_PRELOAD=libnss_wrapper.so getent group ";
  EXPECT_EQ(0, TempRoot::Run(getent + "ours | grep -qx 'ours:x:" + std::to_string(gid) + ":guest'"));
  EXPECT_EQ(0, TempRoot::Run(getent + "Toolgroup | grep -q ':admin,guest$'"));

  ASSERT_EQ(0, TempRoot::Run("groupmod -P " + R + " -n Renamed ours"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("ours"));
  EXPECT_TRUE(SDK::Group::IsGroupExist("RENAMED"));
  ASSERT_EQ(0, TempRoot::Run("groupdel -P " + R + " Renamed"));
  EXPECT_FALSE(SDK::Group::IsGroupExist("renamed"));

  const char* names[] = {"toolgroup"};
  EXPECT_EQ(1, TAVOGroupDelete(names, 1));
  EXPECT_EQ(0, TempRoot::Run("grpck -r -R " + R + " >/dev/null 2>&1"));
}

TEST(Interop, ThreadsAddingMembersLoseNoUpdate) {
  TempRoot root;
  root.AddGroup("shared", 1500);
  for (int t = 0; t < 8; ++t)
    for (int k = 0; k < 5; ++k) root.AddUser("u" + std::to_string(t) + "_" + std::to_string(k), 2000 + t * 10 + k);
  std::vector<std::thread> threads;
  std::vector<int> failures(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t, &failures] {
      for (int k = 0; k < 5; ++k)
        if (!AddAndSave("shared", "u" + std::to_string(t) + "_" + std::to_string(k))) ++failures[t];
    });
  }
  // Readers meanwhile always see a whole file: the member count never drops.
  bool reader_ok = true;
  std::thread reader([&reader_ok] {
    int last = 0;
    for (int k = 0; k < 200; ++k) {
      TAVO_GROUP* g = nullptr;
      if (TAVOGroupGet("shared", &g) != 0) { reader_ok = false; return; }
      if (g->member_count < last) reader_ok = false;
      last = g->member_count;
      TAVOGroupFree(g);
    }
  });
  for (auto& th : threads) th.join();
  reader.join();
  EXPECT_TRUE(reader_ok);
  for (int f : failures) EXPECT_EQ(0, f);
  EXPECT_EQ(40u, MembersOf("shared").size());
  EXPECT_EQ(0, TempRoot::Run("grpck -r -R " + root.dir() + " >/dev/null 2>&1"));
}

TEST(Interop, ProcessesAndGpasswdLoseNoUpdate) {
  TempRoot root;
  root.AddGroup("shared", 1500);
  for (int k = 0; k < 5; ++k) root.AddUser("tool" + std::to_string(k), 1100 + k);
  for (int k = 0; k < 15; ++k) root.AddUser("p" + std::to_string(k / 5) + "_" + std::to_string(k % 5), 1200 + k);
  for (int k = 0; k < 10; ++k) root.AddUser("q" + std::to_string(k), 1300 + k);
  // A change by the account tools between our load and our save is kept.
  SDK::Group* g = SDK::Group::LoadGroup("shared");
  ASSERT_NE(nullptr, g);
  ASSERT_EQ(0, TempRoot::Run("gpasswd -Q " + root.dir() + " -a admin shared >/dev/null"));
  ASSERT_TRUE(g->AddMember("guest"));
  ASSERT_TRUE(g->Save());
  SDK::Group::Release(g);
  EXPECT_EQ((std::vector<std::string>{"admin", "guest"}), MembersOf("shared"));

  std::vector<pid_t> kids;
  for (int p = 0; p < 3; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      bool ok = true;
      for (int k = 0; k < 5; ++k) ok = AddAndSave("shared", "p" + std::to_string(p) + "_" + std::to_string(k)) && ok;
      _exit(ok ? 0 : 1);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(17u, MembersOf("shared").size()) << root.Read("/etc/group");

  // gpasswd running while other processes save: gpasswd takes the locks only
  // after it has read the group, so it may overwrite what was saved in that
  // window; what gpasswd writes must never be lost by our saves.
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    bool ok = true;
    for (int k = 0; k < 10; ++k) ok = AddAndSave("shared", "q" + std::to_string(k)) && ok;
    _exit(ok ? 0 : 1);
  }
  for (int k = 0; k < 5; ++k)
    EXPECT_EQ(0, TempRoot::Run("gpasswd -Q " + root.dir() + " -a tool" + std::to_string(k) +
                               " shared >/dev/null"));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::vector<std::string> members = MembersOf("shared");
  for (int k = 0; k < 5; ++k)
    EXPECT_TRUE(std::count(members.begin(), members.end(), "tool" + std::to_string(k))) << k;
  EXPECT_EQ(0, TempRoot::Run("grpck -r -R " + root.dir() + " >/dev/null 2>&1"));
}

// Runs `hold` in a child that keeps a lock until the pipe closes.
pid_t HoldInChild(const std::string& what, const std::string& path, int* release_fd) {
  int ready[2], release[2];
  if (pipe(ready) != 0 || pipe(release) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    close(release[1]);
    if (what == "pwd") {
      int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
      struct flock fl = {};
      fl.l_type = F_WRLCK;
      fl.l_whence = SEEK_SET;
      if (fd < 0 || fcntl(fd, F_SETLK, &fl) != 0) _exit(1);
    } else {
      int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
      std::string pid_text = std::to_string(getpid());
      if (fd < 0 || write(fd, pid_text.data(), pid_text.size()) < 0) _exit(1);
      close(fd);
    }
    char c = 1;
    if (write(ready[1], &c, 1) != 1) _exit(1);
    (void)!read(release[0], &c, 1);
    if (what != "pwd") unlink(path.c_str());
    _exit(0);
  }
  close(ready[1]);
  close(release[0]);
  char c;
  if (read(ready[0], &c, 1) != 1) pid = -1;
  close(ready[0]);
  *release_fd = release[1];
  return pid;
}

TEST(Interop, HeldLocksTimeOutAndStaleLocksAreCleared) {
  TempRoot root;
  root.AddGroup("team", 1500);
  ScopedEnv env("TAVO_LOCK_TIMEOUT_MS", "300");
  for (const char* what : {"pwd", "group"}) {
    std::string path = root.Path(std::string(what) == "pwd" ? "/etc/.pwd.lock" : "/etc/group.lock");
    int release_fd = -1;
    pid_t pid = HoldInChild(what, path, &release_fd);
    ASSERT_GT(pid, 0);
    SDK::Group* g = SDK::Group::LoadGroup("team");
    ASSERT_TRUE(g->AddMember("admin"));
    EXPECT_FALSE(g->Save()) << what;
    EXPECT_EQ(TAVO_ERR_LOCK, TLIBCErrGet()) << what;
    close(release_fd);
    waitpid(pid, nullptr, 0);
    EXPECT_TRUE(g->Save()) << what;
    SDK::Group::Release(g);
  }
  // A lock file left by a process that is gone does not block.
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  root.Write("/etc/group.lock", std::to_string(dead));
  EXPECT_TRUE(AddAndSave("team", "guest"));
  EXPECT_EQ(0, access(root.Path("/etc/group.lock").c_str(), F_OK) == 0 ? 1 : 0);
}

}  // namespace
