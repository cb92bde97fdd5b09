// TLIBC_SZLIST: a growable list of owned C strings.
#include "tavo/szlist.h"

#include <cstdlib>
#include <cstring>

#include "accounts/acct_error.h"
#include "tavo/testing.h"

extern "C" {

TLIBC_SZLIST* TLIBCSzListAlloc(int capacity) {
  if (capacity < 0) return ACCT_ERR(TAVO_ERR_ARGUMENT), nullptr;
  if (TAVO_FAULT("szlist.alloc")) return nullptr;
  if (capacity == 0) capacity = 1;
  TLIBC_SZLIST* list = static_cast<TLIBC_SZLIST*>(std::calloc(1, sizeof(TLIBC_SZLIST)));
  char** items = static_cast<char**>(std::calloc(static_cast<size_t>(capacity), sizeof(char*)));
  if (!list || !items) {
    std::free(list);
    std::free(items);
    return ACCT_ERR(TAVO_ERR_NOMEM), nullptr;
  }
  list->capacity = capacity;
  list->items = items;
  return list;
}

void TLIBCSzListFree(TLIBC_SZLIST* list) {
  if (!list) return;
  for (int i = 0; i < list->count; ++i) std::free(list->items[i]);
  std::free(list->items);
  std::free(list);
}

int TLIBCSzListAdd(TLIBC_SZLIST** list, const char* s) {
  if (!list || !*list || !s) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  TLIBC_SZLIST* l = *list;
  if (l->count >= l->capacity) {
    if (l->capacity > (1 << 29)) return TAVO_ERR_SET(TAVO_ERR_LIMIT);
    int cap = l->capacity > 0 ? l->capacity * 2 : 8;
    char** grown =
        static_cast<char**>(std::realloc(l->items, static_cast<size_t>(cap) * sizeof(char*)));
    if (!grown) return TAVO_ERR_SET(TAVO_ERR_NOMEM);
    l->items = grown;
    l->capacity = cap;
  }
  char* copy = strdup(s);
  if (!copy) return TAVO_ERR_SET(TAVO_ERR_NOMEM);
  l->items[l->count++] = copy;
  return 0;
}

}  // extern "C"
