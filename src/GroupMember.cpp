// Membership operations: ListMember, AddMember, RemoveMember, CheckAdminMember.
#include <syslog.h>

#include <cstring>
#include <utility>
#include <vector>

#include "src/Group.h"
#include "src/JsonRead.h"
#include "src/ParamChecker.h"
#include "tavo/error.h"
#include "tavo/read_scope.h"
#include "tavo/szlist.h"
#include "tavo/user.h"
#include "tavo/util.h"

namespace group_module {

namespace {

constexpr int kUpperBufferSize = 492;

// Keys of the user entries, not copied into each entry.
const Json::StaticString kName("name");
const Json::StaticString kUid("uid");
const Json::StaticString kDescription("description");
const Json::StaticString kUsers("users");

// Appends {"name", "uid", "description"} of the user `name` to result["users"].
bool AppendUserRecord(const std::string& name, Json::Value& result) {
  SDK::User* user = SDK::User::LoadUser(name);
  if (user == nullptr) {
    syslog(LOG_ERR, "%s:%d User '%s' no exists, skip it", "src/Group.cpp", 596, name.c_str());
    return false;
  }
  Json::Value entry(Json::objectValue);
  entry[kName] = user->GetName();
  entry[kUid] = Json::Value(static_cast<Json::UInt>(user->GetUID()));
  entry[kDescription] = user->GetDesc();
  result[kUsers].append(std::move(entry));
  SDK::User::Release(user);
  return true;
}

// Per-user callback of the paged user enumerators; `context` is the result.
int AppendUserInfoCallback(const TLIB_USER_INFO* info, int /*index*/, void* context) {
  const char* name = info->name ? info->name : "";
  if (context == nullptr) {
    syslog(LOG_DEBUG, "%s:%d Pass NULL handler for '%s'", "src/Group.cpp", 579, name);
    return 0;
  }
  Json::Value& result = *static_cast<Json::Value*>(context);
  Json::Value entry(Json::objectValue);
  entry[kName] = name;
  entry[kUid] = Json::Value(static_cast<Json::UInt>(info->uid));
  entry[kDescription] = info->desc ? info->desc : "";
  result[kUsers].append(std::move(entry));
  return 0;
}

// The paging rule: counts a candidate and tells whether it is inside the page.
// The page's end is computed in 64 bits: offset + limit may exceed an int.
class Pager {
 public:
  Pager(int offset, int limit) : offset_(offset), limit_(limit) {}
  bool Next() {
    ++index_;
    ++count_;
    return offset_ <= index_ &&
           (limit_ == -1 || static_cast<long long>(index_) <
                                static_cast<long long>(offset_) + static_cast<long long>(limit_));
  }
  int count() const { return count_; }

