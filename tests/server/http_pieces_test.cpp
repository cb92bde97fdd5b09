// Envelope parsing, static file confinement and sessions.
#include <gtest/gtest.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>

#include "api/dispatch.h"
#include "api/json_util.h"
#include "auth/sessions.h"
#include "auth/site_check.h"
#include "common/temp_root.h"
#include "static/static_files.h"

namespace tavo_server {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value v;
  EXPECT_TRUE(ParseJson(text, &v)) << text;
  return v;
}

TEST(EnvelopeTest, AcceptsWellTypedCallsOnly) {
  ApiCall call;
  std::string error;
  ASSERT_TRUE(CallFromJson(Parse(R"({"api":"A","method":"m"})"), &call, &error));
  EXPECT_EQ(call.version, 1);
  EXPECT_TRUE(call.params.isObject());
  ASSERT_TRUE(CallFromJson(Parse(R"({"api":"A","version":"2","method":"m","params":{"k":1}})"),
                           &call, &error));
  EXPECT_EQ(call.version, 2);
  EXPECT_EQ(call.params["k"].asInt(), 1);

  for (const char* bad :
       {R"([1])", R"({"method":"m"})", R"({"api":5,"method":"m"})", R"({"api":"","method":"m"})",
        R"({"api":"A","method":["m"]})", R"({"api":"A","method":"m","version":0})",
        R"({"api":"A","method":"m","version":1.5})", R"({"api":"A","method":"m","version":"x"})",
        R"({"api":"A","method":"m","params":[1]})", R"({"api":"A","method":"m","params":"k=1"})"}) {
    EXPECT_FALSE(CallFromJson(Parse(bad), &call, &error)) << bad;
    EXPECT_FALSE(error.empty());
  }
  Json::Value v;
  EXPECT_FALSE(ParseJson("{\"api\":\"A\"} trailing", &v));
  EXPECT_FALSE(ParseJson(std::string(100000, '['), &v));  // too deep, no crash
}

TEST(EnvelopeTest, StringsMustBeUtf8WithoutNul) {
  std::string error;
  EXPECT_TRUE(CheckText(Parse(R"({"n":["gr\u00fcn","\ud83d\ude00",1,{"k":"v"}]})"), &error));
  const std::string bad[] = {std::string("a\0b", 3),
                             "\xff",
                             "\xc3",
                             "\xc0\xaf" /* overlong / */,
                             "\xed\xa0\x80" /* surrogate */,
                             "\xf4\x90\x80\x80" /* above U+10FFFF */};
  for (const std::string& b : bad) {
    Json::Value nested(Json::objectValue);
    nested["p"]["list"].append(b);
    EXPECT_FALSE(CheckText(nested, &error)) << b;
    Json::Value keyed(Json::objectValue);
    keyed[b] = 1;
    EXPECT_FALSE(CheckText(keyed, &error)) << b;
  }
  ApiCall call;
  EXPECT_FALSE(CallFromJson(Parse(R"({"api":"A","method":"m","params":{"name":"x\u0000y"}})"),
                            &call, &error));
  EXPECT_FALSE(
      CallFromJson(Parse(R"({"api":"A","method":"m","params":{"name":"\udc00"}})"), &call, &error));
}

TEST(EnvelopeTest, ValuesAreJsonWhenTheyParse) {
  EXPECT_EQ(ValueFromText("5"), Json::Value(5));
  EXPECT_EQ(ValueFromText("true"), Json::Value(true));
  EXPECT_EQ(ValueFromText("[\"a\",\"b\"]").size(), 2u);
  EXPECT_EQ(ValueFromText("\"5\""), Json::Value("5"));
  EXPECT_EQ(ValueFromText("staff"), Json::Value("staff"));
  EXPECT_EQ(ValueFromText("[oops"), Json::Value("[oops"));
  EXPECT_EQ(ValueFromText(""), Json::Value(""));
}

