// FileBytes: the bytes of one account file as a snapshot keeps them, either
// in a string it owns or in a read-only private mapping of the file.
//
// A mapping is used only by a process that answers one request and exits
// (one_shot.h): it reads the page cache where it lies, where a string must
// first be allocated, zeroed by the kernel and filled by a copy, which is
// most of what reading a large file costs such a process. A long-lived
// process keeps strings: a file it mapped could later be written over in
// place (a spare file is recycled that way), and its snapshot would change
// under it. A file cut short in place while it is mapped makes a read past
// its new end raise SIGBUS; the one-off process then stops (see one_shot.h).
//
// Ownership: owns the string or the mapping; moves, never copies.
// Thread-safety: const members from any thread. Errors: Map returns false.
#ifndef TAVO_PLATFORM_FILE_BYTES_H_
#define TAVO_PLATFORM_FILE_BYTES_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tavo {
namespace acct {

class FileBytes {
 public:
  FileBytes() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a string is a file's bytes too
  FileBytes(std::string text) : text_(std::move(text)) {}
  ~FileBytes();
  FileBytes(FileBytes&& other) noexcept;
  FileBytes& operator=(FileBytes&& other) noexcept;
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;

  // Maps the first `size` (> 0) bytes of `fd`, read-only and private, with
  // every page mapped at once. False (and nothing held) when mmap fails.
  bool Map(int fd, size_t size);

  const char* data() const { return map_ ? map_ : text_.data(); }
  size_t size() const { return map_ ? map_size_ : text_.size(); }
  bool empty() const { return size() == 0; }
  bool mapped() const { return map_ != nullptr; }
  char operator[](size_t i) const { return data()[i]; }
  size_t find(char c, size_t from = 0) const { return view().find(c, from); }
  std::string_view view() const { return std::string_view(data(), size()); }
  operator std::string_view() const { return view(); }
  // Heap bytes held (a mapping holds none: its pages are the file's).
  size_t capacity() const { return map_ ? 0 : text_.capacity(); }

  // Whether this process holds a mapping of the file (device, inode): such a
  // file must not be written over in place (a spare that is mapped is not
  // recycled).
  static bool MappedHere(unsigned long long dev, unsigned long long ino);

 private:
  void Unmap();
  std::string text_;
  const char* map_ = nullptr;
  size_t map_size_ = 0;
  unsigned long long dev_ = 0, ino_ = 0;  // of the mapped file
};

}  // namespace acct
}  // namespace tavo

#endif  // TAVO_PLATFORM_FILE_BYTES_H_
