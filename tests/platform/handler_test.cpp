// Handler locks and lock files: exclusion between threads of one process,
// bounded waits, release, and the fault points.
#include "tavo/handler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

#include "common/log_capture.h"
#include "common/temp_root.h"
#include "tavo/error.h"
#include "tavo/testing.h"

namespace {

using Clock = std::chrono::steady_clock;

long MillisSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

class HandlerLockTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TAVO_LOCK_TIMEOUT_MS", "150", 1); }
  void TearDown() override {
    unsetenv("TAVO_LOCK_TIMEOUT_MS");
    tavo::testing::ClearFaults();
  }

  // Tries the handler lock from another thread with a handler of its own;
  // returns whether it was taken and the error code seen there.
  static std::pair<bool, int> TryFromOtherThread(bool exclusive) {
    return std::async(std::launch::async,
                      [exclusive] {
                        TLIBCErrClear();
                        ServerFormHandler other("/tmp/grouplock");
                        bool ok = exclusive ? other.ExLock() : other.ShLock();
                        return std::make_pair(ok, TLIBCErrGet());
                      })
        .get();
  }

  tavo_test::TempRoot root_;
};

TEST_F(HandlerLockTest, ExclusiveKeepsOtherThreadsOutUntilTimeout) {
  ServerFormHandler holder("/tmp/grouplock");
  ASSERT_TRUE(holder.ExLock());
  Clock::time_point start = Clock::now();
  EXPECT_EQ(TryFromOtherThread(false), std::make_pair(false, int{TAVO_ERR_LOCK}));
  long waited = MillisSince(start);
  EXPECT_GE(waited, 140);
  EXPECT_LT(waited, 2000);
  EXPECT_EQ(TryFromOtherThread(true), std::make_pair(false, int{TAVO_ERR_LOCK}));
}

// Shared locks coexist but keep writers out; calling again converts the lock.
TEST_F(HandlerLockTest, CallingAgainConvertsAndDestructorReleases) {
  {
    ServerFormHandler holder("/tmp/grouplock");
    ASSERT_TRUE(holder.ExLock());
    ASSERT_TRUE(holder.ShLock());
    EXPECT_TRUE(TryFromOtherThread(false).first);
    EXPECT_FALSE(TryFromOtherThread(true).first);
    ASSERT_TRUE(holder.ExLock());
    EXPECT_FALSE(TryFromOtherThread(false).first);
  }
  EXPECT_TRUE(TryFromOtherThread(true).first);
}

TEST_F(HandlerLockTest, WaiterGetsTheLockWhenReleasedWithinTheBound) {
  setenv("TAVO_LOCK_TIMEOUT_MS", "5000", 1);
  auto holder = std::make_unique<ServerFormHandler>("/tmp/grouplock");
  ASSERT_TRUE(holder->ExLock());
  std::thread release([&holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    holder.reset();
  });
  Clock::time_point start = Clock::now();
  EXPECT_TRUE(TryFromOtherThread(true).first);
  EXPECT_LT(MillisSince(start), 4000);
  release.join();
}

TEST_F(HandlerLockTest, NoLockPathAndFaultPointsRefuseAndFilesAreCreated) {
  ServerFormHandler none(nullptr);
  EXPECT_FALSE(none.ExLock());
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_ARGUMENT);

  ServerFormHandler h("/tmp/deep/er/lock");
  tavo::testing::FailNext("lock.handler", TAVO_ERR_LOCK);
  EXPECT_FALSE(h.ShLock());
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_LOCK);
  ASSERT_TRUE(h.ShLock());  // fired once only; the file is made with its folders
  struct stat st;
  ASSERT_EQ(stat(root_.Path("/tmp/deep/er/lock").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  int fd = -1;
  tavo::testing::FailNext("lock.file", TAVO_ERR_IO);
  EXPECT_FALSE(ServerFormHandler::LockFile("/tmp/userlock", false, &fd));
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_IO);
  EXPECT_EQ(fd, -1);
}

TEST_F(HandlerLockTest, LockFileSharedAndExclusive) {
  int a = -1, b = -1, c = -7;
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", false, &a));
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", false, &b));
  EXPECT_NE(a, b);
  EXPECT_FALSE(ServerFormHandler::LockFile("/tmp/userlock", true, &c));
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_LOCK);
  EXPECT_EQ(c, -7);
  ServerFormHandler::UnlockFile(a);
  ServerFormHandler::UnlockFile(b);
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", true, &c));
  ServerFormHandler::UnlockFile(c);
  ServerFormHandler::UnlockFile(-1);  // ignored

  EXPECT_FALSE(ServerFormHandler::LockFile(nullptr, false, &c));
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_ARGUMENT);
  EXPECT_FALSE(ServerFormHandler::LockFile("/tmp/userlock", false, nullptr));
}

