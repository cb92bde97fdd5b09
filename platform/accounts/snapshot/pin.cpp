// Pins, read scopes and read sets: one request's view of the account files.
#include "accounts/snapshot/pin.h"

#include <string>
#include <vector>

#include "core/lock_path.h"
#include "tavo/read_scope.h"
#include "tavo/root.h"
#include "tavo/wait_notice.h"

namespace tavo {
namespace acct {
namespace {

// What the pins of this thread hold.
struct PinState {
  int depth = 0;
  struct Entry {
    const void* cache;
    std::string path;
    std::shared_ptr<const void> value;
    const char* abs;          // the platform path asked for, when a constant
    unsigned long long root;  // the root generation it was resolved under
    internal::Refetch refetch;
    std::weak_ptr<const void> origin;  // the snapshot itself (value is a copy of its own)
  };
  std::vector<Entry> entries;  // a handful: one per file the call reads
  std::vector<Entry> earlier;  // read before a lock was taken: in the read set only
  struct Lock {
    std::string path;  // platform path of a handler lock or lock file
    bool exclusive;
  };
  std::vector<Lock> locks;   // taken in this pin, in order
  bool events_read = false;  // the folders' change events were read in this pin
  bool reusable = false;     // TavoAnswerReusable was called in this pin
  bool wrote = false;        // a file was written in this pin
  bool opaque = false;       // something no snapshot tracks was read in this pin

  void Clear() {
    entries.clear();
    earlier.clear();
    locks.clear();
    events_read = reusable = wrote = opaque = false;
  }
  // What was pinned is handed out no more, but stays in the read set.
  void Unpin() {
    for (Entry& e : entries) earlier.push_back(std::move(e));
    entries.clear();
    events_read = false;
  }
};
thread_local PinState t_pins;

// A new outermost pin starts with no marks.
void EnterPin() {
  if (t_pins.depth++ == 0) t_pins.Clear();
}

}  // namespace

SnapshotPin::SnapshotPin() { EnterPin(); }
SnapshotPin::~SnapshotPin() { Release(); }

void SnapshotPin::Release() {
  if (--t_pins.depth == 0) t_pins.Clear();
}

namespace internal {

void AfterWrite() {
  t_pins.entries.clear();
  t_pins.earlier.clear();
  t_pins.events_read = false;
  if (t_pins.depth > 0) t_pins.wrote = true;
}

std::shared_ptr<const void> PinnedValue(const void* cache, const std::string& path) {
  if (t_pins.depth == 0) return nullptr;
  for (const PinState::Entry& e : t_pins.entries)
    if (e.cache == cache && e.path == path) return e.value;
  return nullptr;
}

void LockTaken(const char* lock_path, bool exclusive) {
  if (t_pins.depth == 0) return;
  t_pins.Unpin();
  if (lock_path) t_pins.locks.push_back(PinState::Lock{lock_path, exclusive});
}

void MarkNotReusable() {
  MarkClockRead();
  NoticeWait();
}

void MarkClockRead() {
  if (t_pins.depth > 0) t_pins.opaque = true;
}

bool ReadEventsNow() {
  if (t_pins.depth == 0) return true;
  if (t_pins.events_read) return false;
  t_pins.events_read = true;
  return true;
}

std::shared_ptr<const void> PinnedAt(const void* cache, const char* abs, unsigned long long root) {
  if (t_pins.depth == 0) return nullptr;
  for (const PinState::Entry& e : t_pins.entries)
    if (e.cache == cache && e.abs == abs && e.root == root) return e.value;
  return nullptr;
}

void PinValue(const void* cache, const std::string& path, std::shared_ptr<const void> value,
              Refetch refetch, const char* abs, unsigned long long root) {
  if (t_pins.depth == 0) return;
  std::weak_ptr<const void> origin = value;
  // The pinned copy shares a count of its own with this thread's later
  // copies, not the snapshot's count, which every thread's copies share: a
  // page of fifty groups copies its snapshots a few hundred times, and
  // threads on other cores incrementing one count made those copies cost
  // about a twentieth of a server's time.
  const void* raw = value.get();
  auto own = std::make_shared<std::shared_ptr<const void>>(std::move(value));
  t_pins.entries.push_back(PinState::Entry{cache, path,
                                           std::shared_ptr<const void>(std::move(own), raw), abs,
                                           root, refetch, std::move(origin)});
}

}  // namespace internal

}  // namespace acct

// A scope is a pin by another name, for callers outside the platform.
ReadScope::ReadScope() { acct::EnterPin(); }
ReadScope::~ReadScope() { acct::SnapshotPin::Release(); }

struct ReadSet::Impl {
  struct File {
    const void* cache;
    std::string path;
    acct::internal::Refetch refetch;
    std::weak_ptr<const void> origin;
  };
  std::vector<File> files;
  std::vector<std::string> locks;  // the handler locks the call took, all shared
  unsigned long long root = 0;
};

ReadSet::ReadSet(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ReadSet::~ReadSet() = default;
size_t ReadSet::size() const { return impl_->files.size(); }

bool ReadSet::Current() const {
  if (TavoRootGeneration() != impl_->root) return false;
  for (const Impl::File& f : impl_->files) {
    // A snapshot no longer held anywhere has been replaced; one still held
    // is current only when the cache hands out that very snapshot now.
    std::shared_ptr<const void> then = f.origin.lock();
    if (!then) return false;
    std::shared_ptr<const void> now = f.refetch(f.cache, f.path);
    if (now.get() != then.get()) return false;
  }
  return true;
}

ReadSet::Reuse ReadSet::Check() const {
  // The locks are taken as the call took them, but never waited for: a
  // call made afresh waits for them, within the same bound as any call.
  std::vector<internal::HeldLock> held;
  held.reserve(impl_->locks.size());
  for (const std::string& path : impl_->locks) {
    held.emplace_back();
    if (!held.back().TryShared(path)) return Reuse::kBusy;
  }
  if (!impl_->locks.empty()) acct::t_pins.Unpin();  // as after any lock: read anew
  return Current() ? Reuse::kCurrent : Reuse::kStale;
}

std::shared_ptr<const ReadSet> ReadScope::Reads() const {
  const acct::PinState& pins = acct::t_pins;
  if (pins.depth != 1 || !pins.reusable || pins.wrote || pins.opaque) return nullptr;
  auto impl = std::make_unique<ReadSet::Impl>();
  impl->root = TavoRootGeneration();
  for (const acct::PinState::Lock& l : pins.locks) {
    if (l.exclusive) return nullptr;  // a call that changes something is never given again
    impl->locks.push_back(l.path);
  }
  for (const auto* list : {&pins.earlier, &pins.entries}) {
    for (const acct::PinState::Entry& e : *list) {
      if (e.root != 0 && e.root != impl->root) return nullptr;  // the root moved during the call
      impl->files.push_back(ReadSet::Impl::File{e.cache, e.path, e.refetch, e.origin});
    }
  }
  return std::make_shared<const ReadSet>(std::move(impl));
}

}  // namespace tavo

extern "C" void TavoAnswerReusable(void) {
  if (tavo::acct::t_pins.depth > 0) tavo::acct::t_pins.reusable = true;
}
