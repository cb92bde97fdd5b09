// Reload hooks: arguments and environment, order, failures, time bound, and
// descriptors that must not leak into a hook.
#include "tavo/service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "tavo/handler.h"
#include "temp_root.h"

// The log lines of the code under test: this executable's syslog takes
// precedence over the C library's for the platform library too.
namespace {
std::mutex g_log_mu;
std::vector<std::pair<int, std::string>> g_log;
}  // namespace

extern "C" void vsyslog(int priority, const char* format, va_list ap) {
  char buf[1024];
  vsnprintf(buf, sizeof(buf), format, ap);
  std::lock_guard<std::mutex> lock(g_log_mu);
  g_log.emplace_back(LOG_PRI(priority), buf);
}
extern "C" void syslog(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vsyslog(priority, format, ap);
  va_end(ap);
}
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vsyslog(priority, format, ap);
  va_end(ap);
}

namespace {

class ReloadHookTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root_.Path("/etc/tavo/reload.d"));
    std::lock_guard<std::mutex> lock(g_log_mu);
    g_log.clear();
  }
  void TearDown() override { unsetenv("TAVO_HOOK_TIMEOUT_MS"); }

  void AddHook(const std::string& name, const std::string& body, mode_t mode = 0755) {
    std::string path = "/etc/tavo/reload.d/" + name;
    root_.Write(path, "#!/bin/sh\n" + body + "\n");
    chmod(root_.Path(path).c_str(), mode);
  }

  int Warnings(const std::string& needle) {
    std::lock_guard<std::mutex> lock(g_log_mu);
    int n = 0;
    for (const auto& line : g_log) {
      if (line.first == LOG_WARNING && line.second.find(needle) != std::string::npos) ++n;
    }
    return n;
  }

  tavo_test::TempRoot root_;
};

TEST_F(ReloadHookTest, NoFolderOrEmptyFolderRunsNothing) {
  EXPECT_EQ(TLIBServiceTypeReload(8), 0);
  std::filesystem::remove(root_.Path("/etc/tavo/reload.d"));
  EXPECT_EQ(TLIBServiceTypeReload(8), 0);
}

TEST_F(ReloadHookTest, HooksRunInNameOrderWithTypeAndRoot) {
  AddHook("20-second", "echo \"second $1\" >> \"$TAVO_ROOT/tmp/trace\"");
  AddHook("10-first", "echo \"first $1 $TAVO_ROOT\" >> \"$TAVO_ROOT/tmp/trace\"");
  AddHook("30-not-executable", "echo never >> \"$TAVO_ROOT/tmp/trace\"", 0644);
  AddHook(".hidden", "echo never >> \"$TAVO_ROOT/tmp/trace\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 2);
  EXPECT_EQ(root_.Read("/tmp/trace"), "first 8 " + root_.dir() + "\nsecond 8\n");
}

TEST_F(ReloadHookTest, FailingHookIsLoggedAndLaterHooksStillRun) {
  AddHook("10-fails", "exit 3");
  AddHook("20-runs", "touch \"$TAVO_ROOT/tmp/ran\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 2);
  EXPECT_EQ(Warnings("10-fails failed with exit status 3"), 1);
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
  EXPECT_EQ(Warnings("10-hangs did not finish within 200 ms"), 1);
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

TEST_F(ReloadHookTest, HookInheritsNoDescriptorsAboveStderr) {
  int lock_fd = -1;
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", true, &lock_fd));
  // A descriptor opened without close-on-exec, as a socket of a careless
  // library might be.
  int leaky = dup2(lock_fd, 57);
  ASSERT_EQ(leaky, 57);
  AddHook("10-fds", "for fd in " + std::to_string(lock_fd) +
                        " 57; do"
                        "  if [ -e /proc/$$/fd/$fd ]; then echo \"open $fd\"; fi; done"
                        " > \"$TAVO_ROOT/tmp/fds\"");
  EXPECT_EQ(TLIBServiceTypeReload(8), 1);
  EXPECT_EQ(root_.Read("/tmp/fds"), "");
  close(leaky);
  ServerFormHandler::UnlockFile(lock_fd);
}

}  // namespace
