// The API set of the full program: the server's own APIs (event log,
// directory) and the modules of a folder.
#include <cstdio>

#include "api/directory_api.h"
#include "api/eventlog_api.h"
#include "api/module_loader.h"
#include "cli/cli.h"
#include "cli/terminal_text.h"

namespace tavo_server {

bool LoadAllModules(const std::string& dir, ModuleSet* modules, bool warn_if_none) {
  Status s = RegisterEventLogApi(modules);
  if (s.ok()) s = RegisterDirectoryApi(modules);
  int loaded = 0;
  if (s.ok()) s = modules->LoadFolder(dir, &loaded);
  if (!s.ok()) {
    fprintf(stderr, "tavo: %s\n", TerminalSafe(s.message()).c_str());
    return false;
  }
  if (loaded == 0 && warn_if_none)
    fprintf(stderr, "tavo: warning: no module found in %s; only the server's own API is served\n",
            TerminalSafe(dir).c_str());
  return true;
}

bool OnlyModulesLoaded() { return false; }

}  // namespace tavo_server
