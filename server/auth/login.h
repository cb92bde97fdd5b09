// Login: checks an administrator's credentials, one account per name.
//
// A login name stands for one passwd entry (tavo/user.h: the exact spelling,
// else the only case variant; an ambiguous name stands for no one), and
// everything after works on that entry's stored name: the password, expiry
// and lock, membership of "administrators", and later each request's
// re-check. CheckLogin accepts an account whose password matches its stored
// hash, that is a local user, not expired or locked, and a member of
// "administrators".
//
// Every refusal is the same kDenied, and costs about one hash computation:
// when there is no usable hash to check (unknown, ambiguous or locked
// account), the password is checked against a dummy hash of the scheme and
// cost that new passwords get (ENCRYPT_METHOD and its cost in
// ROOT/etc/login.defs, else yescrypt at its default cost, as on Debian).
//
// Thread-safety: reentrant.
#ifndef TAVO_SERVER_LOGIN_H_
#define TAVO_SERVER_LOGIN_H_

#include <string>

namespace tavo_server {

enum class LoginResult {
  kOk,
  kDenied,       // any failure: the caller answers every one alike
  kUnavailable,  // the account files cannot be read: HTTP 500
};

struct LoginIdentity {
  std::string name;   // the account's stored spelling
  std::string stamp;  // changes when the account's password hash changes
  std::string grant;  // proof of the login from the side that checked it (privsep/)
};

LoginResult CheckLogin(const std::string& account, const std::string& password, LoginIdentity* who);

// Whether a logged-in account may still act: kOk while it could still log
// in (a local administrator, not expired, with a password that can match:
// not locked or empty) and its hash still has `stamp`; kDenied otherwise.
LoginResult RecheckLogin(const LoginIdentity& who);

// The crypt(3) setting ("$y$j9T$...", "$6$rounds=N$...") that passwords set
// under `login_defs` (the text of login.defs) would get; used for the dummy
// check. "" when no setting can be made.
std::string HashSettingFor(const std::string& login_defs);

}  // namespace tavo_server

#endif  // TAVO_SERVER_LOGIN_H_
