// File keys and whole-file reads for the snapshot caches.
#include "snapshot.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "acct_error.h"
#include "tavo/one_shot.h"
#include "tavo/read_scope.h"

namespace tavo {
namespace acct {
namespace {

std::mutex g_gen_mu;
// Per path, a value of g_counter taken at its last invalidation; paths not in
// the map have g_base. Values are never reused, so a key read before an
// invalidation never matches after it, also once the map was emptied.
std::map<std::string, unsigned long long>* g_generations = nullptr;  // guarded by g_gen_mu
unsigned long long g_counter = 0;                                    // guarded by g_gen_mu
unsigned long long g_base = 0;                                       // guarded by g_gen_mu

void FillKey(const struct stat& st, FileKey* key) {
  key->exists = true;
  key->dev = st.st_dev;
  key->ino = st.st_ino;
  key->size = static_cast<unsigned long long>(st.st_size);
  key->mtime_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  key->ctime_ns = static_cast<long long>(st.st_ctim.tv_sec) * 1000000000LL + st.st_ctim.tv_nsec;
}

// Longer than a tick of the kernel's coarse clock (at most 10 ms), which
// stamps file times, plus the lag of that clock behind the real time.
constexpr long long kRecentNs = 50LL * 1000 * 1000;

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
  bool events_read = false;    // the folders' change events were read in this pin
  bool reusable = false;       // TavoAnswerReusable was called in this pin
  bool wrote = false;          // a file was written in this pin
};
thread_local PinState t_pins;

}  // namespace

// A new outermost pin starts with no marks.
static void EnterPin() {
  if (t_pins.depth++ == 0) {
    t_pins.reusable = false;
    t_pins.wrote = false;
  }
}

SnapshotPin::SnapshotPin() { EnterPin(); }

namespace {
std::atomic<bool> g_one_shot{false};
}  // namespace

}  // namespace acct

namespace {
// A mapped account file was cut short in place (by a tool that ignores the
// account locks) while this process read it. Nothing of a change is in place
// before its reads are done, so the call just stops.
void OnBusError(int) {
  static const char kText[] =
      "tavo: an account file was cut short while the call read it; the call stopped "
      "(`tavo check` shows the files as they are)\n";
  ssize_t ignored = write(STDERR_FILENO, kText, sizeof kText - 1);
  (void)ignored;
  _exit(1);
}
}  // namespace

