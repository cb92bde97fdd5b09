#include "tls/tls_credentials.h"

#include <errno.h>
#include <fcntl.h>
#include <gnutls/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace tavo_server {
namespace {

constexpr unsigned kMaxChain = 16;

struct Pair {
  gnutls_pcert_st certs[kMaxChain];
  unsigned count = 0;
  gnutls_privkey_t key = nullptr;
  int64_t not_after = 0;

  ~Pair() {
    for (unsigned i = 0; i < count; ++i) gnutls_pcert_deinit(&certs[i]);
    if (key != nullptr) gnutls_privkey_deinit(key);
  }
};

// A certificate chain or a key is a few KiB; anything past this is not one
// (and /dev/zero must not fill the memory).
constexpr size_t kMaxFile = 1 << 20;

// Reads `path` whole: not through a symbolic link, and only a regular file
// of root or of this process's user, of at most kMaxFile bytes.
Status ReadWhole(const std::string& path, std::string* out) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0)
    return Status::Error(errno == ELOOP ? path + " is a symbolic link"
                                        : "cannot read " + path + ": " + strerror(errno));
  struct stat st;
  Status s;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    s = Status::Error(path + " is not a regular file");
  } else if (st.st_uid != 0 && st.st_uid != geteuid()) {
    s = Status::Error(path + " belongs to uid " + std::to_string(st.st_uid) +
                      ", neither root nor this service");
  } else if (st.st_size > static_cast<off_t>(kMaxFile)) {
    s = Status::Error(path + " is larger than 1 MiB");
  } else {
    out->assign(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < out->size()) {
      const ssize_t n = read(fd, &(*out)[got], out->size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out->resize(got);
    if (out->empty()) s = Status::Error(path + " is empty");
  }
  close(fd);
  return s;
}

// The pairs installed, by the order of their installation (the generation),
// and the generations current when each open connection began. A connection
// can only be shown a pair of its own generation or a later one, so a
// replaced pair older than the oldest open connection is used by none.
std::mutex g_mu;  // guards the two below, and serialises Install
std::map<uint64_t, std::unique_ptr<Pair>> g_pairs;
std::multiset<uint64_t> g_open;
uint64_t g_generation = 0;  // of the current pair
std::atomic<const Pair*> g_current{nullptr};

// Frees the pairs that no connection can be using. g_mu held.
void Collect() {
  const uint64_t oldest = g_open.empty() ? g_generation : std::min(*g_open.begin(), g_generation);
  g_pairs.erase(g_pairs.begin(), g_pairs.lower_bound(oldest));
}

gnutls_datum_t Datum(const std::string& s) {
  return gnutls_datum_t{reinterpret_cast<unsigned char*>(const_cast<char*>(s.data())),
                        static_cast<unsigned>(s.size())};
}

// The public key in DER, as the certificate or the private key gives it.
bool PublicKeyDer(gnutls_pubkey_t pub, std::string* out) {
  gnutls_datum_t d{nullptr, 0};
  if (gnutls_pubkey_export2(pub, GNUTLS_X509_FMT_DER, &d) != 0) return false;
  out->assign(reinterpret_cast<const char*>(d.data), d.size);
  gnutls_free(d.data);
  return true;
}

bool KeyMatches(const Pair& p) {
  gnutls_pubkey_t from_key = nullptr;
  if (gnutls_pubkey_init(&from_key) != 0) return false;
  std::string a, b;
  const bool ok = gnutls_pubkey_import_privkey(from_key, p.key, 0, 0) == 0 &&
                  PublicKeyDer(from_key, &a) && PublicKeyDer(p.certs[0].pubkey, &b) && a == b;
  gnutls_pubkey_deinit(from_key);
  return ok;
}

// Parses and checks a pair as Install does.
Status Build(const std::string& cert_pem, const std::string& key_pem, Pair* p) {
  gnutls_datum_t cert = Datum(cert_pem);
  unsigned count = kMaxChain;
  const int r = gnutls_pcert_list_import_x509_raw(p->certs, &count, &cert, GNUTLS_X509_FMT_PEM,
                                                  GNUTLS_X509_CRT_LIST_IMPORT_FAIL_IF_EXCEED);
  if (r == GNUTLS_E_SHORT_MEMORY_BUFFER)
    return Status::Error("the certificate chain holds more than " + std::to_string(kMaxChain) +
                         " certificates");
  if (r != 0 || count == 0)
    return Status::Error(std::string("the certificate is not a PEM certificate: ") +
                         gnutls_strerror(r));
  p->count = count;
  if (gnutls_privkey_init(&p->key) != 0) return Status::Error("no memory for the TLS key");
  gnutls_datum_t key = Datum(key_pem);
  const int k = gnutls_privkey_import_x509_raw(p->key, &key, GNUTLS_X509_FMT_PEM, nullptr, 0);
  if (k != 0)
    return Status::Error(std::string("the key is not a PEM private key without a passphrase: ") +
                         gnutls_strerror(k));
  if (!KeyMatches(*p)) return Status::Error("the key is not the key of the certificate");
  gnutls_x509_crt_t first = nullptr;
  if (gnutls_x509_crt_init(&first) == 0) {
    if (gnutls_x509_crt_import(first, &p->certs[0].cert, GNUTLS_X509_FMT_DER) == 0)
      p->not_after = static_cast<int64_t>(gnutls_x509_crt_get_expiration_time(first));
    gnutls_x509_crt_deinit(first);
  }
  return Status::OK();
}

}  // namespace

