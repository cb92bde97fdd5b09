#include "http/metrics.h"

#include <cstdio>

#include "tls/tls_credentials.h"

namespace tavo_server {
namespace {

// A label value: backslash, double quote and newline escaped.
std::string Label(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '"')
      out += "\\\"";
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

std::string Number(double v) {
  char buf[64];
  snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

void Head(std::string* out, const char* name, const char* type, const char* help) {
  *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

}  // namespace

constexpr std::array<double, 10> Metrics::kBuckets;

void Metrics::Answered(const LogFields& log, int status) {
  std::lock_guard<std::mutex> lock(mu_);
  // Names that the client made up share one series, so that they cannot
  // grow the exposition without bound.
  if (log.served) {
    ++calls_[std::make_tuple(log.api, log.method, log.code)];
  } else if (!log.api.empty()) {
    ++calls_[std::make_tuple("unknown", "unknown", 0)];
  }
  ++statuses_[status];
}

void Metrics::Completed(double ms) {
  const double seconds = ms / 1000.0;
  std::lock_guard<std::mutex> lock(mu_);
  size_t b = 0;
  while (b < kBuckets.size() && seconds > kBuckets[b]) ++b;
  ++buckets_[b];
  seconds_sum_ += seconds;
  ++count_;
}

std::string Metrics::Render(size_t sessions, const Json::Value& side) const {
  std::string out;
  {
    std::lock_guard<std::mutex> lock(mu_);
    Head(&out, "tavo_http_requests_total", "counter", "HTTP requests answered, by status.");
    for (const auto& s : statuses_)
      out += "tavo_http_requests_total{status=\"" + std::to_string(s.first) + "\"} " +
             std::to_string(s.second) + "\n";
    Head(&out, "tavo_api_calls_total", "counter",
         "Module calls answered, by API, method and answer code (3200 is success).");
    for (const auto& c : calls_)
      out += "tavo_api_calls_total{api=\"" + Label(std::get<0>(c.first)) + "\",method=\"" +
             Label(std::get<1>(c.first)) + "\",code=\"" + std::to_string(std::get<2>(c.first)) +
             "\"} " + std::to_string(c.second) + "\n";
    Head(&out, "tavo_http_request_duration_seconds", "histogram",
         "Time from a request's head to its answer.");
    uint64_t cumulative = 0;
    for (size_t b = 0; b < kBuckets.size(); ++b) {
      cumulative += buckets_[b];
      out += "tavo_http_request_duration_seconds_bucket{le=\"" + Number(kBuckets[b]) + "\"} " +
             std::to_string(cumulative) + "\n";
    }
    cumulative += buckets_[kBuckets.size()];
    out += "tavo_http_request_duration_seconds_bucket{le=\"+Inf\"} " + std::to_string(cumulative) +
           "\n";
    out += "tavo_http_request_duration_seconds_sum " + Number(seconds_sum_) + "\n";
    out += "tavo_http_request_duration_seconds_count " + std::to_string(count_) + "\n";
  }
  Head(&out, "tavo_sessions", "gauge", "Sessions that are logged in.");
  out += "tavo_sessions " + std::to_string(sessions) + "\n";
  Head(&out, "tavo_login_failures_total", "counter", "Logins refused (any reason).");
  out += "tavo_login_failures_total " + std::to_string(failed_logins_.load()) + "\n";
  if (const int64_t not_after = TlsCredentials::NotAfter()) {
    Head(&out, "tavo_tls_certificate_expiry_timestamp_seconds", "gauge",
         "When the TLS certificate presented now stops being valid (seconds since the epoch).");
    out += "tavo_tls_certificate_expiry_timestamp_seconds " + std::to_string(not_after) + "\n";
  }

  const Json::Value& store = side["store"];
  Head(&out, "tavo_store_commits_total", "counter", "Changes of the account files, by result.");
  out += "tavo_store_commits_total{result=\"written\"} " +
         std::to_string(store["commits"].asUInt64()) + "\n";
  out += "tavo_store_commits_total{result=\"failed\"} " +
         std::to_string(store["failed_commits"].asUInt64()) + "\n";
  Head(&out, "tavo_store_files_written_total", "counter", "Account files replaced.");
  out +=
      "tavo_store_files_written_total " + std::to_string(store["files_written"].asUInt64()) + "\n";
  Head(&out, "tavo_store_fsyncs_total", "counter", "fsync calls of the account store.");
  out += "tavo_store_fsyncs_total " + std::to_string(store["fsyncs"].asUInt64()) + "\n";
  Head(&out, "tavo_store_fsync_seconds_total", "counter", "Time spent in those fsync calls.");
  out += "tavo_store_fsync_seconds_total " + Number(store["fsync_ns"].asUInt64() / 1e9) + "\n";

  Head(&out, "tavo_answers_reused_total", "counter",
       "Module answers given again from the answer cache, their account files unchanged.");
  out += "tavo_answers_reused_total " + std::to_string(side["answers_reused"].asUInt64()) + "\n";

  Head(&out, "tavo_directory_bound", "gauge",
       "1 when the directory is bound (ldap) or joined (domain).");
  std::string groups, last, errors;
  for (const char* kind : {"ldap", "domain"}) {
    const Json::Value& d = side["directory"][kind];
    const std::string k = std::string("{kind=\"") + kind + "\"} ";
    out += "tavo_directory_bound" + k + (d["bound"].asBool() ? "1" : "0") + "\n";
    groups += "tavo_directory_groups" + k + std::to_string(d["groups"].asInt64()) + "\n";
    last += "tavo_directory_last_sync_timestamp_seconds" + k +
            std::to_string(d["last_sync"].asInt64()) + "\n";
    errors += "tavo_directory_last_error_timestamp_seconds" + k +
              std::to_string(d["last_error_time"].asInt64()) + "\n";
  }
  Head(&out, "tavo_directory_groups", "gauge", "Groups stored by the last good sync.");
  out += groups;
  Head(&out, "tavo_directory_last_sync_timestamp_seconds", "gauge",
       "Time of the last good sync (0: none).");
  out += last;
  Head(&out, "tavo_directory_last_error_timestamp_seconds", "gauge",
       "Time of the last failed sync (0: the last attempt succeeded).");
  out += errors;
  return out;
}

}  // namespace tavo_server
