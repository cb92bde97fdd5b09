// `tavo init`: creates an appliance root with the built-in groups and users
// and, with --demo, sample users and groups and an administrator password.
#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "auth/random.h"
#include "cli/cli.h"
#include "cli/terminal_text.h"
#include "tls/tls_cert.h"

namespace tavo_server {
namespace {

const char kInitUsage[] =
    "usage: tavo init DIR [--demo] [--force]\n"
    "Creates an appliance root in DIR (refused when DIR/etc/group exists, unless --force).\n"
    "  --demo   adds sample users and groups, the administrator admin and a disabled guest;\n"
    "           admin's password is $TAVO_ADMIN_PASSWORD or a generated one (printed).\n"
    "Without --demo, admin is created only when TAVO_ADMIN_PASSWORD is set.\n"
    "The sample users get the password $TAVO_DEMO_USER_PASSWORD, or an unknown random one.\n"
    "A self-signed TLS certificate is made in DIR/etc/tavo/tls (cert.pem, key.pem) unless one\n"
    "is there; serve HTTPS with it by `tavo serve --tls-cert ... --tls-key ...`.\n";

struct DemoUser {
  const char* name;
  const char* gecos;
};
const DemoUser kDemoUsers[] = {
    {"alice", "Alice Archer"}, {"bob", "Bob Baker"},        {"carol", "Carol Chen"},
    {"dave", "Dave Dunn"},     {"erin", "Erin Evans"},      {"frank", "Frank Fischer"},
    {"grace", "Grace Gomez"},  {"heidi", "Heidi Hart"},     {"ivan", "Ivan Ito"},
    {"judy", "Judy Jones"},    {"mallory", "Mallory Moss"}, {"oscar", "Oscar Olsen"},
};

struct DemoGroup {
  const char* name;
  const char* members;
  const char* description;
};
const DemoGroup kDemoGroups[] = {
    {"staff", "alice,bob,carol,dave,erin,frank", "Everyone on the permanent staff"},
    {"engineering", "alice,carol,ivan", "Product engineering"},
    {"finance", "bob,judy", "Accounts and payroll"},
    {"marketing", "erin,grace", "Campaigns and press"},
    {"sales", "frank,heidi", "Sales team"},
    {"support", "dave,oscar", "Customer support"},
    {"hr", "judy", "Human resources"},
    {"research", "carol,ivan,mallory", "Research projects"},
};

int Usage(const std::string& message) {
  fprintf(stderr, "tavo init: %s\n%s", TerminalSafe(message).c_str(), kInitUsage);
  return kExitUsage;
}

// A crypt(3) hash of `password`: yescrypt for real accounts, SHA-512 (cheap)
// for the sample users. "" on failure.
std::string Hash(const std::string& password, bool cheap) {
  std::unique_ptr<char, decltype(&free)> salt(
      crypt_gensalt_ra(cheap ? "$6$" : "$y$", 0, nullptr, 0), &free);
  if (!salt) return "";
  auto data = std::make_unique<crypt_data>();
  const char* h = crypt_r(password.c_str(), salt.get(), data.get());
  if (h == nullptr || h[0] == '*') return "";
  return h;
}

}  // namespace

static bool WriteAll(int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes through a fresh temporary file that nobody else can read until it
// has its final mode, and that is never a link left there by someone else.
bool WriteRootFile(const std::string& path, const std::string& content, mode_t mode) {
  const std::string tmp = path + ".init-tmp";
  unlink(tmp.c_str());
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { close(*f); });
  bool ok = WriteAll(fd, content) && fchmod(fd, mode) == 0 && fsync(fd) == 0 &&
            rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) unlink(tmp.c_str());
  return ok;
}

bool MakeRootDirs(const std::string& root, std::initializer_list<const char*> dirs) {
  for (const char* d : dirs) {
    std::string path = root;
    std::string rel = d;
    size_t pos = 0;
    while (pos != std::string::npos) {
      size_t next = rel.find('/', pos + 1);
      path = root + rel.substr(0, next);
      if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
      pos = next;
    }
  }
  return true;
}

