// tavo: the appliance's group administration program (server and tools).
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "cli/terminal_text.h"

namespace {

const char kUsage[] =
    "usage: tavo COMMAND [ARGS]\n"
    "  serve --root DIR [--listen HOST:PORT] [--modules DIR] [--web DIR]   web API and admin page\n"
    "  call [--root DIR] API METHOD [--version N] [--params JSON] [NAME=VALUE...]\n"
    "  init DIR [--demo] [--force]                                         create a root\n"
    "  log [--root DIR] [--limit N] [--offset N]                            show the event log\n"
    "  directory [--root DIR] ldap|domain|sync|status ...                   LDAP and domain "
    "groups\n"
    "  check [--root DIR] [--repair]                                        check the group files\n"
    "  openapi [--modules DIR]                                             print the API's OpenAPI "
    "document\n"
    "  tls-cert [--root DIR] [--host NAME]                                 make the TLS "
    "certificate\n"
    "Run `tavo COMMAND --help` for details. See tavo(1) and docs/server.md.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fputs(kUsage, stderr);
    return tavo_server::kExitUsage;
  }
  std::string command = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (command == "serve") return tavo_server::ServeMain(args);
  if (command == "call") return tavo_server::CallMain(args);
  if (command == "init") return tavo_server::InitMain(args);
  if (command == "log") return tavo_server::LogMain(args);
  if (command == "directory") return tavo_server::DirectoryMain(args);
  if (command == "check") return tavo_server::CheckMain(args);
  if (command == "openapi") return tavo_server::OpenApiMain(args);
  if (command == "tls-cert") return tavo_server::TlsCertMain(args);
  if (command == "-h" || command == "--help" || command == "help") {
    fputs(kUsage, stdout);
    return tavo_server::kExitOk;
  }
  fprintf(stderr, "tavo: unknown command '%s'\n%s", tavo_server::TerminalSafe(command).c_str(),
          kUsage);
  return tavo_server::kExitUsage;
}
