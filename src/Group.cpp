// GroupHandler core: construction, answer, error translation, locks and the
// group lookups that several operations share.
#include "src/Group.h"

#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "src/JsonRead.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"
#include "tavo/service.h"
#include "tavo/user.h"
#include "tavo/util.h"

namespace group_module {

GroupHandler::GroupHandler(TAVO::APIRequest* request, TAVO::APIResponse* response)
    : ServerFormHandler("/tmp/grouplock"),
      request_(request),
      response_(response),
      code_(kApiUnknown),
      result_(Json::objectValue) {}

GroupHandler::~GroupHandler() = default;

int GroupHandler::HandleLoadAction() { return 0; }

int GroupHandler::HandleApplyAction() { return 0; }

bool GroupHandler::ExLock() {
  if (ServerFormHandler::ExLock()) return true;
  syslog(LOG_ERR, "%s:%d ExLock failed [0x%04X %s:%d]", "src/Group.cpp", 67, TLIBCErrGet(),
         TLIBCErrorGetFile(), TLIBCErrorGetLine());
  code_ = kApiLockFailed;
  return false;
}

bool GroupHandler::ShLock() {
  if (ServerFormHandler::ShLock()) return true;
  syslog(LOG_ERR, "%s:%d ShLock failed [0x%04X %s:%d]", "src/Group.cpp", 77, TLIBCErrGet(),
         TLIBCErrorGetFile(), TLIBCErrorGetLine());
  code_ = kApiLockFailed;
  return false;
}

bool GroupHandler::LockFile(const char* path, bool flag, int* fd) {
  if (fd == nullptr || path == nullptr) {
    syslog(LOG_ERR, "%s:%d Bad parameter", "src/Group.cpp", 85);
    return false;
  }
  if (ServerFormHandler::LockFile(path, flag, fd)) return true;
  syslog(LOG_ERR, "%s:%d LockFile(%s) failed [0x%04X %s:%d]", "src/Group.cpp", 91, path,
         TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
  code_ = kApiLockFailed;
  return false;
}

void GroupHandler::Exit() {
  if (code_ == kApiSuccess) {
    response_->SetSuccess(std::move(result_));
  } else {
    response_->SetError(code_, Json::Value());
  }
}

int GroupHandler::TranslateError() const {
  switch (TLIBCErrGet()) {
    case TAVO_ERR_EXISTS:
      return kApiExists;
    case TAVO_ERR_BAD_VALUE:
      return kApiBadValue;
    case TAVO_ERR_LOCK:
      return kApiLockFailed;
    case TAVO_ERR_NO_GROUP:
      return kApiNoGroup;
    case TAVO_ERR_NO_USER:
      return kApiNoUser;
    case TAVO_ERR_LIMIT:
      return kApiLimit;
    case TAVO_ERR_RESERVED:
      return kApiReserved;
    default:
      return kApiUnknown;
  }
}

bool IsDirectoryName(const std::string& name) {
  return name.find('\\') != std::string::npos || name.find('@') != std::string::npos;
}

int GroupKindOf(const std::string& name) {
  if (name.find('\\') != std::string::npos) return TAVO_GROUP_DOMAIN;
  if (name.find('@') != std::string::npos) return TAVO_GROUP_LDAP;
  return TAVO_GROUP_LOCAL;
}

bool SameNameIgnoringCase(const std::string& a, const char* b) {
  return TLIBCUnicodeUTF8StrCaseCmp(a.c_str(), b) == 0;
}

void GetArrayParam(TAVO::APIRequest* request, const std::string& name, Json::Value& out) {
  if (!request->HasParam(name)) return;
  Json::Value value = request->GetParam(name, Json::Value());
  if (value.isArray()) {
    out = value;
    return;
  }
  out = Json::Value(Json::arrayValue);
  out.append(value);
}

bool FillGroupByGid(unsigned int gid, Json::Value& out) {
  TAVO_GROUP* record = nullptr;
  char* description = nullptr;
  unsigned int size = 0;
  if (TAVOGroupGetByGID(gid, &record) < 0) {
    free(description);
    TAVOGroupFree(record);
    return false;
  }
  const char* name = record->name;
  if (name != nullptr && !IsDirectoryName(name)) {
    if (TAVOGroupDescGet(name, &description, &size) < 0) {
      free(description);
      TAVOGroupFree(record);
      return false;
    }
  }
  if (!out.isObject()) out = Json::Value(Json::objectValue);
  out["name"] = name ? name : "";
  out["gid"] = Json::Value(static_cast<Json::UInt>(record->gid));
  out["description"] = description ? description : "";
  free(description);
  TAVOGroupFree(record);
  return true;
}

void AppendUidNames(const Json::Value& uids, Json::Value& names) {
  for (Json::ArrayIndex i = 0; i < uids.size(); ++i) {
    SDK::User* user = SDK::User::LoadUser(static_cast<int>(JsonToUInt(uids[i])));
    if (user == nullptr) continue;
    names.append(Json::Value(user->GetName()));
    SDK::User::Release(user);
  }
}

SDK::Group* GroupHandler::FetchTargetGroup(const std::string& name_param) {
  std::string name = JsonToString(request_->GetParam(name_param, Json::Value("")));
  unsigned int gid = JsonToUInt(request_->GetParam("gid", Json::Value()));
  if (name.empty()) {
    Json::Value record(Json::objectValue);
    if (!FillGroupByGid(gid, record)) {
      syslog(LOG_ERR, "%s:%d Failed to fetch gid=%u [0x%04X %s:%d]", "src/Group.cpp", 158, gid,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      code_ = TranslateError();
      return nullptr;
    }
    name = JsonToString(record["name"]);
  }
  SDK::Group* group = SDK::Group::LoadGroup(name);
  if (group == nullptr) {
    syslog(LOG_ERR, "%s:%d Failed to load '%s'", "src/Group.cpp", 165, name.c_str());
    code_ = TranslateError();
  }
  return group;
}

SDK::Group* GroupHandler::LockChangeableGroup(int* fd) {
  if (!ExLock()) return nullptr;
  if (!LockFile("/tmp/userlock", false, fd)) return nullptr;
  SDK::Group* group = FetchTargetGroup("group");
  if (group == nullptr) return nullptr;
  const std::string name = group->GetName();
  if (GroupKindOf(name) != TAVO_GROUP_LOCAL) {
    code_ = kApiNotLocal;
  } else if (SameNameIgnoringCase(name, "users")) {
    code_ = kApiUsersFixed;
  } else {
    return group;
  }
  SDK::Group::Release(group);
  return nullptr;
}

void GroupHandler::SaveMembership(SDK::Group* group, const std::string& group_name,
                                  const std::vector<std::string>& changed, EventId event,
                                  int save_log_line) {
  if (!group->Save()) {
    syslog(LOG_ERR, "%s:%d Failed to save '%s' [0x%04X %s:%d]", "src/Group.cpp", save_log_line,
           group_name.c_str(), TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
    code_ = TranslateError();
    return;
  }
  for (const std::string& member : changed) {
    TAVOLogSet1(2, 1, event, group_name.c_str(), member.c_str(), "", "");
  }
  if (!changed.empty()) TLIBServiceTypeReload(kReloadAccounts);
  code_ = kApiSuccess;
}

}  // namespace group_module
