// AccountOps: the work of the HTTP server that needs the account files or
// the modules, behind one interface, so that it can run in this process
// (LocalAccountOps) or in a separate privileged process (priv_client.h).
//
// Every call but CheckLogin names an account that logged in: its identity
// carries a grant (grant_book.h) that only the side holding the account
// files can make, at a successful CheckLogin, and that ends with the session
// (Logout, or the session's lifetime). So a front process that has been taken
// over cannot act for an account that never logged in through it, nor keep
// acting for one that logged out. That side also limits password checks per
// account on its own (login_limit.h).
//
// Thread-safety: implementations may be called from any thread at once.
#ifndef TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_
#define TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_

#include <json/value.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>

#include "api/answer_cache.h"
#include "api/dispatch.h"
#include "auth/login.h"
#include "privsep/grant_book.h"
#include "privsep/login_limit.h"
#include "tavo/read_scope.h"

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
  // As Call, for a call whose parameters are still the compact JSON text it
  // arrived with (call->params is not read). An implementation may answer
  // without reading them: a refused identity, or an answer kept for the same
  // text. False, with *a untouched, when the text is not a JSON object of
  // checked text (ParamsFromText); call->params may then hold anything.
  virtual bool CallText(ApiCall* call, const std::string& params_text, const LoginIdentity& who,
                        Answer* a) {
    if (!ParamsFromText(params_text, &call->params)) return false;
    *a = Call(*call, who);
    return true;
  }
  // A kept answer to the call of CallText, given without reading the
  // parameters and without waiting for a lock: true with *a set when there
  // is one for `who`, whose login passes the checks of Recheck; false when
  // the call must be made (CallText).
  virtual bool CallKept(const ApiCall& call, const std::string& params_text,
                        const LoginIdentity& who, Answer* a) {
    (void)call, (void)params_text, (void)who, (void)a;
    return false;
  }
  // Whether `call` may be made (CallText) on a thread that serves other
  // connections as well, rather than on a worker: only a call that reads
  // nothing but the account files, and whose every step that may wait the
  // platform announces (tavo/wait_notice.h), so that the thread can hand its
  // other connections on first.
  virtual bool CallsInline(const ApiCall& call) {
    (void)call;
    return false;
  }
  // Starts `call` without blocking and returns true; `done` then runs once,
  // on a thread of the implementation's, with the answer Call would give.
  // `done` must not block (it must not call this interface). False, with
  // nothing started, when it cannot start without blocking (or the
  // implementation runs calls where they are asked): use Call then.
  using CallDone = std::function<void(Answer)>;
  // Whether CallLater may start calls at all.
  virtual bool StartsCalls() const { return false; }
  virtual bool CallLater(const ApiCall& call, const LoginIdentity& who, CallDone done) {
    (void)call, (void)who, (void)done;
    return false;
  }
  // Ends the grant of `who` (a logout, or a session dropped by the front).
  virtual void Logout(const LoginIdentity& who) = 0;
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

// Runs everything in this process over `modules` (which must outlive it).
// Answers that a module marked reusable are kept (answer_cache.h) and given
// again, after the same login check, while their files are unchanged: at
// most `kept_answers` of them (0: none). A grant lives at most
// `session_lifetime`, and at most `max_grants` live at once; password checks
// are limited as `login_limits` says (its window, free failures and delays).
class LocalAccountOps : public AccountOps {
 public:
  explicit LocalAccountOps(const ModuleSet& modules,
                           size_t kept_answers = AnswerCache::kDefaultEntries,
                           std::chrono::seconds session_lifetime = std::chrono::hours(8),
                           size_t max_grants = 1024,
                           const ThrottleLimits& login_limits = ThrottleLimits());
  LoginResult CheckLogin(const std::string& account, const std::string& password,
                         LoginIdentity* who) override;
  LoginResult Recheck(const LoginIdentity& who) override;
  Answer Call(const ApiCall& call, const LoginIdentity& who) override;
  // A kept answer is looked up by the text itself, so that a reused answer
  // costs no parse of the parameters.
  bool CallText(ApiCall* call, const std::string& params_text, const LoginIdentity& who,
                Answer* a) override;
  bool CallKept(const ApiCall& call, const std::string& params_text, const LoginIdentity& who,
                Answer* a) override;
  // True for a method whose answer has been made from the account files
  // alone (a read set, read_scope.h) at least once: such a method reads
  // through the platform only, which announces its waits. Another method,
  // or one of another module that may wait unannounced, goes to a worker.
  bool CallsInline(const ApiCall& call) override;
  void Logout(const LoginIdentity& who) override;
  Json::Value Info() override;
  Json::Value Stats() override;

  // The grants: a split server rekeys them in its privileged process after
  // the fork and wipes them in the front (grant_book.h).
  GrantBook& grants() { return grants_; }

 private:
  const ModuleSet& modules_;
  GrantBook grants_;
  LoginLimit limit_;
  AnswerCache answers_;  // the answers kept for reuse
  std::mutex inline_mu_;
  std::unordered_set<std::string> inline_;  // InlineKey of the methods CallsInline allows

  // Call and CallText after the login check and a miss in the kept answers:
  // the refusal, or the module's answer, kept under `key` (the parameters'
  // text) when it may be.
  void Finish(const ApiCall& call, std::string_view key, LoginResult checked,
              const LoginIdentity& who, const tavo::ReadScope& scope, Answer* a);
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_ACCOUNT_OPS_H_
