#include "api/module_loader.h"

#include <dirent.h>
#include <dlfcn.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "api/module_abi.h"

namespace tavo_server {
namespace {

bool IsTerminator(const ApiTableRow& row) {
  return row.api == nullptr && row.version == 0 && row.method == nullptr && row.entry == nullptr;
}

// True when `p` points into a loaded object (a library or the program), so a
// garbage pointer in a broken table is refused instead of followed.
bool PointsIntoLoadedObject(const void* p) {
  Dl_info info;
  return p != nullptr && dladdr(p, &info) != 0 && info.dli_fname != nullptr;
}

bool ValidName(const char* s) {
  if (!PointsIntoLoadedObject(s)) return false;
  size_t n = strnlen(s, ModuleSet::kMaxNameLength + 1);
  return n > 0 && n <= ModuleSet::kMaxNameLength;
}

// Checks one non-terminator row; returns "" or what is wrong with it.
std::string RowProblem(const ApiTableRow& row) {
  if (row.api == nullptr) return "null API name";
  if (row.method == nullptr) return "null method name";
  if (row.entry == nullptr) return "null entry function";
  if (row.version < 1 || row.version > 1000000) return "version " + std::to_string(row.version);
  if (!ValidName(row.api)) return "API name is not a short string inside the module";
  if (!ValidName(row.method)) return "method name is not a short string inside the module";
  if (!PointsIntoLoadedObject(reinterpret_cast<const void*>(row.entry)))
    return "entry function points outside any loaded library";
  return "";
}

}  // namespace

std::string DescriptionPath(const std::string& module_path) {
  const size_t dot = module_path.rfind(".so");
  const std::string stem = dot != std::string::npos && dot + 3 == module_path.size()
                               ? module_path.substr(0, dot)
                               : module_path;
  return stem + ".json";
}

std::string ModuleSet::ReadDescription(const std::string& module_path, const std::set<Key>& table,
                                       std::map<Key, Json::Value>* out) {
  // Beside the module as named, else beside the file a link names.
  std::string path = DescriptionPath(module_path);
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    char* real = realpath(module_path.c_str(), nullptr);
    if (real != nullptr) {
      path = DescriptionPath(real);
      free(real);
      in.open(path, std::ios::binary);
    }
  }
  if (!in) return "";  // optional
  // Read as it comes, a piece at a time: a buffer of the whole limit would
  // be one large short-lived allocation, after which the C library keeps
  // every allocation up to that size in its heap instead of returning it.
  std::string text;
  char piece[16 << 10];
  while (text.size() <= kMaxDescription && in.read(piece, sizeof piece).gcount() > 0)
    text.append(piece, static_cast<size_t>(in.gcount()));
  if (in.bad()) return path + " cannot be read";
  if (text.size() > kMaxDescription)
    return path + " is longer than " + std::to_string(kMaxDescription) + " bytes";
  Json::CharReaderBuilder builder;
  builder["strictRoot"] = true;
  builder["rejectDupKeys"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &doc, &errors))
    return path + " is not JSON: " + errors;
  if (!doc.isObject() || doc["format"] != 1 || !doc["methods"].isArray())
    return "not a description of format 1 (an object with \"format\": 1 and \"methods\")";
  for (const Json::Value& m : doc["methods"]) {
    if (!m.isObject() || !m["api"].isString() || !m["version"].isInt() || !m["method"].isString())
      return "a method without api, version and method";
    Key key(m["api"].asString(), m["version"].asInt(), m["method"].asString());
    std::string what =
        std::get<0>(key) + " v" + std::to_string(std::get<1>(key)) + " " + std::get<2>(key);
    if (!table.count(key)) return "describes " + what + ", which its table does not have";
    if (m.isMember("params") && !m["params"].isObject())
      return what + ": params is not a schema object";
    if (m.isMember("answer") && !m["answer"].isObject())
      return what + ": answer is not a schema object";
    if (m.isMember("errors") && !m["errors"].isObject()) return what + ": errors is not an object";
    if (!out->emplace(key, m).second) return "describes " + what + " twice";
  }
  return "";
}

Status ModuleSet::LoadFolder(const std::string& dir, int* loaded) {
  *loaded = 0;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr)
    return Status::Error("cannot open the modules folder " + dir + ": " + strerror(errno));
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0) names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    Status s = LoadFile(path);
    if (!s.ok()) return s;
    ++*loaded;
  }
  return Status::OK();
}

