// Captures the system log: these definitions take precedence over the C
// library's for the loaded module (the executable exports them).
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "module_harness.h"

namespace tavo_test {
namespace {
std::mutex g_mutex;
std::vector<LogLine>& Lines() {
  static std::vector<LogLine> lines;
  return lines;
}
}  // namespace

std::vector<LogLine> CapturedLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return Lines();
}

void ClearLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  Lines().clear();
}

static void Record(int priority, const char* format, va_list args) {
  char buffer[2048];
  vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard<std::mutex> lock(g_mutex);
  Lines().push_back(LogLine{priority & 7, buffer});
}

}  // namespace tavo_test

extern "C" {

void vsyslog(int priority, const char* format, va_list args) {
  tavo_test::Record(priority, format, args);
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tavo_test::Record(priority, format, args);
  va_end(args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  tavo_test::Record(priority, format, args);
  va_end(args);
}

}  // extern "C"
