// The privileged account process answers only its own front process, and
// only well-formed requests that name an account which logged in through it.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <thread>

#include "api/eventlog_api.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "common/temp_root.h"
#include "privsep/grant_book.h"
#include "privsep/priv_channel.h"
#include "privsep/priv_client.h"
#include "privsep/priv_server.h"
#include "tavo/user.h"

namespace tavo_server {
namespace {

class PrivsepTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto data = std::make_unique<crypt_data>();
    root_.AddUser("boss", 1100, 100, "", "",
                  crypt_r("boss-pw", "$6$rounds=1000$salt$", data.get()));
    std::string group = root_.Read("/etc/group");
    group.replace(group.find("administrators:x:101:admin"), 26, "administrators:x:101:admin,boss");
    root_.Write("/etc/group", group);
    ASSERT_TRUE(RegisterEventLogApi(&modules_).ok());
    ASSERT_TRUE(server_.Listen().ok());
    server_.AllowPeer(getpid(), getuid());
    runner_ = std::thread([this] { server_.Run(); });
  }
  void TearDown() override {
    server_.Stop();
    runner_.join();
  }

  // What a client forked off this process gets for `request` (its pid differs,
  // so it is not the front): 1 answered, 0 refused, 2 could not ask.
  int AskFromChild(bool other_user) {
    pid_t pid = fork();
    if (pid == 0) {
      if (other_user && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(2);
      Json::Value req(Json::objectValue), answer;
      req["op"] = "info";
      _exit(PrivClient(server_.address(), 2000).Ask(req, &answer) ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
  }

  tavo_test::TempRoot root_;
  ModuleSet modules_;
  LocalAccountOps ops_{modules_};
  PrivServer server_{ops_, 4, 2000};
  std::thread runner_;
};

TEST_F(PrivsepTest, ServesItsFrontAndRefusesForgedRequestsAndOtherPeers) {
  PrivClient front(server_.address(), 5000);
  LoginIdentity who;
  ASSERT_EQ(LoginResult::kOk, front.CheckLogin("BOSS", "boss-pw", &who));
  EXPECT_EQ("boss", who.name);
  EXPECT_EQ(LoginResult::kDenied, front.CheckLogin("boss", "wrong", &who));
  ASSERT_EQ(LoginResult::kOk, front.CheckLogin("boss", "boss-pw", &who));
  ApiCall call;
  call.api = "TAVO.Core.EventLog";
  call.method = "list";
  AccountOps::Answer a = front.Call(call, who);
  ASSERT_FALSE(a.denied || a.unavailable);
  EXPECT_EQ(true, a.result.envelope["success"].asBool());
  EXPECT_TRUE(front.Info().isMember("apis"));

  // A call for an account that never logged in here, or with another stamp:
  // the grant does not fit.
  for (LoginIdentity forged : {LoginIdentity{"admin", who.stamp, who.grant},
                               LoginIdentity{"boss", "0000000000000000", who.grant},
                               LoginIdentity{"boss", who.stamp, ""}}) {
    EXPECT_TRUE(front.Call(call, forged).denied) << forged.name << " " << forged.stamp;
    EXPECT_EQ(LoginResult::kDenied, front.Recheck(forged));
  }
  // Malformed requests are not answered at all.
  Json::Value answer;
  for (const char* bad : {R"({"op":"login","account":"boss"})",
                          R"({"op":"login","account":"boss","password":"boss-pw","extra":1})",
                          R"({"op":"call","who":{"name":"boss"},"call":{"api":"A","method":"m"}})",
                          R"({"op":"shell","cmd":"id"})", R"(["info"])"}) {
    Json::Value req;
    ASSERT_TRUE(ParseJson(bad, &req)) << bad;
    EXPECT_FALSE(front.Ask(req, &answer)) << bad;
  }
  // Another process of this user, or a process of another user: refused.
  EXPECT_EQ(0, AskFromChild(false));
  if (geteuid() == 0) {
    EXPECT_EQ(0, AskFromChild(true));
  }
  Json::Value info(Json::objectValue);
  info["op"] = "info";
  EXPECT_TRUE(front.Ask(info, &answer));  // the front itself still is
}

// A grant lives while its session may: not past the lifetime, not once
// pushed out by newer ones, and only for the name and stamp it was made for.
TEST(GrantBookTest, GrantsEndWithTheirLifetimeOrForRoom) {
  GrantBook book(std::chrono::seconds(60), 2);
  GrantBook::Clock::time_point t{};
  t += std::chrono::hours(1);
  LoginIdentity a{"a", "s1", ""}, b{"b", "s1", ""}, c{"c", "s1", ""};
  a.grant = book.Issue(a, t);
  b.grant = book.Issue(b, t + std::chrono::seconds(1));
  EXPECT_TRUE(book.Valid(a, t + std::chrono::seconds(1)));
  for (LoginIdentity other : {LoginIdentity{"b", "s2", b.grant}, LoginIdentity{"a", "s1", b.grant}})
    EXPECT_FALSE(book.Valid(other, t)) << other.name << " " << other.stamp;
  c.grant = book.Issue(c, t + std::chrono::seconds(2));  // a is the oldest: pushed out
  EXPECT_FALSE(book.Valid(a, t + std::chrono::seconds(2)));
  EXPECT_TRUE(book.Valid(b, t + std::chrono::seconds(61)));
  EXPECT_FALSE(book.Valid(b, t + std::chrono::seconds(62)));  // past its lifetime
  EXPECT_TRUE(book.Valid(c, t + std::chrono::seconds(2)));
  book.Revoke(LoginIdentity{"c", "s1", c.grant + "0"});  // not its grant: nothing ends
  EXPECT_TRUE(book.Valid(c, t + std::chrono::seconds(2)));
  book.Wipe();
  EXPECT_FALSE(book.Valid(c, t + std::chrono::seconds(2)));
  EXPECT_TRUE(book.KeyForTesting().empty());
}

// Whether the server answers one raw frame that declares `declared` bytes
// and carries `body`.
bool AnswersFrame(const std::string& address, uint32_t declared, const std::string& body) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path + 1, address.data(), address.size());
  const socklen_t len =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address.size());
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) return false;
  const char head[4] = {static_cast<char>(declared >> 24), static_cast<char>(declared >> 16),
                        static_cast<char>(declared >> 8), static_cast<char>(declared)};
  std::string frame = std::string(head, 4) + body;
  // The server may close before taking it all.
  (void)!send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
  Json::Value answer;
  const bool answered = ReceiveMessage(fd, 5000, kMaxAnswer, &answer);
  close(fd);
  return answered;
}

