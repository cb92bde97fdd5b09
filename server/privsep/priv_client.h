// PrivClient: the front process's AccountOps, which asks the privileged
// process (priv_server.h) over the channel of priv_channel.h.
//
// It keeps the channel's connections open between requests, at most
// kChannelConnections, each carrying one request at a time. Calls that may
// wait for a module's lock use at most kChannelConnections -
// kReservedConnections of them, so that the calls that take no lock (the
// event log, the directory's status: TakesNoLock of api/dispatch.h) and the logins and
// session checks always find one. A caller of Call finding none it may use
// waits for one; CallLater does not wait: it sends the call and returns,
// and the channel's reader thread, which waits for the answers of every
// connection at once, hands the answer to the caller's `done`. A call
// started when no connection is free waits in a queue of at most kQueuedCalls
// and goes out on the first connection given back that it may use; its time
// limit runs from its start. A connection
// that fails, times out or brings an answer with another request's id is
// closed, never used again.
//
// Errors: when the other side cannot be reached or answers out of form,
// logins and re-checks give kUnavailable and calls `unavailable`.
// Ownership: closes its connections when destroyed; calls started and not
// answered by then are answered `unavailable`.
// Thread-safety: any thread, at once.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
#define TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "privsep/account_ops.h"

namespace tavo_server {

// Connections kept for the calls that take no lock, logins and checks.
constexpr int kReservedConnections = 4;
// Calls started (CallLater) that wait for a connection, at most.
constexpr size_t kQueuedCalls = 256;

class PrivClient : public AccountOps {
 public:
  // `address`: the abstract socket name of PrivServer::address(); each answer
  // must arrive within `timeout_ms` (module calls may wait for locks).
  explicit PrivClient(std::string address, int timeout_ms = 120000);
  ~PrivClient() override;
  PrivClient(const PrivClient&) = delete;
  PrivClient& operator=(const PrivClient&) = delete;

  LoginResult CheckLogin(const std::string& account, const std::string& password,
                         LoginIdentity* who) override;
  LoginResult Recheck(const LoginIdentity& who) override;
  Answer Call(const ApiCall& call, const LoginIdentity& who) override;
  bool CallLater(const ApiCall& call, const LoginIdentity& who, CallDone done) override;
  bool StartsCalls() const override { return can_start_; }
  void Logout(const LoginIdentity& who) override;
  Json::Value Info() override;
  Json::Value Stats() override;

  // Sends one JSON request and receives its JSON answer; false when that
  // fails.
  bool Ask(const Json::Value& request, Json::Value* answer);
  // Sends one request's body and receives its answer's body; false when that
  // fails. `may_wait`: a call that may wait for a lock.
  bool Exchange(std::string_view request, std::string* answer, bool may_wait = false);

  // Connections open now (busy or idle), for tests.
  int OpenConnections();

 private:
  // A call sent by CallLater whose answer has not come yet.
  struct Started {
    uint32_t id;
    bool may_wait;
    CallDone done;
    std::chrono::steady_clock::time_point deadline;
  };
  // A call started by CallLater that waits for a connection.
  struct Queued {
    std::string body;
    bool may_wait;
    CallDone done;
    std::chrono::steady_clock::time_point deadline;
  };
  using Clock = std::chrono::steady_clock;

  // An open connection, waiting for one if need be; -1 when none can be opened.
  int Checkout(bool may_wait);
  // Checkout without waiting, with mu_ held: an idle connection, or -2 when
  // one may be opened (open_ counts it already), or -1.
  int TakeLocked(bool may_wait);
  void Checkin(int fd, bool healthy, bool may_wait);
  // Sends a started call on `fd`, checked out for it; false (the connection
  // given back) when it cannot be sent.
  bool Send(int fd, std::string_view body, bool may_wait, CallDone* done,
            Clock::time_point deadline);
  // Sends the queued calls for which there is a connection now.
  void SendQueued();
  int Connect() const;
  // The reader thread: answers of started calls, and their time-outs.
  void ReadAnswers();
  void Answered(int fd);
  void ExpireStarted();

  const std::string address_;
  const int timeout_ms_;
  std::atomic<uint32_t> next_id_{1};
  std::mutex mu_;
  std::condition_variable free_;
  std::vector<int> idle_;                     // open connections no request uses
  int open_ = 0;                              // idle and busy
  int waiting_calls_ = 0;                     // busy with calls that may wait for a lock
  std::unordered_map<int, Started> started_;  // by connection; guarded by mu_
  std::deque<Queued> queued_;                 // guarded by mu_
  int epoll_fd_ = -1;
  int wake_fd_ = -1;  // an eventfd that stops the reader
  bool can_start_ = false;
  std::once_flag reader_started_;
  std::thread reader_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
