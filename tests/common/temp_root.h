// TempRoot: a throw-away appliance root for tests.
//
// Creates a fresh folder under $TMPDIR (or /tmp), fills it with minimal account
// files (built-ins "users" 100 and "administrators" 101, the administrator
// "admin" 1000 and a disabled "guest" 1001, login.defs with GID/UID 1000..60000,
// etc/tavo/tavo.conf), makes it the platform root, and removes it on
// destruction. Helpers add groups and users by writing the files directly, as
// another program would, so tests can also prepare states the platform itself
// refuses to write.
//
// Thread-safety: one TempRoot per test; not shared between threads.
#ifndef TAVO_TESTS_TEMP_ROOT_H_
#define TAVO_TESTS_TEMP_ROOT_H_

#include <memory>
#include <string>
#include <vector>

namespace SDK {
class Group;
}

namespace tavo_test {

class TempRoot {
 public:
  // `with_gshadow`: also create etc/gshadow (kept in step by the platform).
  explicit TempRoot(bool with_gshadow = true);
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& dir() const { return dir_; }
  // ROOT + abs_path.
  std::string Path(const std::string& abs_path) const { return dir_ + abs_path; }

  // Appends "name:x:gid:m1,m2" to etc/group (and "name:!::m1,m2" to gshadow when present).
  void AddGroup(const std::string& name, unsigned gid,
                const std::vector<std::string>& members = {});
  // Appends a passwd line (primary group `gid`, default "users") and a shadow
  // line. `expire_days`: shadow expiry field ("" for none); `hash`: password
  // field of shadow ("!" for a locked account).
  void AddUser(
      const std::string& name, unsigned uid, unsigned gid = 100, const std::string& gecos = "",
      const std::string& expire_days = "",
      const std::string& hash = "$y$j9T$abcdefgh$invalidinvalidinvalidinvalidinvalidinvalid");
  // Appends a line to ROOT/etc/tavo/group_desc.
  void SetDescription(const std::string& group, const std::string& desc);

  std::string Read(const std::string& abs_path) const;
  void Write(const std::string& abs_path, const std::string& content) const;
  void Append(const std::string& abs_path, const std::string& content) const;
  // Runs a shell command; returns its exit status.
  static int Run(const std::string& command);
  // Runs the account tools' "grpck -r -R ROOT" quietly; 0 when the files are consistent.
  int Grpck() const;

 private:
  std::string dir_;
};

// Helpers that go through the platform, as the module does.
struct GroupRelease {
  void operator()(SDK::Group* group) const;
};
// Owns a group from SDK::Group::LoadGroup or CreateGroup (may hold nullptr).
using GroupPtr = std::unique_ptr<SDK::Group, GroupRelease>;
// Members of `group` in stored order (TAVOGroupGet), or {"<missing>"} when it
// cannot be read.
std::vector<std::string> MembersOf(const std::string& group);
// Loads `group`, adds `add`, removes `remove` and saves; false on any failure.
bool ChangeMembers(const std::string& group, const std::vector<std::string>& add,
                   const std::vector<std::string>& remove = {});

}  // namespace tavo_test

#endif  // TAVO_TESTS_TEMP_ROOT_H_
