// The subcommands of the `tavo` program. Each takes the arguments after its
// name and returns the process exit status:
//   0 success; 1 failure (an API error for `call`, a failure to start or to
//   write for the others); 2 usage error; 3 `call` could not load its modules.
//
// Thread-safety: meant to be called once from main.
#ifndef TAVO_SERVER_CLI_H_
#define TAVO_SERVER_CLI_H_

#include <sys/types.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace tavo_server {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitModules = 3;
// Not an exit status: `call` in the lean program met an API that only the
// full program serves (launcher.cpp then runs the full program).
constexpr int kNeedsFullProgram = -100;

int ServeMain(const std::vector<std::string>& args);
// Once the call has answered, ends the process itself (output flushed,
// nothing freed); it returns only for usage errors, refused modules and
// kNeedsFullProgram.
int CallMain(const std::vector<std::string>& args);
int InitMain(const std::vector<std::string>& args);
int LogMain(const std::vector<std::string>& args);
int DirectoryMain(const std::vector<std::string>& args);
int CheckMain(const std::vector<std::string>& args);
int OpenApiMain(const std::vector<std::string>& args);
int TlsCertMain(const std::vector<std::string>& args);

// Writes `content` to `path` through a fresh temporary file beside it (never
// a link left there by someone else), with `mode`, synced. False on failure.
bool WriteRootFile(const std::string& path, const std::string& content, mode_t mode);
// Makes each folder of `dirs` (absolute, inside `root`) and its parents.
bool MakeRootDirs(const std::string& root, std::initializer_list<const char*> dirs);
// Makes a self-signed certificate for `host` (the machine's host name when
// empty) in ROOT/etc/tavo/tls (cert.pem 0644, key.pem 0600) unless cert.pem
// is there. False with a message in `error` when it cannot.
bool EnsureCertificate(const std::string& root, const std::string& host, std::string* error);

// Loads the modules of `dir` plus the server's own API into `modules`;
// prints why on stderr and returns false when any module is refused.
class ModuleSet;
bool LoadAllModules(const std::string& dir, ModuleSet* modules, bool warn_if_none);
// True in the lean program, whose LoadAllModules loads the modules only.
bool OnlyModulesLoaded();

}  // namespace tavo_server

#endif  // TAVO_SERVER_CLI_H_
