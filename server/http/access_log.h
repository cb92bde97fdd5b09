// AccessLog: one line per HTTP request on standard error:
//   TIME CLIENT ACCOUNT "METHOD PATH" STATUS API VERSION API-METHOD CODE DURATION
// e.g. 2026-01-02T03:04:05Z 127.0.0.1 admin "POST /api" 200 TAVO.Core.Group 1 list 3200 1.8ms
// Fields that do not apply are "-"; client-sent text is cut to 200 bytes and
// kept to one word.
//
// Lines are formatted by the caller and handed to a writer thread, so an
// event thread never waits for a slow standard error. The writer is woken by
// the first line of a batch and gathers lines for kGather (10 ms) before it
// writes them, so a busy server pays one wake-up and one write per batch, not
// per request; a line reaches standard error at most about kGather late. At most `max_pending`
// bytes wait; lines beyond that are dropped and counted, and the count is
// written once the writer catches up ("tavo: N access log lines dropped").
//
// Ownership: borrows `out`, which must outlive the log.
// Thread-safety: Write may be called from any thread; the destructor writes
// what is pending, then joins the writer.
#ifndef TAVO_SERVER_ACCESS_LOG_H_
#define TAVO_SERVER_ACCESS_LOG_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "http/http_message.h"

namespace tavo_server {

class AccessLog {
 public:
  explicit AccessLog(FILE* out, size_t max_pending = 1 << 20);
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  void Write(const std::string& client, const std::string& http_method, const std::string& path,
             int status, const LogFields& fields, double millis);

  // The line Write queues, with the time given (seconds since the epoch).
  static std::string Format(long when, const std::string& client, const std::string& http_method,
                            const std::string& path, int status, const LogFields& fields,
                            double millis);

 private:
  void Run();

  static constexpr std::chrono::milliseconds kGather{10};

  FILE* const out_;
  const size_t max_pending_;
  std::mutex mu_;
  std::condition_variable wake_;
  std::string pending_;
  size_t dropped_ = 0;
  bool stopping_ = false;
  std::thread writer_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_ACCESS_LOG_H_
