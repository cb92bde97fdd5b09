// The system's name caches (nscd, sssd) told to forget what they keep of the
// account files after a change, as the system's account tools do, so that
// glibc, file services and everything else see a change at once.
//
// Only a change of the real system's files (the platform root is "/") is
// flushed; a test or demo root is nobody's name service. nscd is told with
// `nscd -i group` (or passwd) when its socket is there, sssd with
// `sss_cache -G` (or -U) when sss_cache is installed. Each tool gets at most
// TAVO_NAME_CACHE_TIMEOUT_MS (default 2000) milliseconds. Best effort: a tool
// that fails or times out is logged (LOG_WARNING), the change stands.
//
// Thread-safety: may be called from any thread. Errors: none reported.
#ifndef TAVO_PLATFORM_NAME_CACHES_H_
#define TAVO_PLATFORM_NAME_CACHES_H_

#include <string>
#include <vector>

namespace tavo {
namespace internal {

// `changed`: the paths of the account files just replaced.
void FlushNameCaches(const std::vector<std::string>& changed);

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_NAME_CACHES_H_
