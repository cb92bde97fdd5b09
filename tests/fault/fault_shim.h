// A shim over the writing system calls: open for writing (and mkstemp/mkostemp), write,
// fsync, rename, link, unlink and mkdir. Linked into a test executable, its
// definitions take the place of the C library's for every library the test
// loads (the executable exports them). Only calls on paths under an armed
// prefix are counted (for write and fsync, the path of the descriptor); the
// Nth counted call fails with EIO (ENOSPC for write) and every other call goes
// through to the C library.
//
// Thread-safety: arming and counting are atomic; arm while no other thread
// writes under the prefix.
#ifndef TAVO_TESTS_FAULT_FAULT_SHIM_H_
#define TAVO_TESTS_FAULT_FAULT_SHIM_H_

#include <string>

namespace fault_shim {

// Counts calls under `prefix` from now on; call number `fail_at` (1-based)
// fails; 0 fails none. `reads`: opens for reading count too.
void Arm(const std::string& prefix, long fail_at, bool reads = false);
// Stops counting and failing.
void Disarm();
// Calls counted since Arm.
long Calls();
// "rename /path" of the call that was failed, or "" when none was.
std::string Failed();

}  // namespace fault_shim

#endif  // TAVO_TESTS_FAULT_FAULT_SHIM_H_
