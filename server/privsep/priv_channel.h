// The channel between the network front and the privileged account process.
//
// The privileged side listens on a UNIX socket in the abstract namespace (no
// file to plant or to reach through folders), type SOCK_STREAM. The front
// keeps up to kChannelConnections connections open and uses each for one
// request at a time; the privileged side serves each connection on a thread
// of its own, so as many calls are in flight as the front has connections
// busy.
//
// A frame is a 4-byte big-endian length N, then N bytes: a 4-byte big-endian
// request id and the body. A request's body is at most kMaxRequest bytes; the
// answer carries the request's id, and is at most kMaxAnswer bytes. The
// request cap bounds what a front that has been taken over can make the
// privileged side hold.
//
// A module call's request and answer have a binary form (call_frame.h), its
// envelope passed through as it is. Every other request is compact JSON, and
// so is its answer ("who" is {"name", "stamp", "grant"} of a login, all
// strings):
//   {"op": "login", "account": S, "password": S}
//       -> {"result": "ok"|"denied"|"unavailable", "who": {...} on ok}
//   {"op": "recheck", "who": {...}}        -> {"result": ...}
//   {"op": "logout", "who": {...}}       -> {"result": "ok"}
//   {"op": "info"}                         -> {"result": "ok", "info": ...}
//   {"op": "stats"}                        -> {"result": "ok", "stats": ...}
//   {"op": "tls"}                          -> {"result": "ok", "cert", "key"}
// Anything else, or extra or missing keys, is malformed: the privileged side
// logs it and closes the connection. An answer whose id is not the one of the
// request in flight on its connection is logged and the connection closed.
//
// Thread-safety: the functions are reentrant.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_
#define TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "auth/login.h"

namespace tavo_server {

constexpr size_t kMaxRequest = 1 << 20;
constexpr size_t kMaxAnswer = 16 << 20;
// Connections the front keeps at most, and the privileged side serves at once.
constexpr int kChannelConnections = 32;

// Sends one frame: `id`, then a body of `head` followed by `tail`. False when
// the body would pass `max` or could not be sent whole.
bool SendFrame(int fd, uint32_t id, std::string_view head, std::string_view tail, size_t max);

// Reads the frames of one connection; each wait for more bytes lasts at most
// the reader's time-out. A read takes what the socket holds, at least the rest
// of the frame, so that a frame usually costs one read; bytes of the next
// frame that came with it are kept for the next Receive.
// Thread-safety: one thread at a time per reader.
class FrameReader {
 public:
  static constexpr size_t kReadChunk = 16 << 10;
  explicit FrameReader(int timeout_ms) : timeout_ms_(timeout_ms) {}
  // Receives one frame of at most `max` bytes. `ready`: the socket was just
  // reported readable, so it is read before any wait. False on time-out, a
  // closed or shut-down socket, or an oversize (refused on its length,
  // before any of it is read). A reader that failed must not be used again.
  bool Receive(int fd, size_t max, uint32_t* id, std::string* body, bool ready = false);
  // True when no bytes of a further frame are kept.
  bool empty() const { return pending_.empty(); }

 private:
  const int timeout_ms_;
  std::string pending_;
};

// Receives one frame with a reader of its own: only for a connection that
// carries one frame at a time.
bool ReceiveFrame(int fd, int timeout_ms, size_t max, uint32_t* id, std::string* body);

Json::Value WhoToJson(const LoginIdentity& who);
// False unless `v` is exactly {"name", "stamp", "grant"} of strings.
bool WhoFromJson(const Json::Value& v, LoginIdentity* who);
// True when `v` is an object with exactly these keys.
bool HasExactKeys(const Json::Value& v, std::initializer_list<const char*> keys);

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_
