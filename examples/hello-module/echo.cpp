// TAVO.Example.Echo version 1: one method, "echo", that answers its text,
// repeated `times` times, and the account that called it. Its description
// for the OpenAPI document is TAVO.Example.Echo.json, installed beside it.
#include <tavo/api.h>

namespace {

void Echo(TAVO::APIRequest* request, TAVO::APIResponse* response) {
  Json::Value text = request->GetParam("text", Json::Value());
  Json::Value times = request->GetParam("times", 1);
  if (!text.isString() || !times.isInt() || times.asInt() < 1 || times.asInt() > 10) {
    response->SetError(3201, Json::Value());  // a parameter of the wrong type
    return;
  }
  std::string echoed;
  for (int i = 0; i < times.asInt(); ++i) echoed += text.asString();
  Json::Value data(Json::objectValue);
  data["text"] = echoed;
  data["account"] = request->Account();
  response->SetSuccess(data);
}

}  // namespace

extern "C" {

// The table the server loads: API, version, method, entry; then a zero row.
__attribute__((visibility("default"))) ApiTableRow gTable[] = {
    {"TAVO.Example.Echo", 1, "echo", Echo},
    {nullptr, 0, nullptr, nullptr},
};

__attribute__((visibility("default"))) ApiTableRow* GetAPITable(void) { return gTable; }

}  // extern "C"
