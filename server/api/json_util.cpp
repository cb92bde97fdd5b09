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

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t Utf8Length(const std::string& s, size_t i) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = b(i);
  if (c < 0x80) return 1;
  size_t n;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) lo = 0xA0;  // overlong
    if (c == 0xED) hi = 0x9F;  // surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) lo = 0x90;  // overlong
    if (c == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (i + n > s.size() || b(i + 1) < lo || b(i + 1) > hi) return 0;
  for (size_t k = 2; k < n; ++k)
    if (b(i + k) < 0x80 || b(i + k) > 0xBF) return 0;
  return n;
}

bool GoodText(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    if (s[i] == '\0') return false;
    size_t n = Utf8Length(s, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

}  // namespace

bool CheckText(const Json::Value& value, std::string* error) {
  if (value.isString()) {
    if (GoodText(value.asString())) return true;
    *error = "strings must be valid UTF-8 without NUL characters";
    return false;
  }
  if (value.isObject()) {
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!GoodText(it.name())) {
        *error = "member names must be valid UTF-8 without NUL characters";
        return false;
      }
      if (!CheckText(*it, error)) return false;
    }
  } else if (value.isArray()) {
    for (const Json::Value& item : value)
      if (!CheckText(item, error)) return false;
  }
  return true;
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
