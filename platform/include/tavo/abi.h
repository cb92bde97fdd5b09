// The platform's ABI version: the layout of the API table and of the request
// and response objects that modules share with the server, and the exported
// functions of libtavo. It is the major number of libtavo's soname
// (libtavo.so.N), so a module records the version it was built against in its
// DT_NEEDED entry; the server refuses a module that needs another version.
//
// Raise it on any change a built module could notice.
#ifndef TAVO_ABI_H_
#define TAVO_ABI_H_

#define TAVO_ABI_VERSION 1

#endif  // TAVO_ABI_H_
