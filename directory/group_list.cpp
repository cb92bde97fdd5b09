#include "directory/group_list.h"

#include <algorithm>
#include <unordered_set>

namespace tavo_dir {
namespace {

uint64_t Fnv1a(const std::string& s) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : s) {
    h ^= static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    h *= 1099511628211ull;
  }
  return h;
}

}  // namespace

GroupListBuilder::GroupListBuilder(std::string prefix, std::string suffix, std::string forbidden)
    : prefix_(std::move(prefix)), suffix_(std::move(suffix)), forbidden_(std::move(forbidden)) {}

void GroupListBuilder::Add(const std::string& name, bool has_gid, uint32_t gid,
                           const std::string& key) {
  bool usable = !name.empty();
  for (unsigned char c : name)
    if (c < 0x20 || c == 0x7F || c == ':' ||
        forbidden_.find(static_cast<char>(c)) != std::string::npos)
      usable = false;
  if (!usable) {
    ++skipped_;
    return;
  }
  Item item{name, name, has_gid, gid, key};
  for (char& c : item.fold)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  items_.push_back(std::move(item));
}

std::string GroupListBuilder::Build(uint32_t low, uint32_t high) {
  // Ordered by folded name, then by key, so the first of a duplicate name is
  // the same on every run.
  std::sort(items_.begin(), items_.end(), [](const Item& a, const Item& b) {
    return a.fold != b.fold ? a.fold < b.fold : a.key < b.key;
  });
  auto last = std::unique(items_.begin(), items_.end(),
                          [](const Item& a, const Item& b) { return a.fold == b.fold; });
  skipped_ += items_.end() - last;
  items_.erase(last, items_.end());

  // Groups without a gid: hashed into the range, in key order, stepping to
  // the next free gid of the range on a collision.
  std::unordered_set<uint32_t> used;
  for (const Item& it : items_)
    if (it.has_gid) used.insert(it.gid);
  std::vector<Item*> unmapped;
  for (Item& it : items_)
    if (!it.has_gid) unmapped.push_back(&it);
  std::sort(unmapped.begin(), unmapped.end(),
            [](const Item* a, const Item* b) { return a->key < b->key; });
  uint64_t size = low == 0 ? 0 : static_cast<uint64_t>(high) - low + 1;
  for (Item* it : unmapped) {
    for (uint64_t step = 0; step < size; ++step) {
      uint32_t gid = static_cast<uint32_t>(low + (Fnv1a(it->key) + step) % size);
      if (used.insert(gid).second) {
        it->gid = gid;
        it->has_gid = true;
        break;
      }
    }
  }

  std::string out;
  out.reserve(items_.size() * (prefix_.size() + suffix_.size() + 24));
  for (const Item& it : items_) {
    if (!it.has_gid) {
      ++skipped_;
      continue;
    }
    out += prefix_ + it.name + suffix_ + ":x:" + std::to_string(it.gid) + ":\n";
    ++groups_;
  }
  return out;
}

}  // namespace tavo_dir
