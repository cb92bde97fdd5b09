#include "src/ParamChecker.h"

#include <syslog.h>

namespace group_module {

bool BaseValidator::operator()(const TAVO::APIRequest& request, const std::string& name) {
  Json::Value value = request.GetParam(name, Json::Value());
  bool ok = (*this)(value);
  if (!ok) {
    syslog(LOG_DEBUG, "%s:%d '%s' is not %s", "src/ParamChecker.cpp", 159, name.c_str(),
           type_name_.c_str());
  }
  return ok;
}

BaseValidator::~BaseValidator() = default;

bool StringValidator::operator()(const Json::Value& value) const {
  return value.isConvertibleTo(Json::stringValue);
}

bool IntValidator::operator()(const Json::Value& value) const { return value.isInt(); }

bool UIntValidator::operator()(const Json::Value& value) const {
  return value.isInt() && value.asInt() >= 0;
}

bool BoolValidator::operator()(const Json::Value& value) const {
  if (value.isBool()) return true;
  if (!value.isString()) return false;
  const std::string text = value.asString();
  return text == "true" || text == "false";
}

bool ParamGroup::Add(const std::string& name, const ValidatorPtr& validator) {
  if (name.empty() || !validator) return false;
  names_.append(Json::Value(name));
  validators_.push_back(validator);
  return true;
}

void ParamChecker::Complain(const std::string& text) {
  if (!report_.isMember("wrong_param")) report_["wrong_param"] = Json::Value(Json::arrayValue);
  report_["wrong_param"].append(Json::Value(text));
}

bool ParamChecker::Check(const std::string& name, const ValidatorPtr& validator, bool optional) {
  if (request_->HasParam(name)) {
    if ((*validator)(*request_, name)) return true;
    Complain("'" + name + "' is not " + validator->TypeName());
    return false;
  }
  if (optional) return true;
  Complain("'" + name + "' is necessary");
  return false;
}

bool ParamChecker::CheckExclusion(const ParamGroup& group, bool optional) {
  int count = 0;
  bool ok = true;
  std::string all;
  std::string present;
  const Json::Value& names = group.Names();
  const std::vector<ValidatorPtr>& validators = group.Validators();
  for (Json::ArrayIndex i = 0; i < names.size() && i < validators.size(); ++i) {
    const std::string name = names[i].asString();
    if (i > 0) all += ",";
    all += name;
    if (!request_->HasParam(name)) continue;
    Json::Value value = request_->GetParam(name, Json::Value());
    const BaseValidator& validator = *validators[i];
    if (validator(value)) {
      if (count > 0) present += ",";
      present += name;
      ++count;
    } else {
      Complain("'" + name + "' is not " + validator.TypeName());
      ok = false;
    }
  }
  if (count >= 2) {
    Complain("'" + present + "' are conflict");
    return false;
  }
  if (optional || count == 1) return ok;
  Complain("One of '" + all + "' is necessary");
  return false;
}

void ParamChecker::ReportError(int code) {
  ValidatorPtr bool_validator(new BoolValidator("Bool"));
  bool debug = false;
  if (Check("enable_param_debug", bool_validator, true)) {
    debug = ConvertToBool(request_->GetParam("enable_param_debug", Json::Value()));
  }
  if (debug) {
    response_->SetSuccess(report_);
  } else {
    response_->SetError(code, Json::Value());
  }
}

bool ParamChecker::ConvertToBool(const Json::Value& value) {
  if (value.isBool()) return value.asBool();
  if (value.isString()) return value.asString() == "true";
  return false;
}

}  // namespace group_module
