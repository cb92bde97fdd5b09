// The event log: catalogue messages, concurrent writers, newest-first paging.
#include "tavo/eventlog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/temp_root.h"
#include "tavo/account.h"

namespace {

TEST(EventLogMessageTest, CatalogueFillsArguments) {
  EXPECT_EQ(tavo::EventLogMessage(0x11800601, "staff", "", "", ""), "Group 'staff' was created.");
  EXPECT_EQ(tavo::EventLogMessage(0x11800602, "old", "new", "", ""),
            "Group 'old' was renamed to 'new'.");
  EXPECT_EQ(tavo::EventLogMessage(0x11800603, "staff", "Office 100%", "", ""),
            "The description of group 'staff' was changed to 'Office 100%'.");
  EXPECT_EQ(tavo::EventLogMessage(0x11800800, "staff", "anna", "", ""),
            "User 'anna' was added to group 'staff'.");
  EXPECT_EQ(tavo::EventLogMessage(0x11800801, "staff", "anna", "", ""),
            "User 'anna' was removed from group 'staff'.");
  // An argument that looks like a placeholder is not expanded again.
  EXPECT_EQ(tavo::EventLogMessage(0x11800602, "%2", "x", "", ""), "Group '%2' was renamed to 'x'.");
  EXPECT_EQ(tavo::EventLogMessage(0x12345678, "a", "", "c", ""), "Event 0x12345678: a, c.");
}

TEST(EventLogTest, ConcurrentWritersAreAllReadBackNewestFirst) {
  tavo_test::TempRoot root;
  constexpr int kThreads = 4, kPerThread = 15;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      tavo::ScopedRequestAccount account("user" + std::to_string(t));
      for (int i = 0; i < kPerThread; ++i) {
        std::string group = "g" + std::to_string(t) + "_" + std::to_string(i);
        EXPECT_EQ(TAVOLogSet1(2, 1, 0x11800601, group.c_str(), "", nullptr, ""), 0);
      }
    });
  }
  for (auto& th : threads) th.join();

  Json::Value out;
  ASSERT_TRUE(tavo::EventLogList(0, -1, &out));
  ASSERT_EQ(out["total"].asInt(), kThreads * kPerThread);
  ASSERT_EQ(out["entries"].size(), static_cast<unsigned>(kThreads * kPerThread));
  // Per account, the i of the entry seen before. Accounts 0..3 with falling
  // indexes 0..14 and 60 entries in all: each thread's 15 entries are there.
  std::map<std::string, int> last_index;
  Json::Int64 previous_id = INT64_MAX;
  for (const Json::Value& e : out["entries"]) {
    EXPECT_LT(e["id"].asInt64(), previous_id);
    previous_id = e["id"].asInt64();
    const std::string account = e["account"].asString();
    const std::string group = e["args"][0].asString();
    // Newest first: each thread's groups appear in falling order.
    int index = std::stoi(group.substr(group.find('_') + 1));
    if (last_index.count(account)) {
      EXPECT_LT(index, last_index[account]);
    }
    last_index[account] = index;
    EXPECT_EQ("user" + group.substr(1, 1), account);
    EXPECT_EQ(e["message"].asString(), "Group '" + group + "' was created.");
    EXPECT_EQ(e["event"].asString(), "0x11800601");
    EXPECT_EQ(e["args"][2].asString(), "");  // null argument stored as ""
    EXPECT_EQ(e["category"].asInt(), 2);
    EXPECT_EQ(e["time"].asString().size(), 20u);  // 2026-01-02T03:04:05Z
  }
}

TEST(EventLogTest, ProcessesWriteTogether) {
  tavo_test::TempRoot root;
  // The parent already has the database open when it forks.
  ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800601, "g", "", "", ""), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  int failures = 0;
  for (int i = 0; i < 30; ++i) failures += TAVOLogSet1(2, 1, 0x11800800, "g", "u", "", "") != 0;
  if (child == 0) _exit(failures);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(failures, 0);
  Json::Value out;
  ASSERT_TRUE(tavo::EventLogList(0, 0, &out));
  EXPECT_EQ(out["total"].asInt(), 61);
}

// Command-line calls each open the log anew, write one entry and exit. The
// write-ahead log, which every new process reads whole, stays small however
// many there were, and no entry is lost.
TEST(EventLogTest, OneEntryProcessesKeepTheWriteAheadLogSmall) {
  tavo_test::TempRoot root;
  const int kProcesses = 150;  // about 300 pages of log if never emptied
  for (int i = 0; i < kProcesses; ++i) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(TAVOLogSet1(2, 1, 0x11800800, "g", "u", "", "") == 0 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "entry " << i;
  }
  struct stat st;
  ASSERT_EQ(stat(root.Path("/var/lib/tavo/events.db-wal").c_str(), &st), 0);
  EXPECT_LT(st.st_size, 100 * (4096 + 24));
  Json::Value out;
  ASSERT_TRUE(tavo::EventLogList(0, 0, &out));
  EXPECT_EQ(out["total"].asInt(), kProcesses);
}

