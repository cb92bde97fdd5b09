#include "privsep/priv_server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "api/json_util.h"
#include "auth/random.h"
#include "privsep/call_frame.h"
#include "privsep/priv_channel.h"
#include "tavo/wait_notice.h"

namespace tavo_server {
namespace {

const char* ResultName(LoginResult r) {
  return r == LoginResult::kOk ? "ok" : r == LoginResult::kDenied ? "denied" : "unavailable";
}

// A call's answer as it crosses: the head, and the envelope's text (a kept
// answer's text as it is).
void EncodeAnswer(const AccountOps::Answer& a, std::string* head,
                  std::shared_ptr<const std::string>* envelope) {
  CallHead h;
  h.result = a.denied        ? LoginResult::kDenied
             : a.unavailable ? LoginResult::kUnavailable
                             : LoginResult::kOk;
  h.lookup = static_cast<int>(a.result.lookup);
  h.code = a.result.code;
  h.module_ns = static_cast<int64_t>(a.result.module_us * 1000);
  *head = EncodeCallHead(h);
  envelope->reset();
  if (h.result == LoginResult::kOk && a.result.lookup == ModuleSet::Lookup::kFound)
    *envelope = a.result.text
                    ? a.result.text
                    : std::make_shared<const std::string>(ToCompactJson(a.result.envelope));
}

bool Watch(int epoll_fd, int fd) {
  struct epoll_event ev {};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &ev) == 0;
}

}  // namespace

// What a leader knows of the call it makes itself.
struct PrivServer::Handoff {
  PrivServer* server;
  int index;  // the epoll set
  int fd;     // the call's connection
  bool handed = false;
  static void Told(void* arg) {
    Handoff* h = static_cast<Handoff*>(arg);
    h->server->HandOff(h);
  }
};

PrivServer::PrivServer(AccountOps& ops, int max_busy, int read_timeout_ms)
    : ops_(ops), max_busy_(max_busy), read_timeout_ms_(read_timeout_ms) {}

PrivServer::~PrivServer() {
  Stop();
  JoinThreads();
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
  // Each connection has at most one request under way, on a leader or a
  // worker; the leaders take kEventThreads more.
  const int threads = max_busy_ + kEventThreads;
  workers_ = std::make_unique<WorkerPool>(threads, static_cast<size_t>(threads));
  for (int i = 0; i < kEventThreads; ++i) {
    epoll_[i] = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_[i] < 0 || !Watch(epoll_[i], stop_pipe_[0]) ||
        !workers_->TrySubmit([this, i] { Lead(i); })) {
      syslog(LOG_ERR, "account process: no epoll set: %s", strerror(errno));
      return;
    }
  }
  int next = 0;
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
    const int index = next++ % kEventThreads;
    if (stopping_ || !Watch(epoll_[index], fd)) {
      close(fd);
      continue;
    }
    ++busy_;
    ++owned_[index];
    open_.insert(fd);
  }
}

void PrivServer::Lead(int index) {
  const int ep = epoll_[index];
  std::unordered_map<int, FrameReader>& readers = readers_[index];
  struct epoll_event events[64];
  for (;;) {
    if (stopping_) {
      // Stop shut the connections for reading: each ends at its next
      // event, one a worker has once it is given back.
      std::lock_guard<std::mutex> lock(mu_);
      if (owned_[index] == 0) return;
    }
    const int n = epoll_wait(ep, events, 64, stopping_ ? 100 : -1);
    if (n < 0 && errno != EINTR) return;
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      if (fd == stop_pipe_[0]) {
        epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
        continue;
      }
      auto it = readers.try_emplace(fd, read_timeout_ms_).first;
      Handoff h{this, index, fd};
      bool keep;
      {
        tavo::WaitNotice notice(&Handoff::Told, &h);
        keep = OnReadable(index, fd, &it->second, h);
      }
      if (h.handed) {
        // Another thread leads the set now (and sees the events not taken
        // here, still pending); this one ends as a worker does.
        if (!keep) shutdown(fd, SHUT_RDWR);
        Watch(ep, fd);
        return;
      }
      if (!keep) {
        readers.erase(it);
        Close(index, fd);
      }
    }
  }
}

void PrivServer::HandOff(Handoff* h) {
  const int ep = epoll_[h->index];
  if (epoll_ctl(ep, EPOLL_CTL_DEL, h->fd, nullptr) != 0) return;
  const int index = h->index;
  if (workers_->TrySubmit([this, index] { Lead(index); })) {
    h->handed = true;
  } else {
    Watch(ep, h->fd);  // no thread to take over: the call goes on leading
  }
}

bool PrivServer::OnReadable(int index, int fd, FrameReader* reader, const Handoff& h) {
  uint32_t id = 0;
  std::string body, head;
  std::shared_ptr<const std::string> envelope;
  if (!reader->Receive(fd, kMaxRequest, &id, &body, /*ready=*/true)) return false;
  if (!body.empty() && body[0] == kCallTag) {
    ApiCall call;
    LoginIdentity who;
    std::string params;
    AccountOps::Answer a;
    if (DecodeCallText(body, &call, &who, &params)) {
      bool answered = ops_.CallKept(call, params, who, &a);
      // A leader that has handed its set on makes the call as a worker would.
      if (!answered && (h.handed || ops_.CallsInline(call))) {
        if (!ops_.CallText(&call, params, who, &a)) {
          syslog(LOG_WARNING, "account process: refused a malformed request from the front");
          return false;
        }
        answered = true;
      }
      if (answered) {
        EncodeAnswer(a, &head, &envelope);
        return SendFrame(fd, id, head, envelope ? *envelope : std::string_view(), kMaxAnswer);
      }
    }
  }
  // The worker has the connection until it has answered; a failure shuts
  // it, so that the set's leader closes it at its next event.
  const int ep = epoll_[index];
  if (epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr) != 0) return false;
  const bool queued = workers_->TrySubmit([this, ep, fd, id, body = std::move(body)] {
    std::string head;
    std::shared_ptr<const std::string> envelope;
    const bool ok = AnswerRequest(body, &head, &envelope);
    if (!ok) syslog(LOG_WARNING, "account process: refused a malformed request from the front");
    if (!ok || !SendFrame(fd, id, head, envelope ? *envelope : std::string_view(), kMaxAnswer))
      shutdown(fd, SHUT_RDWR);
    Watch(ep, fd);
  });
  return queued;
}

bool PrivServer::AnswerRequest(const std::string& body, std::string* head,
                               std::shared_ptr<const std::string>* envelope) {
  if (!body.empty() && body[0] == kCallTag) return AnswerCall(body, head, envelope);
  Json::Value request;
  Json::Value answer;
  if (ParseJson(body, &request)) answer = Answer(request);
  if (answer.isNull()) return false;
  *head = ToCompactJson(answer);
  envelope->reset();
  return true;
}

void PrivServer::Close(int index, int fd) {
  epoll_ctl(epoll_[index], EPOLL_CTL_DEL, fd, nullptr);
  std::lock_guard<std::mutex> lock(mu_);
  open_.erase(fd);
  close(fd);
  --owned_[index];
  --busy_;
  idle_.notify_all();
}

void PrivServer::JoinThreads() {
  workers_.reset();  // runs what is queued, then joins: the leaders end after Stop
  for (int& ep : epoll_) {
    if (ep >= 0) close(ep);
    ep = -1;
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
  EncodeAnswer(a, head, envelope);
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
