#include "src/JsonRead.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace group_module {

namespace {

// Parses a whole decimal integer (optional sign, surrounding blanks refused).
bool ParseLong(const std::string& text, long long* out) {
  if (text.empty()) return false;
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(begin, &end, 10);
  if (errno != 0 || end == begin || *end != '\0') return false;
  if (text[0] == ' ' || text[0] == '\t' || text[0] == '\n') return false;
  *out = v;
  return true;
}

}  // namespace

int JsonToInt(const Json::Value& value) {
  if (value.isInt()) return value.asInt();
  if (value.isBool()) return value.asBool() ? 1 : 0;
  if (value.isString()) {
    long long v = 0;
    if (ParseLong(value.asString(), &v) && v >= INT_MIN && v <= INT_MAX) return static_cast<int>(v);
  }
  return 0;
}

unsigned int JsonToUInt(const Json::Value& value) {
  if (value.isUInt()) return value.asUInt();
  if (value.isBool()) return value.asBool() ? 1u : 0u;
  if (value.isString()) {
    long long v = 0;
    if (ParseLong(value.asString(), &v) && v >= 0 && v <= static_cast<long long>(UINT_MAX)) {
      return static_cast<unsigned int>(v);
    }
  }
  return 0;
}

bool JsonToBool(const Json::Value& value) {
  if (value.isBool()) return value.asBool();
  if (value.isString()) {
    const std::string text = value.asString();
    if (text == "true") return true;
    if (text == "false") return false;
    long long v = 0;
    return ParseLong(text, &v) && v != 0;
  }
  if (value.isNumeric()) return value.asDouble() != 0.0;
  return false;
}

std::string JsonToString(const Json::Value& value) {
  if (value.isString()) return value.asString();
  if (value.isNull() || value.isArray() || value.isObject()) return "";
  if (value.isConvertibleTo(Json::stringValue)) return value.asString();
  return "";
}

}  // namespace group_module
