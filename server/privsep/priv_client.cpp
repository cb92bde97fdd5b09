#include "privsep/priv_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>

#include "api/json_util.h"
#include "privsep/call_frame.h"
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

PrivClient::~PrivClient() {
  for (int fd : idle_) close(fd);
}

int PrivClient::Connect() const {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  const socklen_t len =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address_.size());
  if (address_.size() + 1 > sizeof(addr.sun_path)) {
    close(fd);
    return -1;
  }
  memcpy(addr.sun_path + 1, address_.data(), address_.size());  // abstract: leading NUL
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int PrivClient::Checkout() {
  std::unique_lock<std::mutex> lock(mu_);
  free_.wait(lock, [this] { return !idle_.empty() || open_ < kChannelConnections; });
  if (!idle_.empty()) {
    const int fd = idle_.back();
    idle_.pop_back();
    return fd;
  }
  ++open_;
  lock.unlock();
  const int fd = Connect();
  if (fd < 0) Checkin(-1, false);
  return fd;
}

void PrivClient::Checkin(int fd, bool healthy) {
  std::lock_guard<std::mutex> lock(mu_);
  if (healthy) {
    idle_.push_back(fd);
  } else {
    if (fd >= 0) close(fd);
    --open_;
  }
  free_.notify_one();
}

int PrivClient::OpenConnections() {
  std::lock_guard<std::mutex> lock(mu_);
  return open_;
}

bool PrivClient::Exchange(std::string_view request, std::string* answer) {
  const int fd = Checkout();
  if (fd < 0) return false;
  const uint32_t id = next_id_.fetch_add(1);
  uint32_t got = 0;
  FrameReader reader(timeout_ms_);
  bool ok =
      SendFrame(fd, id, request, {}, kMaxRequest) && reader.Receive(fd, kMaxAnswer, &got, answer);
  if (ok && !reader.empty()) {
    syslog(LOG_WARNING, "front: refused an answer that came with more than one frame");
    ok = false;
  }
  if (ok && got != id) {
    syslog(LOG_WARNING, "front: refused an answer for request %u while %u was asked", got, id);
    ok = false;
  }
  // A connection whose exchange went wrong may hold a late answer: never reused.
  Checkin(fd, ok);
  return ok;
}

bool PrivClient::Ask(const Json::Value& request, Json::Value* answer) {
  std::string body;
  if (!Exchange(ToCompactJson(request), &body)) return false;
  if (ParseJson(body, answer) && answer->isObject()) return true;
  syslog(LOG_WARNING, "front: refused a malformed answer from the account process");
  return false;
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
  Answer a;
  std::string body;
  CallHead head;
  std::string_view envelope;
  if (!Exchange(EncodeCall(call, who), &body) || !DecodeCallHead(body, &head, &envelope)) {
    if (!body.empty()) syslog(LOG_WARNING, "front: refused a malformed answer to a call");
    a.unavailable = true;
    return a;
  }
  a.denied = head.result == LoginResult::kDenied;
  a.unavailable = head.result == LoginResult::kUnavailable;
  if (head.result != LoginResult::kOk) return a;
  a.result.lookup = static_cast<ModuleSet::Lookup>(head.lookup);
  a.result.code = head.code;
  a.result.module_us = head.module_ns / 1000.0;
  // The envelope travels as its text and is sent on as it is.
  if (a.result.lookup == ModuleSet::Lookup::kFound) {
    if (envelope.empty()) {
      a.unavailable = true;
    } else {
      body.erase(0, kCallHeadBytes);
      a.result.text = std::make_shared<const std::string>(std::move(body));
    }
  }
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
