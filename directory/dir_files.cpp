#include "directory/dir_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tavo/root.h"
#include "tavo/util.h"

namespace tavo_dir {
namespace {

using tavo::Trim;

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// mkdir -p for the folders of `path`; the last folder gets `last_mode`.
bool MakeParents(const std::string& path, unsigned last_mode, std::string* error) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return true;
  std::string dir = path.substr(0, slash);
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i != dir.size() && dir[i] != '/') continue;
    std::string part = dir.substr(0, i);
    unsigned mode = i == dir.size() ? last_mode : 0755;
    if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) {
      *error = Errno("cannot create " + part);
      return false;
    }
  }
  return true;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace

const char* KindName(Kind kind) { return kind == Kind::kLdap ? "ldap" : "domain"; }

const char* ConfigPath(Kind kind) {
  return kind == Kind::kLdap ? "/etc/tavo/ldap" : "/etc/tavo/domain";
}

const char* GroupListPath(Kind kind) {
  return kind == Kind::kLdap ? "/usr/tavo/etc/private/ldap_group" : "/etc/tavo/domain_group";
}

const char* SecretPath(Kind kind) {
  return kind == Kind::kLdap ? "/usr/tavo/etc/private/ldap.secret"
                             : "/usr/tavo/etc/private/domain.secret";
}

std::string Binding::Get(const std::string& key, const std::string& def) const {
  auto it = keys.find(key);
  return it == keys.end() ? def : it->second;
}

int Binding::GetInt(const std::string& key, int def) const {
  std::string v = Get(key);
  if (v.empty()) return def;
  char* end = nullptr;
  long n = std::strtol(v.c_str(), &end, 10);
  if (*end != '\0' || n < 0 || n > 1000000000) return def;
  return static_cast<int>(n);
}

bool MakeFolders(const std::string& path, std::string* error) {
  return MakeParents(path, 0755, error);
}

bool ReadBinding(Kind kind, Binding* out, std::string* error) {
  std::string text;
  if (!ReadWholeFile(tavo::TavoRootPath(ConfigPath(kind)), &text)) {
    *error = errno == ENOENT ? (kind == Kind::kLdap ? "not bound" : "not joined")
                             : Errno(std::string("cannot read ") + ConfigPath(kind));
    return false;
  }
  *out = Binding();
  std::istringstream in(text);
  std::string line;
  bool first = true;
  while (std::getline(in, line)) {
    if (first) {
      out->name = Trim(line);
      first = false;
      continue;
    }
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    out->keys[Trim(line.substr(0, eq))] = Trim(line.substr(eq + 1));
  }
  return true;
}

bool WriteBinding(Kind kind, const Binding& binding, const std::string& secret,
                  std::string* error) {
  std::string secret_path = tavo::TavoRootPath(SecretPath(kind));
  if (secret.empty()) {
    if (!RemoveRootFile(SecretPath(kind), error)) return false;
  } else if (!ReplaceFile(secret_path, secret, 0600, error, 0700)) {
    return false;
  }
  std::string text = binding.name + "\n";
  for (const auto& kv : binding.keys)
    if (!kv.second.empty()) text += kv.first + " = " + kv.second + "\n";
  return ReplaceFile(tavo::TavoRootPath(ConfigPath(kind)), text, 0644, error);
}

std::string ReadSecret(Kind kind) {
  std::string s;
  if (!ReadWholeFile(tavo::TavoRootPath(SecretPath(kind)), &s)) return "";
  return s;
}

bool ReplaceFile(const std::string& path, const std::string& content, unsigned mode,
                 std::string* error, unsigned dir_mode) {
  if (!MakeParents(path, dir_mode, error)) return false;
  size_t slash = path.rfind('/');
  std::string dir = slash == 0 ? "/" : path.substr(0, slash);
  std::string tmp = dir + "/." + path.substr(slash + 1) + ".XXXXXX";
  Fd fd(mkostemp(&tmp[0], O_CLOEXEC));
  if (fd.get() < 0) {
    *error = Errno("cannot create a file in " + dir);
    return false;
  }
  bool ok = fchmod(fd.get(), mode) == 0;
  for (size_t done = 0; ok && done < content.size();) {
    ssize_t n = write(fd.get(), content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      ok = false;
    else
      done += static_cast<size_t>(n);
  }
  ok = ok && fsync(fd.get()) == 0;
  ok = close(fd.release()) == 0 && ok;
  ok = ok && rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    *error = Errno("cannot write " + path);
    unlink(tmp.c_str());
    return false;
  }
  Fd dfd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dfd.get() >= 0) fsync(dfd.get());
  return true;
}

bool RemoveRootFile(const char* abs_path, std::string* error) {
  std::string path = tavo::TavoRootPath(abs_path);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = Errno("cannot remove " + path);
    return false;
  }
  return true;
}

}  // namespace tavo_dir
