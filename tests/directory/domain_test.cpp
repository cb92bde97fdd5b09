// Joining a Windows domain and synchronising its groups, against the private
// slapd serving a domain controller's group attributes; and the ID mapping.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/temp_root.h"
#include "directory/directory_env.h"
#include "directory/group_sync.h"
#include "directory/idmap.h"
#include "tavo/util.h"

namespace tavo_test {
namespace {

std::string JoinArgs(const TempRoot& root) {
  Slapd* s = Slapd::Get();
  return "directory --root " + root.dir() + " domain join --realm corp.test --workgroup corp" +
         " --uri " + s->uri() + " --bind-dn cn=reader,dc=example,dc=com --password-file " +
         s->PasswordFile("readerpw");
}

TEST(DomainDirectory, JoinSyncsNamesAndGidsThenLeaves) {
  TempRoot root;
  std::string out;
  EXPECT_EQ(ListGroups(root.dir(), "domain")["error"]["code"].asInt(), 3215);
  ASSERT_EQ(Tavo(JoinArgs(root), &out), 0) << out;
  // "huge" maps beyond the range and "nosid" has no SID: both skipped.
  EXPECT_NE(out.find("3 groups (2 skipped)"), std::string::npos) << out;
  EXPECT_EQ(root.Read("/etc/tavo/domain_group"),
            "CORP\\Domain Admins:x:100512:\n"  // 100000 + RID 512
            "CORP\\engineers:x:70000:\n"       // its own gidNumber
            "CORP\\sales:x:101106:\n");
  EXPECT_EQ(Names(ListGroups(root.dir(), "domain", "substr=admin")), "CORP\\Domain Admins");
  struct stat st;
  EXPECT_NE(stat(root.Path("/run/tavo/domain_group.pid").c_str(), &st), 0);

  // A narrower range moves the RID-mapped gids and leaves out what no longer fits.
  std::string conf = root.Read("/etc/tavo/domain");
  root.Write("/etc/tavo/domain", conf + "idmap_range = 5000-5600\n");
  ASSERT_EQ(Tavo("directory --root " + root.dir() + " sync domain", &out), 0) << out;
  EXPECT_EQ(root.Read("/etc/tavo/domain_group"),
            "CORP\\Domain Admins:x:5512:\nCORP\\engineers:x:70000:\n");

  std::string log;
  Tavo("log --root " + root.dir(), &log);
  EXPECT_NE(log.find("joined Windows domain 'CORP'"), std::string::npos) << log;
  ASSERT_EQ(Tavo("directory --root " + root.dir() + " domain leave", &out), 0) << out;
  EXPECT_EQ(ListGroups(root.dir(), "domain")["error"]["code"].asInt(), 3215);
  EXPECT_NE(stat(root.Path("/etc/tavo/domain_group").c_str(), &st), 0);
  Tavo("log --root " + root.dir(), &log);
  EXPECT_NE(log.find("left Windows domain 'CORP'"), std::string::npos) << log;
}

TEST(DomainDirectory, PidFileOfARebuild) {
  TempRoot root;
  std::string out;
  ASSERT_EQ(Tavo(JoinArgs(root), &out), 0) << out;
  ASSERT_EQ(ListGroups(root.dir(), "domain")["data"]["total"].asInt(), 3);

  // A rebuild by a live process that holds the pid file: lists answer 3203
  // and a second sync waits its turn.
  int holder = 0;
  std::string error;
  const int fd = tavo::HoldPidFile("/tmp/domain_group.pid", &holder, &error);
  ASSERT_GE(fd, 0) << error;
  EXPECT_EQ(ListGroups(root.dir(), "domain")["error"]["code"].asInt(), 3203);
  EXPECT_NE(Tavo("directory --root " + root.dir() + " sync domain", &out), 0);
  EXPECT_NE(out.find("being rebuilt by process " + std::to_string(getpid())), std::string::npos)
      << out;
  tavo::ReleasePidFile("/tmp/domain_group.pid", fd);

  // Planted: FIFOs where the module names its files, and a live pid that no
  // sync holds in the runtime folder. Nothing hangs or stands for a rebuild.
  mkdir(root.Path("/tmp").c_str(), 01777);
  ASSERT_EQ(mkfifo(root.Path("/tmp/domain_group.pid").c_str(), 0666), 0);
  ASSERT_EQ(mkfifo(root.Path("/tmp/domain_updating").c_str(), 0666), 0);
  root.Write("/run/tavo/domain_group.pid", "1\n");
  EXPECT_EQ(ListGroups(root.dir(), "domain")["data"]["total"].asInt(), 3);
  ASSERT_EQ(Tavo("directory --root " + root.dir() + " status --json", &out), 0) << out;
  EXPECT_NE(out.find("\"rebuilding\" : null"), std::string::npos) << out;
  ASSERT_EQ(Tavo("directory --root " + root.dir() + " sync domain", &out), 0) << out;
  struct stat st;
  EXPECT_NE(stat(root.Path("/run/tavo/domain_group.pid").c_str(), &st), 0);
  EXPECT_EQ(ListGroups(root.dir(), "domain")["data"]["total"].asInt(), 3);
}

TEST(DomainDirectory, SidAndRangeParsing) {
  using tavo_dir::SidRid;
  uint32_t rid = 0;
  std::string text;
  std::string sid = {1, 2, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 0x01, 0x02, 0x03, 0x04};
  ASSERT_TRUE(SidRid(sid, &rid, &text));
  EXPECT_EQ(rid, 0x04030201u);
  EXPECT_EQ(text, "S-1-5-21-67305985");
  EXPECT_FALSE(SidRid(sid.substr(0, 15), &rid, nullptr));  // truncated
  sid[1] = 0;
  EXPECT_FALSE(SidRid(sid.substr(0, 8), &rid, nullptr));  // no sub-authority
  sid[0] = 2;
  EXPECT_FALSE(SidRid(sid, &rid, nullptr));  // unknown revision

  uint32_t lo = 0, hi = 0, gid = 0;
  EXPECT_TRUE(tavo_dir::ParseIdRange("1000-2000", &lo, &hi));
  EXPECT_TRUE(tavo_dir::RidToGid(1000, lo, hi, &gid));
  EXPECT_EQ(gid, 2000u);
  EXPECT_FALSE(tavo_dir::RidToGid(1001, lo, hi, &gid));
  EXPECT_FALSE(tavo_dir::RidToGid(0xFFFFFFFFu, lo, hi, &gid));
  for (const char* bad : {"2000-1000", "0-10", "-5", "10-", "1x-20", "1-4294967295"})
    EXPECT_FALSE(tavo_dir::ParseIdRange(bad, &lo, &hi)) << bad;

  EXPECT_EQ(tavo_dir::DomainFromBase("ou=people,DC=Example,dc=com"), "Example.com");
  EXPECT_EQ(tavo_dir::DomainFromBase("o=acme"), "");
}

}  // namespace
}  // namespace tavo_test
