// durable_floor: how low a whole process that changes one group member can
// go on this machine. It does the file work of such a change and nothing
// else: map `group` and `gshadow`, write each anew with one line changed over
// a spare file, start both writing back, fsync both, an intent record, the
// backup and replacing renames, a folder fsync, and one appended log record
// with fdatasync. No parsing, no locks, no libraries: a statically linked
// program. The files keep their content (the change is undone by the swap
// back), so it can be run again and again on a bench root.
//   durable_floor ETC_DIR
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

bool Fail(const std::string& what) {
  perror(what.c_str());
  return false;
}

int Exit(const std::string& what) {
  perror(what.c_str());
  return 1;
}

// Writes `etc/name` anew over the spare, a line's worth longer; the open
// descriptor is left in *fd.
bool WriteSpare(const std::string& etc, const char* name, int* fd) {
  const std::string path = etc + "/" + name;
  const int in = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (in < 0 || fstat(in, &st) != 0) return Fail(path);
  const size_t n = static_cast<size_t>(st.st_size);
  void* map = mmap(nullptr, n, PROT_READ, MAP_PRIVATE | MAP_POPULATE, in, 0);
  close(in);
  if (map == MAP_FAILED) return Fail("mmap " + path);
  const char* text = static_cast<const char*>(map);
  const std::string spare = etc + "/." + name + ".floor-spare";
  *fd = open(spare.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (*fd < 0) return Fail(spare);
  const size_t half = n / 2;
  bool ok = write(*fd, text, half) == static_cast<ssize_t>(half) && write(*fd, ",x", 2) == 2 &&
            write(*fd, text + half, n - half) == static_cast<ssize_t>(n - half) &&
            ftruncate(*fd, static_cast<off_t>(n + 2)) == 0;
  munmap(map, n);
  if (!ok) return Fail("write " + spare);
  sync_file_range(*fd, 0, 0, SYNC_FILE_RANGE_WRITE);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: durable_floor ETC_DIR\n");
    return 2;
  }
  const std::string etc = argv[1];
  const char* names[2] = {"group", "gshadow"};
  int fds[2] = {-1, -1};
  for (int i = 0; i < 2; ++i)
    if (!WriteSpare(etc, names[i], &fds[i])) return 1;
  for (int fd : fds)
    if (fsync(fd) != 0) return Exit("fsync");
  const std::string intent = etc + "/.floor-intent";
  const int j = open(intent.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (j < 0 || write(j, "intent\n", 7) != 7 || fdatasync(j) != 0) return Exit(intent);
  close(j);
  for (int i = 0; i < 2; ++i) {
    // Two renames a file, as a backup and a replacement take.
    const std::string spare = etc + "/." + names[i] + ".floor-spare";
    const std::string moved = etc + "/." + names[i] + ".floor-moved";
    if (rename(spare.c_str(), moved.c_str()) != 0 || rename(moved.c_str(), spare.c_str()) != 0)
      return Exit("rename");
    close(fds[i]);
  }
  const int dir = open(etc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0 || fsync(dir) != 0) return Exit(etc);
  close(dir);
  unlink(intent.c_str());
  const std::string log = etc + "/.floor-log";
  const int l = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  static const char kRecord[] =
      "one event-log record of about a hundred bytes, as a change appends\n";
  if (l < 0 || write(l, kRecord, sizeof kRecord - 1) != static_cast<ssize_t>(sizeof kRecord - 1) ||
      fdatasync(l) != 0)
    return Exit(log);
  close(l);
  return 0;
}
