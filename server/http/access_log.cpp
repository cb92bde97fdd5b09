#include "http/access_log.h"

#include <ctime>

#include "cli/terminal_text.h"

namespace tavo_server {
namespace {

std::string Or(const std::string& s) { return s.empty() ? "-" : s; }

// Keeps a log line on one line, and each field one word, whatever a client
// sent; C1 controls, direction overrides and stray bytes come out escaped.
std::string Clean(const std::string& s) {
  std::string out;
  for (char c : s.substr(0, 200))
    out += static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '"' ? '?' : c;
  return TerminalSafe(out);
}

}  // namespace

AccessLog::AccessLog(FILE* out, size_t max_pending)
    : out_(out), max_pending_(max_pending), writer_([this] { Run(); }) {}

AccessLog::~AccessLog() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_one();
  writer_.join();
}

std::string AccessLog::Format(long when, const std::string& client, const std::string& http_method,
                              const std::string& path, int status, const LogFields& f,
                              double millis) {
  char time_text[32];
  std::time_t t = when;
  struct tm tm;
  gmtime_r(&t, &tm);
  strftime(time_text, sizeof(time_text), "%Y-%m-%dT%H:%M:%SZ", &tm);
  char duration[32];
  snprintf(duration, sizeof(duration), "%.1fms", millis);
  return std::string(time_text) + " " + Clean(Or(client)) + " " + Clean(Or(f.account)) + " \"" +
         Clean(http_method) + " " + Clean(path) + "\" " + std::to_string(status) + " " +
         Clean(Or(f.api)) + " " + (f.version ? std::to_string(f.version) : "-") + " " +
         Clean(Or(f.method)) + " " + (f.code ? std::to_string(f.code) : "-") + " " + duration +
         "\n";
}

void AccessLog::Write(const std::string& client, const std::string& http_method,
                      const std::string& path, int status, const LogFields& fields, double millis) {
  std::string line = Format(static_cast<long>(std::time(nullptr)), client, http_method, path,
                            status, fields, millis);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (pending_.size() + line.size() > max_pending_) {
      ++dropped_;
      return;
    }
    // The writer is woken by the first line of a batch only; the lines that
    // follow while it gathers join the same write.
    const bool first = pending_.empty();
    pending_ += line;
    if (!first) return;
  }
  wake_.notify_one();
}

void AccessLog::Run() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !pending_.empty() || dropped_ > 0; });
    // Under load, lines arrive faster than one write each: let them gather
    // for a moment, so that one wake-up and one write carry many.
    if (!stopping_) {
      lock.unlock();
      std::this_thread::sleep_for(kGather);
      lock.lock();
    }
    std::string text;
    text.swap(pending_);
    size_t dropped = dropped_;
    dropped_ = 0;
    const bool stop = stopping_;
    lock.unlock();
    if (dropped > 0) text += "tavo: " + std::to_string(dropped) + " access log lines dropped\n";
    if (!text.empty()) {
      fwrite(text.data(), 1, text.size(), out_);
      fflush(out_);
    }
    lock.lock();
    if (stop && pending_.empty()) return;
  }
}

}  // namespace tavo_server
