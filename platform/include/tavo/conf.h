// TavoConf: the appliance configuration, ROOT/etc/tavo/tavo.conf.
//
// Format: one "key = value" per line; blank lines and lines starting with "#"
// are ignored; surrounding blanks are trimmed. The value is everything after
// the first "="; lines without "=" are ignored and a key given twice takes its
// last value. Known key: "maxgroups" (the upper bound on the number of local
// groups).
//
// Thread-safety: a TavoConf object is immutable after construction and may be
// shared between threads. Errors: a missing or unreadable file is an empty
// configuration.
#ifndef TAVO_CONF_H_
#define TAVO_CONF_H_

#include <map>
#include <string>

class TavoConf {
 public:
  // Reads the configuration file as it is now.
  TavoConf();
  // The value of `key`, or `def` when the key is absent. The pointer stays
  // valid as long as this object (or, for `def`, the caller's string) lives.
  const char* Def(const char* key, const char* def) const;

 private:
  std::map<std::string, std::string> values_;
};

#endif  // TAVO_CONF_H_
