#include "privsep/priv_client.h"

#include <errno.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
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

// How long the rest of an answer that has begun may take to arrive.
constexpr int kRestOfFrameMs = 10000;

AccountOps::Answer Unavailable() {
  AccountOps::Answer a;
  a.unavailable = true;
  return a;
}

// The answer a call's frame body holds.
AccountOps::Answer AnswerOf(std::string body) {
  CallHead head;
  std::string_view envelope;
  if (!DecodeCallHead(body, &head, &envelope)) {
    syslog(LOG_WARNING, "front: refused a malformed answer to a call");
    return Unavailable();
  }
  AccountOps::Answer a;
  a.denied = head.result == LoginResult::kDenied;
  a.unavailable = head.result == LoginResult::kUnavailable;
  if (head.result != LoginResult::kOk) return a;
  a.result.lookup = static_cast<ModuleSet::Lookup>(head.lookup);
  a.result.code = head.code;
  a.result.module_us = head.module_ns / 1000.0;
  // The envelope travels as its text and is sent on as it is.
  if (a.result.lookup == ModuleSet::Lookup::kFound) {
    if (envelope.empty()) return Unavailable();
    body.erase(0, kCallHeadBytes);
    a.result.text = std::make_shared<const std::string>(std::move(body));
  }
  return a;
}

// Whether a received answer is the one of request `id`, alone.
bool AnswerMatches(const FrameReader& reader, uint32_t got, uint32_t id) {
  if (!reader.empty()) {
    syslog(LOG_WARNING, "front: refused an answer that came with more than one frame");
    return false;
  }
  if (got != id) {
    syslog(LOG_WARNING, "front: refused an answer for request %u while %u was asked", got, id);
    return false;
  }
  return true;
}

LoginResult ResultOf(const Json::Value& answer) {
  const std::string r = answer["result"].isString() ? answer["result"].asString() : "";
  return r == "ok"       ? LoginResult::kOk
         : r == "denied" ? LoginResult::kDenied
                         : LoginResult::kUnavailable;
}

}  // namespace

PrivClient::PrivClient(std::string address, int timeout_ms)
    : address_(std::move(address)), timeout_ms_(timeout_ms) {
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct epoll_event ev {};
  ev.events = EPOLLIN;
  ev.data.fd = wake_fd_;
  // Without a reader, CallLater declines and every call waits for its answer.
  // The reader starts with the first call started.
  can_start_ =
      epoll_fd_ >= 0 && wake_fd_ >= 0 && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &ev) == 0;
}

PrivClient::~PrivClient() {
  if (reader_.joinable()) {
    const uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof one);
    reader_.join();
  }
  std::unordered_map<int, Started> left;
  std::deque<Queued> queued;
  {
    std::lock_guard<std::mutex> lock(mu_);
    left.swap(started_);
    queued.swap(queued_);
  }
  for (auto& e : left) {
    close(e.first);
    e.second.done(Unavailable());
  }
  for (Queued& q : queued) q.done(Unavailable());
  for (int fd : idle_) close(fd);
  if (epoll_fd_ >= 0) close(epoll_fd_);
  if (wake_fd_ >= 0) close(wake_fd_);
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

int PrivClient::TakeLocked(bool may_wait) {
  if (may_wait && waiting_calls_ >= kChannelConnections - kReservedConnections) return -1;
  int fd = -1;
  if (!idle_.empty()) {
    fd = idle_.back();
    idle_.pop_back();
  } else if (open_ < kChannelConnections) {
    ++open_;
    fd = -2;
  } else {
    return -1;
  }
  if (may_wait) ++waiting_calls_;
  return fd;
}

int PrivClient::Checkout(bool may_wait) {
  std::unique_lock<std::mutex> lock(mu_);
  int fd;
  while ((fd = TakeLocked(may_wait)) == -1) free_.wait(lock);
  if (fd >= 0) return fd;
  lock.unlock();
  fd = Connect();
  if (fd < 0) Checkin(-1, false, may_wait);
  return fd;
}

void PrivClient::Checkin(int fd, bool healthy, bool may_wait) {
  std::lock_guard<std::mutex> lock(mu_);
  if (may_wait) --waiting_calls_;
  if (healthy) {
    idle_.push_back(fd);
  } else {
    if (fd >= 0) close(fd);
    --open_;
  }
  free_.notify_all();
}

int PrivClient::OpenConnections() {
  std::lock_guard<std::mutex> lock(mu_);
  return open_;
}

bool PrivClient::Exchange(std::string_view request, std::string* answer, bool may_wait) {
  const int fd = Checkout(may_wait);
  if (fd < 0) return false;
  const uint32_t id = next_id_.fetch_add(1);
  uint32_t got = 0;
  FrameReader reader(timeout_ms_);
  bool ok =
      SendFrame(fd, id, request, {}, kMaxRequest) && reader.Receive(fd, kMaxAnswer, &got, answer);
  ok = ok && AnswerMatches(reader, got, id);
  // A connection whose exchange went wrong may hold a late answer: never reused.
  Checkin(fd, ok, may_wait);
  SendQueued();
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
  std::string body;
  if (!Exchange(EncodeCall(call, who), &body, !TakesNoLock(call))) return Unavailable();
  return AnswerOf(std::move(body));
}

