// Small platform utilities: Unicode case handling, pid and marker files.
//
// Thread-safety: every function may be called from any thread.
#ifndef TAVO_UTIL_H_
#define TAVO_UTIL_H_

extern "C" {

// Compares two UTF-8 strings ignoring case (Unicode simple case mapping, so
// "ärzte" equals "ÄRZTE"). <0, 0 or >0 like strcmp of the case-folded strings
// (each character folded to lower(upper(c)), so the order of letters is that
// of their lower-case code points; the Turkish dotted and dotless I, U+0130
// and U+0131, fold to themselves and never equal "i"). Invalid UTF-8 bytes compare as themselves
// (a stray byte never equals a character). A null string sorts before any other.
int TLIBCUnicodeUTF8StrCaseCmp(const char* a, const char* b);
// Writes the upper-case form of `in` into `out` (NUL-terminated, at most
// `out_size` bytes including the NUL). The simple mapping changes one
// character into one character, but its UTF-8 length may change. On failure
// `out` holds "" when out_size > 0. Returns the length written, or -1 when
// an argument is null (TAVO_ERR_ARGUMENT), `in` is not valid UTF-8
// (TAVO_ERR_BAD_VALUE) or the result does not fit (TAVO_ERR_LIMIT).
int TLIBCUnicodeUTF8StrUpper(const char* in, char* out, int out_size);

// Pid and marker files named directly in /tmp ("/tmp/domain_group.pid")
// live in the runtime folder ROOT/run/tavo instead, as lock files do
// (lock_path.h), where no other user can plant one. Such a file is opened
// without following a symbolic link and without waiting (a FIFO cannot hang
// the caller), and counts only when it is a regular file owned by root or by
// this service's user; anything else is logged (LOG_WARNING) and taken as
// absent.
//
// Reads a process id from the first line of the pid file at an absolute
// platform path (blanks around the number are allowed). Returns it when the
// file can be read, holds a positive number, and its process still holds
// the file (tavo::HoldPidFile): alive, and the very process that wrote it.
// -1 otherwise, with the error state TAVO_ERR_NOT_FOUND (no file, a refused
// one, or one no live process holds), TAVO_ERR_IO or TAVO_ERR_FORMAT.
int TLIBCReadPidFile(const char* path);
// 1 when the absolute platform path exists, 0 when not (or path is null); a
// marker file of the runtime folder exists only as described above.
int TLIBCFileExist(const char* path);

}  // extern "C"

#include <string>

namespace tavo {

// The key under which the platform matches names ignoring case: every
// character of UTF-8 `text` case-folded (so "Staff", "STAFF" and "staff" share
// one key, as do "ß" and "ẞ"); the dotted and dotless I of Turkish (U+0130,
// U+0131) are kept apart from "i", so "admın" never stands for "admin". Bytes
// that are not UTF-8 are kept. Only equality of keys is meaningful.
std::string CaseFoldKey(const std::string& text);

// Writes this process's id to the pid file at an absolute platform path and
// holds it (an open file description lock) until ReleasePidFile; the runtime
// folder is made when needed. Something there that is not a regular file of
// this service is logged, and replaced in the runtime folder (refused
// elsewhere). Returns a descriptor (close-on-exec);
// -1 when another live holder has it (*holder set to its pid, or 0 when
// unknown) or on an error (*holder -1, *error set).
int HoldPidFile(const char* path, int* holder, std::string* error);
// Removes the pid file held by `fd`, then closes it.
void ReleasePidFile(const char* path, int fd);
// `text` without the blanks (space, tab, CR, LF, FF, VT) at either end.
std::string Trim(const std::string& text);
// Reads the whole file at the host path `path` (not resolved in the root)
// into *out. False when it cannot be opened or read (TAVO_ERR_IO, errno set).
bool ReadWholeFile(const std::string& path, std::string* out);

}  // namespace tavo

#endif  // TAVO_UTIL_H_
