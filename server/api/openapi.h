// The OpenAPI 3.1 document of a running server, built from the methods of its
// module set and the descriptions installed beside the modules (NAME.json).
//
// Every API method is called the same way, POST /api with {"api", "version",
// "method", "params"}, so the document has one operation for /api whose
// request body is one of the per-method request schemas
// (components/schemas/API.vN.METHOD.request) and whose answer is one of the
// per-method success envelopes or an error envelope listing that method's
// error codes. The HTTP routes around it (login, logout, session, info,
// health, metrics, this document) are described as plain paths.
//
// A method without a description still appears, with open parameters.
// Thread-safety: reads the set only; reentrant.
#ifndef TAVO_SERVER_OPENAPI_H_
#define TAVO_SERVER_OPENAPI_H_

#include <json/value.h>

#include "api/module_loader.h"

namespace tavo_server {

Json::Value BuildOpenApi(const ModuleSet& modules);

}  // namespace tavo_server

#endif  // TAVO_SERVER_OPENAPI_H_
