// Logins: one account per name, case variants made by the system's tools,
// the dummy check's scheme, the throttle against strangers, device cookies
// and the re-check that ends a session when the password changes.
#include "auth/login.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "auth/device_cookie.h"
#include "auth/login_throttle.h"
#include "common/temp_root.h"
#include "privsep/login_limit.h"
#include "tavo/group.h"
#include "tavo/user.h"

namespace tavo_server {
namespace {

using tavo_test::TempRoot;

std::string Hash(const std::string& password) {
  auto data = std::make_unique<crypt_data>();
  return crypt_r(password.c_str(), "$6$rounds=1000$saltsalt$", data.get());
}

// Adds a local user with the system's useradd, as an administrator of the box would.
void UserAdd(const TempRoot& root, const std::string& name, const std::string& password) {
  ASSERT_EQ(0, TempRoot::Run("useradd -P " + root.dir() + " -M -N -g 100 -p '" + Hash(password) +
                             "' " + name))
      << name;
}

TEST(LoginTest, ANameStandsForOneAccountEverywhere) {
  if (geteuid() != 0) GTEST_SKIP() << "useradd -P needs root";
  TempRoot root;
  UserAdd(root, "boss", "boss-pw");
  UserAdd(root, "Boss", "variant-pw");  // not an administrator
  UserAdd(root, "Carol", "carol-pw");
  UserAdd(root, "CAROL", "CAROL-pw");
  UserAdd(root, "Dave", "dave-pw");
  // administrators: admin, boss, Carol, "dave" for Dave, and "carol", which
  // matches two accounts.
  std::string group = root.Read("/etc/group");
  group.replace(group.find("administrators:x:101:admin"), 26,
                "administrators:x:101:admin,boss,Carol,carol,dave");
  root.Write("/etc/group", group);

  LoginIdentity who;
  EXPECT_EQ(LoginResult::kDenied, CheckLogin("Boss", "variant-pw", &who));
  EXPECT_EQ(LoginResult::kOk, CheckLogin("boss", "boss-pw", &who));
  EXPECT_EQ("boss", who.name);
  EXPECT_EQ(LoginResult::kDenied, CheckLogin("BOSS", "boss-pw", &who)) << "ambiguous";
  EXPECT_EQ(LoginResult::kOk, CheckLogin("DAVE", "dave-pw", &who)) << "the only variant";
  EXPECT_EQ("Dave", who.name);
  EXPECT_EQ(LoginResult::kOk, CheckLogin("Carol", "carol-pw", &who));
  EXPECT_EQ(LoginResult::kDenied, CheckLogin("carol", "carol-pw", &who)) << "ambiguous";
  EXPECT_EQ(LoginResult::kDenied, CheckLogin("carol", "CAROL-pw", &who)) << "ambiguous";

  EXPECT_EQ(0, TLIBGroupIsAdminGroupMem("Boss", 0));
  EXPECT_EQ(0, TLIBGroupIsAdminGroupMem("bOSS", 0));
  EXPECT_EQ(1, TLIBGroupIsAdminGroupMem("ADMIN", 0));
  EXPECT_EQ(1, TLIBGroupIsAdminGroupMem("dAVE", 0));
  EXPECT_EQ(1, TLIBGroupIsAdminGroupMem("Carol", 0));
  EXPECT_EQ(0, TLIBGroupIsAdminGroupMem("CAROL", 0)) << "listed only as the ambiguous \"carol\"";
  EXPECT_EQ(0, TLIBGroupIsAdminGroupMem("carol", 0));
  EXPECT_NE(0, TAVOUserCheckExpired("carol"));
  EXPECT_EQ(0, TAVOUserCheckExpired("CAROL"));
  // admin's hash in the test root matches nothing, but the account is valid:
  // admin, boss, Carol and Dave count; "carol" stands for no one.
  EXPECT_EQ(4, TAVOGroupTotalValidLocalAdmin());

  // A password change or a lock ends what the old login allowed.
  ASSERT_EQ(LoginResult::kOk, CheckLogin("boss", "boss-pw", &who));
  EXPECT_EQ(LoginResult::kOk, RecheckLogin(who));
  ASSERT_EQ(0, TempRoot::Run("usermod -P " + root.dir() + " -p '" + Hash("new-pw") + "' boss"));
  EXPECT_EQ(LoginResult::kDenied, RecheckLogin(who));
  ASSERT_EQ(LoginResult::kOk, CheckLogin("boss", "new-pw", &who));
  ASSERT_EQ(0, TempRoot::Run("usermod -P " + root.dir() + " -L boss"));
  EXPECT_EQ(LoginResult::kDenied, RecheckLogin(who));
  EXPECT_EQ(LoginResult::kDenied, CheckLogin("boss", "new-pw", &who));
  // A variant added after the login makes the stored name no longer unique only
  // when it is spelt differently; the exact spelling still wins.
  ASSERT_EQ(LoginResult::kOk, CheckLogin("Carol", "carol-pw", &who));
  UserAdd(root, "CaRoL", "x");
  EXPECT_EQ(LoginResult::kOk, RecheckLogin(who));
}

TEST(LoginTest, DummyCheckUsesTheSchemeOfNewPasswords) {
  const std::string yescrypt = HashSettingFor("");
  EXPECT_EQ(0u, yescrypt.rfind("$y$", 0)) << yescrypt;
  const std::string costly = HashSettingFor("YESCRYPT_COST_FACTOR 8\n");
  EXPECT_EQ(0u, costly.rfind("$y$", 0)) << costly;
  EXPECT_NE(yescrypt.substr(0, 7), costly.substr(0, 7));
  EXPECT_EQ(0u, HashSettingFor("ENCRYPT_METHOD SHA512\n").rfind("$6$", 0));
  EXPECT_EQ(0u, HashSettingFor("ENCRYPT_METHOD SHA512\nSHA_CRYPT_MIN_ROUNDS 20000\n")
                    .rfind("$6$rounds=20000$", 0));
  EXPECT_EQ(0u, HashSettingFor("# ENCRYPT_METHOD MD5\nENCRYPT_METHOD sha256\n").rfind("$5$", 0));
}

TEST(LoginThrottleTest, StrangersCannotLockTheAdministratorOut) {
  ThrottleLimits limits;  // 5 per pair, 20 per address, delays from the 5th failure
  limits.window = std::chrono::seconds(60);
  LoginThrottle t(limits);
  auto now = LoginThrottle::Clock::now();
  const auto fail = [&](const std::string& account, const std::string& address,
                        const std::string& device = "") {
    LoginThrottle::Ticket k = t.Begin(account, address, device, now);
    t.Finish(k, false);
    return k;
  };
  // 100 guesses from one address: only the first five reach a password check.
  int checked = 0;
  for (int i = 0; i < 100; ++i)
    checked += fail(i % 2 ? "admin" : "ADMIN", "127.0.0.1").retry_after == 0;
  EXPECT_EQ(5, checked);
  // The administrator elsewhere, or with a device cookie here, is let in;
  // elsewhere after a short delay, with the cookie at once.
  LoginThrottle::Ticket other = t.Begin("admin", "127.0.0.2", "", now);
  EXPECT_EQ(0, other.retry_after);
  EXPECT_LE(other.delay, limits.first_delay);
  t.Finish(other, false);
  LoginThrottle::Ticket device = t.Begin("admin", "127.0.0.1", "dev1", now);
  EXPECT_EQ(0, device.retry_after);
  EXPECT_EQ(0, device.delay.count());
  t.Finish(device, false);
  // The cookie's own failures count: after five it is no better than none.
  for (int i = 0; i < 3; ++i) fail("admin", "127.0.0.1", "dev1");
  EXPECT_EQ(0, fail("admin", "127.0.0.1", "dev1").retry_after);
  EXPECT_GT(fail("admin", "127.0.0.1", "dev1").retry_after, 0);

  // Guesses spread over many addresses are delayed more and more, never refused.
  LoginThrottle::Ticket late;
  for (int a = 0; a < 40; ++a) late = fail("root", "10.0.0." + std::to_string(a));
  EXPECT_EQ(0, late.retry_after);
  EXPECT_EQ(limits.max_delay, late.delay);
  // The address limit holds back one address for all accounts; IPv6 by /64.
  for (int i = 0; i < 20; ++i) fail("user" + std::to_string(i), "2001:db8::" + std::to_string(i));
  EXPECT_GT(fail("fresh", "2001:db8::ffff").retry_after, 0);
  EXPECT_EQ(0, fail("fresh", "2001:db8:0:1::1").retry_after);
  EXPECT_EQ("127.0.0.1", LoginThrottle::AddressKey("::ffff:127.0.0.1"));

  // A success forgets the account's failures; the window forgets the rest.
  LoginThrottle::Ticket ok = t.Begin("root", "10.0.0.99", "", now);
  t.Finish(ok, true);
  EXPECT_EQ(0, t.Begin("root", "10.0.0.98", "", now).delay.count());
  now += std::chrono::seconds(61);
  EXPECT_EQ(0, fail("admin", "127.0.0.1").retry_after);
}

// The account side's own limit: free tries, then one check at a time at a
// pace that doubles with each failure, whatever the front counted.
TEST(LoginLimitTest, PacesAnAccountPastItsFreeFailures) {
  using std::chrono::milliseconds;
  LoginLimit limit;  // 5 free, 250 ms doubling to 4 s, 60 s window
  LoginLimit::Clock::time_point t{};
  t += std::chrono::hours(1);
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(limit.Begin(i % 2 ? "Boss" : "BOSS", t));
    limit.End("boss", false, t);
  }
  EXPECT_FALSE(limit.Begin("boss", t + milliseconds(200)));
  EXPECT_TRUE(limit.Begin("other", t));  // another account is not held back
  limit.End("other", false, t);
  ASSERT_TRUE(limit.Begin("boss", t + milliseconds(250)));
  EXPECT_FALSE(limit.Begin("boss", t + milliseconds(5000)));  // one at a time
  limit.End("boss", false, t + milliseconds(250));
  // Six failures: the next check only 500 ms after the last one began.
  EXPECT_FALSE(limit.Begin("boss", t + milliseconds(700)));
  ASSERT_TRUE(limit.Begin("boss", t + milliseconds(750)));
  limit.End("boss", true, t + milliseconds(750));  // a success forgets
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(limit.Begin("boss", t + milliseconds(760)));
    limit.End("boss", false, t + milliseconds(760));
  }
  EXPECT_FALSE(limit.Begin("boss", t + milliseconds(770)));
  // A try that judged nothing (unreadable files) counts as no failure.
  ASSERT_TRUE(limit.Begin("boss", t + milliseconds(1010)));
  limit.Cancel("boss");
  EXPECT_TRUE(limit.Begin("boss", t + milliseconds(1260)));
  limit.Cancel("boss");
  // Failures older than the window no longer count.
  EXPECT_TRUE(limit.Begin("boss", t + std::chrono::seconds(62)));
}

TEST(DeviceCookieTest, SignedForOneAccountAndALifetime) {
  DeviceCookies cookies(std::string(64, 'k'), std::chrono::seconds(100));
  const time_t now = 1700000000;
  const std::string c = cookies.Issue("admin", now);
  ASSERT_FALSE(c.empty());
  const std::string id = cookies.Verify(c, "ADMIN", now + 50);  // one account, any case
  EXPECT_EQ(32u, id.size());
  EXPECT_NE(id, cookies.Verify(cookies.Issue("admin", now), "admin", now));  // one id per device
  EXPECT_EQ("", cookies.Verify(c, "bob", now));
  EXPECT_EQ("", cookies.Verify(c, "admin", now + 101));  // too old
  std::string forged = c;
  forged.back() = forged.back() == '0' ? '1' : '0';
  EXPECT_EQ("", cookies.Verify(forged, "admin", now));
  EXPECT_EQ("",
            DeviceCookies(std::string(64, 'x'), std::chrono::seconds(100)).Verify(c, "admin", now));
  EXPECT_EQ("", cookies.Verify("1." + id + ".", "admin", now));
}

}  // namespace
}  // namespace tavo_server
