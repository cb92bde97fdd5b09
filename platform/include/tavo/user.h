// Users: the user object (SDK::User) and the user database functions.
//
// Local users are the entries of ROOT/etc/passwd with UID_MIN <= uid <= UID_MAX
// (ROOT/etc/login.defs, defaults 1000 and 60000), except "nobody". Other
// accounts are system accounts and are invisible here. A name stands for one
// passwd entry: the one spelt exactly so, else the only one whose name equals
// it ignoring case; when several case variants match and none exactly, the
// name stands for no one. Every function here (membership of
// "administrators", expiry, the password check, the count of valid
// administrators) works on that one entry. Expiry comes from ROOT/etc/shadow.
//
// Thread-safety: every function may be called from any thread.
// Errors: failures return -1, false or null and set the error state (error.h).
#ifndef TAVO_USER_H_
#define TAVO_USER_H_

#include <memory>
#include <string>

#include "tavo/szlist.h"

// What the user-info enumerators hand to their callback. Valid only during the call.
struct TLIB_USER_INFO {
  const char* name;
  unsigned int uid;
  const char* desc;  // the GECOS comment ("" if none)
};
typedef int (*TLIB_USER_INFO_CB)(const TLIB_USER_INFO* info, int index, void* ctx);

extern "C" {

// Non-zero when the local user's account has expired (shadow expiry date in the
// past, or the account is locked with "!" or "*" in its password field), 0 when
// valid. An unknown user counts as expired (and sets TAVO_ERR_NO_USER).
int TAVOUserCheckExpired(const char* name);
// 1 when `user` is a member of "administrators", 0 when not, -1 on failure.
// A listed member counts for the passwd entry its name stands for, so a user
// is a member only when some listed name stands for that user's own entry.
// `flag` is reserved and must be 0.
int TLIBGroupIsAdminGroupMem(const char* user, int flag);
// Checks a password against the user's hash in ROOT/etc/shadow with crypt(3).
// 1 when it matches, 0 when it does not (also for a locked or empty hash or an
// unknown user), -1 when the files cannot be read. Any local or system account.
int TAVOUserCheckPassword(const char* name, const char* password);

// Fill *list (which may be grown and replaced) with the names of the local users
// ordered by name ignoring case; `type` 1 selects local users, `flag` is
// reserved (0). The BySubstr form keeps names containing `substr` (ignoring case
// when `match_flag` is 1). Returns the number of names added, or -1.
int TLIBUserEnum(TLIBC_SZLIST** list, int type, int flag);
int TLIBUserEnumBySubstr(TLIBC_SZLIST** list, int type, int flag, const char* substr,
                         int match_flag);

// Pages through the local users ordered by name ignoring case: skips `offset`,
// calls `cb` for at most `limit` (-1: all). Returns the number of all matching
// users, or -1 (also when the callback returns a negative value).
int TLIBUserInfoEnum(int type, int flag, int offset, int limit, TLIB_USER_INFO_CB cb, void* ctx);
int TLIBUserInfoEnumBySubstr(int type, int flag, int offset, int limit, const char* substr,
                             int match_flag, TLIB_USER_INFO_CB cb, void* ctx);

}  // extern "C"

namespace tavo {

enum class UserMatch { kFound, kUnknown, kAmbiguous, kFailed };

// What a login needs to know about the account a name stands for.
struct UserIdentity {
  std::string name;           // the stored spelling
  bool local = false;         // a local user (UID range, not "nobody")
  bool expired = true;        // as TAVOUserCheckExpired (always true when not local)
  bool password_set = false;  // the stored hash can match some password
  std::string stamp;          // changes whenever the stored hash changes
};

// Resolves `name` to one passwd entry (any account, system ones included) by
// the rule above. kFailed when the files cannot be read (error state set).
UserMatch ResolveUserName(const std::string& name, UserIdentity* out);

}  // namespace tavo

namespace SDK {

class User {
 public:
  // Null when there is no such local user (TAVO_ERR_NO_USER).
  static User* LoadUser(const std::string& name);
  static User* LoadUser(int uid);
  static bool IsUserExist(const std::string& name);
  // Accepts null.
  static void Release(User* user);

  std::string GetName() const;
  unsigned int GetUID() const;
  std::string GetDesc() const;

  User(const User&) = delete;
  User& operator=(const User&) = delete;
  ~User();

 private:
  struct Rep;
  explicit User(std::unique_ptr<Rep> rep);
  std::unique_ptr<Rep> rep_;
};

}  // namespace SDK

#endif  // TAVO_USER_H_
