// Hash indexes over snapshot names.
#include "accounts/snapshot/name_index.h"

#include "accounts/snapshot/names.h"
#include "accounts/snapshot/snapshot.h"

namespace tavo {
namespace acct {
namespace {

// True when FoldCase leaves `s` as it is: plain ASCII without capitals (the
// common case, folded without building a string).
bool FoldsToItself(std::string_view s) {
  for (unsigned char c : s)
    if (c >= 0x80 || (c >= 'A' && c <= 'Z')) return false;
  return true;
}

}  // namespace

uint32_t HashName(std::string_view s) {
  uint32_t h = 2166136261u;  // FNV-1a
  for (unsigned char c : s) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

void SlotTable::Reset(size_t entries) {
  size_t n = 16;
  while (n < entries * 2) n <<= 1;
  slots_.clear();
  ReservePrefaulted(&slots_, n);
  slots_.assign(n, -1);
  mask_ = n - 1;
}

void SlotTable::Insert(uint32_t hash, int32_t entry) {
  size_t s = hash & mask_;
  while (slots_[s] >= 0) s = (s + 1) & mask_;
  slots_[s] = entry;
}

void NameIndex::Build(const char* base, std::vector<TextSpan> names) {
  base_ = base;
  names_ = std::move(names);
  const size_t n = names_.size();
  ReservePrefaulted(&folded_, n);
  folded_.assign(n, TextSpan());
  ReservePrefaulted(&hashes_, n);
  hashes_.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const std::string_view name = View(names_[i]);
    if (FoldsToItself(name)) {
      folded_[i] = names_[i];
      continue;
    }
    const std::string f = FoldCase(std::string(name));
    folded_[i] =
        TextSpan{static_cast<uint32_t>(arena_.size()) | kInArena, static_cast<uint32_t>(f.size())};
    arena_ += f;
  }
  arena_.shrink_to_fit();
  slots_.Reset(n);
  for (size_t i = 0; i < n; ++i) {
    hashes_[i] = HashName(Folded(static_cast<int>(i)));
    slots_.Insert(hashes_[i], static_cast<int32_t>(i));
  }
}

void NameIndex::CopyShifted(const NameIndex& old, const char* base, uint32_t from, int64_t shift) {
  base_ = base;
  arena_ = old.arena_;
  hashes_ = old.hashes_;
  slots_ = old.slots_;
  auto moved = [&](TextSpan s) {
    if (s.off >= from) s.off = static_cast<uint32_t>(s.off + shift);
    return s;
  };
  ReservePrefaulted(&names_, old.names_.size());
  ReservePrefaulted(&folded_, old.names_.size());
  for (size_t i = 0; i < old.names_.size(); ++i) {
    names_.push_back(moved(old.names_[i]));
    folded_.push_back(old.folded_[i].off & kInArena ? old.folded_[i] : moved(old.folded_[i]));
  }
}

void NameIndex::CopyAppended(const NameIndex& old, const char* base, TextSpan name) {
  base_ = base;
  const size_t n = old.names_.size() + 1;
  ReservePrefaulted(&names_, n);
  ReservePrefaulted(&folded_, n);
  ReservePrefaulted(&hashes_, n);
  names_ = old.names_;
  folded_ = old.folded_;
  hashes_ = old.hashes_;
  arena_ = old.arena_;
  names_.push_back(name);
  const std::string_view view = View(name);
  if (FoldsToItself(view)) {
    folded_.push_back(name);
  } else {
    const std::string f = FoldCase(std::string(view));
    folded_.push_back(
        TextSpan{static_cast<uint32_t>(arena_.size()) | kInArena, static_cast<uint32_t>(f.size())});
    arena_ += f;
  }
  const int32_t added = static_cast<int32_t>(n - 1);
  hashes_.push_back(HashName(Folded(added)));
  if (old.slots_.HasRoomFor(n)) {
    slots_ = old.slots_;
    slots_.Insert(hashes_[added], added);
    return;
  }
  slots_.Reset(n);
  for (size_t i = 0; i < n; ++i) slots_.Insert(hashes_[i], static_cast<int32_t>(i));
}

int NameIndex::Find(std::string_view name) const {
  std::string owned;  // only for a name that folds to another form
  const std::string_view folded =
      FoldsToItself(name) ? name : std::string_view(owned = FoldCase(std::string(name)));
  int exact = -1, first = -1;
  ForEachVariant(folded, [&](int i) {
    if (first < 0) first = i;
    if (exact < 0 && Name(i) == name) exact = i;
  });
  return exact >= 0 ? exact : first;
}

void ExactIndex::Build(const char* base, std::vector<TextSpan> names, bool last_wins) {
  base_ = base;
  names_ = std::move(names);
  const size_t n = names_.size();
  ReservePrefaulted(&hashes_, n);
  hashes_.resize(n);
  ReservePrefaulted(&winner_, n);
  winner_.assign(n, -1);
  slots_.Reset(n);
  for (size_t i = 0; i < n; ++i) {
    const std::string_view name = View(names_[i]);
    hashes_[i] = HashName(name);
    int32_t seen = -1;
    slots_.Probe(hashes_[i], hashes_, [&](int32_t e) {
      if (View(names_[e]) != name) return true;
      seen = e;
      return false;
    });
    if (seen < 0) {
      slots_.Insert(hashes_[i], static_cast<int32_t>(i));
      winner_[i] = static_cast<int32_t>(i);
    } else if (last_wins) {
      winner_[seen] = static_cast<int32_t>(i);
    }
  }
}

int ExactIndex::Find(std::string_view name) const {
  int found = -1;
  slots_.Probe(HashName(name), hashes_, [&](int32_t e) {
    if (View(names_[e]) != name) return true;
    found = winner_[e];
    return false;
  });
  return found;
}

}  // namespace acct
}  // namespace tavo
