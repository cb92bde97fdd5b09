// TLIBC_SZLIST: a growable list of owned C strings.
#include "tavo/szlist.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "accounts/acct_error.h"
#include "core/szlist_internal.h"
#include "tavo/testing.h"

namespace {

// Memory of at least this size is mapped apart from the heap: freed, it
// goes back to the system at once instead of staying in the heap.
constexpr size_t kMapFrom = 128 << 10;
constexpr size_t kFirstBlock = 4 << 10;
constexpr size_t kLargestBlock = 1 << 20;

void* Get(size_t size) {
  if (size < kMapFrom) return std::malloc(size);
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void Put(void* p, size_t size) {
  if (p == nullptr) return;
  if (size < kMapFrom) {
    std::free(p);
  } else {
    munmap(p, size);
  }
}

// A block of string bytes; the blocks of a list are chained, newest first.
struct Block {
  Block* next;
  size_t size;  // of the whole block, header included
  size_t used;  // bytes taken after the header
  char* data() { return reinterpret_cast<char*>(this + 1); }
};

size_t ItemsBytes(int capacity) { return static_cast<size_t>(capacity) * sizeof(char*); }

// Room for `n` bytes in the newest block, or a new block; null without memory.
char* Reserve(TLIBC_SZLIST* l, size_t n) {
  Block* b = static_cast<Block*>(l->blocks);
  if (b == nullptr || b->size - sizeof(Block) - b->used < n) {
    size_t size = b == nullptr ? kFirstBlock : (b->size < kLargestBlock ? 2 * b->size : b->size);
    if (size - sizeof(Block) < n) size = sizeof(Block) + n;
    Block* fresh = static_cast<Block*>(Get(size));
    if (fresh == nullptr) return nullptr;
    fresh->next = b;
    fresh->size = size;
    fresh->used = 0;
    l->blocks = fresh;
    b = fresh;
  }
  char* at = b->data() + b->used;
  b->used += n;
  return at;
}

}  // namespace

extern "C" {

TLIBC_SZLIST* TLIBCSzListAlloc(int capacity) {
  if (capacity < 0) return ACCT_ERR(TAVO_ERR_ARGUMENT), nullptr;
  if (TAVO_FAULT("szlist.alloc")) return nullptr;
  if (capacity == 0) capacity = 1;
  TLIBC_SZLIST* list = static_cast<TLIBC_SZLIST*>(std::calloc(1, sizeof(TLIBC_SZLIST)));
  char** items = static_cast<char**>(Get(ItemsBytes(capacity)));
  if (!list || !items) {
    std::free(list);
    Put(items, ItemsBytes(capacity));
    return ACCT_ERR(TAVO_ERR_NOMEM), nullptr;
  }
  list->capacity = capacity;
  list->items = items;
  return list;
}

void TLIBCSzListFree(TLIBC_SZLIST* list) {
  if (!list) return;
  for (Block* b = static_cast<Block*>(list->blocks); b != nullptr;) {
    Block* next = b->next;
    Put(b, b->size);
    b = next;
  }
  Put(list->items, ItemsBytes(list->capacity));
  std::free(list);
}

int TLIBCSzListAdd(TLIBC_SZLIST** list, const char* s) {
  if (!list || !*list || !s) return TAVO_ERR_SET(TAVO_ERR_ARGUMENT);
  return tavo::internal::SzListAdd(*list, std::string_view(s));
}

}  // extern "C"

namespace tavo {
namespace internal {

int SzListReserve(TLIBC_SZLIST* l, int capacity) {
  if (capacity <= l->capacity) return 0;
  if (capacity > (1 << 30)) return TAVO_ERR_SET(TAVO_ERR_LIMIT);
  char** grown = static_cast<char**>(Get(ItemsBytes(capacity)));
  if (!grown) return TAVO_ERR_SET(TAVO_ERR_NOMEM);
  std::memcpy(grown, l->items, ItemsBytes(l->count));
  Put(l->items, ItemsBytes(l->capacity));
  l->items = grown;
  l->capacity = capacity;
  return 0;
}

int SzListAdd(TLIBC_SZLIST* l, std::string_view s) {
  if (l->count >= l->capacity) {
    if (l->capacity > (1 << 29)) return TAVO_ERR_SET(TAVO_ERR_LIMIT);
    if (SzListReserve(l, l->capacity > 0 ? l->capacity * 2 : 8) != 0) return -1;
  }
  char* copy = Reserve(l, s.size() + 1);
  if (!copy) return TAVO_ERR_SET(TAVO_ERR_NOMEM);
  std::memcpy(copy, s.data(), s.size());
  copy[s.size()] = '\0';
  l->items[l->count++] = copy;
  return 0;
}

}  // namespace internal
}  // namespace tavo