void SetOneShotProcess() {
  acct::g_one_shot.store(true, std::memory_order_relaxed);
  internal::ForgoFolderWatch();  // each file is looked at with stat(2) instead
  struct sigaction now = {};
  if (sigaction(SIGBUS, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) {
    struct sigaction on_bus = {};
    on_bus.sa_handler = OnBusError;
    sigemptyset(&on_bus.sa_mask);
    sigaction(SIGBUS, &on_bus, nullptr);
  }
}
bool IsOneShotProcess() { return acct::g_one_shot.load(std::memory_order_relaxed); }

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

std::shared_ptr<const ReadSet> ReadScope::Reads() const {
  const acct::PinState& pins = acct::t_pins;
  if (pins.depth != 1 || !pins.reusable || pins.wrote) return nullptr;
  auto impl = std::make_unique<ReadSet::Impl>();
  impl->root = TavoRootGeneration();
  for (const acct::PinState::Entry& e : pins.entries) {
    if (e.root != 0 && e.root != impl->root) return nullptr;  // the root moved during the call
    impl->files.push_back(ReadSet::Impl::File{e.cache, e.path, e.refetch, e.origin});
  }
  return std::make_shared<const ReadSet>(std::move(impl));
}

namespace acct {

SnapshotPin::~SnapshotPin() { Release(); }

void SnapshotPin::Release() {
  if (--t_pins.depth == 0) {
    t_pins.entries.clear();
    t_pins.events_read = false;
    t_pins.reusable = false;
    t_pins.wrote = false;
  }
}

namespace internal {

std::shared_ptr<const void> PinnedValue(const void* cache, const std::string& path) {
  if (t_pins.depth == 0) return nullptr;
  for (const PinState::Entry& e : t_pins.entries)
    if (e.cache == cache && e.path == path) return e.value;
  return nullptr;
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

void PrefaultHeap(void* p, size_t bytes) {
  // Worth it only where the allocator maps whole pages of its own.
  if (bytes < (64u << 10)) return;
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
  uintptr_t end = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
  if (end <= begin) return;
#ifdef MADV_HUGEPAGE
  // The whole 2 MiB blocks inside the buffer are asked for as huge pages
  // where the system allows it: one fault and one zeroing per 2 MiB instead
  // of per 4 KiB, which makes reading a file of 10 MB several times faster
  // on a fresh heap. Only blocks the buffer fills are asked for, so the
  // memory used stays what the buffer needs.
  constexpr uintptr_t kHuge = 2u << 20;
  const uintptr_t hbegin = (begin + kHuge - 1) & ~(kHuge - 1);
  const uintptr_t hend = end & ~(kHuge - 1);
  if (hend > hbegin) madvise(reinterpret_cast<void*>(hbegin), hend - hbegin, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
}

bool RecentlyChanged(const FileKey& key) {
  if (!key.exists) return false;
  struct timespec now;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return true;
  long long now_ns = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
  return now_ns - key.ctime_ns < kRecentNs;
}

unsigned long long SnapshotGeneration(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_gen_mu);
  if (!g_generations) return g_base;
  auto it = g_generations->find(path);
  return it == g_generations->end() ? g_base : it->second;
}

void InvalidateSnapshot(const std::string& path) {
  t_pins.entries.clear();
  t_pins.events_read = false;
  if (t_pins.depth > 0) t_pins.wrote = true;
  std::lock_guard<std::mutex> lock(g_gen_mu);
  if (!g_generations) g_generations = new std::map<std::string, unsigned long long>();
  if (g_generations->size() > 256) {  // roots change between tests
    g_generations->clear();
    g_base = ++g_counter;
  }
  (*g_generations)[path] = ++g_counter;
}

bool StatKey(const std::string& path, FileKey* key) {
  *key = FileKey();
  key->generation = SnapshotGeneration(path);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return true;
    ACCT_ERR(TAVO_ERR_IO);
    return false;
  }
  FillKey(st, key);
  return true;
}

namespace {

// Opens the file at `path` and fills its key: the descriptor, or -1 with true
// for a missing file (key.exists=false) and false for any other failure.
bool OpenForRead(const std::string& path, int* fd, struct stat* st, FileKey* key) {
  *key = FileKey();
  key->generation = SnapshotGeneration(path);
  *fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (*fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return true;
    ACCT_ERR(TAVO_ERR_IO);
    return false;
  }
  if (fstat(*fd, st) != 0 || static_cast<unsigned long long>(st->st_size) >= kMaxSnapshotBytes) {
    close(*fd);
    *fd = -1;
    ACCT_ERR(TAVO_ERR_IO);
    return false;
  }
  FillKey(*st, key);
  return true;
}

// Reads the whole of open file `fd` (of status `st`) into `content`, and
// closes it.
bool ReadOpened(int fd, const struct stat& st, std::string* content) {
  // Read straight into the string; the file may still grow while read.
  const size_t expect = static_cast<size_t>(st.st_size);
  content->reserve(expect + 1);
  PrefaultHeap(&(*content)[0], expect + 1);
  content->resize(expect);
  size_t have = 0;
  bool ok = true;
  char extra[4096];  // what the file gained since fstat, if anything
  for (;;) {
    const bool full = have == content->size();
    ssize_t n =
        full ? read(fd, extra, sizeof extra) : read(fd, &(*content)[have], content->size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    if (full) content->append(extra, static_cast<size_t>(n));
    have += static_cast<size_t>(n);
    if (have >= kMaxSnapshotBytes) {
      ok = false;
      break;
    }
  }
  content->resize(ok ? have : 0);
  close(fd);
  if (!ok) ACCT_ERR(TAVO_ERR_IO);
  return ok;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string* content, FileKey* key) {
  content->clear();
  int fd;
  struct stat st;
  if (!OpenForRead(path, &fd, &st, key)) return false;
  return fd < 0 || ReadOpened(fd, st, content);
}

bool ReadFileBytes(const std::string& path, FileBytes* content, FileKey* key) {
  *content = FileBytes();
  int fd;
  struct stat st;
  if (!OpenForRead(path, &fd, &st, key)) return false;
  if (fd < 0) return true;  // missing: empty
  if (IsOneShotProcess() && S_ISREG(st.st_mode) &&
      static_cast<unsigned long long>(st.st_size) >= kMapBytes &&
      content->Map(fd, static_cast<size_t>(st.st_size))) {
    close(fd);
    return true;
  }
  std::string text;  // small, not a plain file, not one-off, or not mapped
  if (!ReadOpened(fd, st, &text)) return false;
  *content = FileBytes(std::move(text));
  return true;
}

bool FileHoldsBytes(const std::string& path, std::string_view bytes, FileKey* key) {
  *key = FileKey();
  key->generation = SnapshotGeneration(path);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool same = fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) == bytes.size();
  if (same) FillKey(st, key);
  size_t at = 0;
  char buf[65536];
  while (same) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      same = n == 0 && at == bytes.size();
      break;
    }
    const size_t got = static_cast<size_t>(n);
    same = at + got <= bytes.size() && std::memcmp(buf, bytes.data() + at, got) == 0;
    at += got;
  }
  close(fd);
  return same;
}

bool ReportMissing(const std::string&) {
  ACCT_ERR(TAVO_ERR_IO);
  return false;
}

}  // namespace acct
}  // namespace tavo

extern "C" void TavoAnswerReusable(void) {
  if (tavo::acct::t_pins.depth > 0) tavo::acct::t_pins.reusable = true;
}
