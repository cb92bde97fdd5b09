// Web API framework: the request and response objects that a module's entry
// functions receive, and the layout of a module's exported API table.
//
// A request carries one JSON object of parameters. A response is written at
// most once by the module, through SetSuccess or SetError; the server (or the
// CLI) then turns it into the answer envelope.
//
// Thread-safety: one request and one response belong to one call on one
// thread; they are not shared between threads.
// Errors: nothing here throws on any JSON input.
#ifndef TAVO_API_H_
#define TAVO_API_H_

#include <json/value.h>

#include <string>

namespace TAVO {

class APIRequest {
 public:
  // `params` should be a JSON object; any other value is treated as an empty
  // object. `account` is the account that made the request ("" if unknown).
  explicit APIRequest(const Json::Value& params, std::string api = "", int version = 1,
                      std::string method = "", std::string account = "");

  // True when the parameter object has a member named `name`.
  bool HasParam(const std::string& name) const;
  // The member named `name`, or `def` when there is none. Returns a copy.
  Json::Value GetParam(const std::string& name, const Json::Value& def) const;

  const Json::Value& Params() const { return params_; }
  const std::string& Api() const { return api_; }
  int Version() const { return version_; }
  const std::string& Method() const { return method_; }
  const std::string& Account() const { return account_; }

 private:
  Json::Value params_;
  std::string api_;
  int version_;
  std::string method_;
  std::string account_;
};

class APIResponse {
 public:
  APIResponse();

  // Marks the call as successful; `data` is the method's answer.
  void SetSuccess(const Json::Value& data);
  // As above, taking over `data` without a copy.
  void SetSuccess(Json::Value&& data);
  // Marks the call as failed with an API error code. `data` is kept but the
  // envelope of a failure never carries it.
  void SetError(int code, const Json::Value& data);

  // How many times SetSuccess/SetError were called (a module writes once).
  int WriteCount() const { return writes_; }
  bool IsSuccess() const { return success_; }
  // 3200 after SetSuccess; the given code after SetError; 0 if never written.
  int Code() const { return code_; }
  const Json::Value& Data() const { return data_; }

  // {"success": true, "data": DATA} or {"success": false, "error": {"code": N}}.
  // A response that was never written yields code 3299.
  Json::Value Envelope() const;
  // The same envelope, taking over the data without a copy; the response
  // holds null data afterwards.
  Json::Value TakeEnvelope();

 private:
  bool success_ = false;
  int code_ = 0;
  int writes_ = 0;
  Json::Value data_;
};

}  // namespace TAVO

// One entry function per method. It must write `response` once.
typedef void (*MethodEntry)(TAVO::APIRequest* request, TAVO::APIResponse* response);

// One row of a module's exported table: four machine words. The table ends
// with a row whose four fields are all zero.
struct ApiTableRow {
  const char* api;
  long version;
  const char* method;
  MethodEntry entry;
};

// A module exports `extern "C" ApiTableRow gTable[]` and
// `extern "C" ApiTableRow* GetAPITable(void)`; this is the latter's type.
typedef ApiTableRow* (*GetAPITableFn)(void);
// Nothing else is exported. What the server's OpenAPI document says of each
// method (parameters, answer, error codes) is a JSON file installed beside
// the module, NAME.json for NAME.so (docs/modules.md gives the format).

#endif  // TAVO_API_H_
