// Costs of the account store as the number of groups and users grows:
//   list  one page of 50 local groups with their descriptions, and the total
//   load  SDK::Group::LoadGroup of one group
//   save  one membership change (load, add or remove a member, save)
// at 1,000, 10,000 and 100,000 groups and users. After the table it prints how
// each cost grows from 1,000 to 100,000, and one saved membership change beside
// `gpasswd -Q ROOT -a USER GROUP` on the same root, timed in the same run, and
// the memory the cached snapshots take beside the size of the files they hold,
// and one membership change and one creation beside the durable-replace limit.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_root.h"
#include "tavo/error.h"
#include "tavo/group.h"
#include "tavo/root.h"

namespace {

std::map<int, std::unique_ptr<BenchRoot>>& Roots() {
  static std::map<int, std::unique_ptr<BenchRoot>> roots;
  return roots;
}

// Makes the root of `n` groups the platform root (created once per size).
const BenchRoot& UseRoot(int n) {
  auto& r = Roots()[n];
  if (!r) r = std::make_unique<BenchRoot>(n);
  tavo::TavoRootSet(r->dir());
  return *r;
}

int AddDescription(const TLIB_GROUP_INFO* info, int, void* ctx) {
  char* buf = nullptr;
  unsigned size = 0;
  if (TAVOGroupDescGet(info->name, &buf, &size) != 0) return -1;
  *static_cast<size_t*>(ctx) += size;
  std::free(buf);
  return 0;
}

void BM_ListPage(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  UseRoot(n);
  int offset = 0;
  for (auto _ : state) {
    size_t bytes = 0;
    int total = TLIBGroupInfoEnumBySubstr(1, "", offset, 50, "", 1, AddDescription, &bytes);
    if (total < n) state.SkipWithError("enumeration failed");
    benchmark::DoNotOptimize(bytes);
    offset = (offset + 50) % n;
  }
}

void BM_LoadGroup(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  UseRoot(n);
  int i = 0;
  for (auto _ : state) {
    SDK::Group* g = SDK::Group::LoadGroup(BenchRoot::GroupName(i));
    if (!g) state.SkipWithError("load failed");
    SDK::Group::Release(g);
    i = (i + 7919) % n;
  }
}

bool SaveOneChange(int n, bool add) {
  SDK::Group* g = SDK::Group::LoadGroup(BenchRoot::GroupName(n / 2));
  if (!g) return false;
  const std::string user = BenchRoot::UserName(n / 3);
  bool ok = (add ? g->AddMember(user) : g->RemoveMember(user)) && g->Save();
  SDK::Group::Release(g);
  return ok;
}

void BM_SaveMembership(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  UseRoot(n);
  bool add = true;
  for (auto _ : state) {
    if (!SaveOneChange(n, add)) state.SkipWithError("save failed");
    add = !add;
  }
  if (!add) SaveOneChange(n, false);  // leave the group as it was
}

BENCHMARK(BM_ListPage)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoadGroup)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SaveMembership)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(0.5);

// Keeps the mean real time (ns) of every run by name.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred || r.iterations <= 0) continue;
      std::string name = r.benchmark_name();
      name = name.substr(0, name.find("/min_time"));
      times[name] = r.real_accumulated_time * 1e9 / static_cast<double>(r.iterations);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

