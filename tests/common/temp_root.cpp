#include "common/temp_root.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tavo/group.h"
#include "tavo/root.h"

namespace tavo_test {
namespace fs = std::filesystem;

TempRoot::TempRoot(bool with_gshadow) {
  const char* tmp = std::getenv("TMPDIR");
  std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/tavo-root-XXXXXX";
  if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
  dir_ = templ;
  chmod(dir_.c_str(), 0755);
  for (const char* d : {"/etc", "/etc/tavo", "/tmp", "/var/lib/tavo"})
    fs::create_directories(dir_ + d);
  Write("/etc/login.defs",
        "GID_MIN 1000\nGID_MAX 60000\nUID_MIN 1000\nUID_MAX 60000\n"
        "SYS_GID_MIN 100\nSYS_GID_MAX 999\nSYS_UID_MIN 100\nSYS_UID_MAX 999\n");
  Write("/etc/group",
        "root:x:0:\nsudo:x:27:\nshadow:x:42:\nusers:x:100:\nadministrators:x:101:admin\n"
        "nogroup:x:65534:\n");
  Write("/etc/passwd",
        "root:x:0:0:root:/root:/bin/bash\n"
        "nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n");
  Write("/etc/shadow", "root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n");
  chmod(Path("/etc/shadow").c_str(), 0640);
  if (with_gshadow) {
    Write("/etc/gshadow",
          "root:*::\nsudo:*::\nshadow:*::\nusers:*::\nadministrators:*::admin\nnogroup:*::\n");
    chmod(Path("/etc/gshadow").c_str(), 0640);
  }
  Write("/etc/tavo/tavo.conf", "maxgroups = 128\n");
  AddUser("admin", 1000, 100, "Administrator");
  AddUser("guest", 1001, 100, "Guest", "", "!");
  tavo::TavoRootSet(dir_);
}

TempRoot::~TempRoot() {
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

void TempRoot::AddGroup(const std::string& name, unsigned gid,
                        const std::vector<std::string>& members) {
  std::string list;
  for (size_t i = 0; i < members.size(); ++i) list += (i ? "," : "") + members[i];
  Append("/etc/group", name + ":x:" + std::to_string(gid) + ":" + list + "\n");
  if (fs::exists(Path("/etc/gshadow"))) Append("/etc/gshadow", name + ":!::" + list + "\n");
}

void TempRoot::AddUser(const std::string& name, unsigned uid, unsigned gid,
                       const std::string& gecos, const std::string& expire_days,
                       const std::string& hash) {
  Append("/etc/passwd", name + ":x:" + std::to_string(uid) + ":" + std::to_string(gid) + ":" +
                            gecos + ":/home/" + name + ":/bin/sh\n");
  Append("/etc/shadow", name + ":" + hash + ":19000:0:99999:7::" + expire_days + ":\n");
}

void TempRoot::SetDescription(const std::string& group, const std::string& desc) {
  Append("/etc/tavo/group_desc", group + ":" + desc + "\n");
}

std::string TempRoot::Read(const std::string& abs_path) const {
  std::ifstream in(Path(abs_path), std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void TempRoot::Write(const std::string& abs_path, const std::string& content) const {
  std::ofstream out(Path(abs_path), std::ios::binary | std::ios::trunc);
  out << content;
}

void TempRoot::Append(const std::string& abs_path, const std::string& content) const {
  std::ofstream out(Path(abs_path), std::ios::binary | std::ios::app);
  out << content;
}

int TempRoot::Run(const std::string& command) {
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int TempRoot::Grpck() const { return Run("grpck -r -R " + dir_ + " >/dev/null 2>&1"); }

void GroupRelease::operator()(SDK::Group* group) const { SDK::Group::Release(group); }

std::vector<std::string> MembersOf(const std::string& group) {
  TAVO_GROUP* g = nullptr;
  if (TAVOGroupGet(group.c_str(), &g) != 0) return {"<missing>"};
  std::vector<std::string> members(g->members, g->members + g->member_count);
  TAVOGroupFree(g);
  return members;
}

bool ChangeMembers(const std::string& group, const std::vector<std::string>& add,
                   const std::vector<std::string>& remove) {
  GroupPtr g(SDK::Group::LoadGroup(group));
  bool ok = g != nullptr;
  for (const std::string& name : add) ok = ok && g->AddMember(name);
  for (const std::string& name : remove) ok = ok && g->RemoveMember(name);
  return ok && g->Save();
}

}  // namespace tavo_test
