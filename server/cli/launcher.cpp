// tavo: the command administrators run. `tavo call` for a module's API runs
// here, in a small program that links only the platform library and the
// JSON library, so that a call does not pay for loading the HTTP server's
// libraries (libmicrohttpd, GnuTLS, libldap, libsystemd). Every other
// command, and a call for the server's own APIs, runs the full program
// (tavo-server, main.cpp) in this process's place (exec: same process id,
// same descriptors, so systemd's notify socket and activated sockets pass).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "cli/options.h"

#ifndef TAVO_SERVER_PROGRAM
#define TAVO_SERVER_PROGRAM "/usr/lib/tavo/tavo-server"
#endif

namespace {

int RunFullProgram(char** argv) {
  // Beside this program (a build tree), where an installation puts it
  // relative to this program (also when a package is unpacked elsewhere),
  // else where it was installed.
  const std::string dir = tavo_server::ExeDir();
  std::string program = TAVO_SERVER_PROGRAM;
  for (const std::string& candidate : {dir + "/tavo-server", dir + "/../lib/tavo/tavo-server"}) {
    if (access(candidate.c_str(), X_OK) == 0) {
      program = candidate;
      break;
    }
  }
  setenv("TAVO_PROGRAM_DIR", dir.c_str(), 1);
  execv(program.c_str(), argv);
  fprintf(stderr, "tavo: cannot run %s: %s\n", program.c_str(), strerror(errno));
  return tavo_server::kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "call") == 0) {
    const int rc = tavo_server::CallMain(std::vector<std::string>(argv + 2, argv + argc));
    if (rc != tavo_server::kNeedsFullProgram) return rc;
  }
  return RunFullProgram(argv);
}
