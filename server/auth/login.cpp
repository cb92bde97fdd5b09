#include "auth/login.h"

#include <crypt.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "tavo/read_scope.h"
#include "tavo/root.h"
#include "tavo/user.h"

namespace tavo_server {
namespace {

// The value of `key` in login.defs text ("" when absent).
std::string DefsValue(const std::string& text, const std::string& key) {
  std::istringstream in(text);
  std::string line, value;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string k, v;
    if (words >> k >> v && k == key) value = v;
  }
  return value;
}

long DefsNumber(const std::string& text, const std::string& key, long fallback) {
  const std::string v = DefsValue(text, key);
  char* end = nullptr;
  long n = v.empty() ? 0 : strtol(v.c_str(), &end, 10);
  return !v.empty() && end && *end == '\0' && n > 0 ? n : fallback;
}

std::string ReadLoginDefs() {
  std::ifstream in(tavo::TavoRootPath("/etc/login.defs"));
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A hash of `setting`'s scheme and cost, made once per setting kind.
std::string DummyHash(const std::string& setting) {
  static std::mutex mu;
  static std::map<std::string, std::string> made;  // scheme and cost -> hash
  const std::string kind = setting.substr(0, setting.rfind('$'));
  std::lock_guard<std::mutex> lock(mu);
  auto it = made.find(kind);
  if (it != made.end()) return it->second;
  auto data = std::make_unique<crypt_data>();
  const char* h = crypt_r("not a password", setting.c_str(), data.get());
  return made[kind] = (h != nullptr && h[0] != '*') ? h : "";
}

// Spends the time of checking `password` against a hash of the scheme in use.
void CheckAgainstDummyHash(const std::string& password) {
  const std::string hash = DummyHash(HashSettingFor(ReadLoginDefs()));
  if (hash.empty()) return;
  auto data = std::make_unique<crypt_data>();
  crypt_r(password.c_str(), hash.c_str(), data.get());
}

}  // namespace

std::string HashSettingFor(const std::string& login_defs) {
  std::string method = DefsValue(login_defs, "ENCRYPT_METHOD");
  for (char& c : method) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  std::string prefix = "$y$";
  unsigned long count =
      static_cast<unsigned long>(DefsNumber(login_defs, "YESCRYPT_COST_FACTOR", 5));
  if (method == "SHA512" || method == "SHA256") {
    prefix = method == "SHA512" ? "$6$" : "$5$";
    // Passwords get a round count between the minimum and the maximum.
    long lo = DefsNumber(login_defs, "SHA_CRYPT_MIN_ROUNDS", 0);
    long hi = DefsNumber(login_defs, "SHA_CRYPT_MAX_ROUNDS", 0);
    count = static_cast<unsigned long>(lo && hi ? (lo + hi) / 2 : lo ? lo : hi ? hi : 5000);
  } else if (method == "MD5") {
    prefix = "$1$";
    count = 0;
  } else if (method == "BCRYPT") {
    prefix = "$2b$";
    count = static_cast<unsigned long>(DefsNumber(login_defs, "BCRYPT_MIN_ROUNDS", 13));
  } else if (method == "DES") {
    prefix = "";
    count = 0;
  }
  std::unique_ptr<char, decltype(&free)> setting(
      crypt_gensalt_ra(prefix.empty() ? nullptr : prefix.c_str(), count, nullptr, 0), &free);
  return setting ? setting.get() : "";
}

LoginResult CheckLogin(const std::string& account, const std::string& password,
                       LoginIdentity* who) {
  if (account.empty() || account.size() > 256 || password.size() > 4096)
    return LoginResult::kDenied;
  tavo::UserIdentity id;
  const tavo::UserMatch match = tavo::ResolveUserName(account, &id);
  if (match == tavo::UserMatch::kFailed) return LoginResult::kUnavailable;
  if (match != tavo::UserMatch::kFound || !id.password_set) {
    CheckAgainstDummyHash(password);
    return LoginResult::kDenied;
  }
  const int ok = TAVOUserCheckPassword(id.name.c_str(), password.c_str());
  if (ok < 0) return LoginResult::kUnavailable;
  if (ok != 1 || !id.local || id.expired) return LoginResult::kDenied;
  if (TLIBGroupIsAdminGroupMem(id.name.c_str(), 0) != 1) return LoginResult::kDenied;
  who->name = id.name;
  who->stamp = id.stamp;
  return LoginResult::kOk;
}

LoginResult RecheckLogin(const LoginIdentity& who) {
  tavo::ReadScope scope;  // the lookups below look at the account files once
  tavo::UserIdentity id;
  const tavo::UserMatch match = tavo::ResolveUserName(who.name, &id);
  if (match == tavo::UserMatch::kFailed) return LoginResult::kUnavailable;
  // The stored name must still stand for the same spelling: a case variant
  // added since would make it ambiguous, and a rename would move it.
  if (match != tavo::UserMatch::kFound || id.name != who.name || !id.local || id.expired ||
      !id.password_set || id.stamp != who.stamp)
    return LoginResult::kDenied;
  return TLIBGroupIsAdminGroupMem(id.name.c_str(), 0) == 1 ? LoginResult::kOk
                                                           : LoginResult::kDenied;
}

}  // namespace tavo_server