bool PrivClient::CallLater(const ApiCall& call, const LoginIdentity& who, CallDone done) {
  if (!can_start_) return false;
  std::call_once(reader_started_, [this] { reader_ = std::thread([this] { ReadAnswers(); }); });
  std::string body = EncodeCall(call, who);
  if (body.size() > kMaxRequest) return false;
  const bool may_wait = !TakesNoLock(call);
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
  int fd;
  {
    // Taken or queued under one lock, so that a connection given back
    // meanwhile finds the call in the queue.
    std::lock_guard<std::mutex> lock(mu_);
    fd = TakeLocked(may_wait);
    if (fd == -1) {
      if (queued_.size() >= kQueuedCalls) return false;
      queued_.push_back(Queued{std::move(body), may_wait, std::move(done), deadline});
      return true;
    }
  }
  if (fd == -2 && (fd = Connect()) < 0) {
    Checkin(-1, false, may_wait);
    return false;
  }
  return Send(fd, body, may_wait, &done, deadline);
}

bool PrivClient::Send(int fd, std::string_view body, bool may_wait, CallDone* done,
                      Clock::time_point deadline) {
  const uint32_t id = next_id_.fetch_add(1);
  {
    std::lock_guard<std::mutex> lock(mu_);
    started_[fd] = Started{id, may_wait, std::move(*done), deadline};
  }
  // Watched before it is sent, so that no answer comes unseen.
  struct epoll_event ev {};
  ev.events = EPOLLIN | EPOLLONESHOT;
  ev.data.fd = fd;
  const bool watched = epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev) == 0 ||
                       (errno == ENOENT && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) == 0);
  if (watched && SendFrame(fd, id, body, {}, kMaxRequest)) return true;
  std::unique_lock<std::mutex> lock(mu_);
  auto it = started_.find(fd);
  // The reader took it already (the connection broke): it answers.
  if (it == started_.end()) return true;
  *done = std::move(it->second.done);
  started_.erase(it);
  lock.unlock();
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  Checkin(fd, false, may_wait);
  return false;
}

void PrivClient::SendQueued() {
  for (;;) {
    Queued q;
    int fd = -1;
    {
      std::lock_guard<std::mutex> lock(mu_);
      auto it = queued_.begin();
      while (it != queued_.end() && (fd = TakeLocked(it->may_wait)) == -1) ++it;
      if (it == queued_.end()) return;
      q = std::move(*it);
      queued_.erase(it);
    }
    if (fd == -2 && (fd = Connect()) < 0) {
      Checkin(-1, false, q.may_wait);
      q.done(Unavailable());
    } else if (!Send(fd, q.body, q.may_wait, &q.done, q.deadline)) {
      q.done(Unavailable());
    }
  }
}

void PrivClient::ReadAnswers() {
  pthread_setname_np(pthread_self(), "tavo-channel");
  struct epoll_event events[64];
  for (;;) {
    const int n = epoll_wait(epoll_fd_, events, 64, 1000);
    if (n < 0 && errno != EINTR) return;
    for (int i = 0; i < n; ++i) {
      if (events[i].data.fd == wake_fd_) return;
      Answered(events[i].data.fd);
    }
    // After the batch, so that no event of a connection closed here is
    // still to be handled (its number may be reused).
    ExpireStarted();
  }
}

void PrivClient::Answered(int fd) {
  Started started;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = started_.find(fd);
    if (it == started_.end()) return;
    started = std::move(it->second);
    started_.erase(it);
  }
  // The answer has begun: the rest of it follows at once.
  FrameReader reader(kRestOfFrameMs);
  uint32_t got = 0;
  std::string body;
  const bool ok = reader.Receive(fd, kMaxAnswer, &got, &body, /*ready=*/true) &&
                  AnswerMatches(reader, got, started.id);
  Answer a = ok ? AnswerOf(std::move(body)) : Unavailable();
  Checkin(fd, ok, started.may_wait);
  SendQueued();  // the connection's next call first: the other side goes on at once
  started.done(std::move(a));
}

void PrivClient::ExpireStarted() {
  std::vector<std::pair<int, Started>> expired;
  std::vector<Queued> late;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (started_.empty() && queued_.empty()) return;
    const Clock::time_point now = Clock::now();
    for (auto it = queued_.begin(); it != queued_.end();) {
      if (it->deadline > now) {
        ++it;
        continue;
      }
      late.push_back(std::move(*it));
      it = queued_.erase(it);
    }
    for (auto it = started_.begin(); it != started_.end();) {
      if (it->second.deadline > now) {
        ++it;
        continue;
      }
      expired.emplace_back(it->first, std::move(it->second));
      it = started_.erase(it);
    }
  }
  for (auto& e : expired) {
    syslog(LOG_WARNING, "front: no answer from the account process in %d ms", timeout_ms_);
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, e.first, nullptr);
    Checkin(e.first, false, e.second.may_wait);
    e.second.done(Unavailable());
  }
  for (Queued& q : late) {
    syslog(LOG_WARNING, "front: no connection to the account process in %d ms", timeout_ms_);
    q.done(Unavailable());
  }
  if (!expired.empty()) SendQueued();
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
