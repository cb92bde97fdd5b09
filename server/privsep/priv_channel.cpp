#include "privsep/priv_channel.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>

#include "api/json_util.h"

namespace tavo_server {

namespace {

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAll(int fd, char* data, size_t size, int timeout_ms) {
  while (size > 0) {
    struct pollfd p = {fd, POLLIN, 0};
    int r = poll(&p, 1, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool SendMessage(int fd, const Json::Value& message, size_t max) {
  const std::string text = ToCompactJson(message);
  if (text.size() > max) return false;
  const uint32_t n = static_cast<uint32_t>(text.size());
  const char head[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                        static_cast<char>(n >> 8), static_cast<char>(n)};
  return WriteAll(fd, head, 4) && WriteAll(fd, text.data(), text.size());
}

bool ReceiveMessage(int fd, int timeout_ms, size_t max, Json::Value* message) {
  unsigned char head[4];
  if (!ReadAll(fd, reinterpret_cast<char*>(head), 4, timeout_ms)) return false;
  const size_t n =
      (size_t{head[0]} << 24) | (size_t{head[1]} << 16) | (size_t{head[2]} << 8) | head[3];
  if (n == 0 || n > max) return false;
  std::string text(n, '\0');
  return ReadAll(fd, &text[0], n, timeout_ms) && ParseJson(text, message);
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
