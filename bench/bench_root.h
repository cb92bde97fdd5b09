// BenchRoot: a throw-away appliance root with N local groups and N local
// users, written directly (not through the platform) so that large roots are
// made in well under a second. Group "g%06d" has GID 10000+i, the members
// "u%06d" of the same and the next index, and the description "Group number i".
//
// Thread-safety: one object per thread. The folder is removed on destruction.
#ifndef TAVO_BENCH_BENCH_ROOT_H_
#define TAVO_BENCH_BENCH_ROOT_H_

#include <string>

class BenchRoot {
 public:
  explicit BenchRoot(int n);
  ~BenchRoot();
  BenchRoot(const BenchRoot&) = delete;
  BenchRoot& operator=(const BenchRoot&) = delete;

  const std::string& dir() const { return dir_; }
  static std::string GroupName(int i);
  static std::string UserName(int i);

 private:
  std::string dir_;
};

#endif  // TAVO_BENCH_BENCH_ROOT_H_
