#include "module/module_harness.h"

#include <dlfcn.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "tavo/eventlog.h"
#include "tavo/testing.h"

namespace tavo_test {

::testing::AssertionResult JsonEq(const Json::Value& actual, const Json::Value& expected) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string a = Json::writeString(builder, actual);
  const std::string e = Json::writeString(builder, expected);
  if (a == e) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "actual   " << a << "\nexpected " << e;
}

ApiTableRow* ModuleTable() {
  static ApiTableRow* table = [] {
    void* handle = dlopen(TAVO_GROUP_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      ADD_FAILURE() << "dlopen: " << dlerror();
      return static_cast<ApiTableRow*>(nullptr);
    }
    auto get = reinterpret_cast<GetAPITableFn>(dlsym(handle, "GetAPITable"));
    return get ? get() : nullptr;
  }();
  return table;
}

MethodEntry FindEntry(const std::string& api, const std::string& method) {
  ApiTableRow* row = ModuleTable();
  for (; row != nullptr && row->api != nullptr; ++row) {
    if (api == row->api && method == row->method && row->version == 1) return row->entry;
  }
  return nullptr;
}

void ModuleTest::SetUp() {
  setenv("TAVO_LOCK_TIMEOUT_MS", "300", 1);
  root_ = std::make_unique<TempRoot>();
  tavo::testing::ClearFaults();
  mkdir(root_->Path("/etc/tavo/reload.d").c_str(), 0755);
  std::string hook = root_->Path("/etc/tavo/reload.d/10-record");
  root_->Write("/etc/tavo/reload.d/10-record",
               "#!/bin/sh\necho \"$1\" >> \"" + root_->Path("/reloads") + "\"\n");
  chmod(hook.c_str(), 0755);
  ClearLog();
}

void ModuleTest::TearDown() { tavo::testing::ClearFaults(); }

Json::Value ModuleTest::Parse(const std::string& json) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(json.data(), json.data() + json.size(), &value, &errors)) {
    ADD_FAILURE() << "bad test JSON: " << json;
  }
  return value;
}

Answer ModuleTest::Call(const std::string& method, const Json::Value& params, bool member) {
  Answer answer;
  const std::string api = member ? "TAVO.Core.Group.Member" : "TAVO.Core.Group";
  MethodEntry entry = FindEntry(api, method);
  if (entry == nullptr) {
    ADD_FAILURE() << "no row for " << api << " " << method;
    return answer;
  }
  TAVO::APIRequest request(params, api, 1, method, "admin");
  TAVO::APIResponse response;
  entry(&request, &response);
  answer.writes = response.WriteCount();
  answer.success = response.IsSuccess();
  answer.code = response.Code();
  answer.data = response.Envelope()["data"];
  return answer;
}

std::vector<std::string> ModuleTest::Names(const Json::Value& list) {
  std::vector<std::string> names;
  for (const Json::Value& entry : list) names.push_back(entry["name"].asString());
  return names;
}

std::vector<std::string> ModuleTest::Events() const {
  Json::Value out;
  std::vector<std::string> rows;
  if (!tavo::EventLogList(0, -1, &out)) {
    ADD_FAILURE() << "EventLogList failed";
    return rows;
  }
  const Json::Value& entries = out["entries"];
  for (int i = static_cast<int>(entries.size()) - 1; i >= 0; --i) {
    std::string row = entries[i]["event"].asString();
    for (const Json::Value& arg : entries[i]["args"]) {
      if (!arg.asString().empty()) row += " " + arg.asString();
    }
    rows.push_back(row);
  }
  return rows;
}

std::vector<std::string> ModuleTest::Reloads() const {
  std::vector<std::string> runs;
  std::istringstream in(root_->Read("/reloads"));
  for (std::string line; std::getline(in, line);) runs.push_back(line);
  return runs;
}

std::string ModuleTest::GroupLine(const std::string& group) const {
  std::istringstream in(root_->Read("/etc/group"));
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, group.size() + 1, group + ":") == 0) return line;
  }
  return "";
}

}  // namespace tavo_test
