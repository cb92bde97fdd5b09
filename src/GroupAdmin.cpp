// Operations that guard or report administrators: RemoveMember (with the
// last-administrator rule) and CheckAdminMember.
#include <syslog.h>

#include <vector>

#include "src/Group.h"
#include "src/JsonRead.h"
#include "tavo/error.h"
#include "tavo/user.h"

namespace group_module {

void GroupHandler::RemoveMember() {
  Json::Value names(Json::arrayValue);
  Json::Value uids(Json::arrayValue);
  int fd = -1;
  SDK::Group* group = nullptr;
  std::vector<std::string> removed;
  std::vector<std::string> held_back;
  std::string group_name;
  bool is_admin_group = false;

  const int valid_admins = TAVOGroupTotalValidLocalAdmin();
  if (valid_admins == 0) {
    syslog(LOG_ERR, "%s:%d Fail to get number of valid local admin [0x%04X %s:%d]", "src/Group.cpp",
           826, TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
  }
  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "uid", uids);
  if (names.empty() && uids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 832);
    code_ = kApiSuccess;
    goto end;
  }
  group = LockChangeableGroup(&fd);
  if (group == nullptr) goto end;
  group_name = group->GetName();
  is_admin_group = SameNameIgnoringCase(group_name, "administrators");
  AppendUidNames(uids, names);
  for (Json::ArrayIndex i = 0; i < names.size(); ++i) {
    const std::string name = JsonToString(names[i]);
    if (IsDirectoryName(name)) continue;
    if (is_admin_group &&
        (SameNameIgnoringCase(name, "admin") || SameNameIgnoringCase(name, "TavoCMS"))) {
      syslog(LOG_ERR, "%s:%d You can't remove %s from %s.", "src/Group.cpp", 869, name.c_str(),
             "administrators");
      continue;
    }
    if (!SDK::User::IsUserExist(name)) continue;
    if (!group->IsMember(name)) continue;
    if (is_admin_group && TAVOUserCheckExpired(name.c_str()) == 0) {
      held_back.push_back(name);
      continue;
    }
    group->RemoveMember(name);
    removed.push_back(name);
  }
  // Never leave the appliance without a valid local administrator. The rule is
  // applied to every group: a failed count refuses every removal.
  if (valid_admins <= static_cast<int>(held_back.size())) {
    code_ = kApiLastAdmin;
    goto end;
  }
  for (const std::string& name : held_back) {
    group->RemoveMember(name);
    removed.push_back(name);
  }
  SaveMembership(group, group_name, removed, kEventMemberRemoved, 890);
end:
  ServerFormHandler::UnlockFile(fd);
  if (group != nullptr) SDK::Group::Release(group);
  Exit();
}

void GroupHandler::CheckAdminMember() {
  int fd = -1;
  Json::Value names(Json::arrayValue);
  Json::Value uids(Json::arrayValue);
  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "uid", uids);
  if (names.empty() && uids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 921);
    code_ = kApiSuccess;
    goto end;
  }
  if (!ShLock()) goto end;
  if (!LockFile("/tmp/userlock", false, &fd)) goto end;
  AppendUidNames(uids, names);
  result_["users"] = Json::Value(Json::arrayValue);
  for (Json::ArrayIndex i = 0; i < names.size(); ++i) {
    const std::string name = JsonToString(names[i]);
    Json::Value entry;
    entry["name"] = name;
    entry["is_admin"] = TLIBGroupIsAdminGroupMem(name.c_str(), 0) == 1;
    result_["users"].append(entry);
  }
  code_ = kApiSuccess;
end:
  ServerFormHandler::UnlockFile(fd);
  Exit();
}

}  // namespace group_module
