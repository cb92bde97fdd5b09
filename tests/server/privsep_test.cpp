// The privileged account process answers only its own front process, and
// only well-formed requests that name an account which logged in through it.
#include <crypt.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "api/eventlog_api.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "common/temp_root.h"
#include "privsep/call_frame.h"
#include "privsep/grant_book.h"
#include "privsep/priv_channel.h"
#include "privsep/priv_client.h"
#include "privsep/priv_server.h"
#include "tavo/group.h"
#include "tavo/read_scope.h"
#include "tavo/user.h"
#include "tavo/wait_notice.h"

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
  Json::Value envelope;
  ASSERT_TRUE(a.result.text && ParseJson(*a.result.text, &envelope));
  EXPECT_EQ(true, envelope["success"].asBool());
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
// Only a method seen to answer from the account files alone is made by a
// thread that serves other connections too.
TEST_F(PrivsepTest, OnlyMethodsThatReadTheAccountFilesAloneRunInline) {
  ASSERT_TRUE(modules_
                  .Register(
                      "T.Read", 1, "page",
                      [](TAVO::APIRequest*, TAVO::APIResponse* response) {
                        auto none = [](const TLIB_GROUP_INFO*, int, void*) { return 0; };
                        TLIBGroupInfoEnumBySubstr(TAVO_GROUP_LOCAL, "", 0, 50, "", 1, none,
                                                  nullptr);
                        TavoAnswerReusable();
                        response->SetSuccess(Json::Value(Json::objectValue));
                      },
                      "the test")
                  .ok());
  LoginIdentity who;
  ASSERT_EQ(LoginResult::kOk, ops_.CheckLogin("boss", "boss-pw", &who));
  ApiCall page, log;
  page.api = "T.Read";
  page.method = "page";
  log.api = "TAVO.Core.EventLog";
  log.method = "list";
  EXPECT_FALSE(ops_.CallsInline(page)) << "not seen yet";
  EXPECT_FALSE(ops_.Call(page, who).denied);
  EXPECT_TRUE(ops_.CallsInline(page));
  page.version = 2;
  EXPECT_FALSE(ops_.CallsInline(page)) << "another version";
  EXPECT_FALSE(ops_.Call(log, who).denied);
  EXPECT_FALSE(ops_.CallsInline(log)) << "the event log is no account file";
}

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

int ConnectTo(const std::string& address) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path + 1, address.data(), address.size());
  const socklen_t len =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address.size());
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Whether the server answers one raw frame that declares `declared` bytes
// after its length and carries `body` after the id.
bool AnswersFrame(const std::string& address, uint32_t declared, const std::string& body) {
  const int fd = ConnectTo(address);
  if (fd < 0) return false;
  const unsigned char head[8] = {static_cast<unsigned char>(declared >> 24),
                                 static_cast<unsigned char>(declared >> 16),
                                 static_cast<unsigned char>(declared >> 8),
                                 static_cast<unsigned char>(declared),
                                 0,
                                 0,
                                 0,
                                 7};
  std::string frame = std::string(reinterpret_cast<const char*>(head), 8) + body;
  // The server may close before taking it all.
  (void)!send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
  uint32_t id = 0;
  std::string answer;
  const bool answered = ReceiveFrame(fd, 5000, kMaxAnswer, &id, &answer);
  close(fd);
  return answered && id == 7;
}

TEST_F(PrivsepTest, FramesOverTheCapOrNotJsonAreRefused) {
  const std::string info = R"({"op":"info"})";
  EXPECT_TRUE(AnswersFrame(server_.address(), 4 + info.size(), info));
  // Padding keeps the request well-formed: only its size is wrong.
  const std::string big = R"({"op":"info")" + std::string(1536 * 1024, ' ') + "}";
  EXPECT_FALSE(AnswersFrame(server_.address(), 4 + big.size(), big));
  EXPECT_FALSE(AnswersFrame(server_.address(), 16u << 20, ""));     // the declared length alone
  EXPECT_FALSE(AnswersFrame(server_.address(), 4 + 5, "{\"op\""));  // not JSON
  EXPECT_FALSE(AnswersFrame(server_.address(), 2, "ab"));           // shorter than its id
  // A call frame cut short, or with a field longer than the frame.
  ApiCall call;
  call.api = "TAVO.Core.Group";
  call.method = "list";
  const std::string whole = EncodeCall(call, LoginIdentity{"boss", "s", "g"});
  const std::string cut = whole.substr(0, whole.size() - 2);
  EXPECT_FALSE(AnswersFrame(server_.address(), 4 + cut.size(), cut));
  std::string overlong = whole;
  overlong[4] = '\x7f';  // the name's length
  EXPECT_FALSE(AnswersFrame(server_.address(), 4 + overlong.size(), overlong));
  // A whole one is answered (refused for its forged grant, but answered).
  EXPECT_TRUE(AnswersFrame(server_.address(), 4 + whole.size(), whole));
  // Parameters that are not an object are refused before the grant is.
  call.params["a"] = "x";
  std::string listed = EncodeCall(call, LoginIdentity{"boss", "s", "g"});
  ASSERT_TRUE(AnswersFrame(server_.address(), 4 + listed.size(), listed));
  listed.replace(listed.find(R"({"a":"x"})"), 9, R"(["a","x"])");
  EXPECT_FALSE(AnswersFrame(server_.address(), 4 + listed.size(), listed));
  EXPECT_TRUE(AnswersFrame(server_.address(), 4 + info.size(), info));
}

