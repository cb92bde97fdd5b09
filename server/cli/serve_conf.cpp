#include "cli/serve_conf.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "tavo/util.h"

namespace tavo_server {

using tavo::Trim;

Status ReadServeConf(const std::string& path, std::vector<std::string>* args) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Status::Error("cannot read the configuration file " + path);
  std::string text(kMaxServeConfSize + 1, '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() > kMaxServeConfSize)
    return Status::Error(path + " is larger than " + std::to_string(kMaxServeConfSize) + " bytes");
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    const std::string where = path + ":" + std::to_string(number) + ": ";
    if (line.size() > kMaxServeConfLine) return Status::Error(where + "line too long");
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) return Status::Error(where + "expected NAME = VALUE");
    std::string name = Trim(line.substr(0, eq));
    std::string value = Trim(line.substr(eq + 1));
    if (name.empty() || name[0] == '-' || name == "help" || name == "config")
      return Status::Error(where + "'" + name + "' is not a setting");
    if (value.empty()) return Status::Error(where + name + " has no value");
    if (name == "insecure-http") {  // the one option without a value
      if (value == "yes" || value == "true")
        args->push_back("--" + name);
      else if (value != "no" && value != "false")
        return Status::Error(where + name + " takes yes or no");
      continue;
    }
    args->push_back("--" + name);
    args->push_back(value);
  }
  return Status::OK();
}

Status MergeServeConf(const std::vector<std::string>& args, std::vector<std::string>* merged,
                      std::string* used) {
  std::vector<std::string> rest;
  std::string path;
  bool given = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] != "--config") {
      rest.push_back(args[i]);
      continue;
    }
    if (i + 1 >= args.size()) return Status::Error("--config needs a FILE (or none)");
    path = args[++i];
    given = true;
  }
  if (!given) {
    struct stat st;
    if (stat(kDefaultServeConf, &st) == 0) path = kDefaultServeConf;
  }
  if (path == "none") path.clear();
  merged->clear();
  if (!path.empty()) {
    Status s = ReadServeConf(path, merged);
    if (!s.ok()) return s;
  }
  merged->insert(merged->end(), rest.begin(), rest.end());
  *used = path;
  return Status::OK();
}

}  // namespace tavo_server
