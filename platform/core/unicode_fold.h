// The platform's one rule for matching letters ignoring case, shared by the
// string comparison and the account store's name keys.
//
// Thread-safety: pure functions.
#ifndef TAVO_PLATFORM_UNICODE_FOLD_H_
#define TAVO_PLATFORM_UNICODE_FOLD_H_

namespace tavo {

// The case-folded form of a Unicode code point: lower(upper(cp)), except
// U+0130 and U+0131 (Turkish dotted and dotless I), which fold to themselves.
unsigned FoldCodePoint(unsigned cp);

}  // namespace tavo

#endif  // TAVO_PLATFORM_UNICODE_FOLD_H_
