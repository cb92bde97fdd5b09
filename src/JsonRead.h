// Reading request values without exceptions.
//
// The JSON library throws when a value of one kind is read as another (a
// string as an integer, an array as a string). Request values reach the module
// from clients and defaults are given as text ("0", "-1", "true"), so every
// scalar the module reads goes through these helpers instead of asInt, asUInt,
// asBool and asString.
//
// Rules: numbers convert when they fit the target type; text converts when it
// is a whole decimal number that fits ("true"/"false" for booleans); anything
// else gives the type's zero value (0, false, ""). Nothing here throws.
//
// Thread-safety: pure functions.
#ifndef TAVO_GROUP_SRC_JSON_READ_H_
#define TAVO_GROUP_SRC_JSON_READ_H_

#include <json/value.h>

#include <string>

namespace group_module {

int JsonToInt(const Json::Value& value);
unsigned int JsonToUInt(const Json::Value& value);
bool JsonToBool(const Json::Value& value);
// Strings as they are; numbers, booleans as the JSON library prints them; null,
// arrays and objects as "".
std::string JsonToString(const Json::Value& value);

}  // namespace group_module

#endif  // TAVO_GROUP_SRC_JSON_READ_H_
