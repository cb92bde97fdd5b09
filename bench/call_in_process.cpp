// call_in_process: the cost of a membership change made in process, the
// baseline of the HTTP benchmark (bench/http_bench.sh).
//   call_in_process ROOT MODULES_DIR GROUP USER N
// Adds USER to GROUP and removes it again, N times, through the same module
// dispatch as `tavo serve`, and prints the mean time of one change in
// microseconds, and the median: "in-process change: X us mean, Y us median".
//   call_in_process ROOT MODULES_DIR GROUP USER -
// Reads "add" or "remove" lines from standard input, makes each change and
// prints its time in microseconds on a line of its own, so that a driver can
// interleave these changes with others, one by one.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "dispatch.h"
#include "module_loader.h"
#include "tavo/read_scope.h"
#include "tavo/root.h"

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: call_in_process ROOT MODULES_DIR GROUP USER N\n");
    return 2;
  }
  tavo::TavoRootSet(argv[1]);
  tavo_server::ModuleSet modules;
  int loaded = 0;
  tavo_server::Status s = modules.LoadFolder(argv[2], &loaded);
  if (!s.ok()) {
    fprintf(stderr, "%s\n", s.message().c_str());
    return 1;
  }
  tavo_server::ApiCall call;
  call.api = "TAVO.Core.Group.Member";
  call.params["group"] = argv[3];
  call.params["name"] = argv[4];
  if (std::string(argv[5]) == "-") {
    char line[64];
    while (fgets(line, sizeof line, stdin)) {
      call.method = std::string(line, strcspn(line, "\r\n"));
      const auto start = std::chrono::steady_clock::now();
      tavo_server::CallResult r;
      {
        tavo::ReadScope scope;  // as the server makes each call
        r = tavo_server::Dispatch(modules, call, "admin");
      }
      const double us =
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
      if (r.code != 3200) {
        fprintf(stderr, "%s failed with code %d\n", call.method.c_str(), r.code);
        return 1;
      }
      printf("%.1f\n", us);
      fflush(stdout);
    }
    return 0;
  }
  const int n = atoi(argv[5]);
  std::vector<double> times;
  for (int i = 0; i < n; ++i) {
    for (const char* method : {"add", "remove"}) {
      call.method = method;
      const auto start = std::chrono::steady_clock::now();
      tavo_server::CallResult r;
      {
        tavo::ReadScope scope;  // as the server makes each call
        r = tavo_server::Dispatch(modules, call, "admin");
      }
      times.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
              .count());
      if (r.code != 3200) {
        fprintf(stderr, "%s failed with code %d\n", method, r.code);
        return 1;
      }
    }
  }
  std::sort(times.begin(), times.end());
  printf("in-process change: %.1f us mean, %.1f us median\n",
         std::accumulate(times.begin(), times.end(), 0.0) / times.size(), times[times.size() / 2]);
  return 0;
}
