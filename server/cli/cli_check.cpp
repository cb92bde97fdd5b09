// `tavo check [--root DIR] [--repair]`: finds (and with --repair mends) a
// change of the group files cut off by a crash, leftover temporary files and
// disagreements between etc/group and etc/gshadow.
#include <cstdio>

#include "cli/cli.h"
#include "cli/options.h"
#include "tavo/error.h"
#include "tavo/root.h"
#include "tavo/store_check.h"

namespace tavo_server {
namespace {

const char kCheckUsage[] =
    "usage: tavo check [--root DIR] [--repair]\n"
    "Checks the group files: a change cut off by a crash, leftover temporary files, and\n"
    "etc/gshadow against etc/group. --repair completes the change, removes the files and\n"
    "makes etc/gshadow agree with etc/group (recorded in the event log).\n"
    "Exit status: 0 consistent (or repaired), 1 problems found or the check failed.\n";

int Usage(const std::string& message) {
  fprintf(stderr, "tavo check: %s\n%s", message.c_str(), kCheckUsage);
  return kExitUsage;
}

}  // namespace

int CheckMain(const std::vector<std::string>& args) {
  std::string root_arg;
  bool repair = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      fputs(kCheckUsage, stdout);
      return kExitOk;
    }
    if (a == "--repair") {
      repair = true;
    } else if (a == "--root" && i + 1 < args.size()) {
      root_arg = args[++i];
    } else {
      return Usage("unknown option or missing value: " + a);
    }
  }
  std::string root;
  Status s = ResolveRoot(root_arg, &root);
  if (!s.ok()) return Usage(s.message());
  tavo::TavoRootSet(root);

  tavo::StoreCheckResult result;
  if (!tavo::CheckAccountStore(repair, "tavo check", &result)) {
    fprintf(stderr, "tavo check: the group files cannot be checked (error 0x%04X)\n",
            TLIBCErrGet());
    return kExitFailure;
  }
  for (const std::string& r : result.repairs) printf("repaired: %s\n", r.c_str());
  for (const std::string& f : result.findings) printf("problem: %s\n", f.c_str());
  if (result.findings.empty() && result.repairs.empty()) puts("The group files are consistent.");
  return result.findings.empty() ? kExitOk : kExitFailure;
}

}  // namespace tavo_server
