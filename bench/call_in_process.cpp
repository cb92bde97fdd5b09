// call_in_process: the cost of a membership change made in process, the
// baseline of the HTTP benchmark (bench/http_bench.sh).
//   call_in_process ROOT MODULES_DIR GROUP USER
// Reads "add" or "remove" lines from standard input, makes each change of
// USER in GROUP through the same module dispatch as `tavo serve` (in a read
// scope, as the server makes each call), and prints its time in microseconds
// on a line of its own, so that a driver can interleave these changes with
// others, one by one. ROOT must be an absolute path.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "api/dispatch.h"
#include "bench/bench_modules.h"
#include "tavo/read_scope.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: call_in_process ROOT MODULES_DIR GROUP USER\n");
    return 2;
  }
  tavo_server::ModuleSet modules;
  if (!OpenWithModules(argv[1], argv[2], &modules)) return 1;
  tavo_server::ApiCall call;
  call.api = "TAVO.Core.Group.Member";
  call.params["group"] = argv[3];
  call.params["name"] = argv[4];
  char line[64];
  while (fgets(line, sizeof line, stdin)) {
    call.method = std::string(line, strcspn(line, "\r\n"));
    const auto start = std::chrono::steady_clock::now();
    tavo_server::CallResult r;
    {
      tavo::ReadScope scope;
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
