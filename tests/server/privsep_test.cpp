// The privileged account process answers only its own front process, and
// only well-formed requests that name an account which logged in through it.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "api/eventlog_api.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "common/temp_root.h"
#include "privsep/priv_client.h"
#include "privsep/priv_server.h"

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

}  // namespace
}  // namespace tavo_server
