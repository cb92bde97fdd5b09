// Name rules and case folding of the account store.
#include "accounts/snapshot/names.h"

#include <locale.h>
#include <wctype.h>

#include "accounts/acct_error.h"
#include "accounts/snapshot/name_rule.h"
#include "core/unicode_fold.h"

namespace tavo {
namespace acct {
namespace {

locale_t Utf8Locale() {
  static locale_t loc = [] {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", (locale_t)0);
    return l ? l : newlocale(LC_CTYPE_MASK, "C", (locale_t)0);
  }();
  return loc;
}

// Decodes one code point at s[i]; returns its length, or 0 for an invalid byte.
size_t Decode(const std::string& s, size_t i, unsigned* cp) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  size_t len;
  unsigned v;
  if (c < 0x80) {
    *cp = c;
    return 1;
  }
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2;
    v = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3;
    v = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4;
    v = c & 0x07;
  } else
    return 0;
  if (i + len > s.size()) return 0;
  for (size_t k = 1; k < len; ++k) {
    unsigned char cc = static_cast<unsigned char>(s[i + k]);
    if ((cc & 0xC0) != 0x80) return 0;
    v = (v << 6) | (cc & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are invalid.
  if ((len == 3 && v < 0x800) || (len == 4 && (v < 0x10000 || v > 0x10FFFF)) ||
      (v >= 0xD800 && v <= 0xDFFF))
    return 0;
  *cp = v;
  return len;
}

void Encode(unsigned cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool IsControl(unsigned cp) { return cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp < 0xA0); }

}  // namespace

std::string FoldCase(const std::string& s) {
  // Composed first, so that the two spellings of "café" fold alike.
  for (char c : s) {
    if (static_cast<unsigned char>(c) < 0x80) continue;
    const std::string composed = NfcName(s);
    if (composed != s) return FoldCase(composed);
    break;
  }
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {  // fast path for ASCII
      out.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c));
      ++i;
      continue;
    }
    unsigned cp;
    size_t len = Decode(s, i, &cp);
    if (len == 0) {
      out.push_back(s[i]);
      ++i;
      continue;
    }
    Encode(FoldCodePoint(cp), &out);
    i += len;
  }
  return out;
}

bool EqualIgnoringCase(const std::string& a, const std::string& b) {
  return a == b || FoldCase(a) == FoldCase(b);
}

bool ContainsText(const std::string& hay, const std::string& needle, bool ignore_case) {
  if (needle.empty()) return true;
  if (!ignore_case) return hay.find(needle) != std::string::npos;
  return FoldCase(hay).find(FoldCase(needle)) != std::string::npos;
}

bool IsValidUtf8(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    unsigned cp;
    size_t len = Decode(s, i, &cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

int CheckGroupNameSyntax(const std::string& name) {
  if (name == "." || name == "..") return TAVO_ERR_RESERVED;
  if (name.empty() || name.size() > kMaxNameBytes) return TAVO_ERR_BAD_VALUE;
  if (name[0] == '-' || name[0] == '+' || name[0] == '~') return TAVO_ERR_BAD_VALUE;
  bool all_digits = true;
  for (size_t i = 0; i < name.size();) {
    unsigned cp;
    size_t len = Decode(name, i, &cp);
    if (len == 0) return TAVO_ERR_BAD_VALUE;
    if (IsControl(cp) || iswspace_l(static_cast<wint_t>(cp), Utf8Locale()) || cp == 0xA0)
      return TAVO_ERR_BAD_VALUE;
    switch (cp) {
      case ':':
      case ',':
      case '/':
      case '\\':
      case '@':
      case '"':
      case '\'':
      case '#':
      case ';':
        return TAVO_ERR_BAD_VALUE;
      default:
        break;
    }
    if (cp < '0' || cp > '9') all_digits = false;
    i += len;
  }
  return all_digits ? TAVO_ERR_BAD_VALUE : TAVO_ERR_NONE;
}

int CheckMemberName(const std::string& name) {
  if (name.empty() || !IsValidUtf8(name)) return TAVO_ERR_BAD_VALUE;
  for (unsigned char c : name)
    if (c <= 0x20 || c == 0x7F || c == ':' || c == ',') return TAVO_ERR_BAD_VALUE;
  return TAVO_ERR_NONE;
}

int CheckDescription(const std::string& desc) {
  if (desc.size() > kMaxDescBytes) return TAVO_ERR_BAD_VALUE;
  for (size_t i = 0; i < desc.size();) {
    unsigned cp;
    size_t len = Decode(desc, i, &cp);
    if (len == 0 || IsControl(cp)) return TAVO_ERR_BAD_VALUE;
    i += len;
  }
  return TAVO_ERR_NONE;
}

bool IsBuiltinGroupName(const std::string& name) {
  std::string f = FoldCase(name);
  return f == "administrators" || f == "users";
}

}  // namespace acct
}  // namespace tavo
