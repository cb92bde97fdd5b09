#include "privsep/call_frame.h"

#include "api/json_util.h"

namespace tavo_server {
namespace {

void PutU32(uint32_t v, std::string* out) {
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
  out->append(b, 4);
}

void PutField(std::string_view s, std::string* out) {
  PutU32(static_cast<uint32_t>(s.size()), out);
  out->append(s.data(), s.size());
}

// Reads from the front of `in`, shortening it; false when it is too short.
bool TakeU32(std::string_view* in, uint32_t* v) {
  if (in->size() < 4) return false;
  const auto* p = reinterpret_cast<const unsigned char*>(in->data());
  *v = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
  in->remove_prefix(4);
  return true;
}

bool TakeField(std::string_view* in, std::string* s) {
  uint32_t n = 0;
  if (!TakeU32(in, &n) || n > in->size()) return false;
  s->assign(in->data(), n);
  in->remove_prefix(n);
  return true;
}

bool GoodString(const std::string& s) {
  std::string error;
  return CheckText(Json::Value(s), &error);
}

}  // namespace

std::string EncodeCall(const ApiCall& call, const LoginIdentity& who) {
  const std::string params = ToCompactJson(call.params);
  std::string out;
  out.reserve(1 + 7 * 4 + who.name.size() + who.stamp.size() + who.grant.size() + call.api.size() +
              call.method.size() + params.size());
  out.push_back(kCallTag);
  for (std::string_view s :
       {std::string_view(who.name), std::string_view(who.stamp), std::string_view(who.grant),
        std::string_view(call.api), std::string_view(call.method), std::string_view(params)})
    PutField(s, &out);
  PutU32(static_cast<uint32_t>(call.version), &out);
  return out;
}

bool DecodeCallText(std::string_view body, ApiCall* call, LoginIdentity* who,
                    std::string* params_text) {
  if (body.empty() || body[0] != kCallTag) return false;
  body.remove_prefix(1);
  uint32_t version = 0;
  if (!TakeField(&body, &who->name) || !TakeField(&body, &who->stamp) ||
      !TakeField(&body, &who->grant) || !TakeField(&body, &call->api) ||
      !TakeField(&body, &call->method) || !TakeField(&body, params_text) ||
      !TakeU32(&body, &version) || !body.empty())
    return false;
  call->version = static_cast<int32_t>(version);
  return !who->name.empty() && !call->api.empty() && !call->method.empty() && call->version >= 1 &&
         GoodString(who->name) && GoodString(call->api) && GoodString(call->method);
}

bool DecodeCall(std::string_view body, ApiCall* call, LoginIdentity* who) {
  std::string params;
  return DecodeCallText(body, call, who, &params) && ParamsFromText(params, &call->params);
}

std::string EncodeCallHead(const CallHead& head) {
  std::string out;
  out.reserve(kCallHeadBytes);
  out.push_back(static_cast<char>(head.result == LoginResult::kOk       ? 0
                                  : head.result == LoginResult::kDenied ? 1
                                                                        : 2));
  out.push_back(static_cast<char>(head.lookup));
  PutU32(static_cast<uint32_t>(head.code), &out);
  const auto ns = static_cast<uint64_t>(head.module_ns);
  PutU32(static_cast<uint32_t>(ns >> 32), &out);
  PutU32(static_cast<uint32_t>(ns), &out);
  return out;
}

bool DecodeCallHead(std::string_view body, CallHead* head, std::string_view* envelope) {
  if (body.size() < kCallHeadBytes) return false;
  const auto result = static_cast<unsigned char>(body[0]);
  const auto lookup = static_cast<unsigned char>(body[1]);
  if (result > 2 || lookup > 3) return false;
  head->result = result == 0   ? LoginResult::kOk
                 : result == 1 ? LoginResult::kDenied
                               : LoginResult::kUnavailable;
  head->lookup = lookup;
  body.remove_prefix(2);
  uint32_t code = 0, high = 0, low = 0;
  TakeU32(&body, &code);
  TakeU32(&body, &high);
  TakeU32(&body, &low);
  head->code = static_cast<int32_t>(code);
  head->module_ns = static_cast<int64_t>((uint64_t{high} << 32) | low);
  *envelope = body;
  return true;
}

}  // namespace tavo_server
