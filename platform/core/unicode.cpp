// Unicode case handling of UTF-8 strings: comparison ignoring case and
// upper-casing, with the simple case mapping of the C.UTF-8 locale.
#include <locale.h>
#include <wctype.h>

#include <cstring>

#include "accounts/snapshot/names.h"
#include "core/unicode_fold.h"
#include "tavo/error.h"
#include "tavo/testing.h"
#include "tavo/util.h"

namespace {

// One unit of a UTF-8 string: a code point, or a single byte that does not
// start a valid sequence (then `valid` is false and `value` is the byte).
struct Unit {
  unsigned value;
  bool valid;
  int length;  // bytes consumed
};

// Decodes the unit at `s` (which is not at the terminating NUL). Refuses
// overlong forms, surrogates and code points above U+10FFFF.
Unit Decode(const unsigned char* s) {
  unsigned c = s[0];
  if (c < 0x80) return {c, true, 1};
  // Lead byte: sequence length, payload bits and the smallest code point
  // that needs this length (anything below is an overlong form).
  int len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
  if (c < 0xC2 || c > 0xF4) return {c, false, 1};
  unsigned cp = c & (0x7F >> len);
  const unsigned min = len == 2 ? 0x80 : len == 3 ? 0x800 : 0x10000;
  for (int i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return {c, false, 1};  // also stops at the NUL
    cp = (cp << 6) | (s[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return {c, false, 1};
  return {cp, true, len};
}

// Writes the UTF-8 form of a valid code point into `out` (4 bytes at most).
int Encode(unsigned cp, unsigned char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<unsigned char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
    out[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
    out[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
  out[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
  return 4;
}

// The C.UTF-8 locale, created once and never freed; null when the C library
// has none (then only ASCII letters change case).
locale_t Utf8Locale() {
  static const locale_t loc = [] {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (!l) l = newlocale(LC_CTYPE_MASK, "C.utf8", static_cast<locale_t>(0));
    return l;
  }();
  return loc;
}

unsigned ToUpper(unsigned cp) {
  locale_t loc = Utf8Locale();
  if (loc) {
    unsigned up = static_cast<unsigned>(towupper_l(static_cast<wint_t>(cp), loc));
    // Guard against a mapping that would not encode.
    return (up <= 0x10FFFF && !(up >= 0xD800 && up <= 0xDFFF)) ? up : cp;
  }
  return (cp >= 'a' && cp <= 'z') ? cp - 'a' + 'A' : cp;
}

unsigned ToLower(unsigned cp) {
  locale_t loc = Utf8Locale();
  if (loc) {
    unsigned low = static_cast<unsigned>(towlower_l(static_cast<wint_t>(cp), loc));
    return (low <= 0x10FFFF && !(low >= 0xD800 && low <= 0xDFFF)) ? low : cp;
  }
  return (cp >= 'A' && cp <= 'Z') ? cp - 'A' + 'a' : cp;
}

}  // namespace

// lower(upper(cp)), so that all spellings of a letter meet ("ς", "σ" and "Σ"
// fold alike), except the Turkish dotted and dotless I, which stay apart.
unsigned tavo::FoldCodePoint(unsigned cp) {
  if (cp == 0x130 || cp == 0x131) return cp;
  return ToLower(ToUpper(cp));
}

namespace {

// The case-folded bytes of one unit; an invalid byte stands for itself.
// Returns the number of bytes in `out`.
int FoldUnit(const Unit& u, unsigned char* out) {
  if (!u.valid) {
    out[0] = static_cast<unsigned char>(u.value);
    return 1;
  }
  return Encode(tavo::FoldCodePoint(u.value), out);
}

}  // namespace

extern "C" {

// Compares the folded byte streams of both strings, unit by unit, without
// allocating: the result equals strcmp of the two folded strings.
int TLIBCUnicodeUTF8StrCaseCmp(const char* a, const char* b) {
  if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
  const unsigned char* pa = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* pb = reinterpret_cast<const unsigned char*>(b);
  unsigned char fa[4], fb[4];
  int na = 0, nb = 0, ia = 0, ib = 0;  // folded bytes pending and read position
  for (;;) {
    if (ia == na) {
      ia = na = 0;
      if (*pa) {
        Unit u = Decode(pa);
        pa += u.length;
        na = FoldUnit(u, fa);
      }
    }
    if (ib == nb) {
      ib = nb = 0;
      if (*pb) {
        Unit u = Decode(pb);
        pb += u.length;
        nb = FoldUnit(u, fb);
      }
    }
    if (na == 0 || nb == 0) return (na == 0 ? 0 : 1) - (nb == 0 ? 0 : 1);
    if (fa[ia] != fb[ib]) return fa[ia] < fb[ib] ? -1 : 1;
    ++ia;
    ++ib;
  }
}

int TLIBCUnicodeUTF8StrUpper(const char* in, char* out, int out_size) {
  if (!in || !out) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  if (out_size > 0) out[0] = '\0';
  if (TAVO_FAULT("user.upper")) return -1;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
  int used = 0;
  while (*p) {
    Unit u = Decode(p);
    if (!u.valid) {
      if (out_size > 0) out[0] = '\0';
      return TAVO_ERR_SET(TAVO_ERR_BAD_VALUE);
    }
    p += u.length;
    unsigned char buf[4];
    int n = Encode(ToUpper(u.value), buf);
    if (out_size - used <= n) {  // keep room for the NUL
      if (out_size > 0) out[0] = '\0';
      return TAVO_ERR_SET(TAVO_ERR_LIMIT);
    }
    std::memcpy(out + used, buf, n);
    used += n;
  }
  if (out_size <= 0) return TAVO_ERR_SET(TAVO_ERR_LIMIT);
  out[used] = '\0';
  return used;
}

}  // extern "C"

namespace tavo {

std::string CaseFoldKey(const std::string& text) { return acct::FoldCase(text); }

}  // namespace tavo
