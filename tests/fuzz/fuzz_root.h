// FuzzRoot: a small appliance root for the fuzz targets, put back to its
// first state before each input in a few microseconds, and the checks of the
// account files that must hold after any sequence of API calls.
//
// The root lives under /dev/shm when there is one (fsync there is free), else
// under $TMPDIR or /tmp, and is removed by the destructor. Reset() writes each
// file anew through a rename, so every cached parse of the old file is dropped
// (the inode changes).
//
// Thread-safety: one FuzzRoot per process, used from the fuzzing thread only.
// Errors: Check* return false and put a plain reason in *why.
#ifndef TAVO_TESTS_FUZZ_FUZZ_ROOT_H_
#define TAVO_TESTS_FUZZ_FUZZ_ROOT_H_

#include <string>

namespace tavo_fuzz {

class FuzzRoot {
 public:
  FuzzRoot();
  ~FuzzRoot();
  FuzzRoot(const FuzzRoot&) = delete;
  FuzzRoot& operator=(const FuzzRoot&) = delete;

  const std::string& dir() const { return dir_; }
  std::string Path(const std::string& abs_path) const { return dir_ + abs_path; }

  // Puts every account file back as it was first written; every
  // `log_every` resets the event log is emptied as well.
  void Reset();
  // Replaces one file (through a rename), as another program would.
  void Put(const std::string& abs_path, const std::string& content) const;
  std::string Read(const std::string& abs_path) const;

  // After any sequence of API calls on the first state:
  //  - every line of etc/group and etc/gshadow parses;
  //  - etc/group and etc/gshadow hold the same groups with the same members;
  //  - the system groups (GID below 100, and nogroup) are byte for byte as they were;
  //  - at least one valid local administrator is left.
  bool CheckInvariants(std::string* why) const;

 private:
  std::string dir_;
  unsigned resets_ = 0;
};

// Prints `why` and aborts, so that libFuzzer records the input as a crash.
[[noreturn]] void Fail(const std::string& why);

}  // namespace tavo_fuzz

#endif  // TAVO_TESTS_FUZZ_FUZZ_ROOT_H_
