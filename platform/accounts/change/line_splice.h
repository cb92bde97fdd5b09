// Line-level edits of an account file's bytes: find a line by its name field
// and replace or append one line, copying every other byte as it is (comments,
// NIS lines, lines that do not parse and CRLF endings stay byte for byte).
//
// Thread-safety: pure functions. Errors: none (std::bad_alloc may propagate).
#ifndef TAVO_PLATFORM_LINE_SPLICE_H_
#define TAVO_PLATFORM_LINE_SPLICE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tavo {
namespace acct {

// A line of a text: bytes [begin, end), its newline (if any) not included.
struct LineSpan {
  size_t begin = 0, end = 0;
};

// The first line at or after byte `from` (a line start) whose name field (the
// text before its first ':') is exactly `name`. False when there is none.
bool FindNamedLine(std::string_view text, const std::string& name, size_t from, LineSpan* out);
// A text as the concatenation of views into other strings, which must
// outlive it: a file's new bytes written without first being copied into
// one string.
using Pieces = std::vector<std::string_view>;
// The bytes of `pieces`, joined.
std::string Join(const Pieces& pieces);

// `text` with the line at `span` replaced by `line` (which has no newline);
// a last line without a newline gets one.
Pieces SplicePieces(std::string_view text, const LineSpan& span, const std::string& line);
std::string SpliceLine(std::string_view text, const LineSpan& span, const std::string& line);
// `text` with `line` added as a new last line.
Pieces AppendPieces(std::string_view text, const std::string& line);
std::string AppendLine(std::string_view text, const std::string& line);
// Removes the lines of `text` whose name field is exactly `name` (at most
// `max` of them, first to last); true when any went.
bool DropNamedLines(std::string* text, const std::string& name, size_t max);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_LINE_SPLICE_H_