// The answers' writer writes byte for byte what jsoncpp's own writer writes
// (no indentation, UTF-8 kept), for every kind of value: escapes, control
// bytes, non-ASCII and invalid bytes, NUL inside strings and names, numbers
// at their limits, nesting.
TEST(EnvelopeTest, CompactWriterAgreesWithJsoncpp) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  std::mt19937 rng(7);
  const std::string pieces[] = {
      "a",    "\"",   "\\",   "/", "\n", "\t", "\b",   "\f",   "\r",        std::string(1, '\0'),
      "\x01", "\x1f", "\x7f", "é", "€",  "😀",  "\xff", "\xc3", "</script>", " "};
  auto text = [&] {
    std::string t;
    for (int n = rng() % 6; n > 0; --n) t += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    return t;
  };
  std::function<Json::Value(int)> make = [&](int depth) -> Json::Value {
    switch (depth > 3 ? rng() % 6 : rng() % 8) {
      case 0:
        return Json::Value();
      case 1:
        return Json::Value(static_cast<Json::Int64>(rng()) -
                           (Json::Int64{1} << 31) * static_cast<Json::Int64>(rng() % 3));
      case 2:
        return Json::Value(rng() % 2 ? Json::UInt64(~0ULL) : Json::UInt64(rng()));
      case 3:
        return Json::Value(static_cast<double>(static_cast<int>(rng())) / 7.0);
      case 4:
        return Json::Value(rng() % 2 == 0);
      case 5:
        return Json::Value(text());
      case 6: {
        Json::Value a(Json::arrayValue);
        for (int n = rng() % 4; n > 0; --n) a.append(make(depth + 1));
        return a;
      }
      default: {
        Json::Value o(Json::objectValue);
        for (int n = rng() % 4; n > 0; --n) o[text()] = make(depth + 1);
        return o;
      }
    }
  };
  for (int i = 0; i < 2000; ++i) {
    const Json::Value v = make(0);
    ASSERT_EQ(Json::writeString(builder, v), ToCompactJson(v)) << "value " << i;
  }
  for (double d : {0.0, -0.0, 1e300, -1e-300, 0.1, 123456789012345678.0})
    EXPECT_EQ(Json::writeString(builder, Json::Value(d)), ToCompactJson(Json::Value(d)));
}

TEST(StaticFilesTest, ServesInsideAndNothingOutside) {
  tavo_test::TempRoot top;
  mkdir(top.Path("/web").c_str(), 0755);
  mkdir(top.Path("/web/css").c_str(), 0755);
  top.Write("/web/index.html", "<p>hi</p>");
  top.Write("/web/css/site.css", "p{}");
  top.Write("/secret.txt", "secret");
  ASSERT_EQ(symlink(top.Path("/secret.txt").c_str(), top.Path("/web/leak.txt").c_str()), 0);
  ASSERT_EQ(symlink(top.dir().c_str(), top.Path("/web/up").c_str()), 0);
  StaticFiles files(top.Path("/web"));
  std::string file;
  ASSERT_EQ(files.Resolve("/", &file), StaticFiles::Result::kFound);
  EXPECT_EQ(file, files.root() + "/index.html");
  ASSERT_EQ(files.Resolve("/css/site.css", &file), StaticFiles::Result::kFound);
  EXPECT_EQ(StaticFiles::ContentType(file), "text/css; charset=utf-8");
  EXPECT_EQ(StaticFiles::ContentType("/x/app.JS"), "text/javascript; charset=utf-8");
  EXPECT_EQ(StaticFiles::ContentType("/x.y/noext"), "application/octet-stream");

  for (const char* bad : {"/../secret.txt", "/css/../../secret.txt", "/./index.html",
                          "//etc/passwd", "relative", "/css\\..\\x"})
    EXPECT_EQ(files.Resolve(bad, &file), StaticFiles::Result::kBadPath) << bad;
  for (const char* outside : {"/leak.txt", "/up/secret.txt", "/missing.html", "/css"})
    EXPECT_EQ(files.Resolve(outside, &file), StaticFiles::Result::kNotFound) << outside;
}

