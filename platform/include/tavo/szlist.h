// A growable list of owned C strings.
//
// Thread-safety: a list belongs to one thread at a time.
#ifndef TAVO_SZLIST_H_
#define TAVO_SZLIST_H_

struct TLIBC_SZLIST {
  int count;     // items in use
  int capacity;  // items allocated
  char** items;  // each item malloc'ed and owned by the list
};

extern "C" {

// A new empty list with room for `capacity` items (at least 1). Null on
// allocation failure (TAVO_ERR_NOMEM) or a negative capacity (TAVO_ERR_ARGUMENT).
TLIBC_SZLIST* TLIBCSzListAlloc(int capacity);
// Frees the list and its items. Accepts null.
void TLIBCSzListFree(TLIBC_SZLIST* list);
// Appends a copy of `s`, growing the list (*list may be replaced). 0 or -1.
int TLIBCSzListAdd(TLIBC_SZLIST** list, const char* s);

}  // extern "C"

#endif  // TAVO_SZLIST_H_
