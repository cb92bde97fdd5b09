// ServeSplit: runs the network front in a process of its own with the rights
// of an unprivileged user, while this process keeps the account work.
//
// This process listens for its front (priv_server.h) and forks. The child
// calls `front` with a PrivClient; the `drop` it is handed switches the child
// to `user` (its uid, its primary group, no supplementary groups, no new
// privileges) and must be called once the front has bound its socket and read
// its TLS files. The parent allows only that child on the channel, calls
// `parent_started` (for threads of its own: the fork is made before any),
// forwards SIGINT and SIGTERM to the child and ends when the child does.
//
// Returns the exit status for `tavo serve`.
#ifndef TAVO_SERVER_PRIVSEP_SPLIT_H_
#define TAVO_SERVER_PRIVSEP_SPLIT_H_

#include <signal.h>

#include <functional>
#include <string>

#include "privsep/account_ops.h"

namespace tavo_server {

using FrontMain = std::function<int(AccountOps& ops, const std::function<bool()>& drop)>;

int ServeSplit(const std::string& user, AccountOps& local, const sigset_t& stop_signals,
               const FrontMain& front, const std::function<void()>& parent_started);

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_SPLIT_H_
