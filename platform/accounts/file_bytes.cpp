#include "file_bytes.h"

#include <sys/mman.h>

#include <utility>

namespace tavo {
namespace acct {

FileBytes::~FileBytes() {
  Unmap();
}

FileBytes::FileBytes(FileBytes&& other) noexcept
    : text_(std::move(other.text_)), map_(other.map_), map_size_(other.map_size_) {
  other.map_ = nullptr;
  other.map_size_ = 0;
}

FileBytes& FileBytes::operator=(FileBytes&& other) noexcept {
  if (this != &other) {
    Unmap();
    text_ = std::move(other.text_);
    map_ = other.map_;
    map_size_ = other.map_size_;
    other.map_ = nullptr;
    other.map_size_ = 0;
  }
  return *this;
}

bool FileBytes::Map(int fd, size_t size) {
  Unmap();
  text_.clear();
  if (size == 0) return false;
  void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
  if (p == MAP_FAILED) return false;
  map_ = static_cast<const char*>(p);
  map_size_ = size;
  return true;
}

void FileBytes::Unmap() {
  if (map_) munmap(const_cast<char*>(map_), map_size_);
  map_ = nullptr;
  map_size_ = 0;
}

}  // namespace acct
}  // namespace tavo
