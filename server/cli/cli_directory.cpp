// `tavo directory`: binds the appliance to an LDAP directory or joins it to a
// Windows domain, synchronises their group lists, and shows their state.
// Passwords are read from a file named on the command line, never from the
// arguments themselves.
#include <cstdio>
#include <map>

#include "api/json_util.h"
#include "cli/cli.h"
#include "cli/options.h"
#include "directory/dir_admin.h"
#include "directory/dir_status.h"
#include "directory/group_sync.h"
#include "tavo/root.h"

namespace tavo_server {
namespace {

const char kDirUsage[] =
    "usage: tavo directory [--root DIR] SUBCOMMAND\n"
    "  ldap bind --uri URI[,URI...] --base DN [--bind-dn DN --password-file FILE]\n"
    "            [--starttls|--ldaps] [--ca FILE] [--group-filter FILTER] [--domain NAME]\n"
    "            [--idmap-range LOW-HIGH] [--no-sync]\n"
    "  ldap unbind\n"
    "  domain join --realm REALM --workgroup NAME --uri URI[,URI...] [--base DN]\n"
    "            [--bind-dn DN --password-file FILE] [--starttls|--ldaps] [--ca FILE]\n"
    "            [--idmap-range LOW-HIGH] [--no-sync]\n"
    "  domain leave\n"
    "  sync [ldap|domain]      synchronise the group lists now (default: every one in use)\n"
    "  status [--json]         binding, server, last sync and last error of each directory\n"
    "Bind and join test the server, the credentials and the base before they store\n"
    "anything, then synchronise once. See docs/directory.md.\n";

int Usage(const std::string& message) {
  fprintf(stderr, "tavo directory: %s\n%s", message.c_str(), kDirUsage);
  return kExitUsage;
}

int Fail(const std::string& message) {
  fprintf(stderr, "tavo directory: %s\n", message.c_str());
  return kExitFailure;
}

bool ReadPassword(const std::string& path, std::string* out) {
  FILE* f = fopen(path.c_str(), "re");
  if (!f) return false;
  char buf[4096];
  size_t n = fread(buf, 1, sizeof(buf), f);
  fclose(f);
  out->assign(buf, n);
  while (!out->empty() && (out->back() == '\n' || out->back() == '\r')) out->pop_back();
  return true;
}

int RunSync(tavo_dir::Kind kind) {
  tavo_dir::SyncResult r = tavo_dir::SyncDirectory(kind);
  if (!r.ok) return Fail(std::string(KindName(kind)) + " sync failed: " + r.error);
  printf("%s: %lld groups (%lld skipped) from %s in %d pages, %lld ms\n", KindName(kind),
         static_cast<long long>(r.groups), static_cast<long long>(r.skipped), r.server.c_str(),
         r.pages, static_cast<long long>(r.duration_ms));
  return kExitOk;
}

int Bind(tavo_dir::Kind kind, const std::vector<std::string>& a) {
  tavo_dir::BindRequest rq;
  std::string password_file;
  bool sync = true;
  std::map<std::string, std::string*> values = {
      {"--uri", &rq.uris},        {"--base", &rq.base},
      {"--bind-dn", &rq.bind_dn}, {"--password-file", &password_file},
      {"--ca", &rq.ca_file},      {"--idmap-range", &rq.idmap_range}};
  if (kind == tavo_dir::Kind::kLdap) {
    values["--group-filter"] = &rq.group_filter;
    values["--domain"] = &rq.domain;
  } else {
    values["--realm"] = &rq.realm;
    values["--workgroup"] = &rq.workgroup;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == "--starttls" || a[i] == "--ldaps") {
      rq.tls = a[i].substr(2);
    } else if (a[i] == "--no-sync") {
      sync = false;
    } else if (a[i] == "--password") {
      return Usage("passwords are not taken on the command line: use --password-file");
    } else if (values.count(a[i]) && i + 1 < a.size()) {
      std::string* target = values[a[i]];
      *target = a[++i];
    } else {
      return Usage("unknown option or missing value: " + a[i]);
    }
  }
  if (!rq.bind_dn.empty() && password_file.empty()) return Usage("--bind-dn needs --password-file");
  if (!password_file.empty() && !ReadPassword(password_file, &rq.password))
    return Fail("cannot read the password file " + password_file);
  std::string server, error;
  if (!tavo_dir::BindDirectory(kind, rq, &server, &error))
    return Fail(std::string(kind == tavo_dir::Kind::kLdap ? "bind" : "join") +
                " refused: " + error);
  printf("%s through %s\n", kind == tavo_dir::Kind::kLdap ? "bound" : "joined", server.c_str());
  return sync ? RunSync(kind) : kExitOk;
}

void PrintStatus(tavo_dir::Kind kind, const Json::Value& s) {
  bool on = s[kind == tavo_dir::Kind::kLdap ? "bound" : "joined"].asBool();
  printf("%s: %s", KindName(kind),
         on ? (kind == tavo_dir::Kind::kLdap ? "bound to " : "joined to ")
            : (kind == tavo_dir::Kind::kLdap ? "not bound\n" : "not joined\n"));
  if (!on) return;
  printf("%s (%s)\n", s["name"].asCString(), s["uri"].asCString());
  printf("  server: %s\n", s["server"].asString().empty() ? "-" : s["server"].asCString());
  const Json::Value& ls = s["last_sync"];
  if (ls.isNull())
    printf("  last sync: never\n");
  else
    printf("  last sync: %s, %lld groups, %lld skipped, %lld ms\n", ls["time"].asCString(),
           static_cast<long long>(ls["groups"].asInt64()),
           static_cast<long long>(ls["skipped"].asInt64()),
           static_cast<long long>(ls["duration_ms"].asInt64()));
  const Json::Value& le = s["last_error"];
  if (!le.isNull())
    printf("  last error: %s %s\n", le["time"].asCString(), le["message"].asCString());
  if (s.isMember("rebuilding") && !s["rebuilding"].isNull())
    printf("  rebuilding: process %d\n", s["rebuilding"].asInt());
}

}  // namespace

