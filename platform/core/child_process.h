// Running a helper program from the platform (reload hooks, the system's
// name-cache tools) with a bound on its time. Not part of the public contract.
//
// The program runs in a process group of its own, with stdin from /dev/null,
// its stdout on our stderr (it must never write into a command's answer), no
// other descriptor, no blocked signals and default handlers; when the time is
// up its whole group is killed.
//
// Thread-safety: may be called from any thread (posix_spawn). Errors: the
// outcome, with a line for the log, never the platform error state.
#ifndef TAVO_PLATFORM_CHILD_PROCESS_H_
#define TAVO_PLATFORM_CHILD_PROCESS_H_

#include <string>
#include <vector>

namespace tavo {
namespace internal {

enum class RunOutcome { kSucceeded, kFailed, kNotStarted, kTimedOut };

// Runs argv[0] (an absolute path) with `argv` and the environment `env`
// ("NAME=VALUE" each), waits for it at most `timeout_ms`. `problem` gets what
// went wrong ("failed with exit status 3", ...) unless it succeeded.
RunOutcome RunBounded(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                      long timeout_ms, std::string* problem);

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_CHILD_PROCESS_H_
