// HttpRequest and HttpResponse: a parsed request and the answer to it, as the
// route handlers see them. They hold no connection state, so a request can be
// answered on any thread (or, later, in another process).
//
// Thread-safety: plain values.
#ifndef TAVO_SERVER_HTTP_MESSAGE_H_
#define TAVO_SERVER_HTTP_MESSAGE_H_

#include <json/value.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavo_server {

class StreamBody;

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;  // "GET", "HEAD", "POST", ... ("HEAD" is routed as "GET")
  std::string path;    // percent-decoded, without the query
  HeaderList query;    // decoded query arguments in order
  HeaderList headers;  // in order; names as sent
  std::string body;
  std::string remote_addr;  // numeric client address

  // The first value of header `name` (any case), or "".
  std::string Header(const std::string& name) const;
  // Every value of header `name` (any case), in order.
  std::vector<std::string> Headers(const std::string& name) const;
};

// What a handler learnt about the request, for the access log line.
struct LogFields {
  std::string account, api, method;
  int version = 0;
  int code = 0;
  bool served = false;  // api and method name a loaded module's method
};

struct HttpResponse {
  int status = 200;
  HeaderList headers;  // besides Content-Type and the headers every answer carries
  std::string content_type;
  std::string body;
  // Set instead of `body` for an answer written as it comes
  // (http/stream_body.h); the connection is closed when it ends.
  std::shared_ptr<StreamBody> stream;
  LogFields log;

  // Replaces the handler's header `name`, or adds it.
  void SetHeader(const std::string& name, const std::string& value);
  // Adds another header `name` (Set-Cookie may come more than once).
  void AddHeader(const std::string& name, const std::string& value) {
    headers.emplace_back(name, value);
  }
  // The value of header `name` set by a handler (exact name), or "".
  std::string Header(const std::string& name) const;
};

// Answers an HTTP error with the body {"error": message}.
void SendError(HttpResponse& res, int status, const std::string& message);

// "Content-Length" or "Host" when `headers` hold it more than once (names
// compared ignoring case), else null. Two lengths could each frame the body
// (a proxy that took the other would see another request in it); two hosts
// each name a site.
const char* RepeatedHeader(const HeaderList& headers);

// Answers HTTP 200 with a JSON body.
void SendJson(HttpResponse& res, const Json::Value& body);
// 200 with `text`, which is JSON already.
void SendJsonText(HttpResponse& res, const std::string& text);

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_MESSAGE_H_
