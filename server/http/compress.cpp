#include "http/compress.h"

#include <strings.h>
#include <zlib.h>

#include <cstdlib>

#include "tavo/util.h"

namespace tavo_server {

using tavo::Trim;

bool AcceptsGzip(const std::string& accept_encoding) {
  bool star = false, gzip = false, gzip_listed = false;
  size_t pos = 0;
  while (pos <= accept_encoding.size()) {
    size_t end = accept_encoding.find(',', pos);
    if (end == std::string::npos) end = accept_encoding.size();
    std::string item = accept_encoding.substr(pos, end - pos);
    pos = end + 1;
    std::string name = Trim(item.substr(0, item.find(';')));
    bool allowed = true;
    size_t q = item.find(';');
    if (q != std::string::npos) {
      std::string param = Trim(item.substr(q + 1));
      if (strncasecmp(param.c_str(), "q=", 2) == 0)
        allowed = strtod(param.c_str() + 2, nullptr) > 0;
    }
    if (strcasecmp(name.c_str(), "gzip") == 0 || strcasecmp(name.c_str(), "x-gzip") == 0) {
      gzip_listed = true;
      gzip = allowed;
    } else if (name == "*") {
      star = allowed;
    }
  }
  return gzip_listed ? gzip : star;
}

bool Gzip(const std::string& in, std::string* out) {
  z_stream z{};
  if (deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    return false;
  out->resize(deflateBound(&z, in.size()) + 32);
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = reinterpret_cast<Bytef*>(&(*out)[0]);
  z.avail_out = static_cast<uInt>(out->size());
  const int r = deflate(&z, Z_FINISH);
  out->resize(z.total_out);
  deflateEnd(&z);
  return r == Z_STREAM_END;
}

bool Compressible(const std::string& type) {
  return type.compare(0, 5, "text/") == 0 || type.compare(0, 16, "application/json") == 0 ||
         type.compare(0, 13, "image/svg+xml") == 0;
}

}  // namespace tavo_server
