// Pid files, marker files, the directory-services state files, and whole
// files read at once.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <string>

#include "accounts/snapshot/file_key.h"
#include "accounts/snapshot/pin.h"
#include "tavo/directory.h"
#include "tavo/error.h"
#include "tavo/root.h"
#include "tavo/util.h"

namespace {

constexpr size_t kPidLineMax = 64;

// Parses the first line of a pid file: optional blanks, decimal digits,
// optional blanks. Returns the positive number or -1.
int ParsePidLine(const std::string& text) {
  size_t i = 0, end = text.find('\n');
  if (end == std::string::npos) end = text.size();
  while (i < end && (text[i] == ' ' || text[i] == '\t')) ++i;
  long long value = 0;
  size_t digits = 0;
  for (; i < end && std::isdigit(static_cast<unsigned char>(text[i])); ++i, ++digits) {
    value = value * 10 + (text[i] - '0');
    if (value > INT_MAX) return -1;
  }
  while (i < end && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (digits == 0 || i != end || value <= 0) return -1;
  return static_cast<int>(value);
}

}  // namespace

extern "C" {

// The files read here are outside the snapshots: an answer that looked at
// them is never given again without asking them again.
int TLIBCReadPidFile(const char* path) {
  if (!path) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  tavo::acct::internal::MarkNotReusable();
  std::string real = tavo::TavoRootPath(path);
  int fd = open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return TAVO_ERR_SET(errno == ENOENT ? TAVO_ERR_NOT_FOUND : TAVO_ERR_IO);
  char buf[kPidLineMax];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof(buf));
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n < 0) return TAVO_ERR_SET(TAVO_ERR_IO);
  int pid = ParsePidLine(std::string(buf, static_cast<size_t>(n)));
  if (pid < 0) return TAVO_ERR_SET(TAVO_ERR_FORMAT);
  return pid;
}

int TLIBCFileExist(const char* path) {
  if (!path) return 0;
  tavo::acct::internal::MarkNotReusable();
  struct stat st;
  return stat(tavo::TavoRootPath(path).c_str(), &st) == 0 ? 1 : 0;
}

int TAVOWinsIsJoined(void) { return TLIBCFileExist("/etc/tavo/domain"); }

int TAVOLDAPIsBinded(int /*flag*/) { return TLIBCFileExist("/etc/tavo/ldap"); }

}  // extern "C"

namespace tavo {

std::string Trim(const std::string& text) {
  const char* blanks = " \t\r\n\f\v";
  const size_t b = text.find_first_not_of(blanks);
  if (b == std::string::npos) return "";
  return text.substr(b, text.find_last_not_of(blanks) - b + 1);
}

bool ReadWholeFile(const std::string& path, std::string* out) {
  acct::FileKey key;
  if (!acct::ReadWholeFile(path, out, &key)) return false;
  if (key.exists) return true;
  TAVO_ERR_SET(TAVO_ERR_IO);
  return false;
}

}  // namespace tavo
