// The channel between the network front and the privileged account process.
//
// The privileged side listens on a UNIX socket in the abstract namespace (no
// file to plant or to reach through folders), type SOCK_STREAM. Each request
// opens a connection and sends one message: a 4-byte big-endian length, then
// that many bytes of compact JSON, at most kMaxRequest; the answer is one
// message back, at most kMaxAnswer, then both close. The request cap bounds
// what a front that has been taken over can make the privileged side hold.
//
// Requests ("who" is {"name", "stamp", "grant"} of a login, all strings):
//   {"op": "login", "account": S, "password": S}
//       -> {"result": "ok"|"denied"|"unavailable", "who": {...} on ok}
//   {"op": "recheck", "who": {...}}        -> {"result": ...}
//   {"op": "call", "who": {...}, "call": {"api", "version", "method", "params"}}
//       -> {"result": "ok"|"denied", "lookup": N, "code": N, "envelope": ...}
//   {"op": "logout", "who": {...}}       -> {"result": "ok"}
//   {"op": "info"}                         -> {"result": "ok", "info": ...}
// Anything else, or extra or missing keys, is malformed and answered by
// closing the connection.
//
// Thread-safety: the functions are reentrant.
#ifndef TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_
#define TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_

#include <json/value.h>

#include <cstddef>
#include <string>

#include "api/dispatch.h"
#include "auth/login.h"

namespace tavo_server {

constexpr size_t kMaxRequest = 1 << 20;
constexpr size_t kMaxAnswer = 16 << 20;

// Sends one message of at most `max` bytes; false when it is larger or could
// not be sent whole.
bool SendMessage(int fd, const Json::Value& message, size_t max);
// Receives one message of at most `max` bytes, each wait for more bytes
// bounded by `timeout_ms`; false on time-out, a closed peer, an oversize
// (refused on its length, before any of it is read) or a non-JSON message.
bool ReceiveMessage(int fd, int timeout_ms, size_t max, Json::Value* message);

Json::Value WhoToJson(const LoginIdentity& who);
// False unless `v` is exactly {"name", "stamp", "grant"} of strings.
bool WhoFromJson(const Json::Value& v, LoginIdentity* who);
// True when `v` is an object with exactly these keys.
bool HasExactKeys(const Json::Value& v, std::initializer_list<const char*> keys);

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_PRIV_CHANNEL_H_
