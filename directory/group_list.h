// GroupListBuilder: turns the groups read from a directory into the lines of
// the local copy ("NAME:x:GID:", ordered by name). See group_sync.h for the
// naming and gid rules it applies.
//
// Thread-safety: one object per thread.
#ifndef TAVO_DIRECTORY_GROUP_LIST_H_
#define TAVO_DIRECTORY_GROUP_LIST_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tavo_dir {

class GroupListBuilder {
 public:
  // `prefix` and `suffix` frame each name ("DOM\" + name, name + "@dom").
  // `forbidden` lists the characters a name may not hold besides ":" and
  // control characters.
  GroupListBuilder(std::string prefix, std::string suffix, std::string forbidden);

  // A group with a known gid, or with `has_gid` false one to be mapped by the
  // hash of `key` into the range given to Build.
  void Add(const std::string& name, bool has_gid, uint32_t gid, const std::string& key);
  void Skip() { ++skipped_; }

  // The file content. `low`..`high` is the range for groups without a gid
  // (low 0: such groups are skipped).
  std::string Build(uint32_t low, uint32_t high);
  int64_t groups() const { return groups_; }
  int64_t skipped() const { return skipped_; }

 private:
  struct Item {
    std::string name;
    std::string fold;  // ASCII lower case, for ordering and duplicates
    bool has_gid;
    uint32_t gid;
    std::string key;
  };
  std::string prefix_, suffix_, forbidden_;
  std::vector<Item> items_;
  int64_t groups_ = 0, skipped_ = 0;
};

}  // namespace tavo_dir

#endif  // TAVO_DIRECTORY_GROUP_LIST_H_
