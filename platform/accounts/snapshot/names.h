// Name and text rules of the account store, and Unicode case folding.
//
// FoldCase puts a UTF-8 string in normalisation form C (name_rule.h), then
// maps every code point to its case-folded form (tavo::FoldCodePoint:
// lower(upper(c)) of the C.UTF-8 locale, the Turkish dotted and dotless I
// kept apart); invalid bytes are kept as they are. Two
// names are "equal ignoring case" when their folded forms are equal, and
// listings are ordered by the folded form (byte order, which is code-point
// order for UTF-8).
//
// Thread-safety: every function may be called from any thread.
// Errors: the Check* functions return TAVO_ERR_NONE or a catalogue code; they
// do not touch the error state.
#ifndef TAVO_PLATFORM_NAMES_H_
#define TAVO_PLATFORM_NAMES_H_

#include <string>

namespace tavo {
namespace acct {

constexpr size_t kMaxNameBytes = 32;
constexpr size_t kMaxDescBytes = 256;

std::string FoldCase(const std::string& s);
bool EqualIgnoringCase(const std::string& a, const std::string& b);
// True when `hay` contains `needle`; ignoring case when `ignore_case`.
bool ContainsText(const std::string& hay, const std::string& needle, bool ignore_case);
bool IsValidUtf8(const std::string& s);

// Syntax of a new or renamed group name: at most 32 bytes of valid UTF-8, no
// whitespace or control characters, none of : , / \ @ " ' # ; and no leading
// - + ~, not all digits -> TAVO_ERR_BAD_VALUE. "." and ".." -> TAVO_ERR_RESERVED.
int CheckGroupNameSyntax(const std::string& name);
// A member (user) name that may be written into a member list: non-empty valid
// UTF-8 without control characters, whitespace, ':' or ','.
int CheckMemberName(const std::string& name);
// A description: valid UTF-8, at most 256 bytes, no control characters
// (C0, DEL, C1). "" is allowed.
int CheckDescription(const std::string& desc);
// True for the built-in groups "administrators" and "users" (ignoring case).
bool IsBuiltinGroupName(const std::string& name);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_NAMES_H_
