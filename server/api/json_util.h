// Small JSON helpers shared by the HTTP server and the command line.
//
// Thread-safety: all functions are reentrant.
// Errors: nothing here throws; failures are reported by the return value.
#ifndef TAVO_SERVER_JSON_UTIL_H_
#define TAVO_SERVER_JSON_UTIL_H_

#include <json/value.h>

#include <string>

namespace tavo_server {

// Parses `text` as one complete JSON document (any value, not only objects;
// nothing but white space may follow it). Returns false on any error.
bool ParseJson(const std::string& text, Json::Value* out);

// A NAME=VALUE argument: the value is taken as JSON when it parses as JSON,
// and as the plain string otherwise ("5" is a number, "true" a boolean,
// "staff" and "[oops" strings, "\"5\"" the string 5).
Json::Value ValueFromText(const std::string& text);

// True when every string and member name in `value` is valid UTF-8 (no
// overlong forms, surrogates or code points above U+10FFFF) and holds no NUL
// character, which the account files and the C interfaces below cannot carry.
// Otherwise false, with a plain message in *error.
bool CheckText(const Json::Value& value, std::string* error);

// Compact one-line JSON (no trailing newline).
std::string ToCompactJson(const Json::Value& value);
// Indented JSON for people (with a trailing newline).
std::string ToPrettyJson(const Json::Value& value);

// Reads an integer from a number or from decimal text ("5", "-1"). False when
// the value is neither or out of the range of int.
bool JsonToInt(const Json::Value& value, int* out);

}  // namespace tavo_server

#endif  // TAVO_SERVER_JSON_UTIL_H_
