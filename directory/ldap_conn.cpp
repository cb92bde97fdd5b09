#include "directory/ldap_conn.h"

#include <ldap.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace tavo_dir {
namespace {

bool Unreachable(int rc) {
  return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR || rc == LDAP_TIMEOUT ||
         rc == LDAP_UNAVAILABLE;
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

struct ControlsFree {
  void operator()(LDAPControl** c) const { ldap_controls_free(c); }
};

}  // namespace

std::vector<std::string> SplitUris(const std::string& text) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : text) {
    if (c == ',' || c == ' ' || c == '\t') {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

LdapConn::~LdapConn() { Close(); }

void LdapConn::Close() {
  if (ld_) ldap_unbind_ext_s(ld_, nullptr, nullptr);
  ld_ = nullptr;
}

std::string LdapConn::Describe(int rc) const {
  std::string msg = ldap_err2string(rc);
  char* diag = nullptr;
  if (ld_ && ldap_get_option(ld_, LDAP_OPT_DIAGNOSTIC_MESSAGE, &diag) == LDAP_OPT_SUCCESS && diag) {
    if (*diag) msg += std::string(" (") + diag + ")";
    ldap_memfree(diag);
  }
  return msg;
}

bool LdapConn::Open(const ConnectOptions& o, std::string* error) {
  static std::once_flag noinit;
  std::call_once(noinit, [] { setenv("LDAPNOINIT", "1", 1); });
  if (o.uris.empty()) {
    *error = "no server URI";
    return false;
  }
  timeout_ = o.timeout;
  std::string failures;
  for (const std::string& uri : o.uris) {
    Close();
    int rc = ldap_initialize(&ld_, uri.c_str());
    if (rc != LDAP_SUCCESS) {
      ld_ = nullptr;
      *error = uri + ": bad URI: " + ldap_err2string(rc);
      return false;
    }
    int version = LDAP_VERSION3;
    ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld_, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    struct timeval ct = {o.connect_timeout, 0}, ot = {o.timeout, 0};
    ldap_set_option(ld_, LDAP_OPT_NETWORK_TIMEOUT, &ct);
    ldap_set_option(ld_, LDAP_OPT_TIMEOUT, &ot);
    int demand = LDAP_OPT_X_TLS_DEMAND;
    ldap_set_option(ld_, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
    if (!o.ca_file.empty()) ldap_set_option(ld_, LDAP_OPT_X_TLS_CACERTFILE, o.ca_file.c_str());
    int is_server = 0;
    ldap_set_option(ld_, LDAP_OPT_X_TLS_NEWCTX, &is_server);

    rc = ldap_connect(ld_);
    if (rc == LDAP_SUCCESS && o.starttls) rc = ldap_start_tls_s(ld_, nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
      // Unreachable, or TLS refused: the next replica may do better.
      failures += (failures.empty() ? "" : "; ") + uri + ": " + Describe(rc);
      continue;
    }
    struct berval cred;
    cred.bv_val = const_cast<char*>(o.password.c_str());
    cred.bv_len = o.password.size();
    rc = ldap_sasl_bind_s(ld_, o.bind_dn.empty() ? nullptr : o.bind_dn.c_str(), LDAP_SASL_SIMPLE,
                          &cred, nullptr, nullptr, nullptr);
    if (rc == LDAP_SUCCESS) {
      server_ = uri;
      return true;
    }
    if (Unreachable(rc)) {
      failures += (failures.empty() ? "" : "; ") + uri + ": " + Describe(rc);
      continue;
    }
    *error = uri + ": bind refused: " + Describe(rc);
    Close();
    return false;
  }
  Close();
  *error = "no server answered: " + failures;
  return false;
}

bool LdapConn::CheckBase(const std::string& base, std::string* error) {
  char* attrs[] = {const_cast<char*>(LDAP_NO_ATTRS), nullptr};
  struct timeval tv = {timeout_, 0};
  LDAPMessage* res = nullptr;
  int rc = ldap_search_ext_s(ld_, base.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 1,
                             nullptr, nullptr, &tv, 1, &res);
  if (res) ldap_msgfree(res);
  if (rc != LDAP_SUCCESS) {
    *error = server_ + ": base '" + base + "' cannot be read: " + Describe(rc);
    return false;
  }
  return true;
}

bool LdapConn::PagedSearch(const std::string& base, const std::string& filter,
                           const std::vector<std::string>& attrs, int page_size,
                           const std::function<bool(const std::string&, const Entry&)>& on_entry,
                           int* pages, std::string* error) {
  std::vector<char*> attr_list;
  for (const std::string& a : attrs) attr_list.push_back(const_cast<char*>(a.c_str()));
  attr_list.push_back(nullptr);
  struct berval cookie = {0, nullptr};
  *pages = 0;
  for (;;) {
    LDAPControl* page = nullptr;
    int rc = ldap_create_page_control(ld_, page_size, cookie.bv_val ? &cookie : nullptr, 1, &page);
    ldap_memfree(cookie.bv_val);
    cookie = {0, nullptr};
    if (rc != LDAP_SUCCESS) {
      *error = "cannot make the paged-results control: " + Describe(rc);
      return false;
    }
    LDAPControl* controls[] = {page, nullptr};
    struct timeval tv = {timeout_, 0};
    LDAPMessage* res = nullptr;
    rc = ldap_search_ext_s(ld_, base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attr_list.data(),
                           0, controls, nullptr, &tv, LDAP_NO_LIMIT, &res);
    ldap_control_free(page);
    if (rc != LDAP_SUCCESS) {
      if (res) ldap_msgfree(res);
      *error =
          server_ + ": search failed after " + std::to_string(*pages) + " pages: " + Describe(rc);
      return false;
    }
    ++*pages;
    for (LDAPMessage* e = ldap_first_entry(ld_, res); e; e = ldap_next_entry(ld_, e)) {
      Entry entry;
      BerElement* ber = nullptr;
      for (char* a = ldap_first_attribute(ld_, e, &ber); a; a = ldap_next_attribute(ld_, e, ber)) {
        struct berval** vals = ldap_get_values_len(ld_, e, a);
        std::vector<std::string>& out = entry[Lower(a)];
        for (int i = 0; vals && vals[i]; ++i) out.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
        ldap_value_free_len(vals);
        ldap_memfree(a);
      }
      if (ber) ber_free(ber, 0);
      char* dn = ldap_get_dn(ld_, e);
      std::string dn_text = dn ? dn : "";
      ldap_memfree(dn);
      if (!on_entry(dn_text, entry)) {
        ldap_msgfree(res);
        *error = server_ + ": entry '" + dn_text + "' refused";
        return false;
      }
    }
    LDAPControl** server_controls = nullptr;
    int result = LDAP_SUCCESS;
    rc = ldap_parse_result(ld_, res, &result, nullptr, nullptr, nullptr, &server_controls, 1);
    std::unique_ptr<LDAPControl*, ControlsFree> hold(server_controls);
    if (rc != LDAP_SUCCESS || result != LDAP_SUCCESS) {
      *error = server_ + ": search failed: " + Describe(rc != LDAP_SUCCESS ? rc : result);
      return false;
    }
    LDAPControl* reply = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, server_controls, nullptr);
    if (!reply) return true;  // the server sent everything at once
    ber_int_t estimate = 0;
    if (ldap_parse_pageresponse_control(ld_, reply, &estimate, &cookie) != LDAP_SUCCESS) {
      *error = server_ + ": bad paged-results answer";
      return false;
    }
    if (cookie.bv_len == 0) {
      ldap_memfree(cookie.bv_val);
      return true;
    }
  }
}

}  // namespace tavo_dir
