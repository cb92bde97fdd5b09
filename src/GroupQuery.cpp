// Reading group operations: List, Get and CheckAdminGroup.
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "src/Group.h"
#include "src/JsonRead.h"
#include "tavo/directory.h"
#include "tavo/error.h"
#include "tavo/read_scope.h"
#include "tavo/util.h"

namespace group_module {

namespace {

// What List hands to the group enumerator for its callback.
struct GroupListContext {
  bool name_only;
  std::string user;
  Json::Value* groups;  // the answer's "groups" array
};

// Keys of the entries, not copied into each entry.
const Json::StaticString kName("name");
const Json::StaticString kDescription("description");
const Json::StaticString kGid("gid");
const Json::StaticString kIsMember("is_member");

// Appends one group entry to the context's "groups"; -1 when the group's
// description cannot be read (the enumeration then fails).
int AppendGroupEntry(const TLIB_GROUP_INFO* record, int /*value*/, void* context) {
  GroupListContext* ctx = static_cast<GroupListContext*>(context);
  char* buffer = nullptr;
  unsigned int size = 0;
  const char* name = record->name ? record->name : "";
  Json::Value entry(Json::objectValue);
  entry[kName] = name;
  if (!ctx->name_only) {
    if (TAVOGroupDescGet(name, &buffer, &size) < 0) {
      free(buffer);
      return -1;
    }
    entry[kDescription] = buffer ? buffer : "";
    entry[kGid] = Json::Value(static_cast<Json::UInt>(record->gid));
  } else {
    entry[kDescription] = "";
  }
  if (!ctx->user.empty()) {
    bool member = strcmp(name, "users") == 0;
    for (const char* const* m = record->members; !member && m != nullptr && *m != nullptr; ++m)
      member = ctx->user == *m;
    entry[kIsMember] = member;
  }
  ctx->groups->append(std::move(entry));
  free(buffer);
  return 0;
}

}  // namespace

void GroupHandler::List() {
  const int offset = JsonToInt(request_->GetParam("offset", Json::Value("0")));
  const int limit = JsonToInt(request_->GetParam("limit", Json::Value("-1")));
  const std::string type = JsonToString(request_->GetParam("type", Json::Value("local")));
  const std::string substr = JsonToString(request_->GetParam("substr", Json::Value("")));
  const std::string domain_name = JsonToString(request_->GetParam("domain_name", Json::Value("")));
  const std::string user = JsonToString(request_->GetParam("user", Json::Value("")));
  const bool name_only = JsonToBool(request_->GetParam("name_only", Json::Value("true")));
  GroupListContext context{name_only, user, nullptr};
  int kind = TAVO_GROUP_LOCAL;
  int total = 0;

  if (limit < -1 || offset < 0) {
    syslog(LOG_DEBUG, "%s:%d Bad parameter (offset=%d,limit=%d)", "src/Group.cpp", 235, offset,
           limit);
    code_ = kApiBadParam;
    goto end;
  }
  if (type == "local") {
    kind = TAVO_GROUP_LOCAL;
  } else if (type == "ldap") {
    if (TAVOLDAPIsBinded(0) == 0) {
      code_ = kApiLdapNotBound;
      goto end;
    }
    kind = TAVO_GROUP_LDAP;
    if (!TLIBCFileExist("/usr/tavo/etc/private/ldap_group")) {
      code_ = kApiDirectoryBusy;
      goto end;
    }
  } else if (type == "domain") {
    if (TAVOWinsIsJoined() == 0) {
      code_ = kApiDomainNotJoined;
      goto end;
    }
    if (TLIBCReadPidFile("/tmp/domain_group.pid") >= 0 || TLIBCFileExist("/tmp/domain_updating")) {
      code_ = kApiDirectoryBusy;
      goto end;
    }
    kind = TAVO_GROUP_DOMAIN;
  } else {
    syslog(LOG_DEBUG, "%s:%d Bad parameter (type='%s')", "src/Group.cpp", 263, type.c_str());
    code_ = kApiBadParam;
    goto end;
  }
  if (!user.empty() && (user.find('\\') != std::string::npos ||
                        user.find('@') != std::string::npos || kind != TAVO_GROUP_LOCAL)) {
    syslog(LOG_ERR, "%s:%d 'user' filter is for local user/group only", "src/Group.cpp", 269);
    code_ = kApiBadParam;
    goto end;
  }
  if (!ShLock()) goto end;
  result_["groups"] = Json::Value(Json::arrayValue);
  context.groups = &result_["groups"];
  total = TLIBGroupInfoEnumBySubstr(kind, domain_name.c_str(), offset, limit, substr.c_str(), 1,
                                    AppendGroupEntry, &context);
  if (total < 0) {
    syslog(LOG_ERR, "%s:%d Failed to enum group [0x%04X %s:%d]", "src/Group.cpp", 280,
           TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
    goto end;
  }
  result_["offset"] = offset;
  result_["total"] = total;
  code_ = kApiSuccess;
  // A page of local groups comes from the group file, its descriptions and
  // the GID range alone: the server may give it again while they stand.
  if (kind == TAVO_GROUP_LOCAL) TavoAnswerReusable();
end:
  Exit();
}

void GroupHandler::Get() {
  Json::Value names(Json::arrayValue);
  Json::Value gids(Json::arrayValue);
  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "gid", gids);
  if (names.empty() && gids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 301);
    code_ = kApiSuccess;
    Exit();
    return;
  }
  if (!ShLock()) {
    Exit();
    return;
  }
  result_["groups"] = Json::Value(Json::arrayValue);
  result_["errors"] = Json::Value(Json::arrayValue);
  for (Json::ArrayIndex i = 0; i < names.size(); ++i) {
    const std::string name = JsonToString(names[i]);
    if (name.empty()) {
      syslog(LOG_ERR, "%s:%d Bad name[%d], skip it.", "src/Group.cpp", 314, static_cast<int>(i));
      continue;
    }
    Json::Value record;
    Json::Value error;
    char* buffer = nullptr;
    unsigned int size = 0;
    TAVO_GROUP* group = nullptr;
    bool found = false;
    if (TAVOGroupGet(name.c_str(), &group) >= 0) {
      const char* stored = group->name;
      if (stored == nullptr || IsDirectoryName(stored) ||
          TAVOGroupDescGet(stored, &buffer, &size) >= 0) {
        record["name"] = stored ? stored : "";
        record["gid"] = Json::Value(static_cast<Json::UInt>(group->gid));
        record["description"] = buffer ? buffer : "";
        found = true;
      }
    }
    free(buffer);
    TAVOGroupFree(group);
    if (found) {
      result_["groups"].append(record);
    } else {
      error["name"] = name;
      error["code"] = TranslateError();
      result_["errors"].append(error);
    }
  }
  for (Json::ArrayIndex j = 0; j < gids.size(); ++j) {
    const unsigned int gid = JsonToUInt(gids[j]);
    Json::Value record;
    Json::Value error;
    if (FillGroupByGid(gid, record)) {
      result_["groups"].append(record);
    } else {
      error["gid"] = Json::Value(static_cast<Json::UInt>(gid));
      error["code"] = TranslateError();
      result_["errors"].append(error);
    }
  }
  code_ = kApiSuccess;
  Exit();
}

