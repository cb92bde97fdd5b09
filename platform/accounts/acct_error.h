// Statement form of TAVO_ERR_SET for the account store: records `code` with
// the current source location and yields nothing, so it can stand alone or on
// the left of a comma (`return ACCT_ERR(TAVO_ERR_LOCK), false;`).
#ifndef TAVO_PLATFORM_ACCT_ERROR_H_
#define TAVO_PLATFORM_ACCT_ERROR_H_

#include "tavo/error.h"

#define ACCT_ERR(code) TLIBCErrSet((code), __FILE__, __LINE__)

#endif  // TAVO_PLATFORM_ACCT_ERROR_H_
