// AccountOps: the work of the HTTP server that needs the account files or
// the modules, behind one interface, so that it can run in this process
// (LocalAccountOps) or in a separate privileged process (priv_client.h).
//
// Every call but CheckLogin names an account that logged in: its identity
// carries a grant, a MAC that only the side holding the account files can
// make (at a successful CheckLogin), so a front process that has been taken
// over cannot act for an account that never logged in through it.
//
// Thread-safety: implementations may be called from any thread at once.
#ifndef TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_
#define TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_

#include <json/value.h>

#include <string>

#include "api/answer_cache.h"
#include "api/dispatch.h"
#include "auth/login.h"

namespace tavo_server {

class AccountOps {
 public:
  virtual ~AccountOps() = default;
  // As ::CheckLogin; on success who->grant is set.
  virtual LoginResult CheckLogin(const std::string& account, const std::string& password,
                                 LoginIdentity* who) = 0;
  // As ::RecheckLogin, and kDenied for an identity without a valid grant.
  virtual LoginResult Recheck(const LoginIdentity& who) = 0;
  // Runs `call` for `who` after the same checks as Recheck; a refused identity
  // is answered with `denied` set, a failure to reach the other side with
  // `unavailable`.
  struct Answer {
    bool denied = false;
    bool unavailable = false;
    CallResult result;
  };
  virtual Answer Call(const ApiCall& call, const LoginIdentity& who) = 0;
  // The APIs and methods served (ModuleSet::Info).
  virtual Json::Value Info() = 0;
  // Figures of the side that holds the account files, for /metrics:
  // {"store": tavo::StoreStats as numbers, "directory": {"ldap"|"domain":
  // {"bound", "groups", "last_sync", "last_error_time"}}, "answers_reused": N}.
  // Holds no names.
  virtual Json::Value Stats() = 0;
};

// Stats() of the account files and directories of this process.
Json::Value LocalStats();

// Grants: HMAC-SHA256 over the identity's name and stamp under `key`.
std::string GrantFor(const std::string& key, const LoginIdentity& who);
bool GrantValid(const std::string& key, const LoginIdentity& who);

// Runs everything in this process over `modules` (which must outlive it).
// Answers that a module marked reusable are kept (answer_cache.h) and given
// again, after the same login check, while their files are unchanged: at
// most `kept_answers` of them (0: none).
class LocalAccountOps : public AccountOps {
 public:
  explicit LocalAccountOps(const ModuleSet& modules,
                           size_t kept_answers = AnswerCache::kDefaultEntries);
  LoginResult CheckLogin(const std::string& account, const std::string& password,
                         LoginIdentity* who) override;
  LoginResult Recheck(const LoginIdentity& who) override;
  Answer Call(const ApiCall& call, const LoginIdentity& who) override;
  Json::Value Info() override;
  Json::Value Stats() override;

 private:
  const ModuleSet& modules_;
  const std::string key_;  // drawn at start-up
  AnswerCache answers_;    // the answers kept for reuse
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_
