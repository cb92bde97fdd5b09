// Access log: one line per HTTP request on standard error:
//   TIME CLIENT ACCOUNT "METHOD PATH" STATUS API VERSION API-METHOD CODE DURATION
// e.g. 2026-01-02T03:04:05Z 127.0.0.1 admin "POST /api" 200 TAVO.Core.Group 1 list 3200 1.8ms
// Fields that do not apply are "-". Handlers fill in what they learn about the
// request (account, API call, answer code) on the thread that serves it; the
// line is written when the answer has been sent.
//
// Thread-safety: the request details are per thread (a request is served on
// one thread from start to end); lines are written whole.
#ifndef TAVO_SERVER_ACCESS_LOG_H_
#define TAVO_SERVER_ACCESS_LOG_H_

#include <string>

namespace tavo_server {
namespace access_log {

// Starts timing a request on this thread and forgets the previous details.
void Begin();
void SetAccount(const std::string& account);
void SetCall(const std::string& api, int version, const std::string& method);
void SetCode(int code);
// Writes the line and resets the details.
void End(const std::string& client, const std::string& http_method, const std::string& path,
         int status);

}  // namespace access_log
}  // namespace tavo_server

#endif  // TAVO_SERVER_ACCESS_LOG_H_