Status TlsCredentials::Check(const std::string& cert_pem, const std::string& key_pem) {
  Pair p;
  return Build(cert_pem, key_pem, &p);
}

Status TlsCredentials::Install(const std::string& cert_pem, const std::string& key_pem) {
  auto p = std::make_unique<Pair>();
  Status s = Build(cert_pem, key_pem, p.get());
  if (!s.ok()) return s;
  std::lock_guard<std::mutex> lock(g_mu);
  g_current.store(p.get(), std::memory_order_release);
  g_pairs[++g_generation] = std::move(p);
  Collect();
  return Status::OK();
}

uint64_t TlsCredentials::ConnectionStarted() {
  std::lock_guard<std::mutex> lock(g_mu);
  g_open.insert(g_generation);
  return g_generation;
}

void TlsCredentials::ConnectionEnded(uint64_t generation) {
  std::lock_guard<std::mutex> lock(g_mu);
  auto it = g_open.find(generation);
  if (it != g_open.end()) g_open.erase(it);
  Collect();
}

size_t TlsCredentials::PairsKept() {
  std::lock_guard<std::mutex> lock(g_mu);
  return g_pairs.size();
}

Status ReadTlsFiles(const std::string& cert_path, const std::string& key_path,
                    std::string* cert_pem, std::string* key_pem) {
  Status s = ReadWhole(cert_path, cert_pem);
  return s.ok() ? ReadWhole(key_path, key_pem) : s;
}

int64_t TlsCredentials::NotAfter() {
  const Pair* p = g_current.load(std::memory_order_acquire);
  return p == nullptr || p->not_after < 0 ? 0 : p->not_after;
}

int TlsCredentials::Retrieve(gnutls_session_t, const gnutls_datum_t*, int,
                             const gnutls_pk_algorithm_t*, int, gnutls_pcert_st** pcert,
                             unsigned int* pcert_length, gnutls_privkey_t* pkey) {
  const Pair* p = g_current.load(std::memory_order_acquire);
  if (p == nullptr) return -1;  // fails the handshake
  // The library only reads these; the pair outlives every handshake.
  *pcert = const_cast<gnutls_pcert_st*>(p->certs);
  *pcert_length = p->count;
  *pkey = p->key;
  return 0;
}

}  // namespace tavo_server