Status ModuleSet::LoadFile(const std::string& path) {
  Status abi = CheckModuleAbi(path);
  if (!abi.ok()) return Status::Error("module " + path + " refused: " + abi.message());
  dlerror();
  // RTLD_NODELETE: a module stays mapped until the process ends, so that what it
  // handed out (answers whose keys point at its constant strings) outlives the set.
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle == nullptr) {
    const char* err = dlerror();
    return Status::Error("module " + path + " refused: cannot be loaded: " + (err ? err : "?"));
  }
  auto refuse = [&](const std::string& why) {
    dlclose(handle);
    return Status::Error("module " + path + " refused: " + why);
  };
  void* sym = dlsym(handle, "GetAPITable");
  if (sym == nullptr) return refuse("it does not export GetAPITable");
  auto get_table = reinterpret_cast<GetAPITableFn>(sym);
  ApiTableRow* table = nullptr;
  try {
    table = get_table();
  } catch (...) {
    return refuse("GetAPITable threw an exception");
  }
  if (table == nullptr) return refuse("GetAPITable returned no table");

  int rows = -1;
  for (int i = 0; i < kMaxRows; ++i) {
    if (IsTerminator(table[i])) {
      rows = i;
      break;
    }
    std::string problem = RowProblem(table[i]);
    if (!problem.empty())
      return refuse("malformed table row " + std::to_string(i) + ": " + problem);
  }
  if (rows < 0)
    return refuse("its table has no terminator row within " + std::to_string(kMaxRows) + " rows");

  std::set<Key> own;
  for (int i = 0; i < rows; ++i) {
    const ApiTableRow& row = table[i];
    Key key(row.api, static_cast<int>(row.version), row.method);
    std::string what = std::string(row.api) + " v" + std::to_string(row.version) + " " + row.method;
    if (!own.insert(key).second)
      return refuse("table row " + std::to_string(i) + " repeats " + what);
    auto it = methods_.find(key);
    if (it != methods_.end()) return refuse(what + " is already provided by " + it->second.origin);
  }
  std::map<Key, Json::Value> described;
  std::string problem = skip_descriptions_ ? std::string() : ReadDescription(path, own, &described);
  if (!problem.empty()) return refuse("its description: " + problem);
  for (int i = 0; i < rows; ++i) {
    const ApiTableRow& row = table[i];
    Key key(row.api, static_cast<int>(row.version), row.method);
    auto d = described.find(key);
    methods_[key] =
        Method{row.entry, path, next_order_++, d == described.end() ? Json::Value() : d->second};
  }
  return Status::OK();
}

Status ModuleSet::Register(const std::string& api, int version, const std::string& method,
                           MethodEntry entry, const std::string& origin) {
  Key key(api, version, method);
  auto it = methods_.find(key);
  if (it != methods_.end())
    return Status::Error(api + " v" + std::to_string(version) + " " + method +
                         " is already provided by " + it->second.origin);
  methods_[key] = Method{entry, origin, next_order_++, Json::Value()};
  return Status::OK();
}

ModuleSet::Lookup ModuleSet::Find(const std::string& api, int version, const std::string& method,
                                  MethodEntry* entry) const {
  auto it = methods_.find(Key(api, version, method));
  if (it != methods_.end()) {
    *entry = it->second.entry;
    return Lookup::kFound;
  }
  // Keys are ordered by API first: the first key not below (api, 0, "") tells
  // whether the API exists at all.
  auto lo = methods_.lower_bound(Key(api, INT32_MIN, ""));
  if (lo == methods_.end() || std::get<0>(lo->first) != api) return Lookup::kNoApi;
  auto v = methods_.lower_bound(Key(api, version, ""));
  if (v == methods_.end() || std::get<0>(v->first) != api || std::get<1>(v->first) != version)
    return Lookup::kNoVersion;
  return Lookup::kNoMethod;
}

Status ModuleSet::Describe(const std::string& api, int version, const std::string& method,
                           const Json::Value& description) {
  auto it = methods_.find(Key(api, version, method));
  if (it == methods_.end())
    return Status::Error("no method " + api + " " + method + " to describe");
  it->second.description = description;
  return Status::OK();
}

std::vector<ModuleSet::MethodInfo> ModuleSet::Methods() const {
  std::vector<MethodInfo> out;
  for (const auto& [key, m] : methods_)
    out.push_back(MethodInfo{std::get<0>(key), std::get<1>(key), std::get<2>(key), m.origin,
                             m.order, &m.description});
  // Ordered by API and version, then in table order.
  std::sort(out.begin(), out.end(), [](const MethodInfo& a, const MethodInfo& b) {
    return std::tie(a.api, a.version, a.order) < std::tie(b.api, b.version, b.order);
  });
  return out;
}

Json::Value ModuleSet::Info() const {
  Json::Value apis(Json::arrayValue);
  // methods_ is ordered by (api, version, method); collect per (api, version)
  // and sort methods by their table order.
  auto it = methods_.begin();
  while (it != methods_.end()) {
    const std::string& api = std::get<0>(it->first);
    int version = std::get<1>(it->first);
    std::vector<std::pair<int, std::string>> methods;
    std::string origin = it->second.origin;
    for (;
         it != methods_.end() && std::get<0>(it->first) == api && std::get<1>(it->first) == version;
         ++it)
      methods.emplace_back(it->second.order, std::get<2>(it->first));
    std::sort(methods.begin(), methods.end());
    Json::Value item(Json::objectValue);
    item["api"] = api;
    item["version"] = version;
    item["methods"] = Json::Value(Json::arrayValue);
    for (const auto& m : methods) item["methods"].append(m.second);
    auto slash = origin.rfind('/');
    item["module"] = slash == std::string::npos ? origin : origin.substr(slash + 1);
    apis.append(item);
  }
  Json::Value out(Json::objectValue);
  out["apis"] = apis;
  return out;
}

}  // namespace tavo_server