// Who changed what is not for other local users: the database and its
// write-ahead files are made for the owner alone, and looser ones left by
// an older version are tightened when a process opens the log.
TEST(EventLogTest, FilesAreReadableByTheirOwnerAlone) {
  tavo_test::TempRoot root;
  const char* files[] = {"/var/lib/tavo/events.db", "/var/lib/tavo/events.db-wal",
                         "/var/lib/tavo/events.db-shm"};
  ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800600, "a", "", "", ""), 0);
  struct stat st;
  for (const char* f : files) {
    ASSERT_EQ(stat(root.Path(f).c_str(), &st), 0) << f;
    EXPECT_EQ(st.st_mode & 077, 0u) << f << " " << std::oct << st.st_mode;
    chmod(root.Path(f).c_str(), 0644);
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(TAVOLogSet1(2, 1, 0x11800600, "b", "", "", "") == 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (const char* f : files) {
    if (stat(root.Path(f).c_str(), &st) != 0) continue;  // folded away at the end
    EXPECT_EQ(st.st_mode & 077, 0u) << f << " " << std::oct << st.st_mode;
    chmod(root.Path(f).c_str(), 0644);
  }
  // What a server does at start, before any entry is written.
  tavo::EventLogRestrict();
  for (const char* f : files) {
    if (stat(root.Path(f).c_str(), &st) != 0) continue;
    EXPECT_EQ(st.st_mode & 077, 0u) << f << " " << std::oct << st.st_mode;
  }
}

TEST(EventLogTest, PagesCountAllEntries) {
  tavo_test::TempRoot root;
  Json::Value out;
  ASSERT_TRUE(tavo::EventLogList(0, -1, &out));  // no database yet: empty log
  EXPECT_EQ(out["total"].asInt(), 0);
  EXPECT_EQ(out["entries"], Json::Value(Json::arrayValue));
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800600, name, "", "", ""), 0);
  }
  ASSERT_TRUE(tavo::EventLogList(1, 2, &out));
  EXPECT_EQ(out["total"].asInt(), 5);
  ASSERT_EQ(out["entries"].size(), 2u);
  EXPECT_EQ(out["entries"][0]["args"][0].asString(), "d");
  EXPECT_EQ(out["entries"][1]["args"][0].asString(), "c");
  EXPECT_EQ(out["entries"][0]["account"].asString(), "");
  ASSERT_TRUE(tavo::EventLogList(10, 2, &out));
  EXPECT_EQ(out["total"].asInt(), 5);
  EXPECT_EQ(out["entries"].size(), 0u);
}

// The filters pick entries by group (also a rename to it), member, account
// and time; the total counts what they pick, and paging works within it.
TEST(EventLogTest, FiltersPickEntriesAndCountThem) {
  tavo_test::TempRoot root;
  {
    tavo::ScopedRequestAccount account("admin");
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800601, "Staff", "", "", ""), 0);
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800800, "staff", "anna", "", ""), 0);
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800602, "old", "STAFF", "", ""), 0);
  }
  {
    tavo::ScopedRequestAccount account("ops");
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800801, "hr", "Anna", "", ""), 0);
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800601, "anna", "", "", ""), 0);  // a group named like her
    ASSERT_EQ(TAVOLogSet1(2, 1, 0x11800900, "staff", "ldap://x", "", ""), 0);  // not a group event
  }
  auto messages = [](const tavo::EventLogFilter& f, int offset = 0, int limit = -1) {
    Json::Value out;
    EXPECT_TRUE(tavo::EventLogList(offset, limit, f, &out));
    std::vector<std::string> m;
    for (const Json::Value& e : out["entries"]) m.push_back(e["message"].asString());
    m.push_back("total " + out["total"].asString());
    return m;
  };
  tavo::EventLogFilter group;
  group.group = "STAFF";
  EXPECT_EQ(messages(group), (std::vector<std::string>{"Group 'old' was renamed to 'STAFF'.",
                                                       "User 'anna' was added to group 'staff'.",
                                                       "Group 'Staff' was created.", "total 3"}));
  EXPECT_EQ(messages(group, 1, 1),
            (std::vector<std::string>{"User 'anna' was added to group 'staff'.", "total 3"}));
  tavo::EventLogFilter user;
  user.user = "anna";
  EXPECT_EQ(messages(user),
            (std::vector<std::string>{"User 'Anna' was removed from group 'hr'.",
                                      "User 'anna' was added to group 'staff'.", "total 2"}));
  user.account = "OPS";
  EXPECT_EQ(messages(user),
            (std::vector<std::string>{"User 'Anna' was removed from group 'hr'.", "total 1"}));
  tavo::EventLogFilter later;
  later.since = time(nullptr) + 3600;
  EXPECT_EQ(messages(later), (std::vector<std::string>{"total 0"}));
  tavo::EventLogFilter window;
  window.since = time(nullptr) - 3600;
  window.until = time(nullptr) + 3600;
  EXPECT_EQ(messages(window).back(), "total 6");
  window.until = window.since;
  EXPECT_EQ(messages(window).back(), "total 0");
}

}  // namespace
