// Finding and replacing one line of an account file in place.
#include "line_splice.h"

#include <cstring>

#include "snapshot.h"

namespace tavo {
namespace acct {

bool FindNamedLine(const std::string& text, const std::string& name, size_t from, LineSpan* out) {
  const size_t n = name.size();
  size_t pos = from;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    size_t end = nl == std::string::npos ? text.size() : nl;
    if (end - pos > n && text[pos + n] == ':' && text.compare(pos, n, name) == 0) {
      out->begin = pos;
      out->end = end;
      return true;
    }
    if (nl == std::string::npos) break;
    pos = nl + 1;
  }
  return false;
}

std::string SpliceLine(const std::string& text, const LineSpan& span, const std::string& line) {
  std::string out;
  out.reserve(text.size() + line.size() + 1);
  PrefaultHeap(&out[0], out.capacity());
  out.append(text, 0, span.begin);
  out += line;
  if (span.end < text.size()) out.append(text, span.end, std::string::npos);
  else out += '\n';
  return out;
}

std::string AppendLine(const std::string& text, const std::string& line) {
  std::string out;
  out.reserve(text.size() + line.size() + 2);
  PrefaultHeap(&out[0], out.capacity());
  out = text;
  if (!out.empty() && out.back() != '\n') out += '\n';
  out += line;
  out += '\n';
  return out;
}

}  // namespace acct
}  // namespace tavo
