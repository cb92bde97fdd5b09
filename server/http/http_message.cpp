#include "http/http_message.h"

#include <strings.h>

#include "api/json_util.h"

namespace tavo_server {

constexpr const char kJsonType[] = "application/json; charset=utf-8";

std::string HttpRequest::Header(const std::string& name) const {
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
  return "";
}

std::vector<std::string> HttpRequest::Headers(const std::string& name) const {
  std::vector<std::string> out;
  for (const auto& h : headers)
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) out.push_back(h.second);
  return out;
}

void HttpResponse::SetHeader(const std::string& name, const std::string& value) {
  for (auto& h : headers) {
    if (h.first == name) {
      h.second = value;
      return;
    }
  }
  headers.emplace_back(name, value);
}

std::string HttpResponse::Header(const std::string& name) const {
  for (const auto& h : headers)
    if (h.first == name) return h.second;
  return "";
}

void SendError(HttpResponse& res, int status, const std::string& message) {
  Json::Value body(Json::objectValue);
  body["error"] = message;
  res.status = status;
  res.content_type = kJsonType;
  res.body = ToCompactJson(body);
}

void SendJson(HttpResponse& res, const Json::Value& body) {
  res.status = 200;
  res.content_type = kJsonType;
  res.body = ToCompactJson(body);
}

void SendJsonText(HttpResponse& res, const std::string& text) {
  res.status = 200;
  res.content_type = kJsonType;
  res.body = text;
}

const char* RepeatedHeader(const HeaderList& headers) {
  for (const char* name : {"Content-Length", "Host"}) {
    int seen = 0;
    for (const auto& h : headers)
      if (strcasecmp(h.first.c_str(), name) == 0) ++seen;
    if (seen > 1) return name;
  }
  return nullptr;
}

}  // namespace tavo_server
