// Hash indexes over the names of a snapshot, without copies of the names.
//
// NameIndex maps a name, ignoring case (FoldCase), to the entries of a list
// that bear it in any case; FoldedIndex lookups find the exact spelling first.
// ExactIndex maps an exact name to one entry (the first or the last of that
// name, as the file's own rule says). Both hold views: the bytes they point
// into must outlive the index and never move, so an index is neither copied
// nor moved once built.
//
// Memory: per entry two views, a 32-bit hash and two 32-bit slots; the folded
// forms are stored only for names whose folded form differs from the name.
// Thread-safety: Build once, then any number of concurrent readers.
// Errors: none; Build may throw std::bad_alloc.
#ifndef TAVO_PLATFORM_NAME_INDEX_H_
#define TAVO_PLATFORM_NAME_INDEX_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavo {
namespace acct {

uint32_t HashName(std::string_view s);

// Open addressing over entry numbers, keyed by a 32-bit hash.
class SlotTable {
 public:
  void Reset(size_t entries);
  void Insert(uint32_t hash, int32_t entry);
  // Calls f(entry) for each entry inserted with `hash`, in insertion order,
  // until f returns false.
  template <typename F>
  void Probe(uint32_t hash, const std::vector<uint32_t>& hashes, F&& f) const {
    if (slots_.empty()) return;
    for (size_t s = hash & mask_; slots_[s] >= 0; s = (s + 1) & mask_) {
      const int32_t e = slots_[s];
      if (hashes[e] == hash && !f(e)) return;
    }
  }
  size_t MemoryBytes() const { return slots_.capacity() * sizeof(int32_t); }

 private:
  std::vector<int32_t> slots_;
  size_t mask_ = 0;
};

class NameIndex {
 public:
  NameIndex() = default;
  NameIndex(const NameIndex&) = delete;
  NameIndex& operator=(const NameIndex&) = delete;

  // `names` are views into bytes the owner keeps alive and in place.
  void Build(std::vector<std::string_view> names);
  // The index of `old` with each name view passed through `move` (the same
  // names, now in other bytes); folded forms of its own are copied.
  template <typename Move>
  void CopyMoved(const NameIndex& old, Move&& move) {
    arena_ = old.arena_;
    hashes_ = old.hashes_;
    slots_ = old.slots_;
    names_.resize(old.names_.size());
    folded_.resize(old.names_.size());  // (views: no constructor to run)
    const char* arena_begin = old.arena_.data();
    const char* arena_end = arena_begin + old.arena_.size();
    for (size_t i = 0; i < names_.size(); ++i) {
      names_[i] = move(old.names_[i]);
      const std::string_view f = old.folded_[i];
      if (f.data() >= arena_begin && f.data() < arena_end && !f.empty())
        folded_[i] = std::string_view(arena_.data() + (f.data() - arena_begin), f.size());
      else
        folded_[i] = f.data() == old.names_[i].data() ? names_[i] : move(f);
    }
  }
  size_t size() const { return names_.size(); }
  std::string_view Name(int i) const { return names_[i]; }
  std::string_view Folded(int i) const { return folded_[i]; }
  // The entry spelt exactly `name`, else the first (in list order) whose
  // name equals it ignoring case; -1 if none.
  int Find(std::string_view name) const;
  // Calls f(i) for every entry whose folded name is `folded`, in list order.
  template <typename F>
  void ForEachVariant(std::string_view folded, F&& f) const {
    slots_.Probe(HashName(folded), hashes_, [&](int32_t e) {
      if (folded_[e] == folded) f(static_cast<int>(e));
      return true;
    });
  }
  size_t MemoryBytes() const;

 private:
  std::vector<std::string_view> names_, folded_;
  std::vector<uint32_t> hashes_;  // of the folded names
  std::string arena_;             // folded forms that differ from the name
  SlotTable slots_;
};

class ExactIndex {
 public:
  ExactIndex() = default;
  ExactIndex(const ExactIndex&) = delete;
  ExactIndex& operator=(const ExactIndex&) = delete;

  // `last_wins`: a name listed twice finds its last entry, else its first.
  void Build(std::vector<std::string_view> names, bool last_wins);
  int Find(std::string_view name) const;
  size_t MemoryBytes() const;

 private:
  std::vector<std::string_view> names_;
  std::vector<uint32_t> hashes_;
  std::vector<int32_t> winner_;  // per entry: the entry its name stands for
  SlotTable slots_;
};

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_NAME_INDEX_H_
