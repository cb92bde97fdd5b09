#include "directory/directory_env.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstdint>
#include <memory>

namespace tavo_test {
namespace {

std::string Base64(const std::string& in) {
  static const char t[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < in.size(); i += 3) {
    uint32_t v = static_cast<unsigned char>(in[i]) << 16;
    if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
    if (i + 2 < in.size()) v |= static_cast<unsigned char>(in[i + 2]);
    out += t[v >> 18 & 63];
    out += t[v >> 12 & 63];
    out += i + 1 < in.size() ? t[v >> 6 & 63] : '=';
    out += i + 2 < in.size() ? t[v & 63] : '=';
  }
  return out;
}

// S-1-5-21-1-2-3-RID in binary form.
std::string Sid(uint32_t rid) {
  std::string s = {1, 5, 0, 0, 0, 0, 0, 5};
  for (uint32_t sub : {21u, 1u, 2u, 3u, rid})
    for (int i = 0; i < 4; ++i) s += static_cast<char>(sub >> (8 * i) & 0xFF);
  return s;
}

std::string DomainGroup(const std::string& name, int rid, int gid) {
  std::string e = "dn: cn=" + name + ",dc=corp,dc=test\nobjectClass: group\ncn: " + name +
                  "\nsAMAccountName: " + name + "\n";
  if (rid >= 0) e += "objectSid:: " + Base64(Sid(static_cast<uint32_t>(rid))) + "\n";
  if (gid >= 0) e += "gidNumber: " + std::to_string(gid) + "\n";
  return e + "\n";
}

std::string ExampleLdif() {
  std::string l =
      "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\no: Example\n"
      "dc: example\n\n";
  for (const char* who : {"reader", "limited"})
    l += std::string("dn: cn=") + who +
         ",dc=example,dc=com\nobjectClass: organizationalRole\nobjectClass: "
         "simpleSecurityObject\ncn: " +
         who + "\nuserPassword: " + who + "pw\n\n";
  for (const char* ou : {"small", "big", "half"})
    l += std::string("dn: ou=") + ou +
         ",dc=example,dc=com\nobjectClass: organizationalUnit\nou: " + ou + "\n\n";
  const std::string small = "ou=small,dc=example,dc=com";
  for (int i = 0; i < 5; ++i) l += PosixGroup("team" + std::to_string(i), small, 5000 + i);
  l += "dn: cn=projects," + small +
       "\nobjectClass: groupOfNames\ncn: projects\nmember: cn=reader,dc=example,dc=com\n\n";
  l += "dn: cn=archive," + small +
       "\nobjectClass: groupOfUniqueNames\ncn: archive\nuniqueMember: "
       "cn=reader,dc=example,dc=com\n\n";
  l += PosixGroup("bad\\3Aname", small, 5100);  // "bad:name": cannot be stored
  for (int i = 0; i < 20000; ++i) {
    char name[16];
    snprintf(name, sizeof(name), "g%05d", i);
    l += PosixGroup(name, "ou=big,dc=example,dc=com", 100000 + i);
  }
  for (int i = 0; i < 1200; ++i)
    l += PosixGroup("h" + std::to_string(i), "ou=half,dc=example,dc=com", 200000 + i);
  return l;
}

std::string CorpLdif() {
  std::string l =
      "dn: dc=corp,dc=test\nobjectClass: dcObject\nobjectClass: organization\n"
      "o: Corp\ndc: corp\n\n";
  l += DomainGroup("Domain Admins", 512, -1);
  l += DomainGroup("engineers", 1105, 70000);
  l += DomainGroup("sales", 1106, -1);
  l += DomainGroup("huge", 2000000, -1);  // beyond the ID range
  l += DomainGroup("nosid", -1, -1);      // neither a SID nor a gid
  l += PosixGroup("notadomaingroup", "dc=corp,dc=test", 4242);
  return l;
}

class SlapdEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    ASSERT_TRUE(Slapd::Get()->Start(ExampleLdif(), CorpLdif())) << "slapd did not start";
  }
  void TearDown() override { Slapd::Get()->Stop(); }
};

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new SlapdEnvironment);

}  // namespace

std::string PosixGroup(const std::string& name, const std::string& ou, int gid) {
  return "dn: cn=" + name + "," + ou + "\nobjectClass: posixGroup\ncn: " + name +
         "\ngidNumber: " + std::to_string(gid) + "\n\n";
}

int Tavo(const std::string& args, std::string* out) {
  return RunCommand(std::string(TAVO_BIN_PATH) + " " + args, out);
}

Json::Value ListGroups(const std::string& root, const std::string& type, const std::string& extra) {
  std::string out;
  Tavo("call --root " + root + " TAVO.Core.Group list type=" + type + " " + extra, &out);
  size_t brace = out.find('{');
  if (brace == std::string::npos) return Json::Value();
  out.erase(0, brace);
  Json::Value v;
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  if (!r->parse(out.data(), out.data() + out.size(), &v, nullptr)) return Json::Value();
  return v;
}

std::string Names(const Json::Value& envelope) {
  std::string s;
  for (const Json::Value& g : envelope["data"]["groups"])
    s += (s.empty() ? "" : " ") + g["name"].asString();
  return s;
}

}  // namespace tavo_test
