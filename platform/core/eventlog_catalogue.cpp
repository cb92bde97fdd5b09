// The catalogue of event-log messages.
#include <cstdio>
#include <string>

#include "tavo/eventlog.h"

namespace tavo {
namespace {

struct CatalogueEntry {
  unsigned int event;
  const char* text;  // %1..%4 stand for the arguments
};

const CatalogueEntry kCatalogue[] = {
    {0x11800600, "Group '%1' was deleted."},
    {0x11800601, "Group '%1' was created."},
    {0x11800602, "Group '%1' was renamed to '%2'."},
    {0x11800603, "The description of group '%1' was changed to '%2'."},
    {0x11800800, "User '%2' was added to group '%1'."},
    {0x11800801, "User '%2' was removed from group '%1'."},
    {0x11800900, "The appliance was bound to LDAP directory '%1' through %2."},
    {0x11800901, "The appliance was unbound from LDAP directory '%1'."},
    {0x11800902, "The appliance joined Windows domain '%1' through %2."},
    {0x11800903, "The appliance left Windows domain '%1'."},
    {0x11800904, "The groups of %1 were synchronised: %2 groups from %3 in %4 ms."},
    {0x11800905, "The synchronisation of the groups of %1 failed: %2"},
    {0x11800700, "A change of the account files cut off by a crash was completed by %1: %2."},
    {0x11800701, "The account files were repaired by %1: %2."},
};

}  // namespace

std::string EventLogMessage(unsigned int event, const std::string& a1, const std::string& a2,
                            const std::string& a3, const std::string& a4) {
  const std::string* args[] = {&a1, &a2, &a3, &a4};
  for (const CatalogueEntry& entry : kCatalogue) {
    if (entry.event != event) continue;
    std::string out;
    for (const char* p = entry.text; *p; ++p) {
      if (p[0] == '%' && p[1] >= '1' && p[1] <= '4') {
        out += *args[p[1] - '1'];
        ++p;
      } else {
        out += *p;
      }
    }
    return out;
  }
  // Unknown event: its identifier and the arguments that were given.
  char id[16];
  std::snprintf(id, sizeof(id), "0x%08X", event);
  std::string out = std::string("Event ") + id;
  const char* sep = ": ";
  for (const std::string* arg : args) {
    if (arg->empty()) continue;
    out += sep + *arg;
    sep = ", ";
  }
  return out + ".";
}

}  // namespace tavo
