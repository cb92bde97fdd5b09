// PrivClient: the front process's AccountOps, which asks the privileged
// process (priv_server.h) over the channel of priv_channel.h.
//
// It keeps the channel's connections open between requests, at most
// kChannelConnections, each carrying one request at a time; a caller finding
// all of them busy waits for one. A connection that fails, times out or
// brings an answer with another request's id is closed, never used again.
//
// Errors: when the other side cannot be reached or answers out of form,
// logins and re-checks give kUnavailable and calls `unavailable`.
// Ownership: closes its connections when destroyed.
// Thread-safety: any thread, at once.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
#define TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "privsep/account_ops.h"

namespace tavo_server {

class PrivClient : public AccountOps {
 public:
  // `address`: the abstract socket name of PrivServer::address(); each answer
  // must arrive within `timeout_ms` (module calls may wait for locks).
  explicit PrivClient(std::string address, int timeout_ms = 120000)
      : address_(std::move(address)), timeout_ms_(timeout_ms) {}
  ~PrivClient() override;
  PrivClient(const PrivClient&) = delete;
  PrivClient& operator=(const PrivClient&) = delete;

  LoginResult CheckLogin(const std::string& account, const std::string& password,
                         LoginIdentity* who) override;
  LoginResult Recheck(const LoginIdentity& who) override;
  Answer Call(const ApiCall& call, const LoginIdentity& who) override;
  void Logout(const LoginIdentity& who) override;
  Json::Value Info() override;
  Json::Value Stats() override;

  // Sends one JSON request and receives its JSON answer; false when that
  // fails.
  bool Ask(const Json::Value& request, Json::Value* answer);
  // Sends one request's body and receives its answer's body; false when that
  // fails.
  bool Exchange(std::string_view request, std::string* answer);

  // Connections open now (busy or idle), for tests.
  int OpenConnections();

 private:
  int Checkout();  // an open connection, or -1
  void Checkin(int fd, bool healthy);
  int Connect() const;

  const std::string address_;
  const int timeout_ms_;
  std::atomic<uint32_t> next_id_{1};
  std::mutex mu_;
  std::condition_variable free_;
  std::vector<int> idle_;  // open connections no request uses
  int open_ = 0;           // idle and busy
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
