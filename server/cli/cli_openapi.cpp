// `tavo openapi`: prints the OpenAPI document of the modules a server would load.
#include <cstdio>

#include "api/json_util.h"
#include "api/module_loader.h"
#include "api/openapi.h"
#include "cli/cli.h"
#include "cli/options.h"

namespace tavo_server {
namespace {

const char kOpenApiUsage[] =
    "usage: tavo openapi [--modules DIR]\n"
    "Prints the OpenAPI 3.1 document of the web API, as GET /api/openapi.json answers it,\n"
    "for the modules of DIR (default: the modules folder of the server).\n"
    "Exit status: 0 success, 2 usage error, 3 a module was refused.\n";

}  // namespace

int OpenApiMain(const std::vector<std::string>& args) {
  std::string modules_dir;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "-h" || args[i] == "--help") {
      fputs(kOpenApiUsage, stdout);
      return kExitOk;
    }
    if (args[i] == "--modules" && i + 1 < args.size()) {
      modules_dir = args[++i];
      continue;
    }
    fprintf(stderr, "tavo openapi: unknown option or missing value: %s\n%s", args[i].c_str(),
            kOpenApiUsage);
    return kExitUsage;
  }
  if (modules_dir.empty()) modules_dir = DefaultModulesDir();
  ModuleSet modules;
  if (!LoadAllModules(modules_dir, &modules, true)) return kExitModules;
  fputs(ToPrettyJson(BuildOpenApi(modules)).c_str(), stdout);
  fputc('\n', stdout);
  return kExitOk;
}

}  // namespace tavo_server
