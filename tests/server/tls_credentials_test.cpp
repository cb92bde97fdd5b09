// The certificate pair presented to TLS handshakes: what is refused leaves
// the pair in use, what passes replaces it, and the files are read within
// bounds.
#include "tls/tls_credentials.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <string>

#include "common/temp_root.h"
#include "tls/tls_cert.h"

namespace tavo_server {
namespace {

struct Pem {
  std::string cert, key;
};

Pem MakePair() {
  Pem p;
  const Status s = MakeSelfSignedCertificate("appliance.test", &p.cert, &p.key);
  EXPECT_TRUE(s.ok()) << s.message();
  return p;
}

// What a handshake would be given now.
gnutls_privkey_t PresentedKey() {
  gnutls_pcert_st* certs = nullptr;
  unsigned count = 0;
  gnutls_privkey_t key = nullptr;
  EXPECT_EQ(0, TlsCredentials::Retrieve(nullptr, nullptr, 0, nullptr, 0, &certs, &count, &key));
  EXPECT_GE(count, 1u);
  return key;
}

std::string Repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

TEST(TlsCredentialsTest, RefusedPairsLeaveThePairInUse) {
  const Pem a = MakePair(), b = MakePair();
  ASSERT_TRUE(TlsCredentials::Install(a.cert, a.key).ok());
  const gnutls_privkey_t in_use = PresentedKey();
  const int64_t year = 365LL * 24 * 3600;
  EXPECT_GT(TlsCredentials::NotAfter(), static_cast<int64_t>(time(nullptr)) + 9 * year);

  const struct {
    std::string cert, key, error;
  } refused[] = {
      {a.cert, b.key, "the key is not the key of the certificate"},
      {"no certificate here\n", a.key, "not a PEM certificate"},
      {a.cert, "no key here\n", "not a PEM private key"},
      {a.cert, a.cert, "not a PEM private key"},
      {Repeat(a.cert, 17), a.key, "more than 16 certificates"},
  };
  for (const auto& r : refused) {
    const Status s = TlsCredentials::Install(r.cert, r.key);
    EXPECT_FALSE(s.ok()) << r.error;
    EXPECT_NE(s.message().find(r.error), std::string::npos) << s.message();
    EXPECT_EQ(PresentedKey(), in_use) << r.error;
  }

  // A chain of the server's certificate and 15 more is taken.
  ASSERT_TRUE(TlsCredentials::Install(Repeat(b.cert, 16), b.key).ok());
  EXPECT_NE(PresentedKey(), in_use);
}

TEST(TlsCredentialsTest, FilesAreReadWholeWithinBounds) {
  tavo_test::TempRoot root;
  const std::string base = root.dir();
  const std::string cert = base + "/cert.pem", empty = base + "/empty.pem";
  std::ofstream(cert) << "PEM TEXT\n";
  std::ofstream(empty).flush();
  std::string c, k;
  ASSERT_TRUE(ReadTlsFiles(cert, cert, &c, &k).ok());
  EXPECT_EQ(c, "PEM TEXT\n");
  EXPECT_EQ(k, "PEM TEXT\n");
  // What could lead the reading process to hand over another file: a link
  // to it, a file someone else may replace, a device.
  const std::string link = base + "/link.pem", foreign = base + "/foreign.pem",
                    big = base + "/big.pem";
  ASSERT_EQ(symlink(cert.c_str(), link.c_str()), 0);
  std::ofstream(foreign) << "PEM TEXT\n";
  const bool chowned = chown(foreign.c_str(), 65534, 65534) == 0;  // needs root
  std::ofstream(big) << std::string((1 << 20) + 1, 'x');
  const struct {
    std::string cert, key, error;
  } refused[] = {
      {base + "/missing.pem", cert,
       "cannot read " + base + "/missing.pem: No such file or directory"},
      {cert, empty, empty + " is empty"},
      {"/dev/zero", cert, "/dev/zero is not a regular file"},
      {cert, link, link + " is a symbolic link"},
      {big, cert, big + " is larger than 1 MiB"},
      {cert, chowned ? foreign : link,
       chowned ? foreign + " belongs to uid 65534, neither root nor this service"
               : link + " is a symbolic link"},
  };
  for (const auto& r : refused) {
    const Status s = ReadTlsFiles(r.cert, r.key, &c, &k);
    EXPECT_FALSE(s.ok()) << r.error;
    EXPECT_EQ(s.message(), r.error);
  }
}

// A replaced pair is held only while a connection that began before the
// replacement is open; reloads alone keep no more than the current pair.
TEST(TlsCredentialsTest, ReplacedPairsAreFreedOnceNoConnectionCanUseThem) {
  const Pem a = MakePair(), b = MakePair();
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(TlsCredentials::Install(i % 2 ? a.cert : b.cert, i % 2 ? a.key : b.key).ok());
  EXPECT_EQ(TlsCredentials::PairsKept(), 1u);
  const uint64_t early = TlsCredentials::ConnectionStarted();
  ASSERT_TRUE(TlsCredentials::Install(a.cert, a.key).ok());
  const uint64_t late = TlsCredentials::ConnectionStarted();
  ASSERT_TRUE(TlsCredentials::Install(b.cert, b.key).ok());
  EXPECT_EQ(TlsCredentials::PairsKept(), 3u);  // early's, late's and the current one
  TlsCredentials::ConnectionEnded(early);
  EXPECT_EQ(TlsCredentials::PairsKept(), 2u);
  TlsCredentials::ConnectionEnded(late);
  EXPECT_EQ(TlsCredentials::PairsKept(), 1u);
  EXPECT_NE(PresentedKey(), nullptr);
}

}  // namespace
}  // namespace tavo_server
