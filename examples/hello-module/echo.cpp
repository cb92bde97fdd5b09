// TAVO.Example.Echo version 1: one method, "echo", that answers its text,
// repeated `times` times, and the account that called it.
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

// What the server's OpenAPI document says about the method.
const char kDescription[] = R"json({
  "format": 1,
  "methods": [{
    "api": "TAVO.Example.Echo", "version": 1, "method": "echo",
    "summary": "Answers the text, repeated, and who asked.",
    "params": {
      "type": "object",
      "properties": {
        "text": {"type": "string"},
        "times": {"type": "integer", "minimum": 1, "maximum": 10, "default": 1}
      },
      "required": ["text"],
      "example": {"text": "hello", "times": 2}
    },
    "answer": {
      "type": "object",
      "properties": {"text": {"type": "string"}, "account": {"type": "string"}},
      "required": ["text", "account"]
    },
    "errors": {"3201": "no text, or times outside 1..10"}
  }]
})json";

}  // namespace

extern "C" {

// The table the server loads: API, version, method, entry; then a zero row.
__attribute__((visibility("default"))) ApiTableRow gTable[] = {
    {"TAVO.Example.Echo", 1, "echo", Echo},
    {nullptr, 0, nullptr, nullptr},
};

__attribute__((visibility("default"))) ApiTableRow* GetAPITable(void) { return gTable; }

__attribute__((visibility("default"))) const char* GetAPIDescription(void) { return kDescription; }

}  // extern "C"
