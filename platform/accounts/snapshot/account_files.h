// Parsing and formatting of the account files' lines: group(5), gshadow(5),
// passwd(5), shadow(5) and login.defs(5), plus the "NAME:TEXT" lines of the
// description file.
//
// Parsers keep unknown or malformed lines out of the parsed records but never
// fail on them: the files are shared with other tools, and a line we cannot
// read is theirs to keep. Writers edit files line by line (see SplitLines) so
// that every line they do not change is written back byte for byte.
//
// Thread-safety: pure functions. Errors: none (malformed lines are skipped).
#ifndef TAVO_PLATFORM_ACCOUNT_FILES_H_
#define TAVO_PLATFORM_ACCOUNT_FILES_H_

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavo {
namespace acct {

struct GroupLine {
  std::string name;
  std::string password;
  unsigned gid = 0;
  std::vector<std::string> members;
};

struct PasswdLine {
  std::string name;
  std::string password;
  unsigned uid = 0;
  unsigned gid = 0;
  std::string gecos;
};

struct ShadowLine {
  std::string name;
  std::string hash;
  long expire_days = -1;  // -1: the field is empty (never expires)
};

// GID_MIN and UID_MIN are never taken below kMinOrdinaryId, so that the
// static system range (root, sudo, shadow, adm, ...) stays out of reach
// whatever login.defs says.
constexpr unsigned kMinOrdinaryId = 100;

struct LoginDefs {
  unsigned gid_min = 1000, gid_max = 60000;
  unsigned uid_min = 1000, uid_max = 60000;
};

// Fields of one line as views into the line's bytes (no copies): what the
// snapshots keep. The Parse*Line functions below apply the same rules.
struct GroupView {
  std::string_view name, password, members;  // members: the raw comma list
  unsigned gid = 0;
};
struct PasswdView {
  std::string_view name, password, gecos;
  unsigned uid = 0, gid = 0;
};
struct ShadowView {
  std::string_view name, hash;
  long expire_days = -1;
};
bool ParseGroupView(std::string_view line, GroupView* out);
bool ParsePasswdView(std::string_view line, PasswdView* out);
bool ParseShadowView(std::string_view line, ShadowView* out);
// A description line "NAME:TEXT" (not a comment, NAME not empty).
bool ParseDescView(std::string_view line, std::string_view* name, std::string_view* text);

// Calls f(line) for each line of `content`, as SplitLines splits it.
template <typename F>
void ForEachLine(std::string_view content, F&& f) {
  size_t start = 0;
  while (start < content.size()) {
    size_t nl = content.find('\n', start);
    if (nl == std::string_view::npos) nl = content.size();
    f(content.substr(start, nl - start));
    start = nl + 1;
  }
}

// Calls f(member) for each non-empty entry of a comma-separated list.
template <typename F>
void ForEachMember(std::string_view list, F&& f) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string_view::npos) comma = list.size();
    if (comma > start) f(list.substr(start, comma - start));
    start = comma + 1;
  }
}

// Splits a file into its lines (without the newline; a final line without a
// newline is kept).
std::vector<std::string> SplitLines(const std::string& content);
// Joins lines, each followed by a newline.
std::string JoinLines(const std::vector<std::string>& lines);
// Splits on `sep`, keeping empty fields.
std::vector<std::string> SplitFields(const std::string& s, char sep);
// A comma-separated member list ("" is the empty list).
std::vector<std::string> SplitMembers(const std::string& s);
std::string JoinMembers(const std::vector<std::string>& members);

// False for comments, blank lines, NIS "+"/"-" lines and lines with too few
// fields or a number that does not parse. A CRLF line ending is not part of
// the last field (here and in GetField and ParseDescriptions).
bool ParseGroupLine(const std::string& line, GroupLine* out);
std::string FormatGroupLine(const GroupLine& g);
bool ParsePasswdLine(const std::string& line, PasswdLine* out);
bool ParseShadowLine(const std::string& line, ShadowLine* out);
LoginDefs ParseLoginDefs(const std::string& content);

// The name field (text before the first ':') of any account-file line, or ""
// for a comment or blank line.
std::string LineName(const std::string& line);
// Replaces field `index` (0-based, ':'-separated) of a line. The line must
// have that many fields; returns false otherwise.
bool ReplaceField(std::string* line, size_t index, const std::string& value);
// Field `index` of a line, or "" when absent.
std::string GetField(const std::string& line, size_t index);

// Description file: "NAME:DESCRIPTION" per line; later lines win.
std::map<std::string, std::string> ParseDescriptions(const std::string& content);

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_ACCOUNT_FILES_H_
