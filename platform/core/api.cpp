// Request and response objects of the web API framework.
#include "tavo/api.h"

#include <utility>

namespace TAVO {
namespace {

constexpr int kCodeSuccess = 3200;
constexpr int kCodeUnwritten = 3299;

}  // namespace

APIRequest::APIRequest(const Json::Value& params, std::string api, int version, std::string method,
                       std::string account)
    : params_(params.isObject() ? params : Json::Value(Json::objectValue)),
      api_(std::move(api)),
      version_(version),
      method_(std::move(method)),
      account_(std::move(account)) {}

// params_ is always an object (see the constructor), so isMember and get
// never throw.
bool APIRequest::HasParam(const std::string& name) const { return params_.isMember(name); }

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& def) const {
  const Json::Value* found = params_.find(name.data(), name.data() + name.size());
  return found ? *found : def;
}

APIResponse::APIResponse() = default;

void APIResponse::SetSuccess(const Json::Value& data) {
  success_ = true;
  code_ = kCodeSuccess;
  data_ = data;
  ++writes_;
}

void APIResponse::SetSuccess(Json::Value&& data) {
  success_ = true;
  code_ = kCodeSuccess;
  data_ = std::move(data);
  ++writes_;
}

void APIResponse::SetError(int code, const Json::Value& data) {
  success_ = false;
  code_ = code;
  data_ = data;
  ++writes_;
}

Json::Value APIResponse::Envelope() const {
  Json::Value env(Json::objectValue);
  if (writes_ > 0 && success_) {
    env["success"] = true;
    env["data"] = data_;
    return env;
  }
  env["success"] = false;
  env["error"] = Json::Value(Json::objectValue);
  env["error"]["code"] = writes_ > 0 ? code_ : kCodeUnwritten;
  return env;
}

Json::Value APIResponse::TakeEnvelope() {
  if (writes_ == 0 || !success_) return Envelope();
  Json::Value env(Json::objectValue);
  env["success"] = true;
  env["data"] = std::move(data_);
  data_ = Json::Value();
  return env;
}

}  // namespace TAVO
