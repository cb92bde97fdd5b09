#include "accounts/snapshot/file_bytes.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace tavo {
namespace acct {
namespace {

// The files this process has mapped, once per mapping.
std::mutex g_mapped_mu;
std::vector<std::pair<unsigned long long, unsigned long long>>& Mapped() {
  static auto* mapped = new std::vector<std::pair<unsigned long long, unsigned long long>>;
  return *mapped;
}

}  // namespace

bool FileBytes::MappedHere(unsigned long long dev, unsigned long long ino) {
  std::lock_guard<std::mutex> lock(g_mapped_mu);
  const auto& m = Mapped();
  return std::find(m.begin(), m.end(), std::make_pair(dev, ino)) != m.end();
}

FileBytes::~FileBytes() { Unmap(); }

FileBytes::FileBytes(FileBytes&& other) noexcept
    : text_(std::move(other.text_)),
      map_(other.map_),
      map_size_(other.map_size_),
      dev_(other.dev_),
      ino_(other.ino_) {
  other.map_ = nullptr;
  other.map_size_ = 0;
}

FileBytes& FileBytes::operator=(FileBytes&& other) noexcept {
  if (this != &other) {
    Unmap();
    text_ = std::move(other.text_);
    map_ = other.map_;
    map_size_ = other.map_size_;
    dev_ = other.dev_;
    ino_ = other.ino_;
    other.map_ = nullptr;
    other.map_size_ = 0;
  }
  return *this;
}

bool FileBytes::Map(int fd, size_t size) {
  Unmap();
  text_.clear();
  struct stat st;
  if (size == 0 || fstat(fd, &st) != 0) return false;
  void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  if (p == MAP_FAILED) return false;
  map_ = static_cast<const char*>(p);
  map_size_ = size;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  std::lock_guard<std::mutex> lock(g_mapped_mu);
  Mapped().emplace_back(dev_, ino_);
  return true;
}

void FileBytes::Unmap() {
  if (!map_) return;
  munmap(const_cast<char*>(map_), map_size_);
  map_ = nullptr;
  map_size_ = 0;
  std::lock_guard<std::mutex> lock(g_mapped_mu);
  auto& m = Mapped();
  auto it = std::find(m.begin(), m.end(), std::make_pair(dev_, ino_));
  if (it != m.end()) m.erase(it);
}

}  // namespace acct
}  // namespace tavo
