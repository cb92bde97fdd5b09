// Changing group operations: Set, Create and Delete.
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <deque>

#include "src/Group.h"
#include "src/JsonRead.h"
#include "tavo/conf.h"
#include "tavo/error.h"
#include "tavo/eventlog.h"
#include "tavo/service.h"
#include "tavo/util.h"

namespace group_module {

void GroupHandler::Set() {
  std::string new_name = JsonToString(request_->GetParam("new_name", Json::Value("")));
  const std::string description = JsonToString(request_->GetParam("description", Json::Value("")));
  std::string current;
  bool renamed = false;
  bool desc_changed = false;
  SDK::Group* group = nullptr;

  if (TLIBCUnicodeUTF8StrCaseCmp(new_name.c_str(), "users") == 0) {
    code_ = kApiReserved;
    goto end;
  }
  if (!ExLock()) goto end;
  group = FetchTargetGroup("name");
  if (group == nullptr) goto end;
  current = group->GetName();
  if (!new_name.empty() && new_name != current) {
    if (TLIBCUnicodeUTF8StrCaseCmp(current.c_str(), new_name.c_str()) != 0 &&
        SDK::Group::IsGroupExist(new_name)) {
      code_ = kApiExists;
      goto release;
    }
    group->SetName(new_name);
    renamed = true;
  }
  if (request_->HasParam("description")) desc_changed = group->GetDesc() != description;
  if (desc_changed) group->SetDesc(description);
  if (!group->Save()) {
    syslog(LOG_ERR, "%s:%d Failed to save '%s'->'%s' [0x%04X %s:%d]", "src/Group.cpp", 379,
           current.c_str(), new_name.c_str(), TLIBCErrGet(), TLIBCErrorGetFile(),
           TLIBCErrorGetLine());
    code_ = TranslateError();
    goto release;
  }
  if (renamed) {
    TAVOLogSet1(2, 1, kEventGroupRenamed, current.c_str(), new_name.c_str(), "", "");
    TLIBServiceTypeReload(kReloadAccounts);
  }
  if (desc_changed) {
    TAVOLogSet1(2, 1, kEventGroupDescChanged, current.c_str(), description.c_str(), "", "");
  }
  result_["name"] = group->GetName();
  result_["gid"] = Json::Value(static_cast<Json::UInt>(group->GetGID()));
  code_ = kApiSuccess;
release:
  SDK::Group::Release(group);
end:
  Exit();
}

void GroupHandler::Create() {
  const std::string name = JsonToString(request_->GetParam("name", Json::Value("")));
  const std::string description = JsonToString(request_->GetParam("description", Json::Value("")));
  TavoConf conf;
  SDK::Group* group = nullptr;
  int count = 0;
  long limit = 0;

  if (name.empty()) {
    code_ = kApiBadParam;
    goto end;
  }
  count = TAVOGroupTotalNum(1);
  limit = strtol(conf.Def("maxgroups", "128"), nullptr, 10);
  if (!(count < limit)) {
    code_ = kApiLimit;
    goto end;
  }
  if (!ExLock()) goto end;
  group = SDK::Group::CreateGroup(name);
  if (group == nullptr) {
    code_ = kApiExists;
    goto end;
  }
  group->SetDesc(description);
  if (!group->Save()) {
    syslog(LOG_ERR, "%s:%d Failed to save '%s' [0x%04X %s:%d]", "src/Group.cpp", 503, name.c_str(),
           TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
    code_ = TranslateError();
    SDK::Group::Release(group);
    goto end;
  }
  SDK::Group::Release(group);
  TAVOLogSet1(2, 1, kEventGroupCreated, name.c_str(), "", "", "");
  TLIBServiceTypeReload(kReloadAccounts);
  group = SDK::Group::LoadGroup(name);
  if (group == nullptr) {
    syslog(LOG_ERR, "%s:%d Failed to load '%s'", "src/Group.cpp", 513, name.c_str());
    code_ = TranslateError();
    goto end;
  }
  result_["name"] = group->GetName();
  result_["gid"] = Json::Value(static_cast<Json::UInt>(group->GetGID()));
  code_ = kApiSuccess;
  SDK::Group::Release(group);
end:
  Exit();
}

void GroupHandler::Delete() {
  Json::Value names(Json::arrayValue);
  Json::Value gids(Json::arrayValue);
  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "gid", gids);
  // The owned names; a deque keeps its elements in place as it grows, so the
  // pointers handed to the platform stay valid.
  std::deque<std::string> owned;
  const char** list = nullptr;
  int count = 0;
  bool deleted_any = false;

  if (names.empty() && gids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 415);
    code_ = kApiSuccess;
    goto end;
  }
  list = static_cast<const char**>(calloc(names.size() + gids.size(), sizeof(const char*)));
  if (list == nullptr) {
    syslog(LOG_ERR, "%s:%d calloc failed (%m)", "src/Group.cpp", 421);
    goto end;
  }
  if (!ExLock()) goto end;
  for (Json::ArrayIndex i = 0; i < names.size(); ++i) {
    std::string name = JsonToString(names[i]);
    if (name.empty()) {
      syslog(LOG_ERR, "%s:%d Bad name[%d], skip it.", "src/Group.cpp", 432, static_cast<int>(i));
      continue;
    }
    owned.push_back(name);
    list[count++] = owned.back().c_str();
  }
  for (Json::ArrayIndex j = 0; j < gids.size(); ++j) {
    const unsigned int gid = JsonToUInt(gids[j]);
    Json::Value record;
    if (!FillGroupByGid(gid, record)) {
      syslog(LOG_ERR, "%s:%d Failed to fetch gid=%u [0x%04X %s:%d]", "src/Group.cpp", 442, gid,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      continue;
    }
    owned.push_back(JsonToString(record["name"]));
    list[count++] = owned.back().c_str();
  }
  if (TAVOGroupDelete(list, count) < 0) {
    syslog(LOG_ERR, "%s:%d Failed to delete %d groups [0x%04X %s:%d]", "src/Group.cpp", 451, count,
           TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
    code_ = TranslateError();
    goto end;
  }
  if (count == 0) {
    code_ = kApiSuccess;
    goto end;
  }
  for (const std::string& name : owned) {
    if (SDK::Group::IsGroupExist(name)) {
      Json::Value error;
      error["name"] = name;
      error["code"] = kApiNotDeleted;
      result_["errors"].append(error);
    } else {
      TAVOLogSet1(2, 1, kEventGroupDeleted, name.c_str(), "", "", "");
      deleted_any = true;
    }
  }
  if (deleted_any) TLIBServiceTypeReload(kReloadAccounts);
  code_ = kApiSuccess;
end:
  free(list);
  Exit();
}

}  // namespace group_module
