#include "access_log.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace tavo_server {
namespace access_log {
namespace {

struct Details {
  bool started = false;
  std::chrono::steady_clock::time_point start;
  std::string account, api, method;
  int version = 0;
  int code = 0;
};

thread_local Details t_details;

std::string Or(const std::string& s) { return s.empty() ? "-" : s; }

// Keeps a log line on one line, and each field one word, whatever a client
// sent.
std::string Clean(const std::string& s) {
  std::string out;
  for (char c : s.substr(0, 200))
    out += static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '"' ? '?' : c;
  return out;
}

}  // namespace

void Begin() {
  t_details = Details();
  t_details.started = true;
  t_details.start = std::chrono::steady_clock::now();
}

void SetAccount(const std::string& account) { t_details.account = account; }

void SetCall(const std::string& api, int version, const std::string& method) {
  t_details.api = api;
  t_details.version = version;
  t_details.method = method;
}

void SetCode(int code) { t_details.code = code; }

void End(const std::string& client, const std::string& http_method, const std::string& path,
         int status) {
  const Details& d = t_details;
  char when[32];
  std::time_t now = std::time(nullptr);
  struct tm tm;
  gmtime_r(&now, &tm);
  strftime(when, sizeof(when), "%Y-%m-%dT%H:%M:%SZ", &tm);
  std::string duration = "-";
  if (d.started) {
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - d.start).count();
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1fms", ms);
    duration = buf;
  }
  std::string line = std::string(when) + " " + Or(client) + " " + Clean(Or(d.account)) + " \"" +
                     Clean(http_method) + " " + Clean(path) + "\" " + std::to_string(status) + " " +
                     Clean(Or(d.api)) + " " + (d.version ? std::to_string(d.version) : "-") + " " +
                     Clean(Or(d.method)) + " " + (d.code ? std::to_string(d.code) : "-") + " " +
                     duration + "\n";
  fputs(line.c_str(), stderr);
  t_details = Details();
}

}  // namespace access_log
}  // namespace tavo_server