TEST_F(PrivsepTest, FramesOverTheCapAreRefusedUnread) {
  const std::string info = R"({"op":"info"})";
  EXPECT_TRUE(AnswersFrame(server_.address(), info.size(), info));
  // Padding keeps the request well-formed: only its size is wrong.
  const std::string big = R"({"op":"info")" + std::string(1536 * 1024, ' ') + "}";
  EXPECT_FALSE(AnswersFrame(server_.address(), big.size(), big));
  EXPECT_FALSE(AnswersFrame(server_.address(), 16u << 20, ""));  // the declared length alone
  EXPECT_TRUE(AnswersFrame(server_.address(), info.size(), info));
}

// What a taken-over front could try with the channel: grants it kept, forged
// or made for accounts that cannot log in, and passwords as fast as it likes.
TEST_F(PrivsepTest, ATakenOverFrontCannotForgeOrKeepGrants) {
  PrivClient front(server_.address(), 5000);
  ApiCall call;
  call.api = "TAVO.Core.EventLog";
  call.method = "list";
  LoginIdentity who, other;
  ASSERT_EQ(LoginResult::kOk, front.CheckLogin("boss", "boss-pw", &who));
  ASSERT_EQ(LoginResult::kOk, front.CheckLogin("boss", "boss-pw", &other));
  ASSERT_FALSE(front.Call(call, who).denied);
  // After the logout the grant is dead; the other session of the account lives on.
  front.Logout(who);
  EXPECT_TRUE(front.Call(call, who).denied);
  EXPECT_EQ(LoginResult::kDenied, front.Recheck(who));
  EXPECT_EQ(LoginResult::kOk, front.Recheck(other));

  // An administrator whose password field is empty cannot log in, so no
  // grant stands for it, not even one the account process itself made.
  root_.AddUser("ghost", 1101, 100, "", "", "");
  std::string group = root_.Read("/etc/group");
  group.replace(group.find("administrators:x:101:admin,boss"), 31,
                "administrators:x:101:admin,boss,ghost");
  root_.Write("/etc/group", group);
  tavo::UserIdentity id;
  ASSERT_EQ(tavo::UserMatch::kFound, tavo::ResolveUserName("ghost", &id));
  LoginIdentity ghost{"ghost", id.stamp, ""};
  ghost.grant = ops_.grants().Issue(ghost);
  EXPECT_TRUE(front.Call(call, ghost).denied);

  // Keys a front could know: the one drawn before the fork (a split server
  // draws a new one after it), the wiped copy, none. Even the live key does
  // not help without a session the book issued.
  const std::string before = ops_.grants().KeyForTesting();
  ops_.grants().Rekey();
  EXPECT_TRUE(front.Call(call, other).denied);  // issued under the old key
  const std::string issued = std::to_string(time(nullptr));
  for (const std::string& key :
       {before, std::string(64, '\0'), std::string(), ops_.grants().KeyForTesting()}) {
    LoginIdentity forged{"boss", who.stamp, ""};
    forged.grant = "00112233445566778899aabbccddeeff." + issued + "." +
                   GrantBook::Mac(key, forged, "00112233445566778899aabbccddeeff", issued);
    EXPECT_TRUE(front.Call(call, forged).denied);
  }

  // Passwords: five wrong ones are checked, the sixth try at once is refused
  // unchecked (the right password too), and a try at the allowed pace works.
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(LoginResult::kDenied, front.CheckLogin(i % 2 ? "boss" : "BOSS", "guess", &who));
  EXPECT_EQ(LoginResult::kDenied, front.CheckLogin("boss", "boss-pw", &who));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(LoginResult::kOk, front.CheckLogin("boss", "boss-pw", &who));
}

}  // namespace
}  // namespace tavo_server