TEST(CallFrameTest, ACallCrossesWholeAndAnythingElseIsRefused) {
  ApiCall call;
  call.api = "TAVO.Core.Group.Member";
  call.version = 3;
  call.method = "list";
  call.params["group"] = "sales\nteam";
  call.params["ids"][0] = 1;
  const LoginIdentity who{"Zoë", "stamp", "grant"};
  const std::string body = EncodeCall(call, who);
  ApiCall got;
  LoginIdentity got_who;
  ASSERT_TRUE(DecodeCall(body, &got, &got_who));
  EXPECT_EQ(call.api, got.api);
  EXPECT_EQ(3, got.version);
  EXPECT_EQ(call.method, got.method);
  EXPECT_EQ(call.params, got.params);
  EXPECT_EQ("Zoë", got_who.name);
  EXPECT_EQ("grant", got_who.grant);

  EXPECT_FALSE(DecodeCall(body + "x", &got, &got_who));  // trailing bytes
  for (size_t n = 0; n < body.size(); n += 7)            // every cut
    EXPECT_FALSE(DecodeCall(body.substr(0, n), &got, &got_who)) << n;
  const auto refused = [&](ApiCall c, LoginIdentity w) {
    return !DecodeCall(EncodeCall(c, w), &got, &got_who);
  };
  ApiCall bad = call;
  bad.version = 0;
  EXPECT_TRUE(refused(bad, who));
  bad = call;
  bad.method.clear();
  EXPECT_TRUE(refused(bad, who));
  bad = call;
  bad.api = std::string("A\0B", 3);
  EXPECT_TRUE(refused(bad, who));
  bad = call;
  bad.params["x"] = "\xff";  // not UTF-8
  EXPECT_TRUE(refused(bad, who));
  bad = call;
  bad.params = Json::Value(Json::arrayValue);
  EXPECT_TRUE(refused(bad, who));
  EXPECT_TRUE(refused(call, LoginIdentity{"", "s", "g"}));

  // The answer's head: every field back, and the envelope after it as it is.
  CallHead head;
  head.result = LoginResult::kDenied;
  head.lookup = 2;
  head.code = -3299;
  head.module_ns = 5000000000LL;
  const std::string answer = EncodeCallHead(head) + "{\"success\":true}";
  CallHead back;
  std::string_view envelope;
  ASSERT_TRUE(DecodeCallHead(answer, &back, &envelope));
  EXPECT_EQ(LoginResult::kDenied, back.result);
  EXPECT_EQ(2, back.lookup);
  EXPECT_EQ(-3299, back.code);
  EXPECT_EQ(5000000000LL, back.module_ns);
  EXPECT_EQ("{\"success\":true}", envelope);
  EXPECT_FALSE(DecodeCallHead(answer.substr(0, kCallHeadBytes - 1), &back, &envelope));
  std::string odd = answer;
  odd[0] = 9;  // no such result
  EXPECT_FALSE(DecodeCallHead(odd, &back, &envelope));
}

// An AccountOps that answers each call with its own parameters, after a
// pause of `params.sleep_us`, so that answers finish out of order; a call
// with `"kept":true` as a kept answer would be, at once. A call of method
// "inline" may be made by the thread that reads it, and one with
// `"notice":true` announces its pause as the platform announces its waits.
class EchoOps : public AccountOps {
 public:
  std::atomic<int> kept{0};
  bool CallsInline(const ApiCall& call) override { return call.method == "inline"; }
  bool CallKept(const ApiCall&, const std::string& params_text, const LoginIdentity&,
                Answer* a) override {
    Json::Value params;
    if (params_text.find(R"("kept":true)") == std::string::npos || !ParseJson(params_text, &params))
      return false;
    a->result.envelope = params;
    a->result.code = params["n"].asInt();
    ++kept;
    return true;
  }
  LoginResult CheckLogin(const std::string&, const std::string&, LoginIdentity*) override {
    return LoginResult::kDenied;
  }
  LoginResult Recheck(const LoginIdentity&) override { return LoginResult::kOk; }
  Answer Call(const ApiCall& call, const LoginIdentity&) override {
    if (call.params["notice"].asBool()) tavo::NoticeWait();
    std::this_thread::sleep_for(std::chrono::microseconds(call.params["sleep_us"].asInt()));
    Answer a;
    a.result.envelope = call.params;
    a.result.code = call.params["n"].asInt();
    return a;
  }
  void Logout(const LoginIdentity&) override {}
  Json::Value Info() override { return Json::Value(Json::arrayValue); }
  Json::Value Stats() override { return Json::Value(Json::objectValue); }
};

