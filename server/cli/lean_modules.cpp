// The API set of the lean `tavo` program: the modules of a folder only. A
// call for any other API (the server's own event-log and directory APIs) is
// handed to the full program (see launcher.cpp), which has them.
#include <cstdio>

#include "api/module_loader.h"
#include "cli/cli.h"
#include "cli/terminal_text.h"

namespace tavo_server {

bool LoadAllModules(const std::string& dir, ModuleSet* modules, bool warn_if_none) {
  int loaded = 0;
  Status s = modules->LoadFolder(dir, &loaded);
  if (!s.ok()) {
    fprintf(stderr, "tavo: %s\n", TerminalSafe(s.message()).c_str());
    return false;
  }
  if (loaded == 0 && warn_if_none)
    fprintf(stderr, "tavo: warning: no module found in %s\n", TerminalSafe(dir).c_str());
  return true;
}

bool OnlyModulesLoaded() { return true; }

}  // namespace tavo_server
