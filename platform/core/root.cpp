// Resolution of absolute platform paths inside the root folder.
#include "tavo/root.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace tavo {
namespace {

std::mutex g_mu;
std::shared_ptr<const std::string> g_root;  // guarded by g_mu; null: not set yet
std::atomic<unsigned long long> g_generation{0};

std::string Normalise(std::string dir) {
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  if (dir == "/") dir.clear();
  return dir;
}

std::shared_ptr<const std::string> Current() {
  std::lock_guard<std::mutex> lock(g_mu);
  if (!g_root) {
    const char* env = std::getenv("TAVO_ROOT");
    std::string dir = (env && env[0] == '/') ? env : "/";
    g_root = std::make_shared<const std::string>(Normalise(dir));
  }
  return g_root;
}

}  // namespace

bool TavoRootSet(const std::string& dir) {
  if (dir.empty() || dir[0] != '/') return false;
  auto root = std::make_shared<const std::string>(Normalise(dir));
  std::lock_guard<std::mutex> lock(g_mu);
  g_root = std::move(root);
  g_generation.fetch_add(1);
  return true;
}

unsigned long long TavoRootGeneration() { return g_generation.load(); }

std::string TavoRootGet() { return *Current(); }

std::string TavoRootPath(const std::string& abs_path) {
  if (abs_path.empty() || abs_path[0] != '/') return abs_path;
  return *Current() + abs_path;
}

}  // namespace tavo
