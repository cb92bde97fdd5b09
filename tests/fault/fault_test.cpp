// A membership change and a create, with the Nth writing system call under the
// root failed, for N = 1, 2, ... until the change runs without a failure. For
// every N: the files hold either the old state or the whole change (never a
// part), the answer says which, and a later write succeeds.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "fault/fault_shim.h"
#include "module/module_harness.h"

namespace tavo_test {
namespace {

struct Files {
  std::string group, gshadow, desc;
  bool operator==(const Files& o) const {
    return group == o.group && gshadow == o.gshadow && desc == o.desc;
  }
};

bool HasMember(const std::string& line, const std::string& user) {
  std::string members = line.substr(line.rfind(':') + 1) + ",";
  return ("," + members).find("," + user + ",") != std::string::npos;
}

std::string LineOf(const std::string& file, const std::string& name) {
  size_t at = ("\n" + file).find("\n" + name + ":");
  if (at == std::string::npos) return "";
  return file.substr(at, file.find('\n', at) - at);
}

class FaultTest : public ModuleTest {
 protected:
  Files Current() const {
    return Files{root_->Read("/etc/group"), root_->Read("/etc/gshadow"),
                 root_->Read("/etc/tavo/group_desc")};
  }

  // Runs `change` with the Nth call failed for every N; `whole` tells whether
  // the files hold the complete change.
  void AtEveryFault(const std::function<Answer()>& change,
                    const std::function<bool(const Files&)>& whole) {
    for (long n = 1; n < 1000; ++n) {
      SetUp();
      root_->AddGroup("staff", 1000, {"guest"});
      // Two changes first, so that the files have spares to be written over.
      ASSERT_TRUE(Call("create", Parse(R"({"name":"warm","desc":"d"})")).success);
      ASSERT_TRUE(Call("delete", Parse(R"({"name":["warm"]})")).success);
      const Files before = Current();
      ASSERT_FALSE(whole(before));
      fault_shim::Arm(root_->dir() + "/", n);
      Answer answer = change();
      const std::string failed = fault_shim::Failed();
      fault_shim::Disarm();
      SCOPED_TRACE("failed call " + std::to_string(n) + ": " + (failed.empty() ? "none" : failed));
      const Files after = Current();
      EXPECT_EQ(answer.writes, 1);
      if (answer.success) {
        EXPECT_TRUE(whole(after)) << "answered success, but the change is not whole:\n"
                                  << after.group << "--\n"
                                  << after.gshadow << "--\n"
                                  << after.desc;
      } else {
        EXPECT_TRUE(after == before) << "answered " << answer.code << ", but the files changed:\n"
                                     << after.group << "--\n"
                                     << after.gshadow << "--\n"
                                     << after.desc;
      }
      Answer later = Call("create", Parse(R"({"name":"later"})"));
      EXPECT_TRUE(later.success) << "a later write failed with " << later.code;
      if (failed.empty()) {  // the change ran with nothing failed: done
        EXPECT_TRUE(answer.success) << answer.code;
        EXPECT_GT(n, 3) << "the shim saw too few calls to be counting";
        std::printf("[ shim     ] %ld writing calls failed in turn\n", n - 1);
        return;
      }
      if (HasFailure()) return;
    }
    FAIL() << "the change never completed";
  }
};

TEST_F(FaultTest, MemberAddIsWholeOrAbsentAtEveryFailedCall) {
  AtEveryFault([&] { return Call("add", Parse(R"({"group":"staff","name":["admin"]})"), true); },
               [](const Files& f) {
                 return HasMember(LineOf(f.group, "staff"), "admin") &&
                        HasMember(LineOf(f.gshadow, "staff"), "admin");
               });
}

TEST_F(FaultTest, CreateIsWholeOrAbsentAtEveryFailedCall) {
  AtEveryFault(
      [&] { return Call("create", Parse(R"({"name":"newgrp","description":"New one"})")); },
      [](const Files& f) {
        return !LineOf(f.group, "newgrp").empty() && !LineOf(f.gshadow, "newgrp").empty() &&
               LineOf(f.desc, "newgrp") == "newgrp:New one";
      });
}

// The user list cannot be read while members are added: a name that cannot
// be found is skipped as an unknown one is, so the call succeeds and changes
// nothing.
TEST_F(FaultTest, MemberAddSkipsUsersThatCannotBeRead) {
  root_->AddGroup("staff", 1000, {"guest"});
  fault_shim::Arm(root_->Path("/etc/passwd"), 1, /*reads=*/true);
  Answer answer = Call("add", Parse(R"({"group":"staff","name":["admin"]})"), true);
  const std::string failed = fault_shim::Failed();
  fault_shim::Disarm();
  ASSERT_FALSE(failed.empty()) << "the user list was never opened";
  EXPECT_EQ(answer.code, 3200);
  EXPECT_EQ(GroupLine("staff"), "staff:x:1000:guest");
}

}  // namespace
}  // namespace tavo_test