TEST(SessionStoreTest, TokensIdsExpiryAndEviction) {
  SessionStore store(std::chrono::seconds(60), std::chrono::seconds(3600), 2);
  SessionStore::Session a, b, c, found;
  ASSERT_TRUE(store.Create("admin", "s1", &a));
  EXPECT_EQ(a.token.size(), 64u);
  EXPECT_NE(a.token, a.id);
  ASSERT_TRUE(store.FindByToken(a.token, &found));
  EXPECT_EQ(found.account, "admin");
  EXPECT_EQ(found.stamp, "s1");
  EXPECT_FALSE(store.FindByToken(a.id, &found));  // the cookie id is no token
  for (std::string near : {a.token, a.id}) {      // the right prefix is not enough
    near.back() = near.back() == '0' ? '1' : '0';
    EXPECT_FALSE(store.FindByToken(near, &found));
    EXPECT_FALSE(store.FindById(near, &found));
  }
  EXPECT_FALSE(store.FindByToken(a.token + "0", &found));
  EXPECT_FALSE(store.FindByToken(a.token.substr(0, 16), &found));
  ASSERT_TRUE(store.FindById(a.id, &found));
  ASSERT_TRUE(store.Create("b", "s2", &b));
  ASSERT_TRUE(store.FindByToken(a.token, &found));  // a is now the most recent
  ASSERT_TRUE(store.Create("c", "s3", &c));         // evicts b
  EXPECT_FALSE(store.FindByToken(b.token, &found));
  EXPECT_TRUE(store.FindByToken(a.token, &found));
  store.Remove(a.token);
  EXPECT_FALSE(store.FindById(a.id, &found));
  EXPECT_EQ(store.Size(), 1u);
  // The evicted session is reported, so that its grant can end; a removed
  // one is not (its caller ends the grant itself).
  std::vector<SessionStore::Session> ended = store.TakeEnded();
  ASSERT_EQ(ended.size(), 1u);
  EXPECT_EQ(ended[0].account, "b");
  EXPECT_TRUE(store.TakeEnded().empty());

  // Idle too long, or alive too long however busy.
  SessionStore idle(std::chrono::seconds(0), std::chrono::seconds(3600), 10);
  SessionStore busy(std::chrono::seconds(3600), std::chrono::seconds(0), 10);
  ASSERT_TRUE(idle.Create("admin", "s", &a));
  ASSERT_TRUE(busy.Create("admin", "s", &b));
  usleep(2000);
  EXPECT_FALSE(idle.FindByToken(a.token, &found));
  EXPECT_FALSE(busy.FindByToken(b.token, &found));
  EXPECT_EQ(idle.TakeEnded().size(), 1u);
  EXPECT_EQ(busy.TakeEnded().size(), 1u);
}

TEST(SitePolicyTest, HostMustNameThisServerAndOriginMustBeItsOwn) {
  SitePolicy http({"nas.example"}, false);
  for (const char* ok : {"127.0.0.1:8780", "192.168.1.10", "[::1]:8780", "localhost:8780",
                         "LOCALHOST", "nas.example:8780", "NAS.Example"})
    EXPECT_TRUE(http.HostAllowed(ok)) << ok;
  // Names of other sites (what DNS rebinding sends), tricks and malformed values.
  for (const char* bad : {"", "evil.example", "evil.example:8780", "nas.example.evil.example",
                          "127.0.0.1.evil.example", "0x7f.1", "[::1", "[evil]", "localhost:80:80",
                          "localhost:8x", "nas.example@evil.example", ":8780"})
    EXPECT_FALSE(http.HostAllowed(bad)) << bad;

  EXPECT_TRUE(http.OriginAllowed("", false, "127.0.0.1:8780"));  // no Origin: a script
  EXPECT_TRUE(http.OriginAllowed("http://127.0.0.1:8780", true, "127.0.0.1:8780"));
  EXPECT_TRUE(http.OriginAllowed("http://NAS.example", true, "nas.example"));
  for (const char* foreign : {"null", "", "http://evil.example", "http://127.0.0.1:9999",
                              "https://127.0.0.1:8780", "http://127.0.0.1:8780/"})
    EXPECT_FALSE(http.OriginAllowed(foreign, true, "127.0.0.1:8780")) << foreign;
  EXPECT_FALSE(http.OriginAllowed("http://evil.example", true, "evil.example"));
  SitePolicy https({}, true);
  EXPECT_TRUE(https.OriginAllowed("https://10.0.0.2", true, "10.0.0.2"));
  EXPECT_FALSE(https.OriginAllowed("http://10.0.0.2", true, "10.0.0.2"));
}

}  // namespace
}  // namespace tavo_server
