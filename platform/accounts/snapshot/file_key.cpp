// File keys and whole-file reads for the snapshot caches.
#include "accounts/snapshot/file_key.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

#include "accounts/acct_error.h"
#include "accounts/snapshot/pin.h"
#include "tavo/one_shot.h"

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

}  // namespace

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
  internal::AfterWrite();
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
