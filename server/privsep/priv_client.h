// PrivClient: the front process's AccountOps, which asks the privileged
// process (priv_server.h) over the channel of priv_channel.h, one connection
// per request.
//
// Errors: when the other side cannot be reached or answers out of form,
// logins and re-checks give kUnavailable and calls `unavailable`.
// Thread-safety: any thread, at once.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
#define TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_

#include <string>

#include "privsep/account_ops.h"

namespace tavo_server {

class PrivClient : public AccountOps {
 public:
  // `address`: the abstract socket name of PrivServer::address(); each answer
  // must arrive within `timeout_ms` (module calls may wait for locks).
  PrivClient(std::string address, int timeout_ms = 120000)
      : address_(std::move(address)), timeout_ms_(timeout_ms) {}

  LoginResult CheckLogin(const std::string& account, const std::string& password,
                         LoginIdentity* who) override;
  LoginResult Recheck(const LoginIdentity& who) override;
  Answer Call(const ApiCall& call, const LoginIdentity& who) override;
  void Logout(const LoginIdentity& who) override;
  Json::Value Info() override;
  Json::Value Stats() override;

  // Sends one request and receives its answer; false when that fails.
  bool Ask(const Json::Value& request, Json::Value* answer);

 private:
  const std::string address_;
  const int timeout_ms_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_CLIENT_H_
