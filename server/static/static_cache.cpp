#include "static/static_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "http/compress.h"
#include "static/static_files.h"

namespace tavo_server {
namespace {

// Reads the whole file of descriptor `fd`, which is `size` bytes long.
bool ReadAll(int fd, size_t size, std::string* out) {
  out->resize(size);
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd, &(*out)[got], size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::shared_ptr<const StaticCache::Entry> StaticCache::Load(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > max_file_) {
    close(fd);
    return nullptr;
  }
  const long long mtime_ns = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(path);
    if (it != entries_.end() && it->second->size == st.st_size &&
        it->second->mtime_ns == mtime_ns && it->second->inode == st.st_ino) {
      close(fd);
      return it->second;
    }
  }
  auto e = std::make_shared<Entry>();
  const bool ok = ReadAll(fd, static_cast<size_t>(st.st_size), &e->body);
  close(fd);
  if (!ok) return nullptr;
  e->size = st.st_size;
  e->mtime_ns = mtime_ns;
  e->inode = st.st_ino;
  char tag[80];
  snprintf(tag, sizeof(tag), "\"%lx-%llx-%lx\"", static_cast<unsigned long>(e->size), mtime_ns,
           e->inode);
  e->etag = tag;
  e->content_type = StaticFiles::ContentType(path);
  if (e->body.size() >= kGzipMinBytes && Compressible(e->content_type)) {
    if (!Gzip(e->body, &e->gzipped) || e->gzipped.size() >= e->body.size()) e->gzipped.clear();
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (entries_.size() >= max_entries_) entries_.clear();
  entries_[path] = e;
  return e;
}

}  // namespace tavo_server
