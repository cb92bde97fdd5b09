#include "static/static_files.h"

#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <map>

namespace tavo_server {
namespace {

std::string Canonical(const std::string& path) {
  char buf[PATH_MAX];
  if (realpath(path.c_str(), buf) == nullptr) return "";
  return buf;
}

bool SafeSegments(const std::string& path) {
  if (path.empty() || path[0] != '/') return false;
  if (path.find('\0') != std::string::npos || path.find('\\') != std::string::npos) return false;
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string seg = path.substr(start, end - start);
    if (seg == "." || seg == "..") return false;
    // An empty segment ("//") could make the rest look absolute.
    if (seg.empty() && end != path.size()) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

StaticFiles::StaticFiles(const std::string& dir) : root_(Canonical(dir)) {}

StaticFiles::Result StaticFiles::Resolve(const std::string& url_path, std::string* file) const {
  if (!SafeSegments(url_path)) return Result::kBadPath;
  if (root_.empty()) return Result::kNotFound;
  std::string path = root_ + url_path;
  if (path.back() == '/') path += "index.html";
  std::string real = Canonical(path);
  if (real.empty()) return Result::kNotFound;
  if (real.compare(0, root_.size() + 1, root_ + "/") != 0) return Result::kNotFound;
  struct stat st;
  if (stat(real.c_str(), &st) != 0) return Result::kNotFound;
  if (S_ISDIR(st.st_mode)) {
    std::string index = Canonical(real + "/index.html");
    if (index.empty() || index.compare(0, root_.size() + 1, root_ + "/") != 0)
      return Result::kNotFound;
    real = index;
    if (stat(real.c_str(), &st) != 0) return Result::kNotFound;
  }
  if (!S_ISREG(st.st_mode)) return Result::kNotFound;
  *file = real;
  return Result::kFound;
}

std::string StaticFiles::ContentType(const std::string& file) {
  static const std::map<std::string, std::string> kTypes = {
      {"html", "text/html; charset=utf-8"},
      {"htm", "text/html; charset=utf-8"},
      {"css", "text/css; charset=utf-8"},
      {"js", "text/javascript; charset=utf-8"},
      {"mjs", "text/javascript; charset=utf-8"},
      {"json", "application/json"},
      {"map", "application/json"},
      {"svg", "image/svg+xml"},
      {"png", "image/png"},
      {"jpg", "image/jpeg"},
      {"jpeg", "image/jpeg"},
      {"gif", "image/gif"},
      {"ico", "image/x-icon"},
      {"webp", "image/webp"},
      {"woff", "font/woff"},
      {"woff2", "font/woff2"},
      {"txt", "text/plain; charset=utf-8"},
      {"md", "text/plain; charset=utf-8"},
  };
  auto slash = file.rfind('/');
  auto dot = file.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
    return "application/octet-stream";
  std::string ext = file.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  auto it = kTypes.find(ext);
  return it == kTypes.end() ? "application/octet-stream" : it->second;
}

}  // namespace tavo_server
