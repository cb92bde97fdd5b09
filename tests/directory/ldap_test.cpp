// Binding to an LDAP directory and synchronising its groups, against the
// private slapd.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "common/temp_root.h"
#include "directory/directory_env.h"

namespace tavo_test {
namespace {

const char kReader[] = "cn=reader,dc=example,dc=com";

std::string BindArgs(const TempRoot& root, const std::string& uris, const std::string& base,
                     const std::string& dn, const std::string& password) {
  Slapd* s = Slapd::Get();
  return "directory --root " + root.dir() + " ldap bind --uri " + uris + " --base " + base +
         " --bind-dn " + dn + " --password-file " + s->PasswordFile(password);
}

TEST(LdapDirectory, BindIsRefusedClearlyAndChangesNothing) {
  TempRoot root;
  Slapd* s = Slapd::Get();
  const std::string small = "ou=small,dc=example,dc=com";
  std::string out;
  struct Case {
    std::string args, expect;
  } cases[] = {
      {BindArgs(root, s->uri(), small, kReader, "wrong"), "Invalid credentials"},
      {BindArgs(root, s->uri(), "ou=nothere,dc=example,dc=com", kReader, "readerpw"),
       "No such object"},
      {BindArgs(root, "ldap://127.0.0.1:" + std::to_string(ClosedPort()), small, kReader,
                "readerpw"),
       "no server answered"},
      // StartTLS against a certificate nobody vouches for.
      {BindArgs(root, s->uri(), small, kReader, "readerpw") + " --starttls", "no server answered"},
      {"directory --root " + root.dir() + " ldap bind --uri " + s->uri() + " --base " + small +
           " --bind-dn " + kReader + " --password readerpw",
       "not taken on the command line"},
  };
  for (const Case& c : cases) {
    EXPECT_NE(Tavo(c.args, &out), 0) << c.args;
    EXPECT_NE(out.find(c.expect), std::string::npos) << c.args << "\n" << out;
    EXPECT_EQ(out.find("readerpw"), std::string::npos) << out;
    struct stat st;
    EXPECT_NE(stat(root.Path("/etc/tavo/ldap").c_str(), &st), 0) << c.args;
  }
  EXPECT_EQ(ListGroups(root.dir(), "ldap")["error"]["code"].asInt(), 3214);
}

TEST(LdapDirectory, SyncsListsFailsOverAndUnbinds) {
  TempRoot root;
  Slapd* s = Slapd::Get();
  std::string out;
  // The first server is down: the second answers. StartTLS with our CA.
  std::string uris = "ldap://127.0.0.1:" + std::to_string(ClosedPort()) + "," + s->uri();
  ASSERT_EQ(Tavo(BindArgs(root, uris, "ou=small,dc=example,dc=com", kReader, "readerpw") +
                     " --starttls --ca " + s->ca_file(),
                 &out),
            0)
      << out;
  EXPECT_NE(out.find("7 groups (1 skipped) from " + s->uri()), std::string::npos) << out;

  // The secret is kept only in its 0600 file: not in the settings, the
  // status or the event log.
  struct stat st;
  ASSERT_EQ(stat(root.Path("/usr/tavo/etc/private/ldap.secret").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  std::string status, log;
  Tavo("directory --root " + root.dir() + " status", &status);
  Tavo("log --root " + root.dir(), &log);
  for (const std::string* text : {&status, &log}) {
    EXPECT_EQ(text->find("readerpw"), std::string::npos) << *text;
    EXPECT_EQ(root.Read("/etc/tavo/ldap").find("readerpw"), std::string::npos);
  }
  EXPECT_NE(status.find("server: " + s->uri()), std::string::npos) << status;
  EXPECT_NE(log.find("bound to LDAP directory 'example.com'"), std::string::npos) << log;
  EXPECT_NE(log.find("7 groups from " + s->uri()), std::string::npos) << log;

  // posixGroup, groupOfNames and groupOfUniqueNames; names in the @ form.
  Json::Value all = ListGroups(root.dir(), "ldap");
  EXPECT_EQ(Names(all),
            "archive@example.com projects@example.com team0@example.com team1@example.com "
            "team2@example.com team3@example.com team4@example.com");
  EXPECT_EQ(Names(ListGroups(root.dir(), "ldap", "offset=2 limit=3")),
            "team0@example.com team1@example.com team2@example.com");
  EXPECT_EQ(Names(ListGroups(root.dir(), "ldap", "substr=ject")), "projects@example.com");
  EXPECT_NE(root.Read("/usr/tavo/etc/private/ldap_group").find("team3@example.com:x:5003:"),
            std::string::npos);

  // A group added in the directory shows after the next sync, not before.
  ASSERT_EQ(s->Add(PosixGroup("latecomer", "ou=small,dc=example,dc=com", 5200)), 0);
  EXPECT_EQ(Names(ListGroups(root.dir(), "ldap", "substr=late")), "");
  // This time through the server's API, as the page's "Synchronise now" does.
  ASSERT_EQ(Tavo("call --root " + root.dir() + " TAVO.Core.Directory sync type=ldap", &out), 0)
      << out;
  EXPECT_NE(out.find("\"groups\" : 8"), std::string::npos) << out;
  EXPECT_NE(out.find("\"ok\" : true"), std::string::npos) << out;
  EXPECT_EQ(out.find("readerpw"), std::string::npos) << out;
  EXPECT_EQ(Names(ListGroups(root.dir(), "ldap", "substr=late")), "latecomer@example.com");

  ASSERT_EQ(Tavo("directory --root " + root.dir() + " ldap unbind", &out), 0) << out;
  EXPECT_EQ(ListGroups(root.dir(), "ldap")["error"]["code"].asInt(), 3214);
  EXPECT_NE(stat(root.Path("/usr/tavo/etc/private/ldap_group").c_str(), &st), 0);
  EXPECT_NE(stat(root.Path("/usr/tavo/etc/private/ldap.secret").c_str(), &st), 0);
  EXPECT_NE(Tavo("directory --root " + root.dir() + " sync ldap", &out), 0);
}

TEST(LdapDirectory, LargeDirectoryIsReadInPages) {
  TempRoot root;
  Slapd* s = Slapd::Get();
  std::string out;
  // The server gives this account at most 1000 entries per search, so the
  // 20,000 groups only come through in pages.
  ASSERT_EQ(Tavo(BindArgs(root, s->uri(), "ou=big,dc=example,dc=com", kReader, "readerpw") +
                     " --domain big.example",
                 &out),
            0)
      << out;
  EXPECT_NE(out.find("20000 groups (0 skipped)"), std::string::npos) << out;
  EXPECT_NE(out.find("in 20 pages"), std::string::npos) << out;
  Json::Value page = ListGroups(root.dir(), "ldap", "offset=19998 limit=5");
  EXPECT_EQ(page["data"]["total"].asInt(), 20000);
  EXPECT_EQ(Names(page), "g19998@big.example g19999@big.example");
}

TEST(LdapDirectory, FailedSyncKeepsTheOldCopyServing) {
  TempRoot root;
  Slapd* s = Slapd::Get();
  std::string out;
  // cn=limited may read at most 1500 entries in one paged search.
  ASSERT_EQ(Tavo(BindArgs(root, s->uri(), "ou=half,dc=example,dc=com",
                          "cn=limited,dc=example,dc=com", "limitedpw"),
                 &out),
            0)
      << out;
  const std::string before = root.Read("/usr/tavo/etc/private/ldap_group");
  std::string more;
  for (int i = 1200; i < 1700; ++i)
    more += PosixGroup("h" + std::to_string(i), "ou=half,dc=example,dc=com", 200000 + i);
  ASSERT_EQ(s->Add(more), 0);

  EXPECT_NE(Tavo("directory --root " + root.dir() + " sync", &out), 0);
  EXPECT_NE(out.find("after 1 pages"), std::string::npos) << out;  // failed halfway
  EXPECT_EQ(root.Read("/usr/tavo/etc/private/ldap_group"), before);
  EXPECT_EQ(ListGroups(root.dir(), "ldap", "limit=1")["data"]["total"].asInt(), 1200);

  std::string status, log;
  Tavo("directory --root " + root.dir() + " status", &status);
  Tavo("log --root " + root.dir(), &log);
  EXPECT_NE(status.find("1200 groups"), std::string::npos) << status;
  EXPECT_NE(status.find("last error:"), std::string::npos) << status;
  EXPECT_NE(log.find("synchronisation of the groups of LDAP directory example.com failed"),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace tavo_test
