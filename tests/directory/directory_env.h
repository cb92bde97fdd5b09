// The shared set-up of the directory tests: the private slapd with its
// entries, and helpers that run the `tavo` program on a test root.
#ifndef TAVO_TESTS_DIRECTORY_DIRECTORY_ENV_H_
#define TAVO_TESTS_DIRECTORY_DIRECTORY_ENV_H_

#include <json/value.h>

#include <string>

#include "directory/slapd_fixture.h"

namespace tavo_test {

// Runs `tavo ARGS` (ARGS already shell-quoted where needed) and returns its
// exit status; *out gets stdout and stderr.
int Tavo(const std::string& args, std::string* out);
// `tavo call --root ROOT TAVO.Core.Group list type=TYPE EXTRA`: the answer
// envelope, or null when it is not JSON.
Json::Value ListGroups(const std::string& root, const std::string& type,
                       const std::string& extra = "");
// The names in a successful list answer, in order.
std::string Names(const Json::Value& envelope);
// A posixGroup entry "cn=NAME,OU" with gidNumber GID.
std::string PosixGroup(const std::string& name, const std::string& ou, int gid);

}  // namespace tavo_test

#endif  // TAVO_TESTS_DIRECTORY_DIRECTORY_ENV_H_
