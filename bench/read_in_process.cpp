// read_in_process: the worker time of the module's read calls on roots of
// 1,000, 10,000 and 100,000 groups and users, with warm snapshots:
//   read_in_process MODULES_DIR [ROUNDS] [SIZES...]
// For each size prints the mean time of one call, in microseconds, of
//   list     TAVO.Core.Group list limit=50 name_only=false (a page, with the total)
//   members  TAVO.Core.Group.Member list of one group, limit=50
//   others   the same with ingroup=false: a page of the group's non-members
// through the same module dispatch as `tavo serve`.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "api/dispatch.h"
#include "api/module_loader.h"
#include "bench/bench_root.h"
#include "tavo/root.h"

namespace {

// Mean microseconds of `rounds` calls; the offset moves through the list.
double TimeCalls(const tavo_server::ModuleSet& modules, tavo_server::ApiCall call, int n,
                 int rounds) {
  const bool paged = call.params.isMember("limit");
  int offset = 0;
  tavo_server::CallResult warm = tavo_server::Dispatch(modules, call, "admin");
  if (warm.code != 3200) {
    std::fprintf(stderr, "%s %s failed with code %d\n", call.api.c_str(), call.method.c_str(),
                 warm.code);
    std::exit(1);
  }
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < rounds; ++i) {
    if (paged && call.api == "TAVO.Core.Group") call.params["offset"] = offset;
    tavo_server::CallResult r = tavo_server::Dispatch(modules, call, "admin");
    if (r.code != 3200) std::exit(1);
    offset = (offset + 50 * 37) % n;
  }
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
             .count() /
         rounds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: read_in_process MODULES_DIR [ROUNDS] [SIZES...]\n");
    return 2;
  }
  tavo_server::ModuleSet modules;
  int loaded = 0;
  tavo_server::Status s = modules.LoadFolder(argv[1], &loaded);
  if (!s.ok()) {
    std::fprintf(stderr, "%s\n", s.message().c_str());
    return 1;
  }
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 2000;
  std::vector<int> sizes;
  for (int i = 3; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {1000, 10000, 100000};
  std::printf("%8s  %14s  %14s  %14s\n", "groups", "list 50 (us)", "members (us)", "others (us)");
  for (int n : sizes) {
    BenchRoot root(n);
    tavo::TavoRootSet(root.dir());
    // Files changed within the last few clock ticks are read again on every
    // use (a same-size rewrite within one tick leaves their key as it was):
    // let the fresh files age first, so that the snapshots stay warm.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    tavo_server::ApiCall list;
    list.api = "TAVO.Core.Group";
    list.method = "list";
    list.params["limit"] = 50;
    list.params["name_only"] = false;
    tavo_server::ApiCall members;
    members.api = "TAVO.Core.Group.Member";
    members.method = "list";
    members.params["group"] = BenchRoot::GroupName(n / 2);
    members.params["limit"] = 50;
    tavo_server::ApiCall others = members;
    others.params["ingroup"] = false;
    const double l = TimeCalls(modules, list, n, rounds);
    const double m = TimeCalls(modules, members, n, rounds);
    const double o = TimeCalls(modules, others, n, rounds / 10 + 1);
    std::printf("%8d  %14.1f  %14.1f  %14.1f\n", n, l, m, o);
  }
  return 0;
}
