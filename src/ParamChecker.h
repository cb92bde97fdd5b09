// Request parameter checking: typed validators, the checker that applies them
// in order, groups of alternative parameters, and the parameter-error answer.
//
// Validators look only at the JSON kind (and sign) of a value. A validator is
// created with `new`, owned through std::shared_ptr<BaseValidator>, and may be
// shared by several checks. A refused value is a false result plus a debug line
// in the system log; validators never throw and never write the response.
//
// ParamChecker collects complaints in a report {"wrong_param": [...]} and, when
// the caller gives up, answers the request with ReportError: an error with the
// code, or, when the request carries "enable_param_debug" = true (or "true"), a
// success whose data is the report.
//
// Ownership: the checker does not own the request or response. Thread-safety:
// checkers and validators belong to one request on one thread.
#ifndef TAVO_GROUP_SRC_PARAM_CHECKER_H_
#define TAVO_GROUP_SRC_PARAM_CHECKER_H_

#include <json/value.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <vector>

#include "tavo/api.h"

namespace group_module {

class BaseValidator {
 public:
  explicit BaseValidator(const std::string& type_name) : type_name_(type_name) {}
  // Value test: true when `value` has the expected kind.
  virtual bool operator()(const Json::Value& value) const = 0;
  // Parameter test: fetches `name` from the request and applies the value
  // test; a refusal is logged at debug priority.
  virtual bool operator()(const TAVO::APIRequest& request, const std::string& name);
  virtual ~BaseValidator();

  const std::string& TypeName() const { return type_name_; }

 private:
  const std::string type_name_;
};

// Strings and every scalar the JSON library converts to a string (null too).
class StringValidator : public BaseValidator {
 public:
  using BaseValidator::BaseValidator;
  using BaseValidator::operator();
  bool operator()(const Json::Value& value) const override;
};

// Integers that fit a signed 32-bit value.
class IntValidator : public BaseValidator {
 public:
  using BaseValidator::BaseValidator;
  using BaseValidator::operator();
  bool operator()(const Json::Value& value) const override;
};

// Integers that fit a signed 32-bit value and are not negative.
class UIntValidator : public BaseValidator {
 public:
  using BaseValidator::BaseValidator;
  using BaseValidator::operator();
  bool operator()(const Json::Value& value) const override;
};

// JSON booleans and the exact strings "true" and "false".
class BoolValidator : public BaseValidator {
 public:
  using BaseValidator::BaseValidator;
  using BaseValidator::operator();
  bool operator()(const Json::Value& value) const override;
};

// Arrays whose every element passes the element validator T (an empty array
// passes). Remembers the last parameter name it was asked about, for its log
// lines ("param" until then).
template <typename T>
class ArrayValidator : public BaseValidator {
 public:
  ArrayValidator(const std::string& type_name, const std::string& element_type_name)
      : BaseValidator(type_name), element_(element_type_name), param_name_("param") {}

  bool operator()(const Json::Value& value) const override {
    if (!value.isArray()) {
      syslog(LOG_DEBUG, "%s:%d '%s' is not %s", "src/ParamChecker.h", 103, param_name_.c_str(),
             "Array");
      return false;
    }
    for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
      if (!element_.T::operator()(value[i])) {
        syslog(LOG_DEBUG, "%s:%d Wrong type of '%s[%d]'", "src/ParamChecker.h", 108,
               param_name_.c_str(), static_cast<int>(i));
        return false;
      }
    }
    return true;
  }

  bool operator()(const TAVO::APIRequest& request, const std::string& name) override {
    Json::Value value = request.GetParam(name, Json::Value());
    param_name_ = name;
    return (*this)(value);
  }

 private:
  T element_;
  std::string param_name_;
};

using ValidatorPtr = std::shared_ptr<BaseValidator>;

// Alternatives of which exactly one is expected (a group by "name" or "gid").
class ParamGroup {
 public:
  ParamGroup() : names_(Json::arrayValue) {}
  // False (and nothing changes) when `name` is empty or `validator` null.
  bool Add(const std::string& name, const ValidatorPtr& validator);

  const Json::Value& Names() const { return names_; }
  const std::vector<ValidatorPtr>& Validators() const { return validators_; }

 private:
  Json::Value names_;
  std::vector<ValidatorPtr> validators_;
};

class ParamChecker {
 public:
  ParamChecker(TAVO::APIRequest* request, TAVO::APIResponse* response)
      : request_(request), response_(response), report_(Json::objectValue) {}

  // True when `name` is present and accepted, or absent and `optional`.
  bool Check(const std::string& name, const ValidatorPtr& validator, bool optional);
  // True when exactly one alternative is present and valid (or none and
  // `optional`), and no present alternative was refused.
  bool CheckExclusion(const ParamGroup& group, bool optional);
  // Writes the parameter-error answer (see the file comment).
  void ReportError(int code);
  // JSON true or the string "true" give true; everything else false.
  static bool ConvertToBool(const Json::Value& value);

  const Json::Value& Report() const { return report_; }

 private:
  void Complain(const std::string& text);

  TAVO::APIRequest* request_;
  TAVO::APIResponse* response_;
  Json::Value report_;
};

}  // namespace group_module

#endif  // TAVO_GROUP_SRC_PARAM_CHECKER_H_
