// Tiny API modules for the loader and dispatch tests, one per TEST_MODULE_KIND:
//   1 good:       TAVO.Test v1 "echo" (answers its parameters and accounts),
//                 "throw_std" (throws std::runtime_error), "throw_other"
//                 (throws an int), "silent" (never writes its response)
//   2 no symbol:  exports no GetAPITable
//   3 null:       a row with a null method name
//   4 version:    a row with version 0
//   5 endless:    ModuleSet::kMaxRows + 1 valid rows and no terminator
//   6 duplicate:  claims TAVO.Test v1 "echo", which kind 1 provides
//   7 repeat:     one module listing the same method twice
//   8 baddesc:    describes a method that its table does not have
//   9 newabi:     needs libtavo.so.99, a platform ABI this server does not provide
#include <stdexcept>

#include "tavo/account.h"
#include "tavo/api.h"

namespace {

[[maybe_unused]] void Echo(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["params"] = request->Params();
  data["request_account"] = request->Account();
  data["thread_account"] = tavo::GetRequestAccount();
  response->SetSuccess(data);
}
[[noreturn, maybe_unused]] void ThrowStd(TAVO::APIRequest*, TAVO::APIResponse* response) {
  response->SetSuccess(Json::Value("half done"));
  throw std::runtime_error("test module failure");
}
[[noreturn, maybe_unused]] void ThrowOther(TAVO::APIRequest*, TAVO::APIResponse*) { throw 42; }
[[maybe_unused]] void Silent(TAVO::APIRequest*, TAVO::APIResponse*) {}

}  // namespace

#if TEST_MODULE_KIND == 5
static ApiTableRow gRows[4097];
extern "C" __attribute__((visibility("default"))) ApiTableRow* GetAPITable(void) {
  for (ApiTableRow& row : gRows) row = {"TAVO.Test.Endless", 1, "echo", &Echo};
  return gRows;
}
#elif TEST_MODULE_KIND != 2
static ApiTableRow gRows[] = {
#if TEST_MODULE_KIND == 1
    {"TAVO.Test", 1, "echo", &Echo},
    {"TAVO.Test", 1, "throw_std", &ThrowStd},
    {"TAVO.Test", 1, "throw_other", &ThrowOther},
    {"TAVO.Test", 1, "silent", &Silent},
#elif TEST_MODULE_KIND == 3
    {"TAVO.Test.Null", 1, "echo", &Echo},
    {"TAVO.Test.Null", 1, nullptr, &Echo},
#elif TEST_MODULE_KIND == 4
    {"TAVO.Test.Version", 0, "echo", &Echo},
#elif TEST_MODULE_KIND == 6
    {"TAVO.Test.Other", 1, "echo", &Echo},
    {"TAVO.Test", 1, "echo", &Echo},
#elif TEST_MODULE_KIND == 7
    {"TAVO.Test.Repeat", 1, "echo", &Echo},
    {"TAVO.Test.Repeat", 1, "echo", &ThrowStd},
#elif TEST_MODULE_KIND == 8
    {"TAVO.Test.Desc", 1, "echo", &Echo},
#elif TEST_MODULE_KIND == 9
    {"TAVO.Test.NewAbi", 1, "echo", &Echo},
#endif
    {nullptr, 0, nullptr, nullptr},
};
extern "C" __attribute__((visibility("default"))) ApiTableRow* GetAPITable(void) { return gRows; }
#else
extern "C" __attribute__((visibility("default"))) int NotTheTable(void) { return 0; }
#endif

#if TEST_MODULE_KIND == 9
extern "C" int FakeNewPlatform(void);
// Keeps the library's DT_NEEDED entry even under --as-needed.
extern "C" __attribute__((visibility("default"))) int UsesNewPlatform(void) {
  return FakeNewPlatform();
}
#endif
