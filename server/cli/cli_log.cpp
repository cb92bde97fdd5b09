// `tavo log`: prints the event log newest first, one entry a line.
#include <cstdio>

#include "api/json_util.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "cli/terminal_text.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"
#include "tavo/root.h"

namespace tavo_server {
namespace {

const char kLogUsage[] =
    "usage: tavo log [--root DIR] [--limit N] [--offset N] [--json]\n"
    "Lists the event log newest first: time, account, message (default: the latest 50;\n"
    "--limit -1 lists all).\n";

int Usage(const std::string& message) {
  fprintf(stderr, "tavo log: %s\n%s", TerminalSafe(message).c_str(), kLogUsage);
  return kExitUsage;
}

}  // namespace

int LogMain(const std::vector<std::string>& args) {
  std::string root_arg;
  int limit = 50, offset = 0;
  bool json = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      fputs(kLogUsage, stdout);
      return kExitOk;
    }
    if (a == "--json") {
      json = true;
      continue;
    }
    if (i + 1 >= args.size()) return Usage("unknown option or missing value: " + a);
    const std::string& v = args[++i];
    if (a == "--root") {
      root_arg = v;
    } else if (a == "--limit") {
      if (!JsonToInt(Json::Value(v), &limit) || limit < -1) return Usage("bad --limit " + v);
    } else if (a == "--offset") {
      if (!JsonToInt(Json::Value(v), &offset) || offset < 0) return Usage("bad --offset " + v);
    } else {
      return Usage("unknown option " + a);
    }
  }
  std::string root;
  Status s = ResolveRoot(root_arg, &root);
  if (!s.ok()) return Usage(s.message());
  tavo::TavoRootSet(root);

  Json::Value out;
  if (!tavo::EventLogList(offset, limit, &out)) {
    fprintf(stderr, "tavo log: the event log cannot be read (error 0x%04X)\n", TLIBCErrGet());
    return kExitFailure;
  }
  if (json) {
    fputs(TerminalSafeJson(ToPrettyJson(out)).c_str(), stdout);
    return kExitOk;
  }
  const Json::Value& entries = out["entries"];
  if (!entries.isArray() || entries.empty()) {
    puts("The event log is empty.");
    return kExitOk;
  }
  for (const Json::Value& e : entries) {
    // Names in messages come from requests: shown escaped, one entry a line.
    const std::string account = e["account"].isString() ? e["account"].asString() : "";
    const std::string time = e["time"].isString() ? e["time"].asString() : "-";
    const std::string message = e["message"].isString() ? e["message"].asString() : "";
    printf("%s  %-12s  %s\n", TerminalSafe(time).c_str(),
           account.empty() ? "-" : TerminalSafe(account).c_str(), TerminalSafe(message).c_str());
  }
  if (out["total"].isIntegral())
    printf("(%u shown of %s)\n", entries.size(), out["total"].asString().c_str());
  return kExitOk;
}

}  // namespace tavo_server
