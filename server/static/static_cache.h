// StaticCache: the admin page's files in memory, with their ETag and a
// gzip-compressed copy, so the event threads answer them without waiting on
// the disk after the first request.
//
// An entry is checked against the file's size, modification time and inode
// (one stat) on each use and read again when the file changed. The ETag is
// derived from those three. Files larger than `max_file` are not cached
// (Load then fails and the caller answers 404); at most `max_entries` files
// are kept, the cache starting over when full.
//
// Ownership: entries are shared; a caller may keep one after it was replaced.
// Thread-safety: Load may be called from any thread.
#ifndef TAVO_SERVER_STATIC_STATIC_CACHE_H_
#define TAVO_SERVER_STATIC_STATIC_CACHE_H_

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace tavo_server {

class StaticCache {
 public:
  struct Entry {
    std::string body;
    std::string gzipped;  // "" when not worth it
    std::string etag;     // quoted
    std::string content_type;
    long size = 0;
    long long mtime_ns = 0;
    unsigned long inode = 0;
  };

  explicit StaticCache(size_t max_file = 8 << 20, size_t max_entries = 512)
      : max_file_(max_file), max_entries_(max_entries) {}

  // The current content of the regular file at `path`; null when it cannot
  // be read or is too large.
  std::shared_ptr<const Entry> Load(const std::string& path);

 private:
  const size_t max_file_, max_entries_;
  std::mutex mu_;
  std::unordered_map<std::string, std::shared_ptr<const Entry>> entries_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_STATIC_STATIC_CACHE_H_
