// A self-signed TLS certificate for a fresh appliance, made with GnuTLS.
//
// The key is ECDSA P-256; the certificate (X.509 v3, SHA-256) is valid for
// ten years, names `host` as its common name and carries the subject
// alternative names `host`, "localhost", 127.0.0.1 and ::1, and is marked for
// TLS servers only (not a CA). Both come out as PEM text; the caller writes
// the key where only the service can read it.
//
// Thread-safety: reentrant. Errors: a Status with a message for the user.
#ifndef TAVO_SERVER_TLS_TLS_CERT_H_
#define TAVO_SERVER_TLS_TLS_CERT_H_

#include <string>

#include "api/status.h"

namespace tavo_server {

Status MakeSelfSignedCertificate(const std::string& host, std::string* cert_pem,
                                 std::string* key_pem);

}  // namespace tavo_server

#endif  // TAVO_SERVER_TLS_TLS_CERT_H_
