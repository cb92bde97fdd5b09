#include "auth/random.h"

#include <gnutls/crypto.h>
#include <sys/random.h>

#include <cerrno>
#include <vector>

namespace tavo_server {
namespace {

bool Fill(unsigned char* buf, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = getrandom(buf + done, n - done, 0);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(r);
  }
  return true;
}

}  // namespace

std::string RandomHex(size_t bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::vector<unsigned char> buf(bytes);
  if (!Fill(buf.data(), bytes)) return "";
  std::string out;
  out.reserve(bytes * 2);
  for (unsigned char c : buf) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

std::string RandomPassword(size_t length) {
  static const char kChars[] = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  const size_t n = sizeof(kChars) - 1;
  std::string out;
  while (out.size() < length) {
    unsigned char c;
    if (!Fill(&c, 1)) return "";
    // Rejection sampling keeps every character equally likely.
    if (c >= 256 - 256 % n) continue;
    out += kChars[c % n];
  }
  return out;
}

std::string HmacSha256Hex(const std::string& key, const std::string& text) {
  unsigned char mac[32];
  if (key.empty() || gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), text.data(),
                                      text.size(), mac) != 0)
    return "";
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : mac) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

bool SecretEquals(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  volatile unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

}  // namespace tavo_server
