// ModuleTest: loads TAVO.Core.Group.so like the server does and calls its
// methods against a fresh temporary root, with helpers to read the answer,
// the captured system-log lines, the event log and the reload-hook runs.
#ifndef TAVO_TESTS_MODULE_HARNESS_H_
#define TAVO_TESTS_MODULE_HARNESS_H_

#include <gtest/gtest.h>
#include <json/value.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavo/api.h"
#include "temp_root.h"

namespace tavo_test {

// One line the code under test sent to the system log.
struct LogLine {
  int priority;
  std::string text;
};
// Captured lines since the last ClearLog (syslog_capture.cpp).
std::vector<LogLine> CapturedLog();
void ClearLog();

// Equality of two JSON values as a client sees them (their compact text), so
// that an unsigned 5 equals a parsed 5.
::testing::AssertionResult JsonEq(const Json::Value& actual, const Json::Value& expected);

// The module's exported table (loaded once per process).
ApiTableRow* ModuleTable();
MethodEntry FindEntry(const std::string& api, const std::string& method);

struct Answer {
  int writes = 0;
  bool success = false;
  int code = 0;  // 3200 on success
  Json::Value data;
};

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Calls API "TAVO.Core.Group" (member=false) or "TAVO.Core.Group.Member".
  Answer Call(const std::string& method, const Json::Value& params, bool member = false);
  Answer CallGroup(const std::string& method, const std::string& json) {
    return Call(method, Parse(json), false);
  }
  Answer CallMember(const std::string& method, const std::string& json) {
    return Call(method, Parse(json), true);
  }
  static Json::Value Parse(const std::string& json);

  // True when exactly this line (e.g. "src/Group.cpp:235 Bad parameter ...")
  // was logged with this priority.
  bool Logged(int priority, const std::string& text) const;
  // True when a line starting with `prefix` was logged with this priority
  // (for platform-error lines whose file and line belong to the platform).
  bool LoggedPrefix(int priority, const std::string& prefix) const;
  // Event-log rows oldest first as "0xEVENT arg1 arg2" (empty args dropped).
  std::vector<std::string> Events() const;
  // Arguments the reload hook was run with, one per run.
  std::vector<std::string> Reloads() const;
  // Names of the members of `group` in etc/group ("" when the group is absent
  // is distinguished by HasGroupLine).
  std::string GroupLine(const std::string& group) const;

  std::unique_ptr<TempRoot> root_;
};

}  // namespace tavo_test

#endif  // TAVO_TESTS_MODULE_HARNESS_H_
