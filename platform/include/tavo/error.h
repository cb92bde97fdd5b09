// Platform error state: the last failure of the calling thread.
//
// Every platform function that fails records a catalogue code together with the
// source file and line that raised it. The state is kept per thread, so a
// server thread only ever sees its own failures. A successful call does not
// clear the state; read it only after a call reported failure.
//
// Thread-safety: all functions are safe to call from any thread.
// Ownership: TLIBCErrorGetFile returns a pointer to a string literal with
// static lifetime; the caller never frees it.
#ifndef TAVO_ERROR_H_
#define TAVO_ERROR_H_

// The platform error catalogue. docs/errors.md explains each code and the API
// code that the group module answers for it.
enum TavoPlatformError {
  TAVO_ERR_NONE = 0x0000,           // no error recorded on this thread
  TAVO_ERR_NOMEM = 0x0100,          // out of memory
  TAVO_ERR_ARGUMENT = 0x0200,       // null pointer or impossible argument from the caller
  TAVO_ERR_BAD_VALUE = 0x0300,      // a name or description that may not be stored
  TAVO_ERR_LOCK = 0x0400,           // a lock could not be taken within its time bound
  TAVO_ERR_IO = 0x0500,             // reading, writing, syncing or renaming a file failed
  TAVO_ERR_FORMAT = 0x0600,         // a file of ours holds a line that cannot be parsed
  TAVO_ERR_NOT_PERMITTED = 0x0700,  // system group, built-in or primary group: refused
  TAVO_ERR_DB = 0x0800,             // the event log database failed
  TAVO_ERR_NOT_FOUND = 0x0900,      // a file or record other than a group or user is missing
  TAVO_ERR_FAULT = 0x0A00,          // failure injected through the test seam (code chosen by test)
  TAVO_ERR_NO_GROUP = 0x1600,       // no such group
  TAVO_ERR_EXISTS = 0x1700,         // a group of that name (any case) already exists
  TAVO_ERR_NO_USER = 0x1800,        // no such user
  TAVO_ERR_LIMIT = 0x1900,          // limit reached or no free GID left in GID_MIN..GID_MAX
  TAVO_ERR_RESERVED = 0xB700,       // reserved name (a system group, "users", ".", "..")
};

extern "C" {

// Code of the last failure on this thread (TAVO_ERR_NONE if none).
int TLIBCErrGet(void);
// Source file that recorded the last failure ("" if none). Static storage.
const char* TLIBCErrorGetFile(void);
// Source line that recorded the last failure (0 if none).
int TLIBCErrorGetLine(void);

// Records a failure on this thread. Platform code uses TAVO_ERR_SET below.
void TLIBCErrSet(int code, const char* file, int line);
// Resets this thread's state to TAVO_ERR_NONE.
void TLIBCErrClear(void);

}  // extern "C"

// Records `code` at `file`:`line` and returns -1.
inline int TavoErrRaise(int code, const char* file, int line) {
  TLIBCErrSet(code, file, line);
  return -1;
}

// Records `code` with the current source location; evaluates to -1 so that a
// failing function can `return TAVO_ERR_SET(TAVO_ERR_IO);`. Usable as a plain
// statement too.
#define TAVO_ERR_SET(code) TavoErrRaise((code), __FILE__, __LINE__)

#endif  // TAVO_ERROR_H_
