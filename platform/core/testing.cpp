// Fault injection points for tests.
#include "tavo/testing.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "tavo/error.h"

namespace tavo {
namespace testing {
namespace {

struct Fault {
  int code;
  int remaining;
};

std::mutex g_mu;
std::map<std::string, Fault>* g_faults = nullptr;  // guarded by g_mu; null while none armed
std::atomic<bool> g_armed{false};                  // fast path: nothing armed

}  // namespace

void FailNext(const char* point, int code, int count) {
  if (!point || count <= 0) return;
  std::lock_guard<std::mutex> lock(g_mu);
  if (!g_faults) g_faults = new std::map<std::string, Fault>();
  (*g_faults)[point] = Fault{code, count};
  g_armed = true;
}

void ClearFaults() {
  std::lock_guard<std::mutex> lock(g_mu);
  delete g_faults;
  g_faults = nullptr;
  g_armed = false;
}

bool FaultFires(const char* point, const char* file, int line) {
  if (!g_armed.load(std::memory_order_relaxed)) return false;
  std::lock_guard<std::mutex> lock(g_mu);
  if (!g_faults) return false;
  auto it = g_faults->find(point);
  if (it == g_faults->end()) return false;
  TLIBCErrSet(it->second.code, file, line);
  if (--it->second.remaining <= 0) g_faults->erase(it);
  return true;
}

}  // namespace testing
}  // namespace tavo
