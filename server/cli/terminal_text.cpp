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

// Characters that show nothing, or change how the text around them shows:
// the default-ignorable code points and the other format characters.
constexpr struct {
  unsigned first, last;
} kInvisible[] = {
    {0xad, 0xad},       {0x34f, 0x34f},     {0x600, 0x605},     {0x61c, 0x61c},
    {0x6dd, 0x6dd},     {0x70f, 0x70f},     {0x890, 0x891},     {0x8e2, 0x8e2},
    {0x115f, 0x1160},   {0x17b4, 0x17b5},   {0x180b, 0x180f},   {0x200b, 0x200f},
    {0x2028, 0x202e},   {0x2060, 0x206f},   {0x3164, 0x3164},   {0xfe00, 0xfe0f},
    {0xfeff, 0xfeff},   {0xffa0, 0xffa0},   {0xfff0, 0xfffb},   {0x110bd, 0x110bd},
    {0x110cd, 0x110cd}, {0x13430, 0x1343f}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a},
    {0xe0000, 0xe0fff},
};

bool Escaped(unsigned cp) {
  if (cp < 0x20 || (cp >= 0x7f && cp <= 0x9f)) return true;
  for (const auto& r : kInvisible)
    if (cp >= r.first && cp <= r.last) return true;
  return false;
}

std::string Escape(const std::string& text, bool json) {
  std::string out;
  out.reserve(text.size());
  char buf[16];
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
      if (cp <= 0xffff) {
        snprintf(buf, sizeof(buf), "\\u%04X", cp);
      } else if (json) {  // as the UTF-16 pair JSON spells it
        snprintf(buf, sizeof(buf), "\\u%04X\\u%04X", 0xd800 + ((cp - 0x10000) >> 10),
                 0xdc00 + ((cp - 0x10000) & 0x3ff));
      } else {
        snprintf(buf, sizeof(buf), "\\U%08X", cp);
      }
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
