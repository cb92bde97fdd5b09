// Line parsers and formatters of the account files.
#include "accounts/snapshot/account_files.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace tavo {
namespace acct {
namespace {

bool ParseUnsigned(std::string_view s, unsigned* out) {
  if (s.empty() || s.size() > 10) return false;
  unsigned long long v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > 0xFFFFFFFFull) return false;
  *out = static_cast<unsigned>(v);
  return true;
}

bool Skippable(std::string_view line) {
  return line.empty() || line[0] == '#' || line[0] == '+' || line[0] == '-';
}

// The line without the '\r' of a CRLF line ending, so that it does not end up
// in the last field (a member name, a shell, an expiry date).
std::string_view WithoutCR(std::string_view line) {
  return !line.empty() && line.back() == '\r' ? line.substr(0, line.size() - 1) : line;
}

// Splits on `sep` into at most `max` views; returns the number of fields the
// line has (which may be more than `max`).
size_t SplitView(std::string_view s, char sep, std::string_view* out, size_t max) {
  size_t n = 0, start = 0;
  for (;;) {
    size_t p = s.find(sep, start);
    std::string_view field = s.substr(start, p == std::string_view::npos ? s.npos : p - start);
    if (n < max) out[n] = field;
    ++n;
    if (p == std::string_view::npos) return n;
    start = p + 1;
  }
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

bool ParseGroupView(std::string_view line, GroupView* out) {
  if (Skippable(line)) return false;
  std::string_view f[4];
  if (SplitView(WithoutCR(line), ':', f, 4) != 4 || f[0].empty()) return false;
  if (!ParseUnsigned(f[2], &out->gid)) return false;
  out->name = f[0];
  out->password = f[1];
  out->members = f[3];
  return true;
}

bool ParseGroupLine(const std::string& line, GroupLine* out) {
  GroupView v;
  if (!ParseGroupView(line, &v)) return false;
  out->name.assign(v.name);
  out->password.assign(v.password);
  out->gid = v.gid;
  out->members.clear();
  ForEachMember(v.members, [&](std::string_view m) { out->members.emplace_back(m); });
  return true;
}

std::string FormatGroupLine(const GroupLine& g) {
  return g.name + ":" + g.password + ":" + std::to_string(g.gid) + ":" + JoinMembers(g.members);
}

bool ParsePasswdView(std::string_view line, PasswdView* out) {
  if (Skippable(line)) return false;
  std::string_view f[7];
  if (SplitView(WithoutCR(line), ':', f, 7) != 7 || f[0].empty()) return false;
  if (!ParseUnsigned(f[2], &out->uid) || !ParseUnsigned(f[3], &out->gid)) return false;
  out->name = f[0];
  out->password = f[1];
  out->gecos = f[4];
  return true;
}

bool ParsePasswdLine(const std::string& line, PasswdLine* out) {
  PasswdView v;
  if (!ParsePasswdView(line, &v)) return false;
  out->name.assign(v.name);
  out->password.assign(v.password);
  out->uid = v.uid;
  out->gid = v.gid;
  out->gecos.assign(v.gecos);
  return true;
}

bool ParseShadowView(std::string_view line, ShadowView* out) {
  if (Skippable(line)) return false;
  std::string_view f[8];
  const size_t n = SplitView(WithoutCR(line), ':', f, 8);
  if (n < 2 || f[0].empty()) return false;
  out->name = f[0];
  out->hash = f[1];
  out->expire_days = -1;
  unsigned v;
  if (n > 7 && ParseUnsigned(f[7], &v)) out->expire_days = static_cast<long>(v);
  return true;
}

bool ParseShadowLine(const std::string& line, ShadowLine* out) {
  ShadowView v;
  if (!ParseShadowView(line, &v)) return false;
  out->name.assign(v.name);
  out->hash.assign(v.hash);
  out->expire_days = v.expire_days;
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
    if (key == "GID_MIN")
      defs.gid_min = v;
    else if (key == "GID_MAX")
      defs.gid_max = v;
    else if (key == "UID_MIN")
      defs.uid_min = v;
    else if (key == "UID_MAX")
      defs.uid_max = v;
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
  std::vector<std::string> f = SplitFields(std::string(WithoutCR(line)), ':');
  return index < f.size() ? f[index] : "";
}

bool ParseDescView(std::string_view line, std::string_view* name, std::string_view* text) {
  line = WithoutCR(line);
  size_t p = line.find(':');
  if (p == std::string_view::npos || p == 0 || line[0] == '#') return false;
  *name = line.substr(0, p);
  *text = line.substr(p + 1);
  return true;
}

std::map<std::string, std::string> ParseDescriptions(const std::string& content) {
  std::map<std::string, std::string> out;
  ForEachLine(content, [&](std::string_view line) {
    std::string_view name, text;
    if (ParseDescView(line, &name, &text)) out[std::string(name)] = std::string(text);
  });
  return out;
}

}  // namespace acct
}  // namespace tavo
