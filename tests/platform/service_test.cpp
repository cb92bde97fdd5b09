// Reload hooks: arguments and environment, order, failures, time bound, and
// descriptors that must not leak into a hook.
#include "tavo/service.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/log_capture.h"
#include "common/temp_root.h"
#include "tavo/handler.h"

namespace {

class ReloadHookTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root_.Path("/etc/tavo/reload.d"));
    tavo_test::ClearLog();
  }
  void TearDown() override { unsetenv("TAVO_HOOK_TIMEOUT_MS"); }

  void AddHook(const std::string& name, const std::string& body, mode_t mode = 0755) {
    std::string path = "/etc/tavo/reload.d/" + name;
    root_.Write(path, "#!/bin/sh\n" + body + "\n");
    chmod(root_.Path(path).c_str(), mode);
  }

  tavo_test::TempRoot root_;
};

TEST_F(ReloadHookTest, HooksRunInNameOrderWithTypeAndRoot) {
  EXPECT_EQ(TLIBServiceTypeReload(8), 0);  // an empty folder runs nothing
  AddHook("20-second", "echo \"second $1\" >> \"$TAVO_ROOT/tmp/trace\"");
  AddHook("10-first", "echo \"first $1 $TAVO_ROOT\" >> \"$TAVO_ROOT/tmp/trace\"");
  AddHook("30-not-executable", "echo never >> \"$TAVO_ROOT/tmp/trace\"", 0644);
  AddHook(".hidden", "echo never >> \"$TAVO_ROOT/tmp/trace\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 2);
  EXPECT_EQ(root_.Read("/tmp/trace"), "first 8 " + root_.dir() + "\nsecond 8\n");
  std::filesystem::remove_all(root_.Path("/etc/tavo/reload.d"));
  EXPECT_EQ(TLIBServiceTypeReload(8), 0);  // nor does a missing one
}

TEST_F(ReloadHookTest, FailingHookIsLoggedAndLaterHooksStillRun) {
  AddHook("10-fails", "exit 3");
  AddHook("20-runs", "touch \"$TAVO_ROOT/tmp/ran\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 2);
  EXPECT_EQ(tavo_test::LoggedCount(LOG_WARNING, "10-fails failed with exit status 3"), 1);
  EXPECT_TRUE(std::filesystem::exists(root_.Path("/tmp/ran")));
}

TEST_F(ReloadHookTest, HangingHookAndItsChildrenAreKilledWithinTheBound) {
  setenv("TAVO_HOOK_TIMEOUT_MS", "200", 1);
  AddHook("10-hangs",
          "sleep 30 & echo $! > \"$TAVO_ROOT/tmp/child\"; wait; touch \"$TAVO_ROOT/tmp/finished\"");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(TLIBServiceTypeReload(8), 1);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_LT(waited, std::chrono::seconds(3));
  EXPECT_GE(waited, std::chrono::milliseconds(190));
  EXPECT_EQ(tavo_test::LoggedCount(LOG_WARNING, "10-hangs did not finish within 200 ms"), 1);
  EXPECT_FALSE(std::filesystem::exists(root_.Path("/tmp/finished")));
  // The hook's own child went down with it (gone, or a zombie left to init).
  std::string child = root_.Read("/tmp/child");
  ASSERT_FALSE(child.empty());
  bool alive = true;
  for (int i = 0; i < 100 && alive; ++i) {
    std::ifstream in("/proc/" + std::to_string(std::stoi(child)) + "/stat");
    std::string stat;
    std::getline(in, stat);
    alive = !stat.empty() && stat.find(") Z") == std::string::npos;
    if (alive) usleep(10000);
  }
  EXPECT_FALSE(alive);
}

// A hook runs as the service: one that another user could change, or that
// points elsewhere, is not run, and none sees the service's environment.
TEST_F(ReloadHookTest, OnlyTrustedHooksRunAndWithAMinimalEnvironment) {
  setenv("TAVO_TEST_SECRET", "hush", 1);
  AddHook("10-env", "env | sort > \"$TAVO_ROOT/tmp/env\"");
  AddHook("20-target", "echo \"$0\" >> \"$TAVO_ROOT/tmp/ran\"");
  AddHook("30-group-writable", "echo \"$0\" >> \"$TAVO_ROOT/tmp/ran\"", 0775);
  AddHook("40-foreign", "echo \"$0\" >> \"$TAVO_ROOT/tmp/ran\"");
  const bool chowned =
      chown(root_.Path("/etc/tavo/reload.d/40-foreign").c_str(), 65534, 65534) == 0;
  ASSERT_EQ(symlink(root_.Path("/etc/tavo/reload.d/20-target").c_str(),
                    root_.Path("/etc/tavo/reload.d/50-link").c_str()),
            0);
  EXPECT_EQ(TLIBServiceTypeReload(8), 2);
  unsetenv("TAVO_TEST_SECRET");
  EXPECT_EQ(root_.Read("/tmp/ran"), root_.Path("/etc/tavo/reload.d/20-target") + "\n");
  const std::string env = root_.Read("/tmp/env");
  EXPECT_EQ(env.find("TAVO_TEST_SECRET"), std::string::npos) << env;
  EXPECT_NE(env.find("PATH=/usr/local/sbin:"), std::string::npos) << env;
  EXPECT_NE(env.find("TAVO_ROOT=" + root_.dir() + "\n"), std::string::npos) << env;
  for (const char* name : {"30-group-writable", "50-link"})
    EXPECT_EQ(tavo_test::LoggedCount(LOG_WARNING, std::string(name) + " not run"), 1) << name;
  if (chowned) {
    EXPECT_EQ(tavo_test::LoggedCount(LOG_WARNING, "40-foreign not run"), 1);
  }

  // Nor does anything run from a folder that others may write to.
  chmod(root_.Path("/etc/tavo/reload.d").c_str(), 0777);
  EXPECT_EQ(TLIBServiceTypeReload(8), 0);
  chmod(root_.Path("/etc/tavo/reload.d").c_str(), 0755);
}

TEST_F(ReloadHookTest, HookInheritsNoDescriptorsAboveStderr) {
  int lock_fd = -1;
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", true, &lock_fd));
  // A descriptor opened without close-on-exec, as a socket of a careless
  // library might be.
  int leaky = dup2(lock_fd, 57);
  ASSERT_EQ(leaky, 57);
  // The shell keeps descriptors of its own from 10 up (the script, saved
  // output): only one that names the lock file counts.
  AddHook("10-fds", "for fd in " + std::to_string(lock_fd) +
                        " 57; do"
                        "  if [ \"$(readlink /proc/$$/fd/$fd)\" = \"" +
                        root_.Path("/run/tavo/userlock") +
                        "\" ]; then echo \"open $fd\"; fi; done"
                        " > \"$TAVO_ROOT/tmp/fds\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 1);
  EXPECT_EQ(root_.Read("/tmp/fds"), "");
  close(leaky);
  ServerFormHandler::UnlockFile(lock_fd);
}

}  // namespace
