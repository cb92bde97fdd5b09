// Gzip compression of answers.
//
// Thread-safety: reentrant.
#ifndef TAVO_SERVER_COMPRESS_H_
#define TAVO_SERVER_COMPRESS_H_

#include <string>

namespace tavo_server {

// Answers smaller than this are sent as they are: compressing them saves
// less than it costs.
constexpr size_t kGzipMinBytes = 4096;

// True when an Accept-Encoding value allows gzip (listed, or "*", with a
// q-value other than 0).
bool AcceptsGzip(const std::string& accept_encoding);

// `in` in gzip format (zlib, fastest level); false when zlib fails.
bool Gzip(const std::string& in, std::string* out);

// True for the content types worth compressing (text, JSON, JavaScript, SVG).
bool Compressible(const std::string& content_type);

}  // namespace tavo_server

#endif  // TAVO_SERVER_COMPRESS_H_
