// TlsCredentials: the certificate chain and private key that the HTTPS
// server of this process presents, replaceable while it serves.
//
// Install checks a PEM certificate chain and its PEM private key (both must
// parse, the chain holds 1 to 16 certificates, and the key must be the one of
// the first certificate) and makes them the ones every TLS handshake that
// starts from then on presents; handshakes already under way, and the
// connections they opened, keep what they began with. A pair that fails a
// check changes nothing.
//
// Ownership: a replaced pair is kept while a connection that began before it
// was replaced is open (its handshake may be reading it), then freed. The
// server reports each connection with ConnectionStarted and ConnectionEnded.
// Thread-safety: Install from any thread, at any time; Retrieve is what the
// TLS library calls from the event threads. One set of credentials per
// process: a second HTTPS server in the same process would share them.
// Errors: Install returns a Status saying what is wrong with the pair;
// ReadTlsFiles one naming the file it cannot read or refuses.
#ifndef TAVO_SERVER_TLS_TLS_CREDENTIALS_H_
#define TAVO_SERVER_TLS_TLS_CREDENTIALS_H_

#include <gnutls/abstract.h>

#include <cstdint>
#include <string>

#include "api/status.h"

namespace tavo_server {

class TlsCredentials {
 public:
  static Status Install(const std::string& cert_pem, const std::string& key_pem);
  // The checks of Install alone.
  static Status Check(const std::string& cert_pem, const std::string& key_pem);
  // A connection that may make a handshake has begun; give what this returns
  // to ConnectionEnded when it is closed.
  static uint64_t ConnectionStarted();
  static void ConnectionEnded(uint64_t generation);
  // How many pairs are held now (the current one included).
  static size_t PairsKept();
  // When the certificate presented now stops being valid (its notAfter), in
  // seconds since the epoch; 0 when none is installed.
  static int64_t NotAfter();

  // The certificate callback for MHD_OPTION_HTTPS_CERT_CALLBACK.
  static int Retrieve(gnutls_session_t session, const gnutls_datum_t* req_ca_dn, int nreqs,
                      const gnutls_pk_algorithm_t* pk_algos, int pk_algos_length,
                      gnutls_pcert_st** pcert, unsigned int* pcert_length, gnutls_privkey_t* pkey);
};

// Reads a certificate file and a key file whole, as they are (PEM). Each
// must be a regular file, not reached through a symbolic link, owned by root
// or by this process's user, of at most 1 MiB.
Status ReadTlsFiles(const std::string& cert_path, const std::string& key_path,
                    std::string* cert_pem, std::string* key_pem);

}  // namespace tavo_server

#endif  // TAVO_SERVER_TLS_TLS_CREDENTIALS_H_
