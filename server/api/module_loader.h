// ModuleSet: the API methods that this process serves, loaded from a folder of
// `*.so` modules through their exported `GetAPITable`, plus methods the server
// provides itself.
//
// A module is refused as a whole (and LoadFolder fails, naming the file) when
// it cannot be opened, lacks `GetAPITable`, returns a null table, has a row
// with a null API, method or entry or a version below 1 before its terminator,
// has no terminator within kMaxRows rows, or claims an (API, version, method)
// that is already registered. It is also refused when it was built against
// another platform ABI (module_abi.h), or when the description beside it
// (NAME.json for NAME.so, in the module's folder or, for a link, in the folder
// of the file it names) is not a valid description of its own table's
// methods (unless the set was told to skip descriptions: a one-off call,
// which never shows them, does not read them). A failed load leaves the set unusable: the
// caller is expected to stop instead of serving a half-loaded module.
//
// Ownership: a loaded module stays mapped until the process ends, also after
// the set is gone (it is opened with RTLD_NODELETE and never closed): entry
// functions point into it, and answers it made may point at its constant
// strings (jsoncpp's static keys).
// Thread-safety: load and register before serving; after that Find and Info
// may be called from any number of threads at once.
#ifndef TAVO_SERVER_MODULE_LOADER_H_
#define TAVO_SERVER_MODULE_LOADER_H_

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "api/status.h"
#include "tavo/api.h"

namespace tavo_server {

class ModuleSet {
 public:
  // Rows scanned at most when looking for a table's terminator.
  static constexpr int kMaxRows = 4096;
  // Longest API or method name accepted in a table.
  static constexpr size_t kMaxNameLength = 128;
  // Longest description file accepted for a module.
  static constexpr size_t kMaxDescription = 4 * 1024 * 1024;

  ModuleSet() = default;
  // Descriptions are read and checked unless this is set before loading;
  // methods loaded without them describe themselves as null JSON.
  void SkipDescriptions() { skip_descriptions_ = true; }
  ModuleSet(const ModuleSet&) = delete;
  ModuleSet& operator=(const ModuleSet&) = delete;

  // Loads every regular file or symlink named `*.so` in `dir`, in name order.
  // `*loaded` receives the number of modules loaded. A missing folder is an
  // error; an empty one is not.
  Status LoadFolder(const std::string& dir, int* loaded);
  // Loads one module file.
  Status LoadFile(const std::string& path);
  // Registers a method that the server itself provides; `origin` names it in
  // messages. Fails when the (api, version, method) is already taken.
  Status Register(const std::string& api, int version, const std::string& method, MethodEntry entry,
                  const std::string& origin);

  enum class Lookup { kFound, kNoApi, kNoVersion, kNoMethod };
  // Attaches a description (the format of the "methods" items of a module's
  // description file) to a registered method, e.g. one the server provides
  // itself.
  Status Describe(const std::string& api, int version, const std::string& method,
                  const Json::Value& description);

  // One served method; `description` is null JSON when the module gave none.
  // The pointer stays valid as long as the set is not changed.
  struct MethodInfo {
    std::string api;
    int version;
    std::string method;
    std::string origin;
    int order;
    const Json::Value* description;
  };
  // Every method, ordered by API name and version, then in table order.
  std::vector<MethodInfo> Methods() const;

  // Finds the entry of a method; *entry is set only when kFound.
  Lookup Find(const std::string& api, int version, const std::string& method,
              MethodEntry* entry) const;

  // {"apis": [{"api", "version", "methods": [..], "module"}]} ordered by API
  // name and version, methods in table order.
  Json::Value Info() const;
  size_t MethodCount() const { return methods_.size(); }

 private:
  struct Method {
    MethodEntry entry;
    std::string origin;
    int order;
    Json::Value description;
  };
  using Key = std::tuple<std::string, int, std::string>;

  // Reads the optional description file of the module at `module_path`,
  // whose table holds `table`; returns "" or what is wrong with it.
  static std::string ReadDescription(const std::string& module_path, const std::set<Key>& table,
                                     std::map<Key, Json::Value>* out);

  std::map<Key, Method> methods_;
  int next_order_ = 0;
  bool skip_descriptions_ = false;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_MODULE_LOADER_H_
