// ID mapping for directory groups that carry no gidNumber.
//
// Domain groups: the group's objectSid (binary: revision, count of
// sub-authorities, 48-bit big-endian authority, then each sub-authority as a
// 32-bit little-endian number) ends with the RID, the group's number within
// its domain. The gid is LOW + RID for the configured range LOW-HIGH; a RID
// that does not fit (LOW + RID > HIGH) has no gid and the group is skipped.
// The mapping depends on nothing but the RID, so every appliance bound to the
// same domain with the same range computes the same gids.
//
// Thread-safety: pure functions.
#ifndef TAVO_DIRECTORY_IDMAP_H_
#define TAVO_DIRECTORY_IDMAP_H_

#include <cstdint>
#include <string>

namespace tavo_dir {

// Parses a binary SID; false when malformed. `text` (optional) receives the
// S-1-5-21-... form.
bool SidRid(const std::string& sid, uint32_t* rid, std::string* text);

// Parses "LOW-HIGH" (decimal, 0 < LOW <= HIGH < 2^32 - 1).
bool ParseIdRange(const std::string& range, uint32_t* low, uint32_t* high);

// LOW + rid when it fits the range.
bool RidToGid(uint32_t rid, uint32_t low, uint32_t high, uint32_t* gid);

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_IDMAP_H_
