// GroupHandler: carries one request of the group module from its parameters
// to its answer.
//
// An entry function builds one handler on its stack, calls exactly one of the
// operations (List ... CheckAdminMember) and destroys it. An operation reads
// its parameters from the request (already type-checked by the entry
// function), works through the platform's account interfaces, fills `result_`
// or sets `code_`, and always ends with Exit(), which writes the response once:
// the result on 3200, otherwise the code with no data.
//
// Locks: ShLock/ExLock take the handler lock on "/tmp/grouplock" (at most once
// per operation); it is never released by an operation and ends with the
// handler. LockFile takes a lock file such as "/tmp/userlock"; the operation
// that took it releases it with ServerFormHandler::UnlockFile on every path.
//
// Ownership: the request and response are not owned. Every platform object or
// buffer an operation obtains is released by that operation on every path.
// Thread-safety: a handler belongs to one request on one thread; it keeps no
// state between requests. Errors: integer API codes, never exceptions.
#ifndef TAVO_GROUP_SRC_GROUP_H_
#define TAVO_GROUP_SRC_GROUP_H_

#include <json/value.h>

#include <string>
#include <vector>

#include "tavo/api.h"
#include "tavo/group.h"
#include "tavo/handler.h"

namespace group_module {

// API result codes answered by the module.
enum ApiCode {
  kApiSuccess = 3200,
  kApiBadParam = 3201,
  kApiLockFailed = 3202,
  kApiDirectoryBusy = 3203,
  kApiNoUser = 3205,
  kApiExists = 3206,
  kApiReserved = 3207,
  kApiNoGroup = 3208,
  kApiLimit = 3209,
  kApiLastAdmin = 3210,
  kApiBadValue = 3211,
  kApiNotDeleted = 3212,
  kApiNotLocal = 3213,
  kApiLdapNotBound = 3214,
  kApiDomainNotJoined = 3215,
  kApiUsersFixed = 3216,
  kApiUnknown = 3299,
};

// Event-log identifiers written by the module.
enum EventId : unsigned int {
  kEventGroupDeleted = 0x11800600,
  kEventGroupCreated = 0x11800601,
  kEventGroupRenamed = 0x11800602,
  kEventGroupDescChanged = 0x11800603,
  kEventMemberAdded = 0x11800800,
  kEventMemberRemoved = 0x11800801,
};

// Service type reloaded after account changes.
constexpr int kReloadAccounts = 8;

class GroupHandler : public ServerFormHandler {
 public:
  GroupHandler(TAVO::APIRequest* request, TAVO::APIResponse* response);
  ~GroupHandler() override;

  int HandleLoadAction() override;
  int HandleApplyAction() override;
  // Take the handler lock; on failure log, set 3202 and return false.
  bool ExLock() override;
  bool ShLock() override;

  // The ten operations, one per method.
  void List();
  void Get();
  void Set();
  void Delete();
  void Create();
  void CheckAdminGroup();
  void ListMember();
  void AddMember();
  void RemoveMember();
  void CheckAdminMember();

  // Writes the response: result on 3200, else the code with null data.
  void Exit();
  // The API code for the platform's last error on this thread.
  int TranslateError() const;
  // Locks `path` (see ServerFormHandler::LockFile); on failure logs and, unless
  // an argument was null, sets 3202.
  bool LockFile(const char* path, bool flag, int* fd);
  // Resolves the target group from the parameter `name_param` or else "gid".
  // Null (with the code set) when it cannot be loaded; the caller releases it.
  SDK::Group* FetchTargetGroup(const std::string& name_param);
  // For member changes: takes the exclusive group lock, then the user lock
  // (into *fd), resolves the target from "group" or "gid" and refuses
  // directory groups (3213) and "users" (3216). Null with the code set on
  // failure; the caller releases *fd and the returned group.
  SDK::Group* LockChangeableGroup(int* fd);
  // Saves a membership change: on failure logs (with `save_log_line`) and sets
  // the translated code; on success writes one `event` entry per name in
  // `changed`, reloads the account services when there was any, and sets 3200.
  void SaveMembership(SDK::Group* group, const std::string& group_name,
                      const std::vector<std::string>& changed, EventId event, int save_log_line);

 private:
  TAVO::APIRequest* request_;
  TAVO::APIResponse* response_;
  int code_;
  Json::Value result_;
};

// Reads a parameter that may be one value or an array of values into `out` as
// an array; leaves `out` unchanged when the parameter is absent.
void GetArrayParam(TAVO::APIRequest* request, const std::string& name, Json::Value& out);
// Fills `out` with the group record {"name", "gid", "description"} of `gid`.
// False (and `out` untouched) when the group or its description cannot be read.
bool FillGroupByGid(unsigned int gid, Json::Value& out);
// Appends the names of the users given by uid (an array) to `names`; uids
// that load no user are skipped.
void AppendUidNames(const Json::Value& uids, Json::Value& names);
// True for a name in domain ("DOM\name") or directory ("name@dom") form.
bool IsDirectoryName(const std::string& name);
// 1 local, 2 domain, 8 directory, by the name's form.
int GroupKindOf(const std::string& name);
// Case-insensitive (Unicode) equality.
bool SameNameIgnoringCase(const std::string& a, const char* b);

}  // namespace group_module

#endif  // TAVO_GROUP_SRC_GROUP_H_
