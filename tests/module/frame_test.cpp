// The module frame: exported table and symbols, parameter checking and its
// report, and robustness against hostile parameter values.
#include <cstdio>
#include <set>

#include "module/module_harness.h"

namespace tavo_test {
namespace {

TEST(ModuleFrame, TableRowsInOrderWithTerminator) {
  const char* expected[][2] = {
      {"TAVO.Core.Group", "list"},          {"TAVO.Core.Group", "get"},
      {"TAVO.Core.Group", "set"},           {"TAVO.Core.Group", "delete"},
      {"TAVO.Core.Group", "create"},        {"TAVO.Core.Group", "admin_check"},
      {"TAVO.Core.Group.Member", "list"},   {"TAVO.Core.Group.Member", "add"},
      {"TAVO.Core.Group.Member", "remove"}, {"TAVO.Core.Group.Member", "admin_check"}};
  ApiTableRow* table = ModuleTable();
  ASSERT_NE(table, nullptr);
  for (int i = 0; i < 10; ++i) {
    ASSERT_NE(table[i].api, nullptr) << i;
    EXPECT_STREQ(table[i].api, expected[i][0]) << i;
    EXPECT_STREQ(table[i].method, expected[i][1]) << i;
    EXPECT_EQ(table[i].version, 1) << i;
    EXPECT_NE(table[i].entry, nullptr) << i;
  }
  EXPECT_TRUE(!table[10].api && !table[10].version && !table[10].method && !table[10].entry);
}

TEST(ModuleFrame, ExportsOnlyTheTableAndItsLookup) {
  std::string command = std::string("nm -D --defined-only '") + TAVO_GROUP_MODULE_PATH + "'";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> ours;
  const std::set<std::string> not_ours = {"_init", "_fini", "_edata", "_end", "__bss_start"};
  char line[1024];
  while (fgets(line, sizeof line, pipe)) {
    std::string text(line);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    std::string name = text.substr(text.rfind(' ') + 1);
    if (!not_ours.count(name)) ours.insert(name);
  }
  ASSERT_EQ(pclose(pipe), 0);
  EXPECT_EQ(ours, (std::set<std::string>{"GetAPITable", "gTable"}));
}

class ParamCheckTest : public ModuleTest {
 protected:
  // The report of a refused request answered in debug mode.
  Json::Value Report(const std::string& method, std::string json, bool member = false) {
    json.insert(1, "\"enable_param_debug\": true,");
    Answer a = Call(method, Parse(json), member);
    EXPECT_TRUE(a.success);
    EXPECT_EQ(a.writes, 1);
    return a.data["wrong_param"];
  }
};

TEST_F(ParamCheckTest, RefusalIsCodeOnlyUnlessDebugSwitchIsTrue) {
  Answer a = CallGroup("create", "{}");
  EXPECT_FALSE(a.success);
  EXPECT_EQ(a.code, 3201);
  EXPECT_TRUE(a.data.isNull());
  for (const char* sw : {"\"yes\"", "1", "\"TRUE\""}) {
    a = CallGroup("create", std::string("{\"enable_param_debug\": ") + sw + "}");
    EXPECT_EQ(a.code, 3201) << sw;
  }
  a = CallGroup("create", "{\"enable_param_debug\": \"true\"}");
  EXPECT_TRUE(a.success);
  EXPECT_TRUE(JsonEq(a.data, Parse("{\"wrong_param\": [\"'name' is necessary\"]}")));
}

TEST_F(ParamCheckTest, ComplaintTexts) {
  // {method, params, member API?, report}. The first failure ends checking.
  const char* cases[][4] = {
      {"create", R"({"name": [1]})", "", R"(["'name' is not String"])"},
      {"create", R"({"description": {}})", "", R"(["'name' is necessary"])"},
      {"set", R"({"name": "a", "gid": 5})", "", R"(["'name,gid' are conflict"])"},
      {"set", "{}", "", R"(["One of 'name,gid' is necessary"])"},
      {"set", R"({"gid": -1})", "", R"(["'gid' is not UInt", "One of 'name,gid' is necessary"])"},
      {"set", R"({"name": "a", "gid": -1})", "", R"(["'gid' is not UInt"])"},
      {"set", R"({"name": "a", "new_name": {}, "description": []})", "",
       R"(["'new_name' is not String"])"},
      {"delete", R"({"name": {}})", "", R"(["'name' is not String", "'name' is not Array"])"},
      {"admin_check", R"({"uid": "7"})", "m", R"(["'uid' is not UInt", "'uid' is not Array"])"},
      {"list", R"({"offset": "5"})", "", R"(["'offset' is not Int"])"},
      {"list", R"({"name_only": "True"})", "", R"(["'name_only' is not Bool"])"},
      {"list", R"({"ingroup": 1, "group": "users"})", "m", R"(["'ingroup' is not Bool"])"},
  };
  for (const auto& c : cases)
    EXPECT_TRUE(JsonEq(Report(c[0], c[1], *c[2] != 0), Parse(c[3]))) << c[0] << " " << c[1];
}

TEST_F(ParamCheckTest, ValidatorLogLines) {
  Report("get", "{\"gid\": [1, -2]}");
  EXPECT_TRUE(Logged(7, "src/ParamChecker.cpp:159 'gid' is not UInt"));
  EXPECT_TRUE(Logged(7, "src/ParamChecker.h:108 Wrong type of 'gid[1]'"));
  ClearLog();
  Report("get", "{\"gid\": 1.5}");
  EXPECT_TRUE(Logged(7, "src/ParamChecker.h:103 'gid' is not Array"));
  // The exclusion check reads values itself: no validator line.
  ClearLog();
  Report("set", "{\"gid\": \"x\"}");
  for (const LogLine& line : CapturedLog())
    EXPECT_EQ(line.text.find("ParamChecker"), std::string::npos);
}

TEST_F(ParamCheckTest, AcceptedForms) {
  // A real with an integral value counts as an integer for the JSON library
  // and is read as that integer; a fraction, a negative number and a number
  // above the signed 32-bit range are refused.
  Answer a = CallGroup("get", "{\"gid\": 101.0}");
  EXPECT_TRUE(JsonEq(a.data["groups"][0]["name"], "administrators"));
  a = CallGroup("admin_check", "{\"gid\": [101.0, 1e2]}");
  EXPECT_TRUE(JsonEq(a.data["groups"], Parse("[{\"name\": \"administrators\", \"is_admin\": true},"
                                             " {\"name\": \"users\", \"is_admin\": false}]")));
  EXPECT_TRUE(CallGroup("get", "{\"gid\": 2147483647}").success);
  for (const char* gid : {"1.5", "-1", "-1.0", "2147483648", "4294967295", "\"5\"", "true"}) {
    EXPECT_EQ(CallGroup("get", std::string("{\"gid\": ") + gid + "}").code, 3201) << gid;
  }
  EXPECT_TRUE(JsonEq(CallGroup("list", "{\"offset\": 1e0, \"limit\": 1.0}").data["groups"],
                     Parse("[{\"name\": \"nogroup\", \"description\": \"\"}]")));
  EXPECT_TRUE(CallGroup("list", "{\"name_only\": \"false\", \"limit\": 0}").success);
  EXPECT_TRUE(CallGroup("get", "{\"name\": [], \"gid\": []}").success);
}

// No value a client sends may make the module throw or answer twice.
TEST_F(ParamCheckTest, HostileValuesNeverEscape) {
  const char* values[] = {"null",
                          "{}",
                          "[]",
                          "[{}]",
                          "[null]",
                          "[[1]]",
                          "1e300",
                          "-1e300",
                          "18446744073709551615",
                          "-9223372036854775808",
                          "\"\"",
                          "\"x\"",
                          "true",
                          "1.5",
                          "-1",
                          "\"-1\"",
                          "\"true\"",
                          "[\"\", \"users\"]"};
  const char* names[] = {"name",     "gid",         "uid",     "group",       "offset",
                         "limit",    "type",        "user",    "substr",      "name_only",
                         "new_name", "description", "ingroup", "domain_name", "enable_param_debug"};
  for (ApiTableRow* row = ModuleTable(); row && row->api; ++row) {
    for (const char* value : values) {
      for (const char* name : names) {
        Json::Value params(Json::objectValue);
        params[name] = Parse(value);
        if (std::string(name) != "group") params["group"] = "administrators";
        TAVO::APIRequest request(params);
        TAVO::APIResponse response;
        EXPECT_NO_THROW(row->entry(&request, &response)) << row->method << " " << name << value;
        EXPECT_EQ(response.WriteCount(), 1) << row->api << " " << row->method << " " << name;
      }
    }
    // Parameters that are not an object at all.
    for (const char* body : {"[]", "5", "\"x\"", "null"}) {
      TAVO::APIRequest request(Parse(body));
      TAVO::APIResponse response;
      EXPECT_NO_THROW(row->entry(&request, &response));
      EXPECT_EQ(response.WriteCount(), 1);
    }
  }
}

}  // namespace
}  // namespace tavo_test
