// Fuzz target: the decoding of what clients send besides the envelope — GET
// query values (read as JSON when they parse, else as text), the login body,
// the version field, and the text check of every string.
//
// Input: a selector byte, then the text. Properties checked:
//  - ValueFromText gives the parse when the text is JSON, else the text itself;
//  - a parsed value written compactly parses back to an equal value;
//  - CheckText accepts exactly the values whose strings and member names are
//    all valid UTF-8 without NUL (checked against the platform's own UTF-8
//    test, a separate implementation);
//  - JsonToInt on decimal text agrees with the number it spells;
//  - an accepted envelope has non-empty api and method, version >= 1 and an
//    object of parameters;
//  - a call frame from the front (privsep/call_frame.h) is accepted only
//    with the same checks and good text, and written again it decodes to
//    the same call.
#include <json/value.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "accounts/snapshot/names.h"
#include "api/dispatch.h"
#include "api/json_util.h"
#include "fuzz/fuzz_root.h"
#include "privsep/call_frame.h"

using tavo_fuzz::Fail;
namespace ts = tavo_server;

namespace {

bool AllTextGood(const Json::Value& v) {
  auto good = [](const std::string& s) {
    return s.find('\0') == std::string::npos && tavo::acct::IsValidUtf8(s);
  };
  if (v.isString()) return good(v.asString());
  if (v.isObject()) {
    for (auto it = v.begin(); it != v.end(); ++it)
      if (!good(it.name()) || !AllTextGood(*it)) return false;
  } else if (v.isArray()) {
    for (const Json::Value& item : v)
      if (!AllTextGood(item)) return false;
  }
  return true;
}

void CheckValue(const Json::Value& v) {
  Json::Value back;
  if (!ts::ParseJson(ts::ToCompactJson(v), &back) ||
      ts::ToCompactJson(back) != ts::ToCompactJson(v))
    Fail("compact JSON does not parse back to the same value: " + ts::ToCompactJson(v));
  std::string error;
  if (ts::CheckText(v, &error) != AllTextGood(v))
    Fail("the text check disagrees with the UTF-8 test on " + ts::ToCompactJson(v));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 4096) return -1;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0: {  // a GET query value
      Json::Value v = ts::ValueFromText(text), parsed;
      const bool is_json = !text.empty() && ts::ParseJson(text, &parsed);
      if (!is_json && !(v.isString() && v.asString() == text))
        Fail("a value that is not JSON did not stay text");
      if (is_json && ts::ToCompactJson(v) != ts::ToCompactJson(parsed))
        Fail("a JSON value was not read as its parse");
      CheckValue(v);
      int n = 0;
      if (ts::JsonToInt(Json::Value(text), &n)) {
        char* end = nullptr;
        long long spelled = strtoll(text.c_str(), &end, 10);
        if (*end != '\0' || spelled != n) Fail("JsonToInt misread \"" + text + "\"");
      }
      break;
    }
    case 1: {  // a login body: {"account": "...", "password": "..."}
      Json::Value body;
      if (!ts::ParseJson(text, &body)) break;
      CheckValue(body);
      if (body.isObject()) {
        (void)body["account"].isString();
        (void)body.get("password", "").isString();
      }
      break;
    }
    case 3: {  // a call frame, as a front taken over might send it
      std::string frame = std::string(1, ts::kCallTag) + text;
      ts::ApiCall call, again;
      ts::LoginIdentity who, who_again;
      if (!ts::DecodeCall(frame, &call, &who)) break;
      if (call.api.empty() || call.method.empty() || call.version < 1 || !call.params.isObject() ||
          who.name.empty())
        Fail("a call frame was accepted that is not a call");
      if (!AllTextGood(Json::Value(call.api)) || !AllTextGood(Json::Value(call.method)) ||
          !AllTextGood(Json::Value(who.name)) || !AllTextGood(call.params))
        Fail("a call frame with bad text was accepted");
      if (!ts::DecodeCall(ts::EncodeCall(call, who), &again, &who_again) || again.api != call.api ||
          again.method != call.method || again.version != call.version ||
          again.params != call.params || who_again.name != who.name ||
          who_again.stamp != who.stamp || who_again.grant != who.grant)
        Fail("a call frame written again did not decode to the same call");
      break;
    }
    default: {  // a POST envelope
      Json::Value body;
      if (!ts::ParseJson(text, &body)) break;
      CheckValue(body);
      ts::ApiCall call;
      std::string error;
      if (ts::CallFromJson(body, &call, &error)) {
        if (call.api.empty() || call.method.empty() || call.version < 1 || !call.params.isObject())
          Fail("an envelope was accepted that is not one: " + text);
        if (!AllTextGood(body)) Fail("an envelope with bad text was accepted");
      } else if (error.empty()) {
        Fail("an envelope was refused without a reason");
      }
    }
  }
  return 0;
}
