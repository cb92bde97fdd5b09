#include "fuzz/fuzz_root.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

#include "accounts/snapshot/account_files.h"
#include "tavo/group.h"
#include "tavo/root.h"

namespace tavo_fuzz {
namespace fs = std::filesystem;
namespace acct = tavo::acct;

namespace {

const char kGroup[] =
    "root:x:0:\nsudo:x:27:\nshadow:x:42:\nusers:x:100:\nadministrators:x:101:admin,carol\n"
    "staff:x:1000:alice,bob\nprojects:x:1001:\nnogroup:x:65534:\n";
const char kGshadow[] =
    "root:*::\nsudo:*::\nshadow:*::\nusers:*::\nadministrators:*::admin,carol\n"
    "staff:!::alice,bob\nprojects:!::\nnogroup:*::\n";
const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "admin:x:1000:100:Administrator:/home/admin:/bin/sh\n"
    "alice:x:1001:100:Alice:/home/alice:/bin/sh\n"
    "bob:x:1002:100::/home/bob:/bin/sh\n"
    "carol:x:1003:100:Expired admin:/home/carol:/bin/sh\n"
    "guest:x:1004:100:Guest:/home/guest:/bin/sh\n"
    "nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n";
const char kShadow[] =
    "root:*:19000:0:99999:7:::\n"
    "admin:$y$j9T$abcdefgh$invalid:19000:0:99999:7:::\n"
    "alice:$y$j9T$abcdefgh$invalid:19000:0:99999:7:::\n"
    "bob:$y$j9T$abcdefgh$invalid:19000:0:99999:7:::\n"
    "carol:$y$j9T$abcdefgh$invalid:19000:0:99999:7::1:\n"
    "guest:!:19000:0:99999:7:::\n"
    "nobody:*:19000:0:99999:7:::\n";
const char kLoginDefs[] =
    "GID_MIN 1000\nGID_MAX 60000\nUID_MIN 1000\nUID_MAX 60000\n"
    "SYS_GID_MIN 100\nSYS_GID_MAX 999\n";
const char kDesc[] = "staff:Staff members\n";
const char kDomain[] = "DOM\\engineers:x:5000:DOM\\ann\n";

bool System(const acct::GroupLine& g) { return g.gid < 100 || g.name == "nogroup"; }

// Lines of a file that are not blank or comments.
std::vector<std::string> Records(const std::string& text) {
  std::vector<std::string> out;
  for (const std::string& line : acct::SplitLines(text))
    if (!line.empty() && line[0] != '#') out.push_back(line);
  return out;
}

}  // namespace

void Fail(const std::string& why) {
  fprintf(stderr, "invariant broken: %s\n", why.c_str());
  abort();
}

FuzzRoot::FuzzRoot() {
  const char* tmp = getenv("TMPDIR");
  std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (tmp && *tmp ? tmp : "/tmp");
  std::string templ = base + "/tavo-fuzz-XXXXXX";
  if (!mkdtemp(templ.data())) Fail("mkdtemp failed under " + base);
  dir_ = templ;
  // libFuzzer ends with exit(): the root goes with the process.
  static std::string* leftover = new std::string(dir_);
  atexit([] {
    std::error_code ec;
    fs::remove_all(*leftover, ec);
  });
  for (const char* d : {"/etc/tavo", "/tmp", "/var/lib/tavo", "/usr/tavo/etc/private"})
    fs::create_directories(dir_ + d);
  Put("/etc/tavo/tavo.conf", "maxgroups = 16\n");
  Put("/etc/login.defs", kLoginDefs);
  Put("/etc/tavo/domain_group", kDomain);
  tavo::TavoRootSet(dir_);
  Reset();
}

FuzzRoot::~FuzzRoot() {
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

void FuzzRoot::Put(const std::string& abs_path, const std::string& content) const {
  const std::string path = Path(abs_path), tmp = path + ".fuzz-new";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << content;
  }
  if (rename(tmp.c_str(), path.c_str()) != 0) Fail("cannot replace " + path);
}

std::string FuzzRoot::Read(const std::string& abs_path) const {
  std::ifstream in(Path(abs_path), std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void FuzzRoot::Reset() {
  Put("/etc/group", kGroup);
  Put("/etc/gshadow", kGshadow);
  Put("/etc/passwd", kPasswd);
  Put("/etc/shadow", kShadow);
  Put("/etc/tavo/group_desc", kDesc);
  // Backups left by the writers are not read back; the event log only grows.
  if (++resets_ % 512 == 0) unlink(Path("/var/lib/tavo/events.db").c_str());
}

bool FuzzRoot::CheckInvariants(std::string* why) const {
  std::map<std::string, std::vector<std::string>> members;  // from etc/group
  std::map<std::string, std::string> system_now;
  for (const std::string& line : Records(Read("/etc/group"))) {
    acct::GroupLine g;
    if (!acct::ParseGroupLine(line, &g))
      return *why = "etc/group line does not parse: " + line, false;
    if (members.count(g.name)) return *why = "etc/group names a group twice: " + g.name, false;
    members[g.name] = g.members;
    if (System(g)) system_now[g.name] = line;
  }
  size_t gshadow_lines = 0;
  for (const std::string& line : Records(Read("/etc/gshadow"))) {
    std::vector<std::string> f = acct::SplitFields(line, ':');
    if (f.size() != 4) return *why = "etc/gshadow line does not parse: " + line, false;
    auto it = members.find(f[0]);
    if (it == members.end())
      return *why = "etc/gshadow has a group etc/group lacks: " + f[0], false;
    if (acct::SplitMembers(f[3]) != it->second)
      return *why = "etc/group and etc/gshadow disagree on the members of " + f[0], false;
    ++gshadow_lines;
  }
  if (gshadow_lines != members.size())
    return *why = "etc/gshadow lacks a group of etc/group (or names one twice)", false;
  std::map<std::string, std::string> system_then;
  for (const std::string& line : Records(kGroup)) {
    acct::GroupLine g;
    if (acct::ParseGroupLine(line, &g) && System(g)) system_then[g.name] = line;
  }
  if (system_now != system_then) return *why = "a system group changed", false;
  if (TAVOGroupTotalValidLocalAdmin() < 1) return *why = "no valid administrator is left", false;
  return true;
}

}  // namespace tavo_fuzz