int InitMain(const std::vector<std::string>& args) {
  std::string dir;
  bool demo = false, force = false;
  for (const std::string& a : args) {
    if (a == "-h" || a == "--help") {
      fputs(kInitUsage, stdout);
      return kExitOk;
    }
    if (a == "--demo") {
      demo = true;
    } else if (a == "--force") {
      force = true;
    } else if (a.compare(0, 2, "--") == 0 || !dir.empty()) {
      return Usage("unexpected argument " + a);
    } else {
      dir = a;
    }
  }
  if (dir.empty()) return Usage("the root folder DIR is required");
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  struct stat st;
  if (!force && stat((dir + "/etc/group").c_str(), &st) == 0)
    return Usage(dir + " already holds a root (etc/group exists); add --force to overwrite it");
  if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    fprintf(stderr, "tavo init: cannot create %s\n", TerminalSafe(dir).c_str());
    return kExitFailure;
  }
  if (!MakeRootDirs(dir, {"/etc/tavo/reload.d", "/tmp", "/var/lib/tavo"})) {
    fprintf(stderr, "tavo init: cannot create the folders of %s\n", TerminalSafe(dir).c_str());
    return kExitFailure;
  }
  chmod((dir + "/tmp").c_str(), 01777);

  const char* env_admin = std::getenv("TAVO_ADMIN_PASSWORD");
  std::string admin_password = env_admin != nullptr ? env_admin : "";
  bool generated = false;
  if (demo && admin_password.empty()) {
    admin_password = RandomPassword(16);
    generated = true;
  }
  const bool with_admin = demo || !admin_password.empty();
  const char* env_user = std::getenv("TAVO_DEMO_USER_PASSWORD");
  const std::string user_password =
      env_user != nullptr && *env_user ? env_user : RandomPassword(24);

  const std::string days = std::to_string(std::time(nullptr) / 86400);
  std::string group = "root:x:0:\nsudo:x:27:\nshadow:x:42:\nusers:x:100:\n";
  group += std::string("administrators:x:101:") + (with_admin ? "admin" : "") + "\n";
  std::string gshadow = "root:*::\nsudo:*::\nshadow:*::\nusers:*::\n";
  gshadow += std::string("administrators:*::") + (with_admin ? "admin" : "") + "\n";
  // No "nobody"/"nogroup": GID 65534 lies above GID_MAX, where groups are
  // ordinary, listed groups; an appliance root does not need them.
  std::string passwd = "root:x:0:0:root:/root:/bin/bash\n";
  std::string shadow = "root:*:" + days + ":0:99999:7:::\n";
  auto add_user = [&](const std::string& name, int uid, const std::string& gecos,
                      const std::string& hash) {
    passwd +=
        name + ":x:" + std::to_string(uid) + ":100:" + gecos + ":/home/" + name + ":/bin/sh\n";
    shadow += name + ":" + hash + ":" + days + ":0:99999:7:::\n";
  };
  if (with_admin) {
    std::string hash = Hash(admin_password, false);
    if (hash.empty()) {
      fprintf(stderr, "tavo init: cannot hash the administrator password\n");
      return kExitFailure;
    }
    add_user("admin", 1000, "Administrator", hash);
  }
  std::string desc;
  if (demo) {
    add_user("guest", 1001, "Guest", "!");
    int uid = 1002;
    for (const DemoUser& u : kDemoUsers) {
      std::string hash = Hash(user_password, true);
      if (hash.empty()) return kExitFailure;
      add_user(u.name, uid++, u.gecos, hash);
    }
    int gid = 1000;
    for (const DemoGroup& g : kDemoGroups) {
      group += std::string(g.name) + ":x:" + std::to_string(gid++) + ":" + g.members + "\n";
      gshadow += std::string(g.name) + ":!::" + g.members + "\n";
      desc += std::string(g.name) + ":" + g.description + "\n";
    }
  }

  const std::string login_defs =
      "GID_MIN 1000\nGID_MAX 60000\nUID_MIN 1000\nUID_MAX 60000\n"
      "SYS_GID_MIN 100\nSYS_GID_MAX 999\nSYS_UID_MIN 100\nSYS_UID_MAX 999\n";
  bool ok = WriteRootFile(dir + "/etc/login.defs", login_defs, 0644) &&
            WriteRootFile(dir + "/etc/group", group, 0644) &&
            WriteRootFile(dir + "/etc/gshadow", gshadow, 0640) &&
            WriteRootFile(dir + "/etc/passwd", passwd, 0644) &&
            WriteRootFile(dir + "/etc/shadow", shadow, 0640) &&
            WriteRootFile(dir + "/etc/tavo/tavo.conf", "maxgroups = 128\n", 0644) &&
            (!demo || WriteRootFile(dir + "/etc/tavo/group_desc", desc, 0644));
  if (!ok) {
    fprintf(stderr, "tavo init: cannot write the files of %s\n", TerminalSafe(dir).c_str());
    return kExitFailure;
  }
  std::string cert_error;
  if (!EnsureCertificate(dir, "", &cert_error)) {
    fprintf(stderr, "tavo init: %s\n", TerminalSafe(cert_error).c_str());
    return kExitFailure;
  }

  const std::string shown = TerminalSafe(dir);
  printf("Created the root %s%s.\n", shown.c_str(), demo ? " with sample users and groups" : "");
  if (with_admin) {
    if (generated) printf("Generated administrator password: %s\n", admin_password.c_str());
    printf(
        "Log in as admin with password %s at http://127.0.0.1:8780/ after `tavo serve --root %s`\n",
        generated ? admin_password.c_str() : "$TAVO_ADMIN_PASSWORD", shown.c_str());
  } else {
    printf(
        "No administrator password is set. To log in, run `tavo init %s --demo --force`, or run\n"
        "init again with TAVO_ADMIN_PASSWORD set (and --force), which creates admin with that "
        "password.\n",
        shown.c_str());
  }
  return kExitOk;
}

}  // namespace tavo_server
