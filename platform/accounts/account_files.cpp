// Line parsers and formatters of the account files.
#include "account_files.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace tavo {
namespace acct {
namespace {

bool ParseUnsigned(const std::string& s, unsigned* out) {
  if (s.empty() || s.size() > 10) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  unsigned long v = std::strtoul(s.c_str(), nullptr, 10);
  if (v > 0xFFFFFFFFul) return false;
  *out = static_cast<unsigned>(v);
  return true;
}

bool Skippable(const std::string& line) {
  return line.empty() || line[0] == '#' || line[0] == '+' || line[0] == '-';
}

// The line without the '\r' of a CRLF line ending, so that it does not end up
// in the last field (a member name, a shell, an expiry date).
std::string WithoutCR(const std::string& line) {
  return !line.empty() && line.back() == '\r' ? line.substr(0, line.size() - 1) : line;
}

}  // namespace

std::vector<std::string> SplitLines(const std::string& content) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < content.size()) {
    size_t nl = content.find('\n', start);
    if (nl == std::string::npos) nl = content.size();
    lines.emplace_back(content, start, nl - start);
    start = nl + 1;
  }
  return lines;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  size_t total = 0;
  for (const auto& l : lines) total += l.size() + 1;
  std::string out;
  out.reserve(total);
  for (const auto& l : lines) {
    out += l;
    out += '\n';
  }
  return out;
}

std::vector<std::string> SplitFields(const std::string& s, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t p = s.find(sep, start);
    if (p == std::string::npos) {
      out.emplace_back(s, start);
      return out;
    }
    out.emplace_back(s, start, p - start);
    start = p + 1;
  }
}

std::vector<std::string> SplitMembers(const std::string& s) {
  std::vector<std::string> out;
  if (s.empty()) return out;
  for (auto& m : SplitFields(s, ','))
    if (!m.empty()) out.push_back(std::move(m));
  return out;
}

std::string JoinMembers(const std::vector<std::string>& members) {
  std::string out;
  for (size_t i = 0; i < members.size(); ++i) {
    if (i) out += ',';
    out += members[i];
  }
  return out;
}

bool ParseGroupLine(const std::string& line, GroupLine* out) {
  if (Skippable(line)) return false;
  std::vector<std::string> f = SplitFields(WithoutCR(line), ':');
  if (f.size() != 4 || f[0].empty()) return false;
  if (!ParseUnsigned(f[2], &out->gid)) return false;
  out->name = std::move(f[0]);
  out->password = std::move(f[1]);
  out->members = SplitMembers(f[3]);
  return true;
}

std::string FormatGroupLine(const GroupLine& g) {
  return g.name + ":" + g.password + ":" + std::to_string(g.gid) + ":" + JoinMembers(g.members);
}

bool ParsePasswdLine(const std::string& line, PasswdLine* out) {
  if (Skippable(line)) return false;
  std::vector<std::string> f = SplitFields(WithoutCR(line), ':');
  if (f.size() != 7 || f[0].empty()) return false;
  if (!ParseUnsigned(f[2], &out->uid) || !ParseUnsigned(f[3], &out->gid)) return false;
  out->name = std::move(f[0]);
  out->password = std::move(f[1]);
  out->gecos = std::move(f[4]);
  return true;
}

bool ParseShadowLine(const std::string& line, ShadowLine* out) {
  if (Skippable(line)) return false;
  std::vector<std::string> f = SplitFields(WithoutCR(line), ':');
  if (f.size() < 2 || f[0].empty()) return false;
  out->name = std::move(f[0]);
  out->hash = std::move(f[1]);
  out->expire_days = -1;
  unsigned v;
  if (f.size() > 7 && ParseUnsigned(f[7], &v)) out->expire_days = static_cast<long>(v);
  return true;
}

LoginDefs ParseLoginDefs(const std::string& content) {
  LoginDefs defs;
  for (const std::string& raw : SplitLines(content)) {
    std::istringstream in(raw);
    std::string key, value;
    if (!(in >> key >> value) || key[0] == '#') continue;
    unsigned v;
    if (!ParseUnsigned(value, &v)) continue;
    if (key == "GID_MIN") defs.gid_min = v;
    else if (key == "GID_MAX") defs.gid_max = v;
    else if (key == "UID_MIN") defs.uid_min = v;
    else if (key == "UID_MAX") defs.uid_max = v;
  }
  if (defs.gid_min < kMinOrdinaryId) defs.gid_min = kMinOrdinaryId;
  if (defs.uid_min < kMinOrdinaryId) defs.uid_min = kMinOrdinaryId;
  return defs;
}

std::string LineName(const std::string& line) {
  if (line.empty() || line[0] == '#') return "";
  size_t p = line.find(':');
  return p == std::string::npos ? line : line.substr(0, p);
}

bool ReplaceField(std::string* line, size_t index, const std::string& value) {
  std::vector<std::string> f = SplitFields(*line, ':');
  if (index >= f.size()) return false;
  f[index] = value;
  std::string out;
  for (size_t i = 0; i < f.size(); ++i) {
    if (i) out += ':';
    out += f[i];
  }
  *line = std::move(out);
  return true;
}

std::string GetField(const std::string& line, size_t index) {
  std::vector<std::string> f = SplitFields(WithoutCR(line), ':');
  return index < f.size() ? f[index] : "";
}

std::map<std::string, std::string> ParseDescriptions(const std::string& content) {
  std::map<std::string, std::string> out;
  for (const std::string& raw : SplitLines(content)) {
    const std::string line = WithoutCR(raw);
    size_t p = line.find(':');
    if (p == std::string::npos || p == 0 || line[0] == '#') continue;
    out[line.substr(0, p)] = line.substr(p + 1);
  }
  return out;
}

}  // namespace acct
}  // namespace tavo
