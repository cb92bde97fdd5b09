// Fast paths of the string lists for the platform's own enumerators.
//
// Thread-safety: as the list's. Errors: 0, or -1 with the error set.
#ifndef TAVO_PLATFORM_CORE_SZLIST_INTERNAL_H_
#define TAVO_PLATFORM_CORE_SZLIST_INTERNAL_H_

#include <string_view>

#include "tavo/szlist.h"

namespace tavo {
namespace internal {

// Makes room for `capacity` items at once (nothing when there is room).
int SzListReserve(TLIBC_SZLIST* list, int capacity);
// Appends a copy of `s`, which holds no NUL: TLIBCSzListAdd without
// measuring the string.
int SzListAdd(TLIBC_SZLIST* list, std::string_view s);

}  // namespace internal
}  // namespace tavo

#endif  // TAVO_PLATFORM_CORE_SZLIST_INTERNAL_H_
