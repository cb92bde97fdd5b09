#include "privsep/priv_server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <unordered_set>

#include "api/json_util.h"
#include "auth/random.h"
#include "privsep/call_frame.h"
#include "privsep/priv_channel.h"

namespace tavo_server {
namespace {

const char* ResultName(LoginResult r) {
  return r == LoginResult::kOk ? "ok" : r == LoginResult::kDenied ? "denied" : "unavailable";
}

}  // namespace

PrivServer::PrivServer(AccountOps& ops, int max_busy, int read_timeout_ms)
    : ops_(ops), max_busy_(max_busy), read_timeout_ms_(read_timeout_ms) {}

PrivServer::~PrivServer() {
  Stop();
  std::unique_lock<std::mutex> lock(mu_);
  idle_.wait(lock, [this] { return busy_ == 0; });
  lock.unlock();
  if (listen_fd_ >= 0) close(listen_fd_);
  for (int fd : stop_pipe_)
    if (fd >= 0) close(fd);
}

Status PrivServer::Listen() {
  const std::string id = RandomHex(16);
  if (id.empty() || pipe2(stop_pipe_, O_CLOEXEC) != 0) return Status::Error("no stop pipe");
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) return Status::Error(std::string("socket: ") + strerror(errno));
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  address_ = "tavo-account-" + id;
  memcpy(addr.sun_path + 1, address_.data(), address_.size());  // abstract: leading NUL
  const socklen_t len =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address_.size());
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(listen_fd_, 64) != 0)
    return Status::Error(std::string("cannot listen for the front process: ") + strerror(errno));
  return Status::OK();
}

void PrivServer::SetTlsReader(std::function<Status(std::string*, std::string*)> read) {
  read_tls_ = std::move(read);
}

void PrivServer::AllowPeer(pid_t pid, uid_t uid) {
  peer_uid_ = uid;
  peer_pid_ = pid;
}

void PrivServer::Stop() {
  {
    // Wakes the connections waiting for their next request; one in a call
    // ends after its answer.
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
    for (int fd : open_) shutdown(fd, SHUT_RD);
    idle_.notify_all();
  }
  if (stop_pipe_[1] >= 0) {
    ssize_t ignored = write(stop_pipe_[1], "x", 1);
    (void)ignored;
  }
}

void PrivServer::CloseInChild() {
  for (int* fd : {&listen_fd_, &stop_pipe_[0], &stop_pipe_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void PrivServer::Run() {
  for (;;) {
    struct pollfd p[2] = {{listen_fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    int r = poll(p, 2, -1);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 || (p[1].revents & POLLIN)) return;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    struct ucred cred {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.pid != peer_pid_ ||
        cred.uid != peer_uid_) {
      syslog(LOG_WARNING,
             "account process: refused a connection from pid %d uid %u (not the front)",
             static_cast<int>(cred.pid), static_cast<unsigned>(cred.uid));
      close(fd);
      continue;
    }
    std::unique_lock<std::mutex> lock(mu_);
    idle_.wait(lock, [this] { return busy_ < max_busy_ || stopping_; });
    if (stopping_) {
      close(fd);
      continue;
    }
    ++busy_;
    open_.insert(fd);
    lock.unlock();
    std::thread([this, fd] {
      pthread_setname_np(pthread_self(), "tavo-account");
      Serve(fd);
      std::lock_guard<std::mutex> done(mu_);
      open_.erase(fd);
      close(fd);
      --busy_;
      idle_.notify_all();
    }).detach();
  }
}

void PrivServer::Serve(int fd) {
  uint32_t id = 0;
  std::string body, head;
  FrameReader reader(read_timeout_ms_);
  // Between requests the connection waits for as long as the front keeps it,
  // until Stop.
  for (;;) {
    if (!reader.Receive(fd, kMaxRequest, &id, &body, false, &stopping_)) return;
    std::shared_ptr<const std::string> envelope;
    bool ok;
    if (!body.empty() && body[0] == kCallTag) {
      ok = AnswerCall(body, &head, &envelope);
    } else {
      Json::Value request;
      Json::Value answer;
      if (ParseJson(body, &request)) answer = Answer(request);
      ok = !answer.isNull();
      if (ok) head = ToCompactJson(answer);
    }
    if (!ok) {
      syslog(LOG_WARNING, "account process: refused a malformed request from the front");
      return;
    }
    if (!SendFrame(fd, id, head, envelope ? *envelope : std::string_view(), kMaxAnswer)) return;
  }
}

bool PrivServer::AnswerCall(const std::string& body, std::string* head,
                            std::shared_ptr<const std::string>* envelope) {
  ApiCall call;
  LoginIdentity who;
  std::string params;
  AccountOps::Answer a;
  if (!DecodeCallText(body, &call, &who, &params) || !ops_.CallText(&call, params, who, &a))
    return false;
  CallHead h;
  h.result = a.denied        ? LoginResult::kDenied
             : a.unavailable ? LoginResult::kUnavailable
                             : LoginResult::kOk;
  h.lookup = static_cast<int>(a.result.lookup);
  h.code = a.result.code;
  h.module_ns = static_cast<int64_t>(a.result.module_us * 1000);
  *head = EncodeCallHead(h);
  // The envelope goes as its text; a reused answer's text as it is.
  envelope->reset();
  if (h.result == LoginResult::kOk && a.result.lookup == ModuleSet::Lookup::kFound)
    *envelope = a.result.text
                    ? a.result.text
                    : std::make_shared<const std::string>(ToCompactJson(a.result.envelope));
  return true;
}

Json::Value PrivServer::Answer(const Json::Value& req) {
  if (!req.isObject() || !req["op"].isString()) return Json::Value();
  const std::string op = req["op"].asString();
  Json::Value out(Json::objectValue);
  LoginIdentity who;
  if (op == "login") {
    if (!HasExactKeys(req, {"op", "account", "password"}) || !req["account"].isString() ||
        !req["password"].isString())
      return Json::Value();
    LoginResult r = ops_.CheckLogin(req["account"].asString(), req["password"].asString(), &who);
    out["result"] = ResultName(r);
    if (r == LoginResult::kOk) out["who"] = WhoToJson(who);
  } else if (op == "recheck") {
    if (!HasExactKeys(req, {"op", "who"}) || !WhoFromJson(req["who"], &who)) return Json::Value();
    out["result"] = ResultName(ops_.Recheck(who));
  } else if (op == "logout") {
    if (!HasExactKeys(req, {"op", "who"}) || !WhoFromJson(req["who"], &who)) return Json::Value();
    ops_.Logout(who);
    out["result"] = "ok";
  } else if (op == "info") {
    if (!HasExactKeys(req, {"op"})) return Json::Value();
    out["result"] = "ok";
    out["info"] = ops_.Info();
  } else if (op == "tls") {
    // Asked when the front reloads its certificate (SIGHUP).
    if (!HasExactKeys(req, {"op"})) return Json::Value();
    std::string cert, key;
    const Status s = read_tls_ ? read_tls_(&cert, &key) : Status::Error("no TLS files");
    out["result"] = s.ok() ? "ok" : "unavailable";
    if (s.ok()) {
      out["cert"] = cert;
      out["key"] = key;
    } else {
      out["error"] = s.message();
    }
  } else if (op == "stats") {
    if (!HasExactKeys(req, {"op"})) return Json::Value();
    out["result"] = "ok";
    out["stats"] = ops_.Stats();
  } else {
    return Json::Value();
  }
  return out;
}

}  // namespace tavo_server
