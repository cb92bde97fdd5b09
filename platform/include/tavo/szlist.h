// A growable list of owned C strings.
//
// The strings are copied into blocks the list owns, and a large list's
// blocks and item array are mapped from the system apart from the heap, so a
// list of every user costs one copy of the names and gives its memory back
// when freed.
//
// Thread-safety: a list belongs to one thread at a time.
#ifndef TAVO_SZLIST_H_
#define TAVO_SZLIST_H_

struct TLIBC_SZLIST {
  int count;     // items in use
  int capacity;  // items allocated
  char** items;  // each item a string owned by the list
  void* blocks;  // where the items' bytes live (the list's own business)
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
