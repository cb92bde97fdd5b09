// TavoConf: "key = value" lines of ROOT/etc/tavo/tavo.conf.
#include "tavo/conf.h"

#include <fstream>

#include "tavo/root.h"

namespace {

std::string Trim(const std::string& s) {
  const char* blanks = " \t\r\n\f\v";
  size_t b = s.find_first_not_of(blanks);
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(blanks);
  return s.substr(b, e - b + 1);
}

}  // namespace

// Lines without "=" and lines with an empty key are ignored; when a key
// appears twice, the last line wins.
TavoConf::TavoConf() {
  std::ifstream in(tavo::TavoRootPath("/etc/tavo/tavo.conf"));
  std::string line;
  while (std::getline(in, line)) {
    std::string text = Trim(line);
    if (text.empty() || text[0] == '#') continue;
    size_t eq = text.find('=');
    if (eq == std::string::npos) continue;
    std::string key = Trim(text.substr(0, eq));
    if (key.empty()) continue;
    values_[key] = Trim(text.substr(eq + 1));
  }
}

const char* TavoConf::Def(const char* key, const char* def) const {
  if (!key) return def;
  auto it = values_.find(key);
  return it == values_.end() ? def : it->second.c_str();
}
