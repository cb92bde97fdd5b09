// OpenWithModules: points the platform at an appliance root and loads the API
// modules of a folder, as `tavo serve` does at start, for the benchmark
// programs that call the module in process. Prints the reason to stderr and
// returns false when the modules cannot be loaded.
//
// Thread-safety: call once, from main, before any other thread starts.
#ifndef TAVO_BENCH_BENCH_MODULES_H_
#define TAVO_BENCH_BENCH_MODULES_H_

#include <cstdio>

#include "api/module_loader.h"
#include "tavo/root.h"

inline bool OpenWithModules(const char* root, const char* modules_dir,
                            tavo_server::ModuleSet* modules) {
  tavo::TavoRootSet(root);
  int loaded = 0;
  const tavo_server::Status s = modules->LoadFolder(modules_dir, &loaded);
  if (!s.ok()) fprintf(stderr, "%s\n", s.message().c_str());
  return s.ok();
}

#endif  // TAVO_BENCH_BENCH_MODULES_H_
