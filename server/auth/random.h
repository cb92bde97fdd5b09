// Random secrets from the kernel's generator (getrandom).
//
// Thread-safety: reentrant. Errors: returns "" when no randomness can be had.
#ifndef TAVO_SERVER_RANDOM_H_
#define TAVO_SERVER_RANDOM_H_

#include <string>

namespace tavo_server {

// `bytes` random bytes as lower-case hex (2 * bytes characters).
std::string RandomHex(size_t bytes);
// A password of `length` characters drawn evenly from letters and digits.
std::string RandomPassword(size_t length);

}  // namespace tavo_server

#endif  // TAVO_SERVER_RANDOM_H_