// Lock files named in /tmp live in ROOT/run/tavo, out of other users' reach.
TEST_F(HandlerLockTest, LocksLiveInAPrivateFolderAndForeignFilesAreRefused) {
  // Someone holds a lock on a file planted at ROOT/tmp/grouplock: no matter.
  const std::string planted = root_.Path("/tmp/grouplock");
  int squatter = open(planted.c_str(), O_RDWR | O_CREAT, 0666);
  ASSERT_GE(squatter, 0);
  ASSERT_EQ(0, flock(squatter, LOCK_EX));
  {
    ServerFormHandler h("/tmp/grouplock");
    EXPECT_TRUE(h.ExLock());
  }
  close(squatter);
  struct stat st;
  ASSERT_EQ(0, lstat(root_.Path("/run/tavo").c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  EXPECT_EQ(geteuid(), st.st_uid);
  ASSERT_EQ(0, lstat(root_.Path("/run/tavo/grouplock").c_str(), &st));

  // A folder left open is closed again; a link in it is refused and logged.
  ASSERT_EQ(0, chmod(root_.Path("/run/tavo").c_str(), 0777));
  ASSERT_EQ(0, symlink(planted.c_str(), root_.Path("/run/tavo/userlock").c_str()));
  int fd = -1;
  tavo_test::ClearLog();
  EXPECT_FALSE(ServerFormHandler::LockFile("/tmp/userlock", false, &fd));
  EXPECT_EQ(1, tavo_test::LoggedCount(LOG_ERR, "run/tavo/userlock: a symbolic link"));
  ASSERT_EQ(0, lstat(root_.Path("/run/tavo").c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  ASSERT_EQ(0, unlink(root_.Path("/run/tavo/userlock").c_str()));

  if (geteuid() != 0) GTEST_SKIP() << "files of another user need root";
  // A lock file, or the whole folder, of another user.
  ASSERT_TRUE(ServerFormHandler::LockFile("/tmp/userlock", false, &fd));
  ServerFormHandler::UnlockFile(fd);
  ASSERT_EQ(0, chown(root_.Path("/run/tavo/userlock").c_str(), 65534, 65534));
  EXPECT_FALSE(ServerFormHandler::LockFile("/tmp/userlock", false, &fd));
  EXPECT_EQ(1,
            tavo_test::LoggedCount(LOG_ERR, "not a regular file of this service (owner uid 65534"));
  ASSERT_EQ(0, chown(root_.Path("/run/tavo").c_str(), 65534, 65534));
  ServerFormHandler h("/tmp/grouplock");
  EXPECT_FALSE(h.ShLock());
  EXPECT_EQ(1, tavo_test::LoggedCount(LOG_ERR, "the runtime folder belongs to another user"));
}

// The runtime folder, once checked, is used again only while its path still
// names it: a folder put in its place is where the locks are then, and a
// link in its place is refused.
TEST_F(HandlerLockTest, AReplacedRuntimeFolderIsCheckedAnew) {
  {
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ExLock());
  }
  const std::string dir = root_.Path("/run/tavo");
  ASSERT_EQ(0, rename(dir.c_str(), (dir + ".old").c_str()));
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  int other = open((dir + "/grouplock").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(other, 0);
  ASSERT_EQ(0, flock(other, LOCK_EX));
  {
    ServerFormHandler h("/tmp/grouplock");
    EXPECT_FALSE(h.ExLock());
    EXPECT_EQ(TAVO_ERR_LOCK, TLIBCErrGet());
  }
  close(other);
  ASSERT_EQ(0, unlink((dir + "/grouplock").c_str()));
  ASSERT_EQ(0, rmdir(dir.c_str()));
  ASSERT_EQ(0, symlink((dir + ".old").c_str(), dir.c_str()));
  ServerFormHandler h("/tmp/grouplock");
  EXPECT_FALSE(h.ExLock());
}

// A lock file removed or replaced between two locks is the new file for the
// next lock (an old descriptor would exclude no one), and a forked child
// never locks through the parent's descriptors.
TEST_F(HandlerLockTest, ALockFileRemovedOrReplacedIsOpenedAnew) {
  const std::string path = root_.Path("/run/tavo/grouplock");
  for (bool replace : {false, true}) {
    SCOPED_TRACE(replace ? "replaced" : "removed");
    {
      ServerFormHandler h("/tmp/grouplock");
      ASSERT_TRUE(h.ExLock());
    }
    if (replace) {
      const std::string fresh = path + ".new";
      int fd = open(fresh.c_str(), O_RDWR | O_CREAT, 0600);
      ASSERT_GE(fd, 0);
      close(fd);
      ASSERT_EQ(0, rename(fresh.c_str(), path.c_str()));
    } else {
      ASSERT_EQ(0, unlink(path.c_str()));
    }
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ExLock());
    int other = open(path.c_str(), O_RDWR);  // what another process opens now
    ASSERT_GE(other, 0);
    EXPECT_NE(0, flock(other, LOCK_EX | LOCK_NB));
    close(other);
  }
  // A child forked after a lock was released takes a descriptor of its own:
  // while it holds the lock, the parent cannot take it.
  {
    ServerFormHandler h("/tmp/grouplock");
    ASSERT_TRUE(h.ExLock());
  }
  int ready[2], done[2];
  ASSERT_EQ(0, pipe(ready));
  ASSERT_EQ(0, pipe(done));
  pid_t child = fork();
  if (child == 0) {
    ServerFormHandler h("/tmp/grouplock");
    char c = h.ExLock() ? 'y' : 'n';
    if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) != 1) _exit(2);
    _exit(0);
  }
  char taken = 0;
  ASSERT_EQ(1, read(ready[0], &taken, 1));
  EXPECT_EQ('y', taken);
  {
    ServerFormHandler h("/tmp/grouplock");
    EXPECT_FALSE(h.ExLock()) << "parent and child locked through one open file";
  }
  ASSERT_EQ(1, write(done[1], "x", 1));
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

}  // namespace
