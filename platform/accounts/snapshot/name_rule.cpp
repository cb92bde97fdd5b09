#include "accounts/snapshot/name_rule.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/uspoof.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <memory>

#include "accounts/snapshot/names.h"

namespace tavo {
namespace acct {
namespace {

// One checker for the process: uspoof_getSkeleton only reads it.
const USpoofChecker* Checker() {
  static const USpoofChecker* checker = [] {
    UErrorCode e = U_ZERO_ERROR;
    USpoofChecker* c = uspoof_open(&e);
    return U_FAILURE(e) ? nullptr : c;  // kept to the end of the process
  }();
  return checker;
}

bool Invisible(UChar32 c) {
  const int8_t type = u_charType(c);
  return u_hasBinaryProperty(c, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) ||
         u_hasBinaryProperty(c, UCHAR_BIDI_CONTROL) || type == U_FORMAT_CHAR ||
         type == U_UNASSIGNED || type == U_PRIVATE_USE_CHAR || type == U_SURROGATE;
}

}  // namespace

std::string NfcName(const std::string& name) {
  if (!IsValidUtf8(name)) return name;
  UErrorCode e = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(e);
  if (U_FAILURE(e)) return name;
  const icu::UnicodeString in = icu::UnicodeString::fromUTF8(name);
  if (nfc->isNormalized(in, e) && U_SUCCESS(e)) return name;
  e = U_ZERO_ERROR;
  const icu::UnicodeString out = nfc->normalize(in, e);
  if (U_FAILURE(e)) return name;
  std::string utf8;
  out.toUTF8String(utf8);
  return utf8;
}

bool HasInvisible(const std::string& name) {
  const auto* s = reinterpret_cast<const uint8_t*>(name.data());
  const int32_t n = static_cast<int32_t>(name.size());
  for (int32_t i = 0; i < n;) {
    UChar32 c;
    U8_NEXT(s, i, n, c);
    if (c < 0 || Invisible(c)) return true;
  }
  return false;
}

namespace {

// The TS #39 skeleton of `text` through ICU ("" when none can be made).
std::string IcuSkeleton(const std::string& text) {
  const USpoofChecker* checker = Checker();
  if (checker == nullptr || !IsValidUtf8(text)) return "";
  UErrorCode e = U_ZERO_ERROR;
  const int32_t len = uspoof_getSkeletonUTF8(checker, 0, text.data(),
                                             static_cast<int32_t>(text.size()), nullptr, 0, &e);
  if (e != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(e)) return "";
  std::string out(static_cast<size_t>(len), '\0');
  e = U_ZERO_ERROR;
  uspoof_getSkeletonUTF8(checker, 0, text.data(), static_cast<int32_t>(text.size()), &out[0], len,
                         &e);
  return U_FAILURE(e) ? "" : out;
}

// The skeleton of each ASCII character, where it is ASCII too. An ASCII
// text is in NFD and its characters' prototypes carry no combining marks, so
// its skeleton is their prototypes put end to end: a name is then mapped
// without ICU (a check compares against every group in the files).
struct AsciiSkeletons {
  std::string of[128];
  bool ascii[128] = {};
  AsciiSkeletons() {
    for (int c = 1; c < 128; ++c) {
      of[c] = IcuSkeleton(std::string(1, static_cast<char>(c)));
      ascii[c] = !of[c].empty();
      for (char b : of[c])
        if (static_cast<unsigned char>(b) >= 0x80) ascii[c] = false;
    }
  }
};

const AsciiSkeletons& Ascii() {
  static const AsciiSkeletons table;
  return table;
}

}  // namespace

std::string NameSkeleton(const std::string& name) { return Skeleton(FoldCase(name)); }

std::string Skeleton(const std::string& text) {
  const AsciiSkeletons& table = Ascii();
  std::string out;
  out.reserve(text.size());
  for (char b : text) {
    const unsigned char c = static_cast<unsigned char>(b);
    if (c == 0 || c >= 0x80 || !table.ascii[c]) return IcuSkeleton(text);
    out += table.of[c];
  }
  return out;
}

bool SkeletonIs(std::string_view text, const std::string& skeleton, bool folded) {
  const AsciiSkeletons& table = Ascii();
  size_t at = 0;
  for (char b : text) {
    unsigned char c = static_cast<unsigned char>(b);
    if (c == 0 || c >= 0x80) break;  // not ASCII: the whole way below
    if (folded && c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
    if (!table.ascii[c]) break;
    const std::string& piece = table.of[c];
    // Most names differ from the skeleton within their first characters.
    if (skeleton.compare(at, piece.size(), piece) != 0) return false;
    at += piece.size();
  }
  if (std::all_of(text.begin(), text.end(), [&table, folded](char b) {
        unsigned char c = static_cast<unsigned char>(b);
        if (folded && c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
        return c != 0 && c < 0x80 && table.ascii[c];
      }))
    return at == skeleton.size();
  const std::string whole(text);
  return (folded ? NameSkeleton(whole) : Skeleton(whole)) == skeleton;
}

}  // namespace acct
}  // namespace tavo