 private:
  int offset_;
  int limit_;
  int index_ = -1;
  int count_ = 0;
};

// True when the upper-cased `member` contains the upper-cased `substr`.
bool MemberMatches(const std::string& member, const std::string& substr) {
  char upper_member[kUpperBufferSize] = {0};
  char upper_substr[kUpperBufferSize] = {0};
  if (TLIBCUnicodeUTF8StrUpper(member.c_str(), upper_member, kUpperBufferSize) < 0 ||
      TLIBCUnicodeUTF8StrUpper(substr.c_str(), upper_substr, kUpperBufferSize) < 0) {
    syslog(LOG_ERR, "%s:%d TLIBCUnicodeUTF8StrUpper failed [0x%04X %s:%d]", "src/Group.cpp", 615,
           TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
    return false;
  }
  return strstr(upper_member, upper_substr) != nullptr;
}

}  // namespace

void GroupHandler::ListMember() {
  const int offset = JsonToInt(request_->GetParam("offset", Json::Value("0")));
  const int limit = JsonToInt(request_->GetParam("limit", Json::Value("-1")));
  const std::string substr = JsonToString(request_->GetParam("substr", Json::Value("")));
  const bool ingroup =
      ParamChecker::ConvertToBool(request_->GetParam("ingroup", Json::Value(true)));
  int fd = -1;
  TLIBC_SZLIST* list = nullptr;
  SDK::Group* group = nullptr;
  std::string name;
  Pager pager(offset, limit);

  if (limit < -1 || offset < 0) {
    syslog(LOG_ERR, "%s:%d Bad parameter (offset=%d,limit=%d)", "src/Group.cpp", 633, offset,
           limit);
    code_ = kApiBadParam;
    goto end;
  }
  if (!ShLock()) goto end;
  if (!LockFile("/tmp/userlock", false, &fd)) goto end;
  group = FetchTargetGroup("group");
  if (group == nullptr) goto end;
  name = group->GetName();
  if (GroupKindOf(name) != TAVO_GROUP_LOCAL) {
    code_ = kApiNotLocal;
    goto end;
  }
  result_["users"] = Json::Value(Json::arrayValue);
  if (SameNameIgnoringCase(name, "users")) {
    if (!ingroup) {
      result_["total"] = 0;
      result_["users"] = Json::Value(Json::arrayValue);
    } else if (substr.empty()) {
      int total = TLIBUserInfoEnum(1, 0, offset, limit, AppendUserInfoCallback, &result_);
      if (total < 0) {
        syslog(LOG_ERR, "%s:%d TLIBUserInfoEnum failed [0x%04X %s:%d]", "src/Group.cpp", 657,
               TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
        code_ = TranslateError();
        goto end;
      }
      result_["total"] = total;
    } else {
      int total = TLIBUserInfoEnumBySubstr(1, 0, offset, limit, substr.c_str(), 1,
                                           AppendUserInfoCallback, &result_);
      if (total < 0) {
        syslog(LOG_ERR, "%s:%d TLIBUserInfoEnumBySubstr failed [0x%04X %s:%d]", "src/Group.cpp",
               663, TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
        code_ = TranslateError();
        goto end;
      }
      result_["total"] = total;
    }
  } else if (ingroup) {
    for (const std::string& member : group->GetMembers()) {
      if (!substr.empty() && !MemberMatches(member, substr)) continue;
      if (pager.Next()) AppendUserRecord(member, result_);
    }
    result_["total"] = pager.count();
  } else {
    // The local users who are not members, walked in the user list's order.
    list = TLIBCSzListAlloc(1024);
    if (list == nullptr) {
      syslog(LOG_ERR, "%s:%d TLIBCSzListAlloc failed [0x%04X %s:%d]", "src/Group.cpp", 691,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      goto end;
    }
    if (substr.empty() && TLIBUserEnum(&list, 1, 0) < 0) {
      syslog(LOG_ERR, "%s:%d TLIBUserEnum failed [0x%04X %s:%d]", "src/Group.cpp", 696,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      code_ = TranslateError();
      goto end;
    }
    if (!substr.empty() && TLIBUserEnumBySubstr(&list, 1, 0, substr.c_str(), 1) < 0) {
      syslog(LOG_ERR, "%s:%d TLIBUserEnumBySubstr failed [0x%04X %s:%d]", "src/Group.cpp", 702,
             TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
      code_ = TranslateError();
      goto end;
    }
    for (int i = 0; list != nullptr && i < list->count; ++i) {
      const char* user = list->items[i] ? list->items[i] : "";
      if (group->IsMember(user)) continue;
      if (pager.Next()) AppendUserRecord(user, result_);
    }
    result_["total"] = pager.count();
  }
  result_["offset"] = offset;
  code_ = kApiSuccess;
  // A local group's members or non-members come from the account files alone
  // (the users' names, UIDs and descriptions, the group, the UID range): the
  // server may give the page again while they stand.
  TavoAnswerReusable();
end:
  ServerFormHandler::UnlockFile(fd);
  TLIBCSzListFree(list);
  if (group != nullptr) SDK::Group::Release(group);
  Exit();
}

void GroupHandler::AddMember() {
  Json::Value names(Json::arrayValue);
  Json::Value uids(Json::arrayValue);
  int fd = -1;
  SDK::Group* group = nullptr;
  std::vector<std::string> added;
  std::string group_name;
  bool is_admin_group = false;

  GetArrayParam(request_, "name", names);
  GetArrayParam(request_, "uid", uids);
  if (names.empty() && uids.empty()) {
    syslog(LOG_DEBUG, "%s:%d Nothing to be done", "src/Group.cpp", 746);
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
    if (is_admin_group && SameNameIgnoringCase(name, "guest")) {
      syslog(LOG_ERR, "%s:%d You can't add %s to %s.", "src/Group.cpp", 783, name.c_str(),
             "administrators");
      continue;
    }
    if (!SDK::User::IsUserExist(name)) continue;  // also when the users cannot be read
    if (group->IsMember(name)) continue;
    group->AddMember(name);
    added.push_back(name);
  }
  SaveMembership(group, group_name, added, kEventMemberAdded, 792);
end:
  ServerFormHandler::UnlockFile(fd);
  if (group != nullptr) SDK::Group::Release(group);
  Exit();
}

}  // namespace group_module
