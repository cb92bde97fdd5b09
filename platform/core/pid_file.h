// Reading files of the runtime folder that the service must not trust
// blindly: pid and marker files (tavo/util.h).
//
// Thread-safety: reentrant. Errors: -1 / false with errno set; every refusal
// is logged to syslog (LOG_WARNING) with the path and what was found.
#ifndef TAVO_PLATFORM_PID_FILE_H_
#define TAVO_PLATFORM_PID_FILE_H_

#include <string>

namespace tavo {
namespace internal {

// Opens the file at platform path `path` for reading, without following a
// symbolic link and without blocking (O_NONBLOCK: a FIFO cannot hang the
// caller). Refused (-1, errno EPERM) unless it is a regular file owned by
// root or by this process's effective user; -1 with errno ENOENT when there
// is none.
int OpenTrustedFile(const std::string& path);
// Whether `path` names such a file (an lstat; nothing is opened).
bool RuntimeFileExists(const std::string& path);

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_PID_FILE_H_
