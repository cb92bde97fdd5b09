// Counters of the HTTP server for GET /metrics, in the Prometheus text
// exposition format (version 0.0.4).
//
// Requests are counted by route: API calls by API, method and the module's
// answer code, where the module served them, and every other API call under
// api="unknown" (so the series stay bounded by the modules loaded); other
// requests by HTTP status; all of them in one latency
// histogram. Failed logins are counted apart. The account side's own figures
// (store writes and fsync time, directory sync results: AccountOps::Stats)
// and the live sessions are passed to Render.
//
// Thread-safety: every member may be called from any thread at once.
// Errors: none; labels are escaped as the format requires.
#ifndef TAVO_SERVER_HTTP_METRICS_H_
#define TAVO_SERVER_HTTP_METRICS_H_

#include <json/value.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>

#include "http/http_message.h"

namespace tavo_server {

class Metrics {
 public:
  // One answer, counted as it is made (before it is sent): `log` as the
  // handler filled it (api, method and code for module calls), `status` the
  // HTTP status.
  void Answered(const LogFields& log, int status);
  // One request completed, `ms` from its head until its answer was sent.
  void Completed(double ms);
  void FailedLogin() { failed_logins_.fetch_add(1, std::memory_order_relaxed); }

  // The whole exposition. `account_side` is AccountOps::Stats().
  std::string Render(size_t sessions, const Json::Value& account_side) const;

  // Upper bounds of the latency buckets, in seconds.
  static constexpr std::array<double, 10> kBuckets = {0.0005, 0.001, 0.0025, 0.005, 0.01,
                                                      0.025,  0.05,  0.1,    0.5,   2.5};

 private:
  mutable std::mutex mu_;
  // (api, method, code) of module calls; ("", "", HTTP status) of the rest.
  std::map<std::tuple<std::string, std::string, int>, uint64_t> calls_;
  std::map<int, uint64_t> statuses_;
  std::array<uint64_t, kBuckets.size() + 1> buckets_{};  // the last is +Inf
  double seconds_sum_ = 0;
  uint64_t count_ = 0;
  std::atomic<uint64_t> failed_logins_{0};
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_HTTP_METRICS_H_
