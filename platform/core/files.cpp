// Marker files and the directory-services state files.
#include <sys/stat.h>

#include <string>

#include "lock_path.h"
#include "pid_file.h"
#include "tavo/directory.h"
#include "tavo/root.h"
#include "tavo/util.h"

extern "C" {

int TLIBCFileExist(const char* path) {
  if (!path) return 0;
  const std::string runtime = tavo::internal::LockFilePath(path);
  if (runtime != path) return tavo::internal::RuntimeFileExists(runtime) ? 1 : 0;
  struct stat st;
  return stat(tavo::TavoRootPath(path).c_str(), &st) == 0 ? 1 : 0;
}

int TAVOWinsIsJoined(void) { return TLIBCFileExist("/etc/tavo/domain"); }

int TAVOLDAPIsBinded(int /*flag*/) { return TLIBCFileExist("/etc/tavo/ldap"); }

}  // extern "C"
