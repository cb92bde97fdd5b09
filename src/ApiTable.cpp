// The module's exported API table and the ten method entry functions.
//
// An entry function checks the request's parameters in the method's order (the
// first failure ends checking and is answered with ReportError(3201)); when all
// pass it runs exactly one GroupHandler operation, which writes the answer.
// Only gTable and GetAPITable are visible outside the module.
#include <memory>

#include "src/Group.h"
#include "src/ParamChecker.h"
#include "tavo/api.h"

namespace group_module {
namespace {

using StringArrayValidator = ArrayValidator<StringValidator>;
using UIntArrayValidator = ArrayValidator<UIntValidator>;

ValidatorPtr MakeString() { return ValidatorPtr(new StringValidator("String")); }
ValidatorPtr MakeInt() { return ValidatorPtr(new IntValidator("Int")); }
ValidatorPtr MakeUInt() { return ValidatorPtr(new UIntValidator("UInt")); }
ValidatorPtr MakeBool() { return ValidatorPtr(new BoolValidator("Bool")); }
ValidatorPtr MakeStringArray() { return ValidatorPtr(new StringArrayValidator("Array", "String")); }
ValidatorPtr MakeUIntArray() { return ValidatorPtr(new UIntArrayValidator("Array", "UInt")); }

// A parameter given as one value or as an array: the array form is tried only
// when the scalar form failed; the scalar's complaint stays in the report.
bool CheckOneOrMany(ParamChecker& checker, const char* name, const ValidatorPtr& scalar,
                    const ValidatorPtr& array) {
  return checker.Check(name, scalar, true) || checker.Check(name, array, true);
}

// Runs `operation` in a handler of its own, or answers the parameter error.
void Finish(bool ok, ParamChecker& checker, TAVO::APIRequest* request, TAVO::APIResponse* response,
            void (GroupHandler::*operation)()) {
  if (!ok) {
    checker.ReportError(kApiBadParam);
    return;
  }
  GroupHandler handler(request, response);
  (handler.*operation)();
}

void GroupList(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  ValidatorPtr num = MakeInt();
  ValidatorPtr flag = MakeBool();
  bool ok = checker.Check("offset", num, true) && checker.Check("limit", num, true) &&
            checker.Check("type", str, true) && checker.Check("domain_name", str, true) &&
            checker.Check("user", str, true) && checker.Check("substr", str, true) &&
            checker.Check("name_only", flag, true);
  Finish(ok, checker, request, response, &GroupHandler::List);
}

// "name" then `id_name` ("gid" or "uid"), each one value or many.
void CheckNamesAndIds(TAVO::APIRequest* request, TAVO::APIResponse* response, const char* id_name,
                      void (GroupHandler::*operation)()) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  ValidatorPtr uint = MakeUInt();
  ValidatorPtr str_array = MakeStringArray();
  ValidatorPtr uint_array = MakeUIntArray();
  bool ok = CheckOneOrMany(checker, "name", str, str_array) &&
            CheckOneOrMany(checker, id_name, uint, uint_array);
  Finish(ok, checker, request, response, operation);
}

// get, delete and admin_check of groups.
void CheckNamesAndGids(TAVO::APIRequest* request, TAVO::APIResponse* response,
                       void (GroupHandler::*operation)()) {
  CheckNamesAndIds(request, response, "gid", operation);
}

void GroupGet(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckNamesAndGids(request, response, &GroupHandler::Get);
}

void GroupSet(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  ValidatorPtr uint = MakeUInt();
  ParamGroup target;
  target.Add("name", str);
  target.Add("gid", uint);
  bool ok = checker.CheckExclusion(target, false) && checker.Check("new_name", str, true) &&
            checker.Check("description", str, true);
  Finish(ok, checker, request, response, &GroupHandler::Set);
}

void GroupDelete(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckNamesAndGids(request, response, &GroupHandler::Delete);
}

void GroupCreate(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  bool ok = checker.Check("name", str, false) && checker.Check("description", str, true);
  Finish(ok, checker, request, response, &GroupHandler::Create);
}

void GroupAdminCheck(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckNamesAndGids(request, response, &GroupHandler::CheckAdminGroup);
}

void MemberList(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  ValidatorPtr uint = MakeUInt();
  ValidatorPtr num = MakeInt();
  ValidatorPtr flag = MakeBool();
  ParamGroup target;
  target.Add("group", str);
  target.Add("gid", uint);
  bool ok = checker.CheckExclusion(target, false) && checker.Check("offset", num, true) &&
            checker.Check("limit", num, true) && checker.Check("ingroup", flag, true) &&
            checker.Check("substr", str, true);
  Finish(ok, checker, request, response, &GroupHandler::ListMember);
}

// add and remove: the target group, then "name" and "uid", each one or many.
void CheckMemberChange(TAVO::APIRequest* request, TAVO::APIResponse* response,
                       void (GroupHandler::*operation)()) {
  ParamChecker checker(request, response);
  ValidatorPtr str = MakeString();
  ValidatorPtr uint = MakeUInt();
  ValidatorPtr str_array = MakeStringArray();
  ValidatorPtr uint_array = MakeUIntArray();
  ParamGroup target;
  target.Add("group", str);
  target.Add("gid", uint);
  bool ok = checker.CheckExclusion(target, false) &&
            CheckOneOrMany(checker, "name", str, str_array) &&
            CheckOneOrMany(checker, "uid", uint, uint_array);
  Finish(ok, checker, request, response, operation);
}

void MemberAdd(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckMemberChange(request, response, &GroupHandler::AddMember);
}

void MemberRemove(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckMemberChange(request, response, &GroupHandler::RemoveMember);
}

void MemberAdminCheck(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  CheckNamesAndIds(request, response, "uid", &GroupHandler::CheckAdminMember);
}

}  // namespace
}  // namespace group_module

extern "C" {

__attribute__((visibility("default"))) ApiTableRow gTable[] = {
    {"TAVO.Core.Group", 1, "list", group_module::GroupList},
    {"TAVO.Core.Group", 1, "get", group_module::GroupGet},
    {"TAVO.Core.Group", 1, "set", group_module::GroupSet},
    {"TAVO.Core.Group", 1, "delete", group_module::GroupDelete},
    {"TAVO.Core.Group", 1, "create", group_module::GroupCreate},
    {"TAVO.Core.Group", 1, "admin_check", group_module::GroupAdminCheck},
    {"TAVO.Core.Group.Member", 1, "list", group_module::MemberList},
    {"TAVO.Core.Group.Member", 1, "add", group_module::MemberAdd},
    {"TAVO.Core.Group.Member", 1, "remove", group_module::MemberRemove},
    {"TAVO.Core.Group.Member", 1, "admin_check", group_module::MemberAdminCheck},
    {nullptr, 0, nullptr, nullptr},
};

__attribute__((visibility("default"))) ApiTableRow* GetAPITable(void) { return gTable; }

}  // extern "C"
