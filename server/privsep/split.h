// ServeSplit: runs the network front in a process of its own with the rights
// of an unprivileged user, while this process keeps the account work.
//
// This process listens for its front (priv_server.h) and forks. The child
// calls `front` with a PrivClient; the `drop` it is handed switches the child
// to `user` (its uid, its primary group, no supplementary groups, no new
// privileges) and must be called once the front has bound its socket and read
// its TLS files. The parent allows only that child on the channel, calls
// `parent_started` (for threads of its own: the fork is made before any),
// forwards SIGINT and SIGTERM (as SIGTERM) and SIGHUP to the child, and ends
// when the child does. `signals` are those three, blocked in every thread.
// The grants' key is drawn anew in this process after the fork, and the
// front's copy of the old one is wiped, so the front never holds a key that
// makes a grant. The front's `read_tls` asks this process, which reads the files with
// `read_tls` here (the front can no longer read them itself).
//
// Returns the exit status for `tavo serve`.
#ifndef TAVO_SERVER_PRIVSEP_SPLIT_H_
#define TAVO_SERVER_PRIVSEP_SPLIT_H_

#include <signal.h>

#include <functional>
#include <string>

#include "api/status.h"
#include "privsep/account_ops.h"

namespace tavo_server {

// Reads the server's TLS certificate and key (PEM), for a reload.
using TlsReader = std::function<Status(std::string* cert_pem, std::string* key_pem)>;

using FrontMain = std::function<int(AccountOps& ops, const std::function<bool()>& drop,
                                    const TlsReader& read_tls)>;

int ServeSplit(const std::string& user, LocalAccountOps& local, const sigset_t& signals,
               const FrontMain& front, const std::function<void()>& parent_started,
               const TlsReader& read_tls);

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_SPLIT_H_
