// Configuration, pid and marker files, directory-services state.
#include <gtest/gtest.h>

#include <cstdio>
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

TEST(PidFileTest, ReadsAPositiveNumberFromTheFirstLine) {
  tavo_test::TempRoot root;
  root.Write("/tmp/a.pid", "4242\nsomething else\n");
  EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), 4242);
  for (const char* bad : {"", "0\n", "-5\n", "12abc\n", "abc\n", "99999999999\n"}) {
    root.Write("/tmp/a.pid", bad);
    EXPECT_EQ(TLIBCReadPidFile("/tmp/a.pid"), -1) << bad;
    EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_FORMAT) << bad;
  }
  EXPECT_EQ(TLIBCReadPidFile("/tmp/none.pid"), -1);
  EXPECT_EQ(TLIBCErrGet(), TAVO_ERR_NOT_FOUND);
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
