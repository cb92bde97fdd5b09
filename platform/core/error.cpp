// Per-thread platform error state.
#include "tavo/error.h"

namespace {

struct ErrorState {
  int code = TAVO_ERR_NONE;
  const char* file = "";
  int line = 0;
};

thread_local ErrorState g_error;

}  // namespace

extern "C" {

int TLIBCErrGet(void) { return g_error.code; }
const char* TLIBCErrorGetFile(void) { return g_error.file; }
int TLIBCErrorGetLine(void) { return g_error.line; }

void TLIBCErrSet(int code, const char* file, int line) {
  g_error.code = code;
  g_error.file = file ? file : "";
  g_error.line = line;
}

void TLIBCErrClear(void) { g_error = ErrorState(); }

}  // extern "C"
