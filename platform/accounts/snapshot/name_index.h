// Hash indexes over the names of a snapshot, without copies of the names.
//
// NameIndex maps a name, ignoring case (FoldCase), to the entries of a list
// that bear it in any case; lookups find the exact spelling first.
// ExactIndex maps an exact name to one entry (the first or the last of that
// name, as the file's own rule says). Names are kept as 32-bit spans of the
// owner's bytes (`base`), which must outlive the index and never move.
//
// Memory: per entry about 28 bytes (NameIndex: name and folded spans, a hash
// and two slots) or 24 bytes (ExactIndex); folded forms are stored only for
// names whose folded form differs from the name.
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

// Bytes [off, off + len) of a snapshot's text.
struct TextSpan {
  uint32_t off = 0, len = 0;
};

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
  // Whether `entries` fit at the load Reset gives.
  bool HasRoomFor(size_t entries) const { return slots_.size() >= entries * 2; }

 private:
  std::vector<int32_t> slots_;
  size_t mask_ = 0;
};

class NameIndex {
 public:
  NameIndex() = default;
  NameIndex(const NameIndex&) = delete;
  NameIndex& operator=(const NameIndex&) = delete;

  // `names` are spans of `base`, which the owner keeps alive and in place.
  void Build(const char* base, std::vector<TextSpan> names);
  // The index of `old` over `base`, which holds the same names as old's bytes
  // except that every byte at or after `from` moved by `shift`.
  void CopyShifted(const NameIndex& old, const char* base, uint32_t from, int64_t shift);
  // The index of `old` over `base` (old's bytes, in place, and more after
  // them) with one more entry, `name`, last.
  void CopyAppended(const NameIndex& old, const char* base, TextSpan name);
  size_t size() const { return names_.size(); }
  std::string_view Name(int i) const { return View(names_[i]); }
  std::string_view Folded(int i) const {
    const TextSpan f = folded_[i];
    return f.off & kInArena ? std::string_view(arena_).substr(f.off & ~kInArena, f.len) : View(f);
  }
  // The entry spelt exactly `name`, else the first (in list order) whose
  // name equals it ignoring case; -1 if none.
  int Find(std::string_view name) const;
  // Calls f(i) for every entry whose folded name is `folded`, in list order.
  template <typename F>
  void ForEachVariant(std::string_view folded, F&& f) const {
    slots_.Probe(HashName(folded), hashes_, [&](int32_t e) {
      if (Folded(e) == folded) f(static_cast<int>(e));
      return true;
    });
  }

 private:
  static constexpr uint32_t kInArena = 0x80000000u;  // folded_[i].off: in arena_
  std::string_view View(TextSpan s) const { return std::string_view(base_ + s.off, s.len); }
  const char* base_ = nullptr;
  std::vector<TextSpan> names_, folded_;
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
  void Build(const char* base, std::vector<TextSpan> names, bool last_wins);
  int Find(std::string_view name) const;

 private:
  std::string_view View(TextSpan s) const { return std::string_view(base_ + s.off, s.len); }
  const char* base_ = nullptr;
  std::vector<TextSpan> names_;
  std::vector<uint32_t> hashes_;
  std::vector<int32_t> winner_;  // per entry: the entry its name stands for
  SlotTable slots_;
};

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_NAME_INDEX_H_
