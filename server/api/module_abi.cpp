#include "api/module_abi.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tavo/abi.h"

namespace tavo_server {
namespace {

constexpr off_t kMaxModuleSize = 512L * 1024 * 1024;

// A read-only mapping of a whole file, unmapped when it goes.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 &&
        st.st_size <= kMaxModuleSize) {
      void* p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
      if (p != MAP_FAILED) {
        data_ = static_cast<const unsigned char*>(p);
        size_ = static_cast<size_t>(st.st_size);
      }
    }
    close(fd);
  }
  ~MappedFile() {
    if (data_ != nullptr) munmap(const_cast<unsigned char*>(data_), size_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // The `count` objects of type T at `offset`, or null when out of bounds.
  template <typename T>
  const T* At(uint64_t offset, uint64_t count = 1) const {
    if (data_ == nullptr || offset > size_ || count > (size_ - offset) / sizeof(T)) return nullptr;
    return reinterpret_cast<const T*>(data_ + offset);
  }
  size_t size() const { return size_; }

 private:
  const unsigned char* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace

Status ReadNeededLibraries(const std::string& path, std::vector<std::string>* needed) {
  needed->clear();
  MappedFile file(path);
  const Elf64_Ehdr* eh = file.At<Elf64_Ehdr>(0);
  if (eh == nullptr || memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 ||
      eh->e_ident[EI_CLASS] != ELFCLASS64 || eh->e_ident[EI_DATA] != ELFDATA2LSB ||
      eh->e_shentsize != sizeof(Elf64_Shdr))
    return Status::Error(path + " is not a 64-bit little-endian ELF object");
  const Elf64_Shdr* sections = file.At<Elf64_Shdr>(eh->e_shoff, eh->e_shnum);
  if (sections == nullptr) return Status::Error(path + ": section table out of bounds");
  for (int i = 0; i < eh->e_shnum; ++i) {
    const Elf64_Shdr& dyn = sections[i];
    if (dyn.sh_type != SHT_DYNAMIC) continue;
    if (dyn.sh_link >= eh->e_shnum) return Status::Error(path + ": bad dynamic string table");
    const Elf64_Shdr& strtab = sections[dyn.sh_link];
    const char* strings = file.At<char>(strtab.sh_offset, strtab.sh_size);
    const Elf64_Dyn* entries = file.At<Elf64_Dyn>(dyn.sh_offset, dyn.sh_size / sizeof(Elf64_Dyn));
    if (strings == nullptr || entries == nullptr)
      return Status::Error(path + ": dynamic section out of bounds");
    for (uint64_t k = 0; k < dyn.sh_size / sizeof(Elf64_Dyn) && entries[k].d_tag != DT_NULL; ++k) {
      if (entries[k].d_tag != DT_NEEDED) continue;
      uint64_t at = entries[k].d_un.d_val;
      if (at >= strtab.sh_size) return Status::Error(path + ": DT_NEEDED name out of bounds");
      needed->emplace_back(strings + at, strnlen(strings + at, strtab.sh_size - at));
    }
  }
  return Status::OK();
}

Status CheckModuleAbi(const std::string& path) {
  std::vector<std::string> needed;
  if (!ReadNeededLibraries(path, &needed).ok()) return Status::OK();
  const std::string prefix = "libtavo.so";
  const std::string ours = prefix + "." + std::to_string(TAVO_ABI_VERSION);
  for (const std::string& lib : needed) {
    if (lib.compare(0, prefix.size(), prefix) != 0 || lib == ours) continue;
    std::string version =
        lib.size() > prefix.size() + 1 ? lib.substr(prefix.size() + 1) : "unknown";
    return Status::Error("it was built for platform ABI " + version + " (it needs " + lib +
                         "), but this server provides ABI " + std::to_string(TAVO_ABI_VERSION) +
                         " (" + ours + "): rebuild the module against this version's tavo-dev");
  }
  return Status::OK();
}

}  // namespace tavo_server
