// The channel's frames for module calls, the one request a busy server sends
// all the time, in a binary form that costs neither side a JSON document of
// its own: only the call's parameters travel as JSON text.
//
// A call request's body is the byte kCallTag (never the first byte of a
// JSON text), then six fields, each a 4-byte big-endian length and its bytes:
// the login's name, stamp and grant, the API, the method and the parameters
// as a compact JSON object; then the version as a 4-byte big-endian signed
// integer. Nothing may follow.
//
// Its answer's body is a 14-byte head, then the answer's envelope as JSON
// text, passed through as it is: the result (0 ok, 1 denied, 2 unavailable),
// the lookup (ModuleSet::Lookup), the API code (4 bytes, big-endian, signed)
// and how long the module ran in nanoseconds (8 bytes, big-endian). The
// envelope is there only when the result is ok and the lookup found.
//
// Errors: the decoders return false on anything out of this form, and on
// strings that are not valid UTF-8 or hold a NUL character.
// Thread-safety: the functions are reentrant.
#ifndef TAVO_SERVER_PRIVSEP_CALL_FRAME_H_
#define TAVO_SERVER_PRIVSEP_CALL_FRAME_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "api/dispatch.h"
#include "auth/login.h"

namespace tavo_server {

constexpr char kCallTag = '\x01';
constexpr size_t kCallHeadBytes = 14;

// The body of a call request.
std::string EncodeCall(const ApiCall& call, const LoginIdentity& who);
// Reads a body that begins with kCallTag. The call is checked as CallFromJson
// checks one (non-empty api and method, version >= 1, an object of params).
bool DecodeCall(std::string_view body, ApiCall* call, LoginIdentity* who);
// As DecodeCall, but leaves the parameters as their text in *params_text,
// unread (ParamsFromText reads them).
bool DecodeCallText(std::string_view body, ApiCall* call, LoginIdentity* who,
                    std::string* params_text);

struct CallHead {
  LoginResult result = LoginResult::kUnavailable;
  int lookup = 0;
  int32_t code = 0;
  int64_t module_ns = 0;
};
// The head of a call's answer, kCallHeadBytes long.
std::string EncodeCallHead(const CallHead& head);
// Reads the head of `body` and sets *envelope to the text after it.
bool DecodeCallHead(std::string_view body, CallHead* head, std::string_view* envelope);

}  // namespace tavo_server

#endif  // TAVO_SERVER_PRIVSEP_CALL_FRAME_H_
