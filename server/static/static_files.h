// StaticFiles: serves the admin page's files from one folder.
//
// A URL path is mapped to a file only when every segment is an ordinary name
// (no "." or "..", no backslash or NUL; percent-escapes are decoded before
// the check) and the file's canonical path (realpath, so symlinks are
// followed) lies inside the folder's canonical path. "/" and folders serve
// their index.html. Unknown extensions are served as
// application/octet-stream.
//
// Thread-safety: const after construction; Resolve may run on any thread.
#ifndef TAVO_SERVER_STATIC_STATIC_FILES_H_
#define TAVO_SERVER_STATIC_STATIC_FILES_H_

#include <string>

namespace tavo_server {

class StaticFiles {
 public:
  // `dir` need not exist (every request then answers 404).
  explicit StaticFiles(const std::string& dir);

  enum class Result { kFound, kBadPath, kNotFound };
  // Maps a decoded URL path to a readable regular file inside the folder.
  Result Resolve(const std::string& url_path, std::string* file) const;

  static std::string ContentType(const std::string& file);
  const std::string& root() const { return root_; }

 private:
  std::string root_;  // canonical, "" when the folder does not exist
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_STATIC_STATIC_FILES_H_
