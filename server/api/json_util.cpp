#include "api/json_util.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace tavo_server {

bool ParseJson(const std::string& text, Json::Value* out) {
  // One reader per thread (a reader keeps no state between parses; building
  // one from its settings costs more than parsing a query parameter).
  thread_local std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = false;
    builder["allowSpecialFloats"] = false;
    builder["stackLimit"] = 256;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
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

namespace {

void AppendQuoted(std::string* out, const char* s, size_t n) {
  static const char kHex[] = "0123456789abcdef";
  out->push_back('"');
  size_t plain = 0;  // start of the bytes not yet copied
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out->append(s + plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"':
        out->append("\\\"");
        break;
      case '\\':
        out->append("\\\\");
        break;
      case '\b':
        out->append("\\b");
        break;
      case '\f':
        out->append("\\f");
        break;
      case '\n':
        out->append("\\n");
        break;
      case '\r':
        out->append("\\r");
        break;
      case '\t':
        out->append("\\t");
        break;
      default:
        out->append("\\u00");
        out->push_back(kHex[c >> 4]);
        out->push_back(kHex[c & 15]);
    }
  }
  out->append(s + plain, n - plain);
  out->push_back('"');
}

void AppendValue(std::string* out, const Json::Value& v) {
  switch (v.type()) {
    case Json::nullValue:
      out->append("null");
      break;
    case Json::intValue:
      out->append(Json::valueToString(v.asLargestInt()));
      break;
    case Json::uintValue:
      out->append(Json::valueToString(v.asLargestUInt()));
      break;
    case Json::realValue:
      out->append(Json::valueToString(v.asDouble()));
      break;
    case Json::booleanValue:
      out->append(v.asBool() ? "true" : "false");
      break;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      v.getString(&begin, &end);
      AppendQuoted(out, begin, static_cast<size_t>(end - begin));
      break;
    }
    case Json::arrayValue: {
      out->push_back('[');
      const Json::ArrayIndex size = v.size();
      for (Json::ArrayIndex i = 0; i < size; ++i) {
        if (i) out->push_back(',');
        AppendValue(out, v[i]);
      }
      out->push_back(']');
      break;
    }
    case Json::objectValue: {
      out->push_back('{');
      bool first = true;
      for (auto it = v.begin(); it != v.end(); ++it) {
        if (!first) out->push_back(',');
        first = false;
        const char* end = nullptr;
        const char* name = it.memberName(&end);
        AppendQuoted(out, name, static_cast<size_t>(end - name));
        out->push_back(':');
        AppendValue(out, *it);
      }
      out->push_back('}');
      break;
    }
  }
}

}  // namespace

std::string ToCompactJson(const Json::Value& value) {
  // What jsoncpp's stream writer writes with no indentation and UTF-8 kept
  // as it is, written into one string: the stream writer costs about as much
  // as the module call that made a page of groups.
  std::string out;
  out.reserve(4096);
  AppendValue(&out, value);
  return out;
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
