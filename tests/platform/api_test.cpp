// Request parameters on any JSON, and the answer envelope.
#include "tavo/api.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstring>
#include <memory>

namespace {

Json::Value Parse(const char* text) {
  Json::Value v;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  EXPECT_TRUE(reader->parse(text, text + std::strlen(text), &v, &errors)) << text;
  return v;
}

TEST(APIRequestTest, NonObjectParamsActAsEmptyObject) {
  for (const char* text : {"null", "[1,2]", "\"name\"", "42", "true", "[{\"name\":1}]"}) {
    TAVO::APIRequest req(Parse(text));
    EXPECT_FALSE(req.HasParam("name")) << text;
    EXPECT_EQ(req.GetParam("name", "fallback"), Json::Value("fallback")) << text;
  }
}

TEST(APIRequestTest, PresentMembersWinOverDefaultEvenWhenNull) {
  TAVO::APIRequest req(Parse(R"({"gid": 1001, "name": null, "": 7})"));
  EXPECT_EQ(req.GetParam("gid", "0").asInt(), 1001);
  EXPECT_TRUE(req.HasParam("name"));
  EXPECT_TRUE(req.GetParam("name", "x").isNull());
  EXPECT_EQ(req.GetParam("", Json::Value()).asInt(), 7);
  EXPECT_FALSE(req.HasParam("GID"));
}

TEST(APIResponseTest, EnvelopeShapes) {
  TAVO::APIResponse unwritten;
  EXPECT_EQ(unwritten.Envelope(), Parse(R"({"success": false, "error": {"code": 3299}})"));

  TAVO::APIResponse ok;
  ok.SetSuccess(Parse(R"({"groups": []})"));
  EXPECT_EQ(ok.Envelope(), Parse(R"({"success": true, "data": {"groups": []}})"));
  EXPECT_EQ(ok.Code(), 3200);

  TAVO::APIResponse failed;
  failed.SetError(3206, Json::Value("detail never sent"));
  EXPECT_EQ(failed.Envelope(), Parse(R"({"success": false, "error": {"code": 3206}})"));

  // A second write is counted (a module must write once) and the last one wins.
  ok.SetError(3201, Json::Value());
  EXPECT_EQ(ok.WriteCount(), 2);
  EXPECT_EQ(ok.Envelope(), Parse(R"({"success": false, "error": {"code": 3201}})"));
}

}  // namespace
