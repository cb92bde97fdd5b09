#include "privsep/priv_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "privsep/priv_channel.h"

namespace tavo_server {
namespace {

LoginResult ResultOf(const Json::Value& answer) {
  const std::string r = answer["result"].isString() ? answer["result"].asString() : "";
  return r == "ok"       ? LoginResult::kOk
         : r == "denied" ? LoginResult::kDenied
                         : LoginResult::kUnavailable;
}

}  // namespace

bool PrivClient::Ask(const Json::Value& request, Json::Value* answer) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (address_.size() + 1 > sizeof(addr.sun_path)) {
    close(fd);
    return false;
  }
  memcpy(addr.sun_path + 1, address_.data(), address_.size());
  const socklen_t len =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address_.size());
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            SendMessage(fd, request, kMaxRequest) &&
            ReceiveMessage(fd, timeout_ms_, kMaxAnswer, answer) && answer->isObject();
  close(fd);
  return ok;
}

LoginResult PrivClient::CheckLogin(const std::string& account, const std::string& password,
                                   LoginIdentity* who) {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "login";
  req["account"] = account;
  req["password"] = password;
  if (!Ask(req, &answer)) return LoginResult::kUnavailable;
  LoginResult r = ResultOf(answer);
  if (r == LoginResult::kOk && !WhoFromJson(answer["who"], who)) return LoginResult::kUnavailable;
  return r;
}

LoginResult PrivClient::Recheck(const LoginIdentity& who) {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "recheck";
  req["who"] = WhoToJson(who);
  return Ask(req, &answer) ? ResultOf(answer) : LoginResult::kUnavailable;
}

AccountOps::Answer PrivClient::Call(const ApiCall& call, const LoginIdentity& who) {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "call";
  req["who"] = WhoToJson(who);
  Json::Value c(Json::objectValue);
  c["api"] = call.api;
  c["version"] = call.version;
  c["method"] = call.method;
  c["params"] = call.params;
  req["call"] = c;
  Answer a;
  const LoginResult r = Ask(req, &answer) ? ResultOf(answer) : LoginResult::kUnavailable;
  a.denied = r == LoginResult::kDenied;
  a.unavailable = r == LoginResult::kUnavailable || !answer["lookup"].isInt();
  if (r != LoginResult::kOk || a.unavailable) return a;
  const int lookup = answer["lookup"].asInt();
  a.result.lookup = static_cast<ModuleSet::Lookup>(lookup >= 0 && lookup <= 3 ? lookup : 1);
  a.result.code = answer["code"].isInt() ? answer["code"].asInt() : 0;
  a.result.envelope = answer["envelope"];
  a.result.module_us = answer["module_us"].isNumeric() ? answer["module_us"].asDouble() : 0;
  return a;
}

void PrivClient::Logout(const LoginIdentity& who) {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "logout";
  req["who"] = WhoToJson(who);
  Ask(req, &answer);
}

Json::Value PrivClient::Stats() {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "stats";
  if (!Ask(req, &answer) || ResultOf(answer) != LoginResult::kOk)
    return Json::Value(Json::objectValue);
  return answer["stats"];
}

Json::Value PrivClient::Info() {
  Json::Value req(Json::objectValue), answer;
  req["op"] = "info";
  if (!Ask(req, &answer) || ResultOf(answer) != LoginResult::kOk)
    return Json::Value(Json::arrayValue);
  return answer["info"];
}

}  // namespace tavo_server
