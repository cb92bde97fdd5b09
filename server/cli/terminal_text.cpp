#include "cli/terminal_text.h"

#include <cstdio>

namespace tavo_server {
namespace {

// The length of the UTF-8 sequence at `s[i]` and its code point; 0 when the
// bytes there are not valid UTF-8 (overlong forms and surrogates included).
size_t Decode(const std::string& s, size_t i, unsigned* cp) {
  const unsigned char c = static_cast<unsigned char>(s[i]);
  size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  unsigned v = n == 1 ? c : c & (0x7f >> n);
  for (size_t k = 1; k < n; ++k) {
    const unsigned char b = static_cast<unsigned char>(s[i + k]);
    if ((b >> 6) != 2) return 0;
    v = (v << 6) | (b & 0x3f);
  }
  static const unsigned kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (v < kMin[n] || v > 0x10ffff || (v >= 0xd800 && v <= 0xdfff)) return 0;
  *cp = v;
  return n;
}

bool Escaped(unsigned cp) {
  return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x61c || cp == 0x200e || cp == 0x200f ||
         (cp >= 0x202a && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069) || cp == 0x2028 ||
         cp == 0x2029;
}

std::string Escape(const std::string& text, bool json) {
  std::string out;
  out.reserve(text.size());
  char buf[8];
  for (size_t i = 0; i < text.size();) {
    unsigned cp = 0;
    const size_t n = Decode(text, i, &cp);
    if (n == 0) {
      snprintf(buf, sizeof(buf), json ? "\\u%04X" : "\\x%02X", static_cast<unsigned char>(text[i]));
      out += buf;
      ++i;
      continue;
    }
    if (Escaped(cp) && !(json && cp == '\n')) {
      snprintf(buf, sizeof(buf), "\\u%04X", cp);
      out += buf;
    } else {
      out.append(text, i, n);
    }
    i += n;
  }
  return out;
}

}  // namespace

std::string TerminalSafe(const std::string& text) { return Escape(text, false); }
std::string TerminalSafeJson(const std::string& json) { return Escape(json, true); }

}  // namespace tavo_server
