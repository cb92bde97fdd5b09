// Configuration, pid and marker files, directory-services state.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>

#include "common/temp_root.h"
#include "tavo/conf.h"
#include "tavo/directory.h"
#include "tavo/error.h"
#include "tavo/util.h"

namespace {

TEST(TavoConfTest, ParsesKeysIgnoringCommentsAndBlanks) {
  tavo_test::TempRoot root;
  root.Write("/etc/tavo/tavo.conf",
             "# limits\n"
             "\n"
             "  maxgroups =  64  \n"
             "name=a = b\n"
             "no equals sign\n"
             " = orphan\n"
             "#maxgroups = 1\n"
             "empty =\r\n");
  TavoConf conf;
  EXPECT_STREQ(conf.Def("maxgroups", "128"), "64");
  EXPECT_STREQ(conf.Def("name", ""), "a = b");
  EXPECT_STREQ(conf.Def("empty", "x"), "");
  EXPECT_STREQ(conf.Def("missing", "dflt"), "dflt");
  EXPECT_STREQ(conf.Def("no equals sign", "none"), "none");
}

TEST(TavoConfTest, MissingFileIsEmptyAndObjectIsASnapshot) {
  tavo_test::TempRoot root;
  TavoConf before;
  root.Write("/etc/tavo/tavo.conf", "maxgroups = 3\n");
  EXPECT_STREQ(before.Def("maxgroups", "128"), "128");
  EXPECT_STREQ(TavoConf().Def("maxgroups", "128"), "3");
  std::remove(root.Path("/etc/tavo/tavo.conf").c_str());
  EXPECT_STREQ(TavoConf().Def("maxgroups", "128"), "128");
}

TEST(PidFileTest, ReadsTheNumberOfALiveHolderFromTheRuntimeFolder) {
  tavo_test::TempRoot root;
  int holder = 0;
  std::string error;
  const int fd = tavo::HoldPidFile("/tmp/a.pid", &holder, &error);
  ASSERT_GE(fd, 0) << error;
  EXPECT_EQ(root.Read("/run/tavo/a.pid"), std::to_string(getpid()) + "\n");
  EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), getpid());
  EXPECT_EQ(tavo::HoldPidFile("/tmp/a.pid", &holder, &error), -1);  // one holder at a time
  EXPECT_EQ(holder, getpid());
  tavo::ReleasePidFile("/tmp/a.pid", fd);
  EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_NOT_FOUND);

  // A holder that dies lets go of the file, whatever it still says.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    int h;
    std::string e;
    if (tavo::HoldPidFile("/tmp/a.pid", &h, &e) < 0) _exit(1);
    ssize_t ignored = write(ready[1], "x", 1);
    (void)ignored;
    pause();
    _exit(0);
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), child);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(root.Read("/run/tavo/a.pid"), std::to_string(child) + "\n");
  EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), -1);
  close(ready[0]);
  close(ready[1]);

  for (const char* bad : {"", "0\n", "-5\n", "12abc\n", "abc\n", "99999999999\n"}) {
    root.Write("/run/tavo/a.pid", bad);
    EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), -1) << bad;
    EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_FORMAT) << bad;
  }
  EXPECT_EQ(TLIBCReadPidFile("/tmp/none.pid"), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_NOT_FOUND);
}

// What a local user can leave where the pid and marker files are looked
// for: none of it hangs a reader, stands for a rebuild or keeps a sync out.
TEST(PidFileTest, PlantedFilesAreIgnoredAtOnce) {
  tavo_test::TempRoot root;
  int holder = 0;
  std::string error;
  for (const std::string name : {"domain_group.pid", "domain_updating"}) {
    const std::string module_path = "/tmp/" + name;
    for (const std::string folder : {"/tmp/", "/run/tavo/"}) {
      const std::string planted = root.Path(folder + name);
      root.Write("/run/tavo/keep", "");  // makes the folders
      mkdir(root.Path("/tmp").c_str(), 01777);
      for (int kind = 0; kind < 4; ++kind) {
        unlink(planted.c_str());
        const char* what[] = {"a FIFO", "a symbolic link", "a file of nobody", "pid 1 unheld"};
        if (kind == 0) {
          ASSERT_EQ(mkfifo(planted.c_str(), 0666), 0);
        }
        if (kind == 1) {
          root.Write("/live.pid", "1\n");
          ASSERT_EQ(symlink(root.Path("/live.pid").c_str(), planted.c_str()), 0);
        }
        if (kind >= 2) root.Write(folder + name, "1\n");
        if (kind == 2 && chown(planted.c_str(), 65534, 65534) != 0) continue;  // needs root
        auto read =
            std::async(std::launch::async, [&] { return TLIBCReadPidFile(module_path.c_str()); });
        if (read.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
          ADD_FAILURE() << "reading " << module_path << " hangs on " << what[kind] << " in "
                        << folder;
          close(open(planted.c_str(), O_WRONLY | O_NONBLOCK));  // lets the reader go
        }
        EXPECT_EQ(read.get(), -1) << what[kind] << " in " << folder << name;
        // A root file in the runtime folder is a real marker; nothing else is.
        EXPECT_EQ(TLIBCFileExist(module_path.c_str()), kind == 3 && folder == "/run/tavo/")
            << what[kind] << " in " << folder << name;
        if (name == "domain_updating") continue;
        const int fd = tavo::HoldPidFile(module_path.c_str(), &holder, &error);
        EXPECT_GE(fd, 0) << what[kind] << " in " << folder << name << ": " << error;
        EXPECT_EQ(TLIBCReadPidFile(module_path.c_str()), getpid());
        tavo::ReleasePidFile(module_path.c_str(), fd);
      }
      unlink(planted.c_str());
    }
  }
}

TEST(FileStateTest, PathsAreResolvedInsideTheRoot) {
  tavo_test::TempRoot root;
  EXPECT_EQ(TLIBCFileExist("/etc/group"), 1);
  EXPECT_EQ(TLIBCFileExist("/tmp/domain_updating"), 0);
  EXPECT_EQ(TLIBCFileExist(nullptr), 0);
  // The host's own files are not seen through the root.
  EXPECT_EQ(TLIBCFileExist("/bin/sh"), 0);

  EXPECT_EQ(TAVOWinsIsJoined(), 0);
  EXPECT_EQ(TAVOLDAPIsBinded(0), 0);
  root.Write("/etc/tavo/domain", "EXAMPLE\n");
  root.Write("/etc/tavo/ldap", "example.com\n");
  EXPECT_EQ(TAVOWinsIsJoined(), 1);
  EXPECT_EQ(TAVOLDAPIsBinded(0), 1);
}

}  // namespace
