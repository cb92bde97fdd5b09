#include "json_util.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace tavo_server {

bool ParseJson(const std::string& text, Json::Value* out) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = false;
  builder["allowSpecialFloats"] = false;
  builder["stackLimit"] = 256;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return false;
  } catch (...) {
    // jsoncpp throws when the nesting is deeper than stackLimit.
    return false;
  }
  *out = std::move(value);
  return true;
}

Json::Value ValueFromText(const std::string& text) {
  Json::Value parsed;
  if (!text.empty() && ParseJson(text, &parsed)) return parsed;
  return Json::Value(text);
}

std::string ToCompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

std::string ToPrettyJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

bool JsonToInt(const Json::Value& value, int* out) {
  if (value.isInt()) {
    *out = value.asInt();
    return true;
  }
  if (value.isDouble() || value.isUInt() || value.isInt64() || value.isUInt64()) {
    if (!value.isConvertibleTo(Json::intValue)) return false;
    double d = value.asDouble();
    if (d != static_cast<double>(static_cast<long long>(d))) return false;
    *out = value.asInt();
    return true;
  }
  if (!value.isString()) return false;
  const std::string s = value.asString();
  if (s.empty() || s.size() > 12) return false;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(s.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace tavo_server