// An EchoOps behind a server of its own, for one test: stopped at its end
// whichever way the test ends.
struct EchoServer {
  EchoOps ops;
  PrivServer server{ops, kChannelConnections, 2000};
  std::thread runner;
  EchoServer() {
    EXPECT_TRUE(server.Listen().ok());
    server.AllowPeer(getpid(), getuid());
    runner = std::thread([this] { server.Run(); });
  }
  ~EchoServer() {
    server.Stop();
    runner.join();
  }
};

TEST(PrivChannelTest, ConcurrentCallsInFlightEachGetTheirOwnAnswer) {
  EchoServer echo;
  PrivClient front(echo.server.address(), 5000);
  std::atomic<int> wrong{0}, done{0}, started{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 12; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        ApiCall call;
        call.api = "A";
        call.method = "m";
        call.params["n"] = t * 1000 + i;
        call.params["sleep_us"] = (t * 7 + i * 13) % 500;
        call.params["text"] = "line\nbreak " + std::to_string(t);
        call.params["kept"] = i % 3 == 0;
        // Half the callers start their calls and take the answer from the
        // channel's reader, as the HTTP server does; the others wait.
        AccountOps::Answer a;
        std::promise<AccountOps::Answer> later;
        if (t % 2 == 1 &&
            front.CallLater(call, LoginIdentity{"x", "s", "g"},
                            [&later](AccountOps::Answer got) { later.set_value(got); })) {
          a = later.get_future().get();
          ++started;
        } else {
          a = front.Call(call, LoginIdentity{"x", "s", "g"});
        }
        Json::Value echoed;
        if (a.unavailable || !a.result.text || !ParseJson(*a.result.text, &echoed) ||
            echoed != call.params || a.result.code != t * 1000 + i)
          ++wrong;
        ++done;
      }
    });
  }
  for (auto& c : callers) c.join();
  EXPECT_EQ(480, done.load());
  EXPECT_EQ(0, wrong.load());
  EXPECT_GT(started.load(), 100);
  EXPECT_EQ(12 * 14, echo.ops.kept.load());  // answered by the event threads
  // The connections were kept and shared, not one per call.
  EXPECT_GE(front.OpenConnections(), 2);
  EXPECT_LE(front.OpenConnections(), 12);
}

