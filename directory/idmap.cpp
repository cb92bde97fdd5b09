#include "directory/idmap.h"

#include <cstdlib>

namespace tavo_dir {

bool SidRid(const std::string& sid, uint32_t* rid, std::string* text) {
  if (sid.size() < 8) return false;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(sid.data());
  unsigned count = p[1];
  if (p[0] != 1 || count == 0 || count > 15 || sid.size() != 8 + 4 * count) return false;
  uint64_t authority = 0;
  for (int i = 2; i < 8; ++i) authority = (authority << 8) | p[i];
  uint32_t sub = 0;
  std::string out = "S-1-" + std::to_string(authority);
  for (unsigned i = 0; i < count; ++i) {
    const unsigned char* q = p + 8 + 4 * i;
    sub = static_cast<uint32_t>(q[0]) | static_cast<uint32_t>(q[1]) << 8 |
          static_cast<uint32_t>(q[2]) << 16 | static_cast<uint32_t>(q[3]) << 24;
    out += "-" + std::to_string(sub);
  }
  *rid = sub;
  if (text) *text = out;
  return true;
}

bool ParseIdRange(const std::string& range, uint32_t* low, uint32_t* high) {
  size_t dash = range.find('-');
  if (dash == std::string::npos || dash == 0 || dash + 1 >= range.size()) return false;
  auto parse = [](const std::string& s, uint64_t* v) {
    if (s.empty() || s.size() > 10) return false;
    for (char c : s)
      if (c < '0' || c > '9') return false;
    *v = std::strtoull(s.c_str(), nullptr, 10);
    return true;
  };
  uint64_t lo = 0, hi = 0;
  if (!parse(range.substr(0, dash), &lo) || !parse(range.substr(dash + 1), &hi)) return false;
  if (lo == 0 || lo > hi || hi >= 0xFFFFFFFFull) return false;
  *low = static_cast<uint32_t>(lo);
  *high = static_cast<uint32_t>(hi);
  return true;
}

bool RidToGid(uint32_t rid, uint32_t low, uint32_t high, uint32_t* gid) {
  uint64_t g = static_cast<uint64_t>(low) + rid;
  if (g > high) return false;
  *gid = static_cast<uint32_t>(g);
  return true;
}

}  // namespace tavo_dir
