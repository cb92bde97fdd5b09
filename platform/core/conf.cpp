// TavoConf: "key = value" lines of ROOT/etc/tavo/tavo.conf.
#include "tavo/conf.h"

#include <fstream>

#include "accounts/snapshot/pin.h"
#include "tavo/root.h"
#include "tavo/util.h"

using tavo::Trim;

// Lines without "=" and lines with an empty key are ignored; when a key
// appears twice, the last line wins.
TavoConf::TavoConf() {
  tavo::acct::internal::MarkNotReusable();  // a file outside the snapshots
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
