// Fuzz target: the account-file reader and writer on arbitrary file bytes.
//
// Input: the content of etc/group, then optionally a NUL byte and the content
// of etc/gshadow (no NUL: there is no gshadow file). The files are read
// through the platform; one group that parses is loaded and saved unchanged,
// which must leave both files byte for byte as they were. Then one member is
// added and saved: every other line must stay as it was and the group's line
// must parse again with exactly that member more (or be unchanged when the
// name was already there in some case, or the save refused). A refused save
// leaves the files as they were.
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "accounts/snapshot/account_db.h"
#include "accounts/snapshot/account_files.h"
#include "accounts/snapshot/names.h"
#include "fuzz/fuzz_root.h"
#include "tavo/group.h"

namespace ta = tavo::acct;
using tavo_fuzz::Fail;

namespace {

const char kNewMember[] = "fzuser";

struct GroupPtr {
  SDK::Group* g;
  explicit GroupPtr(SDK::Group* p) : g(p) {}
  ~GroupPtr() { SDK::Group::Release(g); }
};

// Index of the first line named `name` that parses (the one writers change).
int LineOf(const std::vector<std::string>& lines, const std::string& name, ta::GroupLine* out) {
  for (size_t i = 0; i < lines.size(); ++i)
    if (ta::LineName(lines[i]) == name && ta::ParseGroupLine(lines[i], out))
      return static_cast<int>(i);
  return -1;
}

// Whether a member list names the new member, in any letter case (the store
// leaves a list alone that already has the name under another spelling).
bool ListsNewMember(const std::string& list) {
  std::vector<std::string> members = ta::SplitMembers(list);
  return std::any_of(members.begin(), members.end(),
                     [](const std::string& m) { return ta::EqualIgnoringCase(m, kNewMember); });
}

void SameExceptLine(const std::string& what, const std::vector<std::string>& before,
                    const std::vector<std::string>& after, int changed) {
  if (before.size() != after.size()) Fail(what + ": the number of lines changed");
  for (size_t i = 0; i < before.size(); ++i)
    if (static_cast<int>(i) != changed && before[i] != after[i])
      Fail(what + ": an unrelated line changed: [" + before[i] + "] became [" + after[i] + "]");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setlogmask(LOG_UPTO(LOG_WARNING));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tavo_fuzz::FuzzRoot* root = new tavo_fuzz::FuzzRoot;
  if (size > 8192) return -1;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t nul = input.find('\0');
  const std::string group = input.substr(0, nul);
  const bool has_gshadow = nul != std::string::npos;
  const std::string gshadow = has_gshadow ? input.substr(nul + 1) : "";
  root->Put("/etc/group", group);
  if (has_gshadow)
    root->Put("/etc/gshadow", gshadow);
  else
    unlink(root->Path("/etc/gshadow").c_str());

  // The reader never fails on foreign lines, and indexes what it kept.
  auto db = ta::LocalGroups();
  if (!db) Fail("etc/group could not be read");
  std::vector<std::string> lines = ta::SplitLines(group);
  std::vector<std::string> names;
  for (const std::string& line : lines) {
    ta::GroupLine g;
    if (ta::ParseGroupLine(line, &g)) names.push_back(g.name);
  }
  if (db->size() != names.size()) Fail("the reader kept a different number of groups");
  if (names.empty()) return 0;
  const std::string name = names[(size ? data[size - 1] : 0) % names.size()];

  {  // Saved unchanged: the same bytes.
    GroupPtr g(SDK::Group::LoadGroup(name));
    if (g.g != nullptr && g.g->Save()) {
      if (root->Read("/etc/group") != group) Fail("an unchanged save rewrote etc/group");
      if (has_gshadow && root->Read("/etc/gshadow") != gshadow)
        Fail("an unchanged save rewrote etc/gshadow");
    }
  }

  ta::GroupLine before;
  const int self = LineOf(lines, name, &before);
  GroupPtr g(SDK::Group::LoadGroup(name));
  if (g.g == nullptr || g.g->GetName() != name) return 0;  // a case variant won the lookup
  if (!g.g->AddMember(kNewMember)) Fail("a valid member name was refused");
  if (!g.g->Save()) {
    if (root->Read("/etc/group") != group) Fail("a refused save changed etc/group");
    return 0;
  }
  const bool present =
      std::any_of(before.members.begin(), before.members.end(),
                  [](const std::string& m) { return ta::EqualIgnoringCase(m, kNewMember); });
  if (present) {  // nothing to change
    if (root->Read("/etc/group") != group || (has_gshadow && root->Read("/etc/gshadow") != gshadow))
      Fail("adding a member already there rewrote the files");
    return 0;
  }
  std::vector<std::string> after = ta::SplitLines(root->Read("/etc/group"));
  SameExceptLine("etc/group", lines, after, self);
  ta::GroupLine now;
  if (!ta::ParseGroupLine(after[self], &now))
    Fail("the changed line does not parse: " + after[self]);
  std::vector<std::string> expected = before.members;
  expected.push_back(kNewMember);
  if (now.name != before.name || now.gid != before.gid || now.password != before.password ||
      now.members != expected)
    Fail("the changed line is not the old one plus the member: " + after[self]);

  if (has_gshadow) {
    // Either the group's line changed in place, or (when gshadow had no line
    // of the group that parses) a new line was appended; nothing else moves.
    // A foreign line that merely starts with the same name stays as it was.
    std::vector<std::string> old_s = ta::SplitLines(gshadow);
    std::vector<std::string> new_s = ta::SplitLines(root->Read("/etc/gshadow"));
    std::string line_s;
    if (new_s.size() == old_s.size() + 1) {
      line_s = new_s.back();
      if (ta::LineName(line_s) != name) Fail("etc/gshadow grew a line that is not the group's");
      new_s.pop_back();
      SameExceptLine("etc/gshadow", old_s, new_s, -1);
    } else {
      if (new_s.size() != old_s.size()) Fail("etc/gshadow lost or gained lines");
      int s = -1;
      for (size_t i = 0; i < new_s.size(); ++i)
        if (new_s[i] != old_s[i]) {
          if (s >= 0) Fail("etc/gshadow changed more than one line");
          s = static_cast<int>(i);
        }
      if (s < 0) {  // gshadow already listed the member: its line stays as it was
        for (size_t i = 0; i < new_s.size() && s < 0; ++i)
          if (ta::LineName(new_s[i]) == name && ListsNewMember(ta::GetField(new_s[i], 3)))
            s = static_cast<int>(i);
        if (s < 0) Fail("etc/gshadow has no line for the changed group");
      }
      line_s = new_s[s];
      if (ta::LineName(line_s) != name) Fail("etc/gshadow changed another group's line");
    }
    if (!ListsNewMember(ta::GetField(line_s, 3)))
      Fail("etc/gshadow lacks the added member: " + line_s);
  }
  return 0;
}
