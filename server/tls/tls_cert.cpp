#include "tls/tls_cert.h"

#include <arpa/inet.h>
#include <gnutls/crypto.h>
#include <gnutls/x509.h>

#include <ctime>
#include <memory>

namespace tavo_server {
namespace {

struct KeyFree {
  void operator()(gnutls_x509_privkey_int* k) const { gnutls_x509_privkey_deinit(k); }
};
struct CrtFree {
  void operator()(gnutls_x509_crt_int* c) const { gnutls_x509_crt_deinit(c); }
};

// Exports as PEM through one of GnuTLS's export2 functions.
template <typename F, typename T>
bool Pem(F export2, T obj, std::string* out) {
  gnutls_datum_t d{nullptr, 0};
  if (export2(obj, GNUTLS_X509_FMT_PEM, &d) != 0) return false;
  out->assign(reinterpret_cast<const char*>(d.data), d.size);
  gnutls_free(d.data);
  return true;
}

}  // namespace

Status MakeSelfSignedCertificate(const std::string& host, std::string* cert_pem,
                                 std::string* key_pem) {
  gnutls_x509_privkey_t raw_key = nullptr;
  gnutls_x509_crt_t raw_crt = nullptr;
  if (gnutls_x509_privkey_init(&raw_key) != 0) return Status::Error("no memory for a TLS key");
  std::unique_ptr<gnutls_x509_privkey_int, KeyFree> key(raw_key);
  if (gnutls_x509_crt_init(&raw_crt) != 0) return Status::Error("no memory for a certificate");
  std::unique_ptr<gnutls_x509_crt_int, CrtFree> crt(raw_crt);

  if (gnutls_x509_privkey_generate(raw_key, GNUTLS_PK_ECDSA,
                                   GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0) != 0)
    return Status::Error("cannot generate a TLS key");
  unsigned char serial[16];
  if (gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof(serial)) != 0)
    return Status::Error("no random serial number");
  serial[0] &= 0x7f;  // a positive number
  const time_t now = time(nullptr);
  unsigned char v4[4], v6[16];
  inet_pton(AF_INET, "127.0.0.1", v4);
  inet_pton(AF_INET6, "::1", v6);
  bool ok = gnutls_x509_crt_set_version(raw_crt, 3) == 0 &&
            gnutls_x509_crt_set_serial(raw_crt, serial, sizeof(serial)) == 0 &&
            gnutls_x509_crt_set_activation_time(raw_crt, now - 3600) == 0 &&
            gnutls_x509_crt_set_expiration_time(raw_crt, now + 10L * 365 * 24 * 3600) == 0 &&
            gnutls_x509_crt_set_dn_by_oid(raw_crt, GNUTLS_OID_X520_COMMON_NAME, 0, host.data(),
                                          static_cast<unsigned>(host.size())) == 0 &&
            gnutls_x509_crt_set_key(raw_crt, raw_key) == 0 &&
            gnutls_x509_crt_set_subject_alt_name(raw_crt, GNUTLS_SAN_DNSNAME, host.data(),
                                                 static_cast<unsigned>(host.size()),
                                                 GNUTLS_FSAN_APPEND) == 0 &&
            gnutls_x509_crt_set_subject_alt_name(raw_crt, GNUTLS_SAN_DNSNAME, "localhost", 9,
                                                 GNUTLS_FSAN_APPEND) == 0 &&
            gnutls_x509_crt_set_subject_alt_name(raw_crt, GNUTLS_SAN_IPADDRESS, v4, 4,
                                                 GNUTLS_FSAN_APPEND) == 0 &&
            gnutls_x509_crt_set_subject_alt_name(raw_crt, GNUTLS_SAN_IPADDRESS, v6, 16,
                                                 GNUTLS_FSAN_APPEND) == 0 &&
            gnutls_x509_crt_set_basic_constraints(raw_crt, 0, -1) == 0 &&
            gnutls_x509_crt_set_key_usage(raw_crt, GNUTLS_KEY_DIGITAL_SIGNATURE) == 0 &&
            gnutls_x509_crt_set_key_purpose_oid(raw_crt, GNUTLS_KP_TLS_WWW_SERVER, 0) == 0 &&
            gnutls_x509_crt_sign2(raw_crt, raw_crt, raw_key, GNUTLS_DIG_SHA256, 0) == 0;
  if (!ok) return Status::Error("cannot make a self-signed certificate");
  if (!Pem(gnutls_x509_crt_export2, raw_crt, cert_pem) ||
      !Pem(gnutls_x509_privkey_export2, raw_key, key_pem))
    return Status::Error("cannot export the certificate or its key");
  return Status::OK();
}

}  // namespace tavo_server
