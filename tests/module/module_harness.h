// ModuleTest: loads TAVO.Core.Group.so like the server does and calls its
// methods against a fresh temporary root, with helpers to read the answer,
// the event log and the reload-hook runs (log lines: log_capture.h).
#ifndef TAVO_TESTS_MODULE_HARNESS_H_
#define TAVO_TESTS_MODULE_HARNESS_H_

#include <gtest/gtest.h>
#include <json/value.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/log_capture.h"
#include "common/temp_root.h"
#include "tavo/api.h"

namespace tavo_test {

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

  // The "name" of each entry of an answer's list.
  static std::vector<std::string> Names(const Json::Value& list);
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
