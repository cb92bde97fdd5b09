#include "privsep/priv_channel.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>

#include "api/json_util.h"

namespace tavo_server {

namespace {

// Sends the pieces whole, in as few system calls as the socket allows.
bool SendAll(int fd, struct iovec* iov, int count) {
  while (count > 0) {
    struct msghdr msg {};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    size_t sent = static_cast<size_t>(n);
    while (count > 0 && sent >= iov->iov_len) {
      sent -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + sent;
      iov->iov_len -= sent;
    }
  }
  return true;
}

void PutBigEndian(uint32_t v, unsigned char* out) {
  out[0] = static_cast<unsigned char>(v >> 24);
  out[1] = static_cast<unsigned char>(v >> 16);
  out[2] = static_cast<unsigned char>(v >> 8);
  out[3] = static_cast<unsigned char>(v);
}

uint32_t GetBigEndian(const unsigned char* in) {
  return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | in[3];
}

}  // namespace

bool SendFrame(int fd, uint32_t id, std::string_view head, std::string_view tail, size_t max) {
  const size_t body = head.size() + tail.size();
  if (body > max) return false;
  unsigned char prefix[8];
  PutBigEndian(static_cast<uint32_t>(4 + body), prefix);
  PutBigEndian(id, prefix + 4);
  struct iovec iov[3] = {{prefix, sizeof prefix},
                         {const_cast<char*>(head.data()), head.size()},
                         {const_cast<char*>(tail.data()), tail.size()}};
  return SendAll(fd, iov, tail.empty() ? 2 : 3);
}

bool FrameReader::Receive(int fd, size_t max, uint32_t* id, std::string* body, bool ready) {
  // One request at a time goes each way: with nothing kept, the next frame
  // cannot be there yet unless the socket was seen readable, so the wait
  // comes first.
  bool wait = pending_.empty() && !ready;
  size_t need = 8;  // the length and the id, then the whole frame
  for (;;) {
    if (pending_.size() >= 8) {
      const size_t n = GetBigEndian(reinterpret_cast<const unsigned char*>(pending_.data()));
      if (n <= 4 || n - 4 > max) return false;  // refused on its length, unread
      need = 4 + n;
      if (pending_.size() >= need) {
        *id = GetBigEndian(reinterpret_cast<const unsigned char*>(pending_.data()) + 4);
        if (pending_.size() == need) {  // the usual case: the frame alone, taken whole
          body->swap(pending_);
          body->erase(0, 8);
          pending_.clear();
        } else {
          body->assign(pending_, 8, need - 8);
          pending_.erase(0, need);
        }
        return true;
      }
    }
    if (wait) {
      // Wait in poll rather than in a blocking read. A blocking read on a
      // UNIX socket is also woken each time the other side takes in what
      // this side sent (room to write again), which on a busy channel
      // doubled the thread wake-ups; poll wakes for input only.
      struct pollfd p = {fd, POLLIN, 0};
      const int r = poll(&p, 1, timeout_ms_);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;  // an error, or the time-out
      wait = false;
    }
    // A frame comes in one read as a rule: a read takes what is there, at
    // least the rest of this frame; a later frame's bytes that come with it
    // are kept.
    const size_t old = pending_.size();
    ssize_t got;
    if (need - old > kReadChunk) {
      // A large frame: read straight into its place.
      pending_.resize(need);
      got = recv(fd, &pending_[old], need - old, MSG_DONTWAIT);
      pending_.resize(old + (got > 0 ? static_cast<size_t>(got) : 0));
    } else {
      char chunk[kReadChunk];
      got = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
      if (got > 0) pending_.append(chunk, static_cast<size_t>(got));
    }
    if (got > 0) continue;
    if (got == 0) return false;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    wait = true;
  }
}

bool ReceiveFrame(int fd, int timeout_ms, size_t max, uint32_t* id, std::string* body) {
  FrameReader reader(timeout_ms);
  return reader.Receive(fd, max, id, body);
}

bool HasExactKeys(const Json::Value& v, std::initializer_list<const char*> keys) {
  if (!v.isObject() || v.size() != keys.size()) return false;
  for (const char* k : keys)
    if (!v.isMember(k)) return false;
  return true;
}

Json::Value WhoToJson(const LoginIdentity& who) {
  Json::Value v(Json::objectValue);
  v["name"] = who.name;
  v["stamp"] = who.stamp;
  v["grant"] = who.grant;
  return v;
}

bool WhoFromJson(const Json::Value& v, LoginIdentity* who) {
  if (!HasExactKeys(v, {"name", "stamp", "grant"}) || !v["name"].isString() ||
      !v["stamp"].isString() || !v["grant"].isString())
    return false;
  who->name = v["name"].asString();
  who->stamp = v["stamp"].asString();
  who->grant = v["grant"].asString();
  return !who->name.empty();
}

}  // namespace tavo_server