// Calls that may wait for a lock never hold the connections kept for the
// others, and a started call whose answer does not come in time is answered
// unavailable.
TEST(PrivChannelTest, WaitingCallsLeaveRoomForTheOthersAndTimeOut) {
  EchoServer echo;
  {
    PrivClient front(echo.server.address(), 1500);
    const LoginIdentity who{"x", "s", "g"};
    ApiCall slow;
    slow.api = "TAVO.Core.Group";
    slow.method = "add";
    slow.params["sleep_us"] = 2500000;  // longer than the client waits
    std::atomic<int> unavailable{0};
    int slow_started = 0;
    while (front.CallLater(slow, who, [&](AccountOps::Answer a) { unavailable += a.unavailable; }))
      ++slow_started;
    // As many as may wait on the channel, then a full queue.
    EXPECT_EQ(kChannelConnections - kReservedConnections + static_cast<int>(kQueuedCalls),
              slow_started);
    // The event log's list takes no lock: it still gets a connection, and
    // its answer while the slow calls run.
    ApiCall quick;
    quick.api = "TAVO.Core.EventLog";
    quick.method = "list";
    quick.params["n"] = 7;
    std::promise<AccountOps::Answer> got;
    ASSERT_TRUE(front.CallLater(quick, who, [&](AccountOps::Answer a) { got.set_value(a); }));
    auto answer = got.get_future();
    ASSERT_EQ(std::future_status::ready, answer.wait_for(std::chrono::milliseconds(1000)));
    EXPECT_EQ(7, answer.get().result.code);
    // Nor does a kept answer, on a reserved connection too.
    ApiCall list;
    list.api = "TAVO.Core.Group";
    list.method = "list";
    list.params["kept"] = true;
    list.params["n"] = 8;
    EXPECT_EQ(8, front.Call(list, who).result.code);
    // The slow ones, sent or queued, end unanswered after the client's 1.5 s,
    // each once.
    for (int i = 0; i < 40 && unavailable.load() < slow_started; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(slow_started, unavailable.load());
  }
}

// Calls started beyond the channel's connections wait in the front's queue
// and go out as connections come back, each to its own answer.
TEST(PrivChannelTest, CallsBeyondTheConnectionsQueueAndAreEachAnswered) {
  EchoServer echo;
  {
    // Before the client, whose end answers what is still under way.
    constexpr int kCalls = 200;
    std::vector<std::promise<AccountOps::Answer>> answers(kCalls);
    PrivClient front(echo.server.address(), 5000);
    for (int i = 0; i < kCalls; ++i) {
      ApiCall call;
      call.api = "TAVO.Core.Group";
      call.method = i % 2 == 0 ? "inline" : "list";
      call.params["n"] = i;
      call.params["sleep_us"] = 2000 + (i * 37) % 3000;
      ASSERT_TRUE(front.CallLater(call, LoginIdentity{"x", "s", "g"},
                                  [&answers, i](AccountOps::Answer a) { answers[i].set_value(a); }))
          << i;
    }
    int wrong = 0;
    for (int i = 0; i < kCalls; ++i) {
      auto got = answers[i].get_future();
      ASSERT_EQ(std::future_status::ready, got.wait_for(std::chrono::seconds(4))) << i;
      const AccountOps::Answer a = got.get();
      wrong += a.unavailable || a.result.code != i;
    }
    EXPECT_EQ(0, wrong);
    EXPECT_LE(front.OpenConnections(), kChannelConnections);
  }
}

// A thread that makes calls itself hands its other connections on when a
// call announces a wait: the calls on those connections do not wait with it.
TEST(PrivChannelTest, ACallThatWaitsHandsItsThreadsConnectionsOn) {
  EchoServer echo;
  {
    // Before the client, whose end answers what is still under way.
    std::promise<AccountOps::Answer> slow[2];
    constexpr int kQuick = 16;
    std::vector<std::promise<AccountOps::Answer>> quick(kQuick);
    PrivClient front(echo.server.address(), 5000);
    const LoginIdentity who{"x", "s", "g"};
    auto call = [](int n, int sleep_us, bool notice) {
      ApiCall c;
      c.api = "TAVO.Core.Group";
      c.method = "inline";
      c.params["n"] = n;
      c.params["sleep_us"] = sleep_us;
      c.params["notice"] = notice;
      return c;
    };
    // Two waits, so that whichever thread reads each, both hand on.
    for (int i = 0; i < 2; ++i)
      ASSERT_TRUE(front.CallLater(call(100 + i, 1500000, true), who,
                                  [&slow, i](AccountOps::Answer a) { slow[i].set_value(a); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (int i = 0; i < kQuick; ++i)
      ASSERT_TRUE(front.CallLater(call(i, 1000, false), who,
                                  [&quick, i](AccountOps::Answer a) { quick[i].set_value(a); }));
    for (int i = 0; i < kQuick; ++i) {
      auto got = quick[i].get_future();
      ASSERT_EQ(std::future_status::ready, got.wait_for(std::chrono::milliseconds(700))) << i;
      EXPECT_EQ(i, got.get().result.code);
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(100 + i, slow[i].get_future().get().result.code);
  }
}

// A stand-in for the account process that answers each request with the id
// `shift` away from the one asked.
TEST(PrivChannelTest, AnAnswerForAnotherRequestIsRefusedAndItsConnectionDropped) {
  const std::string address = "tavo-test-" + std::to_string(getpid());
  int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path + 1, address.data(), address.size());
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address.size())));
  ASSERT_EQ(0, listen(listener, 4));
  std::atomic<uint32_t> shift{1};
  std::thread fake([&] {
    for (int served = 0; served < 2; ++served) {
      const int fd = accept(listener, nullptr, nullptr);
      uint32_t id;
      std::string body;
      while (ReceiveFrame(fd, 5000, kMaxRequest, &id, &body))
        SendFrame(fd, id + shift.load(), R"({"result":"ok","info":[]})", {}, kMaxAnswer);
      close(fd);
    }
  });
  {
    PrivClient front(address, 2000);
    Json::Value req(Json::objectValue), answer;
    req["op"] = "info";
    EXPECT_FALSE(front.Ask(req, &answer));
    EXPECT_EQ(0, front.OpenConnections());
    shift = 0;  // the next connection answers in order
    EXPECT_TRUE(front.Ask(req, &answer));
    EXPECT_TRUE(front.Ask(req, &answer));
    EXPECT_EQ(1, front.OpenConnections());
  }  // closes the kept connection: the stand-in ends
  fake.join();
  close(listener);
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