int DirectoryMain(const std::vector<std::string>& all) {
  std::string root_arg;
  std::vector<std::string> args;
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] == "-h" || all[i] == "--help") {
      fputs(kDirUsage, stdout);
      return kExitOk;
    }
    if (all[i] == "--root" && i + 1 < all.size())
      root_arg = all[++i];
    else
      args.push_back(all[i]);
  }
  std::string root;
  Status s = ResolveRoot(root_arg, &root);
  if (!s.ok()) return Usage(s.message());
  tavo::TavoRootSet(root);
  if (args.empty()) return Usage("missing subcommand");
  const std::string& cmd = args[0];
  std::vector<std::string> rest(args.begin() + (args.size() > 1 ? 2 : 1), args.end());
  std::string sub = args.size() > 1 ? args[1] : "";
  using tavo_dir::Kind;
  if ((cmd == "ldap" && sub == "bind") || (cmd == "domain" && sub == "join"))
    return Bind(cmd == "ldap" ? Kind::kLdap : Kind::kDomain, rest);
  if ((cmd == "ldap" && sub == "unbind") || (cmd == "domain" && sub == "leave")) {
    if (!rest.empty()) return Usage("unexpected argument " + rest[0]);
    std::string error;
    if (!tavo_dir::UnbindDirectory(cmd == "ldap" ? Kind::kLdap : Kind::kDomain, &error))
      return Fail(error);
    printf("%s\n", cmd == "ldap" ? "unbound" : "left the domain");
    return kExitOk;
  }
  if (cmd == "sync") {
    if (args.size() > 2 || (args.size() == 2 && sub != "ldap" && sub != "domain"))
      return Usage("sync takes ldap, domain or nothing");
    if (!sub.empty()) return RunSync(sub == "ldap" ? Kind::kLdap : Kind::kDomain);
    int rc = kExitOk, tried = 0;
    for (Kind kind : {Kind::kLdap, Kind::kDomain}) {
      tavo_dir::Binding b;
      std::string error;
      if (!tavo_dir::ReadBinding(kind, &b, &error)) continue;
      ++tried;
      if (RunSync(kind) != kExitOk) rc = kExitFailure;
    }
    if (tried == 0) return Fail("neither bound to an LDAP directory nor joined to a domain");
    return rc;
  }
  if (cmd == "status") {
    bool json = args.size() == 2 && sub == "--json";
    if (args.size() > 2 || (args.size() == 2 && !json)) return Usage("status takes only --json");
    Json::Value out;
    out["ldap"] = tavo_dir::StatusJson(Kind::kLdap);
    out["domain"] = tavo_dir::StatusJson(Kind::kDomain);
    if (json) {
      fputs(ToPrettyJson(out).c_str(), stdout);
    } else {
      PrintStatus(Kind::kLdap, out["ldap"]);
      PrintStatus(Kind::kDomain, out["domain"]);
    }
    return kExitOk;
  }
  return Usage("unknown subcommand " + cmd + (sub.empty() ? "" : " " + sub));
}

}  // namespace tavo_server
