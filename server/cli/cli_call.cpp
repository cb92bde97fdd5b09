// `tavo call`: runs one API request in this process and prints the envelope.
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "api/dispatch.h"
#include "api/json_util.h"
#include "api/module_loader.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "cli/terminal_text.h"
#include "tavo/one_shot.h"
#include "tavo/root.h"

namespace tavo_server {
namespace {

const char kCallUsage[] =
    "usage: tavo call [--root DIR] [--modules DIR] API METHOD [--version N] [--params JSON] "
    "[NAME=VALUE...]\n"
    "Runs one request in process and prints the answer envelope as JSON.\n"
    "Each VALUE is read as JSON when it parses as JSON, as a string otherwise;\n"
    "NAME=VALUE pairs are added to (and override) the --params object.\n"
    "Exit status: 0 success, 1 API error, 2 usage error, 3 a module was refused.\n";

int Usage(const std::string& message) {
  fprintf(stderr, "tavo call: %s\n%s", TerminalSafe(message).c_str(), kCallUsage);
  return kExitUsage;
}

std::string CallerAccount() {
  for (const char* var : {"SUDO_USER", "USER"}) {
    const char* v = std::getenv(var);
    if (v != nullptr && *v != '\0') return v;
  }
  return "cli";
}

}  // namespace

int CallMain(const std::vector<std::string>& args) {
  std::string root_arg, modules_dir, version_text, params_text;
  std::vector<std::string> positional;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      fputs(kCallUsage, stdout);
      return kExitOk;
    }
    std::string* target = a == "--root"      ? &root_arg
                          : a == "--modules" ? &modules_dir
                          : a == "--version" ? &version_text
                          : a == "--params"  ? &params_text
                                             : nullptr;
    if (target != nullptr) {
      if (i + 1 >= args.size()) return Usage("missing value after " + a);
      *target = args[++i];
    } else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      return Usage("unknown option " + a);
    } else {
      positional.push_back(a);
    }
  }
  if (positional.size() < 2) return Usage("API and METHOD are required");

  ApiCall call;
  call.api = positional[0];
  call.method = positional[1];
  if (!version_text.empty() &&
      (!JsonToInt(Json::Value(version_text), &call.version) || call.version < 1))
    return Usage("--version needs an integer of at least 1");
  if (!params_text.empty()) {
    Json::Value p;
    if (!ParseJson(params_text, &p) || !p.isObject()) return Usage("--params needs a JSON object");
    call.params = p;
  }
  for (size_t i = 2; i < positional.size(); ++i) {
    const std::string& kv = positional[i];
    size_t eq = kv.find('=');
    if (eq == std::string::npos || eq == 0) return Usage("expected NAME=VALUE, got " + kv);
    call.params[kv.substr(0, eq)] = ValueFromText(kv.substr(eq + 1));
  }
  std::string text_error;
  if (!CheckText(Json::Value(call.api), &text_error) ||
      !CheckText(Json::Value(call.method), &text_error) || !CheckText(call.params, &text_error))
    return Usage(text_error);

  std::string root;
  Status s = ResolveRoot(root_arg, &root);
  if (!s.ok()) return Usage(s.message());
  tavo::TavoRootSet(root);
  tavo::SetOneShotProcess();  // this process exits after the call
  openlog("tavo", LOG_PID, LOG_USER);

  ModuleSet modules;
  modules.SkipDescriptions();  // they serve the API documents, not a call
  if (!LoadAllModules(modules_dir.empty() ? DefaultModulesDir() : modules_dir, &modules, false))
    return kExitModules;
  CallResult result = Dispatch(modules, call, CallerAccount());
  if (result.lookup != ModuleSet::Lookup::kFound) {
    if (OnlyModulesLoaded()) return kNeedsFullProgram;
    return Usage(LookupMessage(result.lookup, call));
  }
  fputs(TerminalSafeJson(ToPrettyJson(result.envelope)).c_str(), stdout);
  // Nothing is left to do but free memory and unmap files, which the kernel
  // does faster at exit: every change is on disk and in the event log, and
  // the locks are released. Only the output waits in buffers.
  const int rc = result.code == 3200 ? kExitOk : kExitFailure;
  fflush(stdout);
  fflush(stderr);
  _exit(rc);
}

}  // namespace tavo_server
