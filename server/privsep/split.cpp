#include "privsep/split.h"

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "cli/cli.h"
#include "privsep/priv_client.h"
#include "privsep/priv_server.h"

namespace tavo_server {
namespace {

bool DropTo(uid_t uid, gid_t gid, pid_t parent) {
  if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
      setresuid(uid, uid, uid) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    fprintf(stderr, "tavo serve: the front process cannot drop its rights: %s\n", strerror(errno));
    return false;
  }
  // Must not be able to come back.
  if (setuid(0) == 0) return false;
  // The switch of user cleared the signal that ends this process with its
  // parent: ask for it again, and leave now if the parent is already gone.
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) {
    fprintf(stderr, "tavo serve: the account process has ended\n");
    return false;
  }
  return true;
}

// In the front: turns each byte from the account process's `ctl` socket into a
// signal to this process, taken by its signal thread as if sent from
// outside: 'h' a reload (SIGHUP), anything else or the end of the stream a stop
// (SIGTERM). The account process cannot signal the front itself: without
// CAP_KILL, which the service does not keep, root may not signal another
// user's process.
void RelaySignals(int ctl) {
  std::thread([ctl] {
    for (;;) {
      char byte;
      ssize_t n = read(ctl, &byte, 1);
      if (n < 0 && errno == EINTR) continue;
      if (n == 1 && byte == 'h') {
        kill(getpid(), SIGHUP);
        continue;
      }
      kill(getpid(), SIGTERM);
      return;
    }
  }).detach();
}

}  // namespace

int ServeSplit(const std::string& user, LocalAccountOps& local, const sigset_t& signals,
               const FrontMain& front, const std::function<void()>& parent_started,
               const TlsReader& read_tls) {
  struct passwd* pw = getpwnam(user.c_str());
  if (pw == nullptr || pw->pw_uid == 0) {
    fprintf(stderr, "tavo serve: no unprivileged user %s for the front process\n", user.c_str());
    return kExitFailure;
  }
  const uid_t uid = pw->pw_uid;
  const gid_t gid = pw->pw_gid;
  PrivServer priv(local);
  priv.SetTlsReader(read_tls);
  Status s = priv.Listen();
  if (!s.ok()) {
    fprintf(stderr, "tavo serve: %s\n", s.message().c_str());
    return kExitFailure;
  }
  int go[2], ctl[2];
  if (pipe(go) != 0) return kExitFailure;
  // A socket pair rather than a pipe: each side's end is a descriptor of its
  // own, not a second handle on one pipe the other side holds too.
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ctl) != 0) {
    close(go[0]);
    close(go[1]);
    return kExitFailure;
  }
  fflush(stdout);
  fflush(stderr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) return kExitFailure;
  if (pid == 0) {
    // The front holds neither the grants' key nor the account process's
    // own descriptors.
    local.grants().Wipe();
    priv.CloseInChild();
    close(go[1]);
    close(ctl[1]);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    char byte;
    // Wait until the parent allows this process on the channel.
    if (read(go[0], &byte, 1) != 1) _exit(kExitFailure);
    close(go[0]);
    RelaySignals(ctl[0]);
    PrivClient client(priv.address());
    const TlsReader ask = [&client](std::string* cert, std::string* key) {
      Json::Value req(Json::objectValue), answer;
      req["op"] = "tls";
      if (!client.Ask(req, &answer)) return Status::Error("the account process did not answer");
      if (answer["result"] != "ok" || !answer["cert"].isString() || !answer["key"].isString())
        return Status::Error(answer["error"].isString() ? answer["error"].asString()
                                                        : "the account process refused");
      *cert = answer["cert"].asString();
      *key = answer["key"].asString();
      return Status::OK();
    };
    const auto drop = [uid, gid, parent] { return DropTo(uid, gid, parent); };
    const int code = front(client, drop, ask);
    fflush(stdout);
    fflush(stderr);
    _exit(code);
  }
  close(go[0]);
  close(ctl[0]);
  local.grants().Rekey();
  priv.AllowPeer(pid, uid);
  if (write(go[1], "g", 1) != 1) {
    kill(pid, SIGKILL);
  }
  close(go[1]);
  std::thread runner([&priv] { priv.Run(); });
  parent_started();
  std::atomic<bool> child_gone{false};
  std::thread forwarder([signals, &child_gone, ctl_out = ctl[1]] {
    for (;;) {
      int sig = 0;
      if (sigwait(&signals, &sig) != 0) continue;
      if (child_gone.load()) return;
      // 'h': the front reloads its certificate; 't': it stops.
      const char byte = sig == SIGHUP ? 'h' : 't';
      while (send(ctl_out, &byte, 1, MSG_NOSIGNAL) < 0 && errno == EINTR) {
      }
      if (sig != SIGHUP) return;
    }
  });
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  child_gone.store(true);
  pthread_kill(forwarder.native_handle(), SIGTERM);  // wakes the sigwait
  forwarder.join();
  close(ctl[1]);
  priv.Stop();
  runner.join();
  return WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailure;
}

}  // namespace tavo_server
