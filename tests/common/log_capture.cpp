#include "common/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace tavo_test {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

void Record(int priority, const char* format, va_list args) {
  char buffer[2048];
  vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back(LogLine{priority & 7, buffer});
}

}  // namespace

std::vector<LogLine> CapturedLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_lines;
}

void ClearLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
}

int LoggedCount(int priority, const std::string& piece) {
  int count = 0;
  for (const LogLine& line : CapturedLog())
    count += line.priority == priority && line.text.find(piece) != std::string::npos;
  return count;
}

bool Logged(int priority, const std::string& text) {
  for (const LogLine& line : CapturedLog())
    if (line.priority == priority && line.text == text) return true;
  return false;
}

bool LoggedPrefix(int priority, const std::string& prefix) {
  for (const LogLine& line : CapturedLog())
    if (line.priority == priority && line.text.compare(0, prefix.size(), prefix) == 0) return true;
  return false;
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