void GroupHandler::CheckAdminGroup() {
  Json::Value names(Json::arrayValue);
  Json::Value gids(Json::arrayValue);
  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "gid", gids);
  if (names.empty() && gids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 537);
    code_ = kApiSuccess;
    Exit();
    return;
  }
  if (!ShLock()) {
    Exit();
    return;
  }
  for (Json::ArrayIndex j = 0; j < gids.size(); ++j) {
    const unsigned int gid = JsonToUInt(gids[j]);
    Json::Value record;
    if (!FillGroupByGid(gid, record)) {
      syslog(LOG_ERR, "%s:%d Failed to fetch gid=%u [0x%04X %s:%d]", "src/Group.cpp", 548, gid,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      continue;
    }
    names.append(Json::Value(JsonToString(record["name"])));
  }
  result_["groups"] = Json::Value(Json::arrayValue);
  for (Json::ArrayIndex i = 0; i < names.size(); ++i) {
    const std::string name = JsonToString(names[i]);
    Json::Value entry;
    if (name.empty()) {
      syslog(LOG_ERR, "%s:%d Bad name[%d], skip it.", "src/Group.cpp", 559, static_cast<int>(i));
      continue;
    }
    entry["name"] = name;
    entry["is_admin"] = TAVOGroupIsAdminGroup(name.c_str()) == 1;
    result_["groups"].append(entry);
  }
  code_ = kApiSuccess;
  Exit();
}

}  // namespace group_module
