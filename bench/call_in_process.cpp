// call_in_process: the cost of a membership change made in process, the
// baseline of the HTTP benchmark (bench/http_bench.sh).
//   call_in_process ROOT MODULES_DIR GROUP USER N
// Adds USER to GROUP and removes it again, N times, through the same module
// dispatch as `tavo serve`, and prints the mean time of one change in
// microseconds: "in-process change: X us".
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "dispatch.h"
#include "module_loader.h"
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
  const int n = atoi(argv[5]);
  tavo_server::ApiCall call;
  call.api = "TAVO.Core.Group.Member";
  call.params["group"] = argv[3];
  call.params["name"] = argv[4];
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    for (const char* method : {"add", "remove"}) {
      call.method = method;
      tavo_server::CallResult r = tavo_server::Dispatch(modules, call, "admin");
      if (r.code != 3200) {
        fprintf(stderr, "%s failed with code %d\n", method, r.code);
        return 1;
      }
    }
  }
  const double us =
      std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
  printf("in-process change: %.1f us\n", us / (2.0 * n));
  return 0;
}
