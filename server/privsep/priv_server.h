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
// them (not before, so that the process may fork between Listen and Run):
//  - kEventThreads event threads, each waiting in epoll on its share of the
//    connections. An event thread reads each request, and answers at once a
//    call that a kept answer answers (AccountOps::CallKept, which never
//    waits for a lock), so that under load one wake-up answers several;
//  - a pool of `max_busy` workers for everything else (module calls,
//    logins, the event log), so that a call waiting for a lock holds only
//    its own connection. While a worker has a connection, its event thread
//    does not watch it.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_
#define TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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
  void EventLoop(int index);
  // Reads one request of `fd`, readable, and answers it or hands it to a
  // worker; false when the connection is to be closed.
  bool OnReadable(int index, int fd, FrameReader* reader);
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
  int owned_[kEventThreads] = {};  // connections of each event thread
  int epoll_[kEventThreads] = {-1, -1};
  std::vector<std::thread> event_threads_;
  std::unique_ptr<WorkerPool> workers_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_SERVER_H_
