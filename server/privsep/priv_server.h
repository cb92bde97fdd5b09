// PrivServer: the privileged side of the split server. It holds the account
// files and the modules (through an AccountOps) and answers the requests of
// one front process over the channel of priv_channel.h.
//
// A connection is served only when its peer, as the kernel reports it
// (SO_PEERCRED), is the allowed front process: same process id and user id.
// Any other peer, a malformed request or a frame that, once begun, takes
// longer than the read time to arrive is refused by closing the connection,
// and logged to syslog (LOG_WARNING), a refused peer with its process and
// user id.
//
// Ownership: `ops` must outlive the server. Thread-safety: Run on one thread,
// Stop from any. At most `max_busy` connections are served at once (further
// connections wait in the listen backlog). Run starts the threads that serve
// them (not before, so that the process may fork between Listen and Run),
// one pool of `max_busy` + kEventThreads:
//  - the connections are shared among kEventThreads epoll sets, each led by
//    one thread at a time. The leader reads each request of its set and
//    answers a call itself when it can do so without waiting: a kept answer
//    (AccountOps::CallKept, which never waits for a lock), or a call that
//    reads only the account files (AccountOps::CallsInline). Under load one
//    wake-up then answers several calls, and none passes between threads;
//  - should such a call come to a step that may wait (a lock held by
//    another, a write, a file read from disk: tavo/wait_notice.h), the
//    leader first hands its set to a thread of the pool, which leads it from
//    then on, and the call goes on as on a worker;
//  - everything else (other module calls, logins, the event log) runs on a
//    worker of the pool, so that a call waiting for a lock holds only its
//    own connection and thread.
// A connection whose request a thread other than the leader answers is not
// watched by its set meanwhile.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_
#define TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "api/status.h"
#include "http/worker_pool.h"
#include "privsep/account_ops.h"
#include "privsep/priv_channel.h"

namespace tavo_server {

class PrivServer {
 public:
  static constexpr int kEventThreads = 2;

  PrivServer(AccountOps& ops, int max_busy = kChannelConnections, int read_timeout_ms = 10000);
  ~PrivServer();  // stops, then waits for the calls under way
  PrivServer(const PrivServer&) = delete;
  PrivServer& operator=(const PrivServer&) = delete;

  // Listens on a fresh abstract address (address()).
  Status Listen();
  const std::string& address() const { return address_; }
  void AllowPeer(pid_t pid, uid_t uid);
  // How op "tls" reads the server's certificate and key (PEM) for the front,
  // which cannot read the files once it has dropped its rights; without a
  // reader the op is refused. Before Run.
  void SetTlsReader(std::function<Status(std::string* cert_pem, std::string* key_pem)> read);
  // Serves until Stop.
  void Run();
  void Stop();
  // In a child forked off the process that runs the server: closes the
  // child's copies of the listening socket and of the stop pipe, so that it
  // can neither accept connections meant for the server nor stop it.
  void CloseInChild();

  // The answer to a JSON request from an allowed peer; null when it is
  // malformed.
  Json::Value Answer(const Json::Value& request);
  // Runs a call request (call_frame.h): its answer's head in *head and its
  // envelope's text, if any, in *envelope. False when the request is
  // malformed.
  bool AnswerCall(const std::string& body, std::string* head,
                  std::shared_ptr<const std::string>* envelope);

 private:
  struct Handoff;
  // Leads epoll set `index` until Stop, or until a call made on this thread
  // may wait: another thread leads the set from then on.
  void Lead(int index);
  // The wait notice of a call made by a leader: hands the set to another
  // thread (h->handed), and leaves the call's connection unwatched meanwhile.
  void HandOff(Handoff* h);
  // Reads one request of `fd`, readable, and answers it or hands it to a
  // worker; false when the connection is to be closed.
  bool OnReadable(int index, int fd, FrameReader* reader, const Handoff& h);
  // The answer to a request (a call or JSON) in *head and *envelope; false
  // when it is malformed.
  bool AnswerRequest(const std::string& body, std::string* head,
                     std::shared_ptr<const std::string>* envelope);
  // Drops `fd` of event thread `index`.
  void Close(int index, int fd);
  void JoinThreads();

  AccountOps& ops_;
  std::function<Status(std::string*, std::string*)> read_tls_;
  const int max_busy_;
  const int read_timeout_ms_;
  std::string address_;
  int listen_fd_ = -1;
  int stop_pipe_[2] = {-1, -1};
  std::atomic<pid_t> peer_pid_{-1};
  std::atomic<uid_t> peer_uid_{static_cast<uid_t>(-1)};
  std::atomic<bool> stopping_{false};
  std::mutex mu_;
  std::condition_variable idle_;
  int busy_ = 0;
  std::unordered_set<int> open_;   // the connections served, for Stop
  int owned_[kEventThreads] = {};  // connections of each epoll set
  int epoll_[kEventThreads] = {-1, -1};
  // The readers of each set's connections: only its leader touches them.
  std::unordered_map<int, FrameReader> readers_[kEventThreads];
  std::unique_ptr<WorkerPool> workers_;  // the leaders and the workers
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_
