// The configuration file of `tavo serve` (by default /etc/tavo/serve.conf):
// one "NAME = VALUE" per line, NAME being a long option of `tavo serve`
// without its "--" (listen = 0.0.0.0:8780, workers = 8, ...; the flag
// insecure-http takes yes or no); blank lines and
// lines starting with '#' are skipped. An option given on the command line
// wins over the file's.
//
// Thread-safety: reentrant. Errors: a Status whose message names the file and
// line, meant for the user.
#ifndef TAVO_SERVER_SERVE_CONF_H_
#define TAVO_SERVER_SERVE_CONF_H_

#include <string>
#include <vector>

#include "api/status.h"

namespace tavo_server {

constexpr const char kDefaultServeConf[] = "/etc/tavo/serve.conf";
// Longest file read, and longest line in it.
constexpr size_t kMaxServeConfSize = 64 * 1024;
constexpr size_t kMaxServeConfLine = 4096;

// Appends "--NAME", "VALUE" to *args for each setting of the file at `path`.
Status ReadServeConf(const std::string& path, std::vector<std::string>* args);

// Takes "--config FILE" out of the command line `args` and answers, in
// *merged, the file's options followed by the rest of the command line (so
// the command line wins). Without --config the default file is read when it
// exists; "--config none" reads no file. *used is the file read, or "".
Status MergeServeConf(const std::vector<std::string>& args, std::vector<std::string>* merged,
                      std::string* used);

}  // namespace tavo_server

#endif  // TAVO_SERVER_SERVE_CONF_H_
