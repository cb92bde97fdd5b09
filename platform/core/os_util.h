// Internal helpers of the platform library for files, folders, the
// environment and waiting. Not part of the public contract.
//
// Thread-safety: every function may be called from any thread.
// Errors: functions report failure by their result and leave errno set; they
// do not touch the platform error state.
#ifndef TAVO_PLATFORM_OS_UTIL_H_
#define TAVO_PLATFORM_OS_UTIL_H_

#include <string>

namespace tavo {
namespace internal {

// Creates the folder `dir` and any missing parents with `mode` (existing
// folders are left as they are). True when the folder exists afterwards.
bool MakeDirs(const std::string& dir, unsigned mode);
// Creates the folders above the file `path` (everything before its last "/").
bool MakeParentDirs(const std::string& path, unsigned mode);

// A non-negative number of milliseconds from the environment variable `name`,
// or `def` when it is unset, empty or not a non-negative decimal number.
long EnvMillis(const char* name, long def);

// Monotonic clock in milliseconds.
long long NowMillis();
// Sleeps for `ms` milliseconds (nothing for ms <= 0), resuming after signals.
void SleepMillis(long ms);

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_OS_UTIL_H_
