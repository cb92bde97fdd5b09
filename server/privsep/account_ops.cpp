#include "privsep/account_ops.h"

#include "api/json_util.h"
#include "auth/random.h"
#include "directory/dir_status.h"
#include "tavo/read_scope.h"
#include "tavo/store_stats.h"

namespace tavo_server {
namespace {

// A method's name as the set of inline methods holds it, made in a buffer of
// the thread's own.
const std::string& InlineKey(const ApiCall& call) {
  thread_local std::string key;
  key.assign(call.api).append(1, '\n').append(std::to_string(call.version));
  key.append(1, '\n').append(call.method);
  return key;
}

}  // namespace

LocalAccountOps::LocalAccountOps(const ModuleSet& modules, size_t kept_answers,
                                 std::chrono::seconds session_lifetime, size_t max_grants,
                                 const ThrottleLimits& login_limits)
    : modules_(modules),
      grants_(session_lifetime, max_grants),
      limit_(login_limits),
      answers_(kept_answers) {}

LoginResult LocalAccountOps::CheckLogin(const std::string& account, const std::string& password,
                                        LoginIdentity* who) {
  // Refused unchecked when the account's tries come faster than allowed.
  if (!limit_.Begin(account)) return LoginResult::kDenied;
  LoginResult r = ::tavo_server::CheckLogin(account, password, who);
  if (r == LoginResult::kOk) {
    who->grant = grants_.Issue(*who);
    if (who->grant.empty()) r = LoginResult::kUnavailable;
  }
  if (r == LoginResult::kUnavailable) {
    limit_.Cancel(account);  // no password was judged
  } else {
    limit_.End(account, r == LoginResult::kOk);
  }
  return r;
}

LoginResult LocalAccountOps::Recheck(const LoginIdentity& who) {
  if (!grants_.Valid(who)) return LoginResult::kDenied;
  return RecheckLogin(who);
}

void LocalAccountOps::Logout(const LoginIdentity& who) { grants_.Revoke(who); }

// The check and the call see the account files at one point in time, and
// look at them once: both run within one ReadScope.
AccountOps::Answer LocalAccountOps::Call(const ApiCall& call, const LoginIdentity& who) {
  Answer a;
  tavo::ReadScope scope;
  const LoginResult r = Recheck(who);
  std::string key;
  if (r == LoginResult::kOk && answers_.enabled()) {
    key = ToCompactJson(call.params);
    if (answers_.Find(call, key, who.name, &a.result)) return a;
  }
  Finish(call, key, r, who, scope, &a);
  return a;
}

bool LocalAccountOps::CallText(ApiCall* call, const std::string& params_text,
                               const LoginIdentity& who, Answer* a) {
  tavo::ReadScope scope;
  const LoginResult r = Recheck(who);
  if (r == LoginResult::kOk && answers_.Find(*call, params_text, who.name, &a->result)) return true;
  // Text that was kept had been read once already; any other is read before
  // it is answered, even when the login is refused.
  if (!ParamsFromText(params_text, &call->params)) return false;
  Finish(*call, params_text, r, who, scope, a);
  return true;
}

bool LocalAccountOps::CallKept(const ApiCall& call, const std::string& params_text,
                               const LoginIdentity& who, Answer* a) {
  if (!answers_.enabled()) return false;
  tavo::ReadScope scope;
  return Recheck(who) == LoginResult::kOk && answers_.Find(call, params_text, who.name, &a->result);
}

void LocalAccountOps::Finish(const ApiCall& call, std::string_view key, LoginResult checked,
                             const LoginIdentity& who, const tavo::ReadScope& scope, Answer* a) {
  if (checked != LoginResult::kOk) {
    a->denied = checked == LoginResult::kDenied;
    a->unavailable = checked == LoginResult::kUnavailable;
    return;
  }
  a->result = Dispatch(modules_, call, who.name);
  std::shared_ptr<const tavo::ReadSet> reads = scope.Reads();
  if (reads) {
    std::lock_guard<std::mutex> lock(inline_mu_);
    inline_.insert(InlineKey(call));
  }
  answers_.Store(call, key, who.name, &a->result, std::move(reads));
}

bool LocalAccountOps::CallsInline(const ApiCall& call) {
  std::lock_guard<std::mutex> lock(inline_mu_);
  return !inline_.empty() && inline_.count(InlineKey(call)) != 0;
}

Json::Value LocalAccountOps::Info() { return modules_.Info(); }

Json::Value LocalAccountOps::Stats() {
  Json::Value out = LocalStats();
  out["answers_reused"] = static_cast<Json::UInt64>(answers_.hits());
  return out;
}

Json::Value LocalStats() {
  Json::Value out(Json::objectValue);
  const tavo::StoreStats s = tavo::GetStoreStats();
  Json::Value& store = out["store"];
  store["commits"] = static_cast<Json::UInt64>(s.commits);
  store["failed_commits"] = static_cast<Json::UInt64>(s.failed_commits);
  store["files_written"] = static_cast<Json::UInt64>(s.files_written);
  store["fsyncs"] = static_cast<Json::UInt64>(s.fsyncs);
  store["fsync_ns"] = static_cast<Json::UInt64>(s.fsync_ns);
  for (tavo_dir::Kind kind : {tavo_dir::Kind::kLdap, tavo_dir::Kind::kDomain}) {
    Json::Value& d = out["directory"][tavo_dir::KindName(kind)];
    tavo_dir::Binding b;
    std::string error;
    const tavo_dir::SyncState st = tavo_dir::ReadSyncState(kind);
    d["bound"] = tavo_dir::ReadBinding(kind, &b, &error);
    d["groups"] = static_cast<Json::Int64>(st.groups);
    d["last_sync"] = static_cast<Json::Int64>(st.last_sync);
    d["last_error_time"] = static_cast<Json::Int64>(st.last_error_time);
  }
  return out;
}

}  // namespace tavo_server
