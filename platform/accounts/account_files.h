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
