// The root folder inside which every absolute platform path is resolved.
//
// "/tmp/grouplock" means ROOT/tmp/grouplock, "/etc/group" ROOT/etc/group, and
// so on. The root is taken, in this order, from the last TavoRootSet call, or
// from the environment variable TAVO_ROOT, or is "/" (a real appliance).
//
// Thread-safety: TavoRootPath and TavoRootGet may be called from any thread.
// TavoRootSet is meant for program start-up and tests; calling it while other
// threads use the platform is allowed (the change is atomic) but those threads
// may see either root for requests already under way.
#ifndef TAVO_ROOT_H_
#define TAVO_ROOT_H_

#include <string>

namespace tavo {

// Sets the root. `dir` must be an absolute path; a trailing slash is ignored.
// Returns false (and changes nothing) for an empty or relative path.
bool TavoRootSet(const std::string& dir);
// The current root without a trailing slash ("" stands for "/").
std::string TavoRootGet();
// Resolves an absolute platform path inside the root. A relative path is
// returned unchanged.
std::string TavoRootPath(const std::string& abs_path);
// A number that changes each time TavoRootSet does: a cache of resolved
// paths keyed on it never outlives the root it was made under.
unsigned long long TavoRootGeneration();

}  // namespace tavo

#endif  // TAVO_ROOT_H_
