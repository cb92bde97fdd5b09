// Finding and replacing one line of an account file in place.
#include "accounts/change/line_splice.h"

#include <cstring>

#include "accounts/snapshot/snapshot.h"

namespace tavo {
namespace acct {

bool FindNamedLine(std::string_view text, const std::string& name, size_t from, LineSpan* out) {
  // A line starts at `from` or after a newline; found by searching for
  // "\nNAME:" rather than by walking every line.
  const std::string key = "\n" + name + ":";
  size_t pos = std::string_view::npos;
  if (from < text.size() &&
      text.compare(from, name.size() + 1, key, 1, std::string_view::npos) == 0) {
    pos = from;
  } else if (from < text.size()) {
    const char* hay = text.data() + from;
    const void* hit = memmem(hay, text.size() - from, key.data(), key.size());
    if (hit) pos = static_cast<size_t>(static_cast<const char*>(hit) - text.data()) + 1;
  }
  if (pos == std::string_view::npos) return false;
  const size_t nl = text.find('\n', pos);
  out->begin = pos;
  out->end = nl == std::string_view::npos ? text.size() : nl;
  return true;
}

std::string Join(const Pieces& pieces) {
  size_t size = 0;
  for (std::string_view p : pieces) size += p.size();
  std::string out;
  out.reserve(size);
  PrefaultHeap(&out[0], out.capacity());
  for (std::string_view p : pieces) out.append(p.data(), p.size());
  return out;
}

Pieces SplicePieces(std::string_view text, const LineSpan& span, const std::string& line) {
  const std::string_view all(text);
  Pieces out{all.substr(0, span.begin), line};
  if (span.end < text.size())
    out.push_back(all.substr(span.end));
  else
    out.push_back("\n");
  return out;
}

std::string SpliceLine(std::string_view text, const LineSpan& span, const std::string& line) {
  return Join(SplicePieces(text, span, line));
}

Pieces AppendPieces(std::string_view text, const std::string& line) {
  Pieces out{text};
  if (!text.empty() && text.back() != '\n') out.push_back("\n");
  out.push_back(line);
  out.push_back("\n");
  return out;
}

std::string AppendLine(std::string_view text, const std::string& line) {
  return Join(AppendPieces(text, line));
}

bool DropNamedLines(std::string* text, const std::string& name, size_t max) {
  bool dropped = false;
  LineSpan span;
  size_t from = 0;
  while (max-- > 0 && FindNamedLine(*text, name, from, &span)) {
    const size_t end = span.end < text->size() ? span.end + 1 : span.end;
    text->erase(span.begin, end - span.begin);
    from = span.begin;
    dropped = true;
  }
  return dropped;
}

}  // namespace acct
}  // namespace tavo
