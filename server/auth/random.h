// Secrets: random ones from the kernel's generator (getrandom), their MACs,
// and their comparison.
//
// Thread-safety: reentrant. Errors: returns "" when no randomness can be had
// or no MAC can be made.
#ifndef TAVO_SERVER_RANDOM_H_
#define TAVO_SERVER_RANDOM_H_

#include <string>

namespace tavo_server {

// `bytes` random bytes as lower-case hex (2 * bytes characters).
std::string RandomHex(size_t bytes);
// A password of `length` characters drawn evenly from letters and digits.
std::string RandomPassword(size_t length);
// HMAC-SHA256 of `text` under `key`, as lower-case hex; "" for an empty key.
std::string HmacSha256Hex(const std::string& key, const std::string& text);
// Whether two secrets are equal, in time that depends only on their lengths.
bool SecretEquals(const std::string& a, const std::string& b);

}  // namespace tavo_server

#endif  // TAVO_SERVER_RANDOM_H_
