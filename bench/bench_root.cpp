#include "bench/bench_root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  chmod(path.c_str(), mode);
}

}  // namespace

std::string BenchRoot::GroupName(int i) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "g%06d", i);
  return buf;
}

std::string BenchRoot::UserName(int i) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "u%06d", i);
  return buf;
}

BenchRoot::BenchRoot(int n) {
  const char* tmp = std::getenv("TMPDIR");
  std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/tavo-bench-XXXXXX";
  if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
  dir_ = templ;
  chmod(dir_.c_str(), 0755);
  std::filesystem::create_directories(dir_ + "/etc/tavo");
  std::filesystem::create_directories(dir_ + "/tmp");
  WriteFile(dir_ + "/etc/login.defs",
            "GID_MIN 1000\nGID_MAX 200000\nUID_MIN 1000\nUID_MAX 200000\n");
  // Creations are measured on roots far beyond the default group limit.
  WriteFile(dir_ + "/etc/tavo/tavo.conf", "maxgroups = 10000000\n");
  std::string group = "root:x:0:\nusers:x:100:\nadministrators:x:101:admin\n";
  std::string gshadow = "root:*::\nusers:*::\nadministrators:*::admin\n";
  std::string passwd = "root:x:0:0:root:/root:/bin/bash\nadmin:x:1000:100::/home/admin:/bin/sh\n";
  std::string shadow = "root:*:19000:0:99999:7:::\nadmin:!:19000:0:99999:7:::\n";
  std::string desc;
  for (int i = 0; i < n; ++i) {
    std::string g = GroupName(i), members = UserName(i) + "," + UserName((i + 1) % n);
    group += g + ":x:" + std::to_string(10000 + i) + ":" + members + "\n";
    gshadow += g + ":!::" + members + "\n";
    desc += g + ":Group number " + std::to_string(i) + "\n";
    std::string u = UserName(i);
    passwd += u + ":x:" + std::to_string(2000 + i) + ":100::/home/" + u + ":/bin/sh\n";
    shadow += u + ":!:19000:0:99999:7:::\n";
  }
  WriteFile(dir_ + "/etc/group", group);
  WriteFile(dir_ + "/etc/gshadow", gshadow, 0640);
  WriteFile(dir_ + "/etc/passwd", passwd);
  WriteFile(dir_ + "/etc/shadow", shadow, 0640);
  WriteFile(dir_ + "/etc/tavo/group_desc", desc);
}

BenchRoot::~BenchRoot() {
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}
