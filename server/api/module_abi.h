// The platform ABI a module file was built for, read from its ELF file before
// it is loaded: a module records the libtavo soname it links with
// (libtavo.so.N) as a DT_NEEDED entry, and N is the ABI version of
// tavo/abi.h it was compiled against.
//
// Thread-safety: reentrant. Errors: a Status naming the file; nothing throws.
#ifndef TAVO_SERVER_MODULE_ABI_H_
#define TAVO_SERVER_MODULE_ABI_H_

#include <string>
#include <vector>

#include "api/status.h"

namespace tavo_server {

// The DT_NEEDED names of the 64-bit little-endian ELF shared object `path`.
Status ReadNeededLibraries(const std::string& path, std::vector<std::string>* needed);

// OK when the module at `path` needs no libtavo or the one of this server's
// ABI; otherwise an error telling which ABI it was built for and what to do.
// A file that is not a readable ELF object is left to the loader (OK).
Status CheckModuleAbi(const std::string& path);

}  // namespace tavo_server

#endif  // TAVO_SERVER_MODULE_ABI_H_
