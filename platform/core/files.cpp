// Marker files, the directory-services state files, and whole files read at
// once.
#include <sys/stat.h>

#include <string>

#include "accounts/snapshot/file_key.h"
#include "accounts/snapshot/pin.h"
#include "core/lock_path.h"
#include "core/pid_file.h"
#include "tavo/directory.h"
#include "tavo/error.h"
#include "tavo/root.h"
#include "tavo/util.h"

extern "C" {

// The files read here are outside the snapshots: an answer that looked at
// them is never given again without asking them again.
int TLIBCFileExist(const char* path) {
  if (!path) return 0;
  tavo::acct::internal::MarkNotReusable();
  const std::string runtime = tavo::internal::LockFilePath(path);
  if (runtime != path) return tavo::internal::RuntimeFileExists(runtime) ? 1 : 0;
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
