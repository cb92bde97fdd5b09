// Dispatch: turns one API call into the answer envelope by running the
// method's entry function on the calling thread.
//
// The request account (account.h) is set to `account` for the duration of the
// call. Whatever the entry function throws is caught and logged, and the call
// is answered with code 3299; the process carries on.
//
// Thread-safety: Call may run on many threads at once over one const ModuleSet.
#ifndef TAVO_SERVER_DISPATCH_H_
#define TAVO_SERVER_DISPATCH_H_

#include <json/value.h>

#include <memory>
#include <string>

#include "api/module_loader.h"

namespace tavo_server {

// One API call, as read from an HTTP request or the command line.
struct ApiCall {
  std::string api;
  int version = 1;
  std::string method;
  Json::Value params{Json::objectValue};
};

// Reads {"api", "version", "method", "params"}: "api" and "method" non-empty
// strings, "version" (default 1) an integer >= 1 given as a number or decimal
// text, "params" (default {}) an object; every string valid UTF-8 without NUL
// characters (CheckText). On failure returns false with a
// plain message in *error.
bool CallFromJson(const Json::Value& body, ApiCall* call, std::string* error);
// Reads the parameters of a call from their JSON text: an object whose
// strings pass CheckText. False, with *params holding anything, otherwise.
bool ParamsFromText(const std::string& text, Json::Value* params);

struct CallResult {
  ModuleSet::Lookup lookup = ModuleSet::Lookup::kFound;
  Json::Value envelope;  // set only when lookup == kFound
  int code = 0;          // the API code of the answer (3200 for success)
  // The envelope as compact JSON, when it is at hand already: an answer
  // given again from the answer cache has this and a null envelope.
  std::shared_ptr<const std::string> text;
  // How long the module's entry function ran, in microseconds; 0 when no
  // module ran (a failed lookup, an answer given again).
  double module_us = 0;
};

// Whether `call` takes no lock (the event log's list, the directory's
// status), so that it may run beside calls that wait for one.
bool TakesNoLock(const std::string& api, const std::string& method);
inline bool TakesNoLock(const ApiCall& call) { return TakesNoLock(call.api, call.method); }

// Runs the call. When the method is unknown, only `lookup` is meaningful.
CallResult Dispatch(const ModuleSet& modules, const ApiCall& call, const std::string& account);

// A plain message for a failed lookup, e.g. "unknown API 'X'".
std::string LookupMessage(ModuleSet::Lookup lookup, const ApiCall& call);

}  // namespace tavo_server

#endif  // TAVO_SERVER_DISPATCH_H_
