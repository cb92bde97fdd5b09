// Captures what the code under test sends to the system log. The syslog,
// vsyslog and __syslog_chk of log_capture.cpp take precedence over the C
// library's for the test executable and the libraries it links; a module it
// loads with dlopen sees them only when the executable exports its symbols
// (ENABLE_EXPORTS).
//
// Thread-safety: lines may be logged from any thread.
#ifndef TAVO_TESTS_LOG_CAPTURE_H_
#define TAVO_TESTS_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace tavo_test {

// One line sent to the system log; `priority` without the facility.
struct LogLine {
  int priority;
  std::string text;
};
// The lines captured since the last ClearLog, oldest first.
std::vector<LogLine> CapturedLog();
void ClearLog();
// True when exactly this line (e.g. "src/Group.cpp:235 Bad parameter ...") was
// logged with this priority.
bool Logged(int priority, const std::string& text);
// True when a line starting with `prefix` was logged with this priority (for
// platform-error lines whose file and line belong to the platform).
bool LoggedPrefix(int priority, const std::string& prefix);
// The number of lines with this priority that contain `piece`.
int LoggedCount(int priority, const std::string& piece);

}  // namespace tavo_test

#endif  // TAVO_TESTS_LOG_CAPTURE_H_