double Millis(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// One membership change by the platform and by gpasswd on the same root,
// alternating, `rounds` times each; prints the mean of both.
void CompareWithGpasswd(int n, int rounds) {
  const BenchRoot& root = UseRoot(n);
  const std::string group = BenchRoot::GroupName(n / 4), user = BenchRoot::UserName(n / 5);
  double ours = 0, theirs = 0;
  for (int k = 0; k < rounds; ++k) {
    auto t0 = std::chrono::steady_clock::now();
    SDK::Group* g = SDK::Group::LoadGroup(group);
    bool ok = g && g->AddMember(user) && g->Save();
    SDK::Group::Release(g);
    auto t1 = std::chrono::steady_clock::now();
    g = SDK::Group::LoadGroup(group);  // undo, untimed
    ok = ok && g && g->RemoveMember(user) && g->Save();
    SDK::Group::Release(g);
    std::string cmd = "gpasswd -Q " + root.dir() + " -a " + user + " " + group + " >/dev/null";
    auto t2 = std::chrono::steady_clock::now();
    int rc = std::system(cmd.c_str());
    auto t3 = std::chrono::steady_clock::now();
    g = SDK::Group::LoadGroup(group);  // undo, untimed
    ok = ok && rc == 0 && g && g->RemoveMember(user) && g->Save();
    SDK::Group::Release(g);
    if (!ok) {
      std::printf("comparison at %d groups failed (error 0x%04X)\n", n, TLIBCErrGet());
      return;
    }
    ours += Millis(t1 - t0);
    theirs += Millis(t3 - t2);
  }
  std::printf("  %6d groups: platform %.2f ms, gpasswd %.2f ms, platform/gpasswd = %.2f\n", n,
              ours / rounds, theirs / rounds, ours / theirs);
}

// The durable-replace limit of one change on this root: for group and gshadow,
// a temporary file written with the file's bytes, fsynced and renamed over a
// copy, then one folder fsync. One round, in ms.
double DurableReplaceOnce(const BenchRoot& root) {
  const std::string dir = root.dir() + "/limit";
  mkdir(dir.c_str(), 0755);
  std::string contents[2];
  const char* names[2] = {"/etc/group", "/etc/gshadow"};
  for (int f = 0; f < 2; ++f) {
    std::ifstream in(root.dir() + names[f], std::ios::binary);
    contents[f].assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  auto t0 = std::chrono::steady_clock::now();
  for (int f = 0; f < 2; ++f) {
    const std::string target = dir + "/file" + std::to_string(f);
    const std::string tmp = target + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, contents[f].data(), contents[f].size()) < 0 || fsync(fd) != 0) {
      std::printf("durable-replace baseline failed\n");
      return 0;
    }
    close(fd);
    rename(tmp.c_str(), target.c_str());
  }
  int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  fsync(dfd);
  close(dfd);
  return Millis(std::chrono::steady_clock::now() - t0);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty()      ? 0
         : v.size() % 2 ? v[v.size() / 2]
                        : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// One membership change and one group creation in process, beside the
// durable-replace limit measured on the same root in the same rounds (one of
// each per round, so that a drift of the disk's sync times meets all three
// alike); medians of `rounds`.
void CompareWithLimit(int n, int rounds) {
  const BenchRoot& root = UseRoot(n);
  const std::string group = BenchRoot::GroupName(n / 3), user = BenchRoot::UserName(n / 7);
  std::vector<double> change, create, limit;
  for (int k = 0; k < rounds; ++k) {
    auto t0 = std::chrono::steady_clock::now();
    SDK::Group* g = SDK::Group::LoadGroup(group);
    bool ok = g && g->AddMember(user) && g->Save();
    SDK::Group::Release(g);
    auto t1 = std::chrono::steady_clock::now();
    g = SDK::Group::LoadGroup(group);  // undo, untimed
    ok = ok && g && g->RemoveMember(user) && g->Save();
    SDK::Group::Release(g);
    const std::string fresh = "benchnew" + std::to_string(k);
    auto t2 = std::chrono::steady_clock::now();
    g = SDK::Group::CreateGroup(fresh);
    ok = ok && g && g->Save();
    SDK::Group::Release(g);
    auto t3 = std::chrono::steady_clock::now();
    const char* names[] = {fresh.c_str()};
    ok = ok && TAVOGroupDelete(names, 1) == 1;  // undo, untimed
    if (!ok) {
      std::printf("comparison at %d groups failed (error 0x%04X)\n", n, TLIBCErrGet());
      return;
    }
    change.push_back(Millis(t1 - t0));
    create.push_back(Millis(t3 - t2));
    limit.push_back(DurableReplaceOnce(root));
  }
  const double l = Median(limit), c = Median(change), r = Median(create);
  std::printf("  %6d groups: limit %.2f ms; change %.2f ms = %.2fx; create %.2f ms = %.2fx\n", n, l,
              c, c / l, r, r / l);
}

// Bytes allocated on the heap by this process (small blocks and mmapped ones).
long HeapKiB() {
  struct mallinfo2 mi = mallinfo2();
  return static_cast<long>((mi.uordblks + mi.hblkhd) / 1024);
}

long FileKiB(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size / 1024) : 0;
}

// In a child process (so no snapshot is cached yet): heap memory added by
// reading a fresh root of `n` groups and users (a page with descriptions, one
// group load), beside the size of the files read.
void MemoryOfSnapshots(int n) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid < 0) return;
  if (pid > 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    return;
  }
  {
    BenchRoot root(n);
    tavo::TavoRootSet(root.dir());
    const long before = HeapKiB();
    size_t bytes = 0;
    int total = TLIBGroupInfoEnumBySubstr(1, "", 0, 50, "", 1, AddDescription, &bytes);
    SDK::Group::Release(SDK::Group::LoadGroup(BenchRoot::GroupName(n / 2)));
    const long after = HeapKiB();
    const long files = FileKiB(root.dir() + "/etc/group") + FileKiB(root.dir() + "/etc/passwd") +
                       FileKiB(root.dir() + "/etc/tavo/group_desc");
    std::printf("  %6d groups: snapshots %ld KiB, files %ld KiB, memory/files = %.1f%s\n", n,
                after - before, files, files ? double(after - before) / files : 0.0,
                total >= n ? "" : "  (enumeration failed)");
    std::fflush(stdout);
  }
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nGrowth from 1,000 to 100,000 groups and users (time ratio):\n");
  for (const char* name : {"BM_ListPage", "BM_LoadGroup", "BM_SaveMembership"}) {
    auto& t = reporter.times;
    std::string small = std::string(name) + "/1000", big = std::string(name) + "/100000";
    if (t.count(small) && t.count(big))
      std::printf("  %-18s x%.1f  (%.1f us -> %.1f us)\n", name, t[big] / t[small], t[small] / 1e3,
                  t[big] / 1e3);
  }
  std::printf("\nOne saved membership change beside gpasswd -a on the same root:\n");
  for (int n : {1000, 100000}) CompareWithGpasswd(n, 5);
  std::printf(
      "\nIn process, beside the durable-replace limit of group + gshadow"
      " (temp write, fsync, rename each, folder fsync; medians of 21 rounds):\n");
  for (int n : {1000, 10000, 100000}) CompareWithLimit(n, 21);
  std::printf("\nMemory of the cached snapshots beside the files they hold:\n");
  for (int n : {1000, 10000, 100000}) MemoryOfSnapshots(n);
  Roots().clear();
  benchmark::Shutdown();
  return 0;
}
